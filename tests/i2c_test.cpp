// I2C connection slots: opened through the resource hub on first use, kept
// open, closed and deleted; absent, out-of-range and failing slots.
#include "driver_fixture.h"

#include "bus/i2c.h"
#include "bench/spb_controller.h"
#include "models/scripted.h"

#include <cstring>

namespace korvanel::test {
namespace {

using bench::TargetRecord;

class I2cTest : public DriverTest {
protected:
    PDEVICE_CONTEXT ctx = nullptr;

    void SetUp() override
    {
        DriverTest::SetUp();
        ctx = add();
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }

    // What a provider of connections would do, and the part on the bus.
    void provide(ULONG slot, uint64_t id, bool attach = true)
    {
        ctx->I2cConnections[slot].ConnectionId = id;
        ctx->I2cConnections[slot].Present = 1;
        if (attach) {
            sys.bus().attach(id, std::make_shared<models::ScriptedPeripheral>());
        }
    }

    // The 32-bit arguments of the events with this text, after the component name.
    std::vector<uint32_t> numbers(const char* text)
    {
        std::vector<uint32_t> out;
        for (auto& e : sys.traces().find(text)) {
            for (size_t i = 1; i < e.args.size(); i++) {
                uint32_t v = 0;
                std::memcpy(&v, e.args[i].data(), std::min(e.args[i].size(), sizeof(v)));
                out.push_back(v);
            }
        }
        return out;
    }
};

TEST_F(I2cTest, AbsentAndOutOfRangeSlotsChangeNothing)
{
    I2C_CONNECTION before[I2C_CONNECTION_COUNT];
    std::memcpy(before, ctx->I2cConnections, sizeof(before));
    std::vector<uint32_t> absent;
    for (ULONG slot = 0; slot < I2C_CONNECTION_COUNT; slot++) {
        EXPECT_EQ(InitI2c(ctx, slot), STATUS_NOT_SUPPORTED) << slot;
        EXPECT_EQ(OpenI2cTarget(ctx, slot, ctx->Device), STATUS_SUCCESS) << slot;
        EXPECT_EQ(CloseI2cTarget(ctx, slot), STATUS_SUCCESS) << slot;
        DeinitI2c(ctx, slot);
        absent.push_back(slot);
    }
    EXPECT_EQ(numbers("InitI2c: no connection in slot %u"), absent);

    provide(1, 42);
    std::memcpy(before, ctx->I2cConnections, sizeof(before));
    for (ULONG slot : {14u, 255u, 0xFFFFFFFFu}) {
        EXPECT_EQ(InitI2c(ctx, slot), STATUS_INVALID_PARAMETER) << slot;
        EXPECT_EQ(OpenI2cTarget(ctx, slot, ctx->Device), STATUS_INVALID_PARAMETER) << slot;
        EXPECT_EQ(CloseI2cTarget(ctx, slot), STATUS_INVALID_PARAMETER) << slot;
        DeinitI2c(ctx, slot);
    }
    EXPECT_EQ(InitI2c(nullptr, 1), STATUS_INVALID_PARAMETER);
    DeinitI2c(nullptr, 1);
    EXPECT_EQ(std::memcmp(before, ctx->I2cConnections, sizeof(before)), 0);
    EXPECT_TRUE(sys.bus().targets().empty());
}

TEST_F(I2cTest, OpensTheResourceHubPathOfTheConnectionId)
{
    provide(1, 42);
    provide(13, 0xFEDCBA9876543210ull);
    ctx->I2cConnections[1].InfoB = 7;
    ctx->I2cConnections[1].InfoA = 3;
    ASSERT_EQ(InitI2c(ctx, 1), STATUS_SUCCESS);
    ASSERT_EQ(InitI2c(ctx, 13), STATUS_SUCCESS);
    EXPECT_EQ(ctx->I2cConnections[1].Opened, 1);

    auto targets = sys.bus().targets();
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[0].handle, ctx->I2cConnections[1].Target);
    EXPECT_EQ(targets[0].opens.at(0).name, u"\\DosDevices\\RESOURCE_HUB\\000000000000002a");
    EXPECT_EQ(targets[1].opens.at(0).name, u"\\DosDevices\\RESOURCE_HUB\\fedcba9876543210");
    EXPECT_EQ(numbers("OpenI2cTarget InfoB %u InfoA %u"), (std::vector<uint32_t>{7, 3, 0, 0}));

    // Parented to the device, inheriting the rest.
    const WDF_OBJECT_ATTRIBUTES& a = targets[0].attributes.value();
    EXPECT_EQ(a.Size, 56u);
    EXPECT_EQ(a.ParentObject, (WDFOBJECT)ctx->Device);
    EXPECT_EQ(a.ExecutionLevel, WdfExecutionLevelInheritFromParent);
    EXPECT_EQ(a.SynchronizationScope, WdfSynchronizationScopeInheritFromParent);
    EXPECT_TRUE(!a.EvtCleanupCallback && !a.EvtDestroyCallback && !a.ContextTypeInfo && !a.ContextSizeOverride);

    // Read-write open of an existing connection; every other member zero.
    // (The bench refuses an open of another size or kind.)
    WDF_IO_TARGET_OPEN_PARAMS p = targets[0].opens[0].params;
    EXPECT_EQ(p.TargetDeviceName.Length, 41 * 2);  // 25 characters of prefix, 16 digits
    EXPECT_EQ(p.DesiredAccess, 0x12019Fu);
    EXPECT_EQ(p.CreateDisposition, (ULONG)FILE_OPEN);
    EXPECT_EQ(p.CreateOptions, (ULONG)FILE_NON_DIRECTORY_FILE);
    p.TargetDeviceName = {};
    p.Size = p.DesiredAccess = p.CreateDisposition = p.CreateOptions = 0;
    p.Type = WdfIoTargetOpenUndefined;
    WDF_IO_TARGET_OPEN_PARAMS zero;
    std::memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(std::memcmp(&p, &zero, sizeof(p)), 0);
}

TEST_F(I2cTest, OpensOnceAndCloseDeletesTheTarget)
{
    provide(2, 0x51);
    DeinitI2c(ctx, 2);  // not open: nothing to do
    ASSERT_EQ(InitI2c(ctx, 2), STATUS_SUCCESS);
    WDFIOTARGET target = ctx->I2cConnections[2].Target;
    ASSERT_EQ(InitI2c(ctx, 2), STATUS_SUCCESS);
    EXPECT_EQ(ctx->I2cConnections[2].Target, target);
    EXPECT_EQ(sys.bus().targets().size(), 1u);

    DeinitI2c(ctx, 2);
    DeinitI2c(ctx, 2);
    EXPECT_EQ(ctx->I2cConnections[2].Opened, 0);
    EXPECT_EQ(ctx->I2cConnections[2].Target, nullptr);
    EXPECT_EQ(numbers("CloseI2cTarget InfoB %u InfoA %u").size(), 2u) << "closed more than once";

    // Marked open without a target: opened again, as a new target.
    ctx->I2cConnections[2].Opened = 1;
    ASSERT_EQ(InitI2c(ctx, 2), STATUS_SUCCESS);
    auto targets = sys.bus().targets();
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[0].state, TargetRecord::State::Deleted);
    EXPECT_EQ(targets[0].closes, 1u);
    EXPECT_EQ(targets[1].state, TargetRecord::State::Open);
}

TEST_F(I2cTest, AFailedOpenLeavesTheSlotUnopenedAndTheNextInitTriesAgain)
{
    const struct {
        const char* what;
        const char* routine;  // injected failure, or none
        NTSTATUS status;
        bool attached;
        bool target_left;  // a created, unopened target stays until the device goes
    } cases[] = {
        {"nothing on the connection", nullptr, STATUS_OBJECT_NAME_NOT_FOUND, false, true},
        {"open refused", "WdfIoTargetOpen", STATUS_ACCESS_DENIED, true, true},
        {"creation failed", "WdfIoTargetCreate", STATUS_INSUFFICIENT_RESOURCES, true, false},
    };
    ULONG slot = 3;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        provide(slot, slot, c.attached);
        if (c.routine) {
            sys.faults().fail(c.routine, c.status);
        }
        size_t before = sys.bus().targets().size();
        EXPECT_EQ(InitI2c(ctx, slot), c.status);
        EXPECT_EQ(ctx->I2cConnections[slot].Opened, 0);
        EXPECT_EQ(ctx->I2cConnections[slot].Target != nullptr, c.target_left);
        auto traced = numbers("InitI2c: opening slot %u failed %!STATUS!");  // slot, status
        EXPECT_EQ(traced.size() >= 2 ? traced.end()[-2] : 0, slot);

        sys.bus().attach(slot, std::make_shared<models::ScriptedPeripheral>());
        ASSERT_EQ(InitI2c(ctx, slot), STATUS_SUCCESS);
        auto targets = sys.bus().targets();
        EXPECT_EQ(targets.size(), before + (c.target_left ? 2 : 1));
        EXPECT_EQ(targets.back().state, TargetRecord::State::Open);
        slot++;
    }
}

}  // namespace
}  // namespace korvanel::test
