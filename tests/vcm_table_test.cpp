// The rules every chip follows: SetConfig checks on the shared settings
// tables, the bus lock when its wait fails, null pointers, and the chip name
// every event carries.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class VcmTableTest : public VcmTest {};

// A SetConfig array: the count, then the pairs.
std::vector<ULONG> config(std::vector<ULONG> pairs)
{
    pairs.insert(pairs.begin(), ULONG(pairs.size() / 2));
    return pairs;
}

// Each chip's count and the number of leading pairs whose Reg it verifies:
// a wrong Reg in the last verified pair is refused, in the first pair past
// them it is taken; one pair more or fewer is refused by count.
TEST_F(VcmTableTest, SetConfigAcceptsOnlyTheChipsCountAndRegisters)
{
    select("DW9806B");
    const struct {
        int row;
        size_t count, verified;
    } chips[] = {{VCM_TYPE_AD5823, 6, 6}, {VCM_TYPE_DW9714, 5, 4},  {VCM_TYPE_AD5816, 6, 6},
                 {VCM_TYPE_DW9719, 6, 6}, {VCM_TYPE_DW9718, 7, 6},  {VCM_TYPE_DW9806B, 6, 5},
                 {VCM_TYPE_WV517S, 6, 5}, {VCM_TYPE_LC898122XA, 38, 38}};
    for (const auto& chip : chips) {
        auto [table, count] = settings()[size_t(chip.row - 1)];
        std::vector<VCM_REG_DATA> before(table, table + count);
        const struct {
            size_t pairs;
            size_t wrong;        // the pair whose Reg is changed; none past the pairs
            const char* reject;  // none: applied
        } cases[] = {
            {chip.count, chip.verified - 1, "incorrect reg - data"},
            {chip.count, chip.verified, nullptr},
            {chip.count + 1, 99, "incorrect count"},
            {chip.count - 1, 99, "incorrect count"},
        };
        for (const auto& c : cases) {
            std::string name = platform::actuator_table()[chip.row].Name;
            SCOPED_TRACE(testing::Message() << name << ", " << c.pairs << " pairs, pair " << c.wrong << " wrong");
            std::copy(before.begin(), before.end(), table);
            std::vector<ULONG> config = {ULONG(c.pairs)};
            for (size_t i = 0; i < c.pairs; i++) {
                config.push_back(i == c.wrong ? 0x1234 : i < count ? before[i].Reg : 0);
                config.push_back(ULONG(0x40 + i));
            }
            clear();
            EXPECT_EQ(platform::actuator_table()[chip.row].SetConfig(ctx, config.data()), STATUS_SUCCESS);
            for (size_t i = 0; i < count; i++) {
                EXPECT_EQ(table[i].Reg, before[i].Reg) << "registers never change";
                EXPECT_EQ(table[i].Data, c.reject ? before[i].Data : 0x40 + i) << i;
            }
            EXPECT_EQ(marked("reg - data").size(), c.reject && c.pairs != chip.count ? 0 : chip.verified);
            if (c.reject) {
                ASSERT_EQ(marked(c.reject).size(), 1u);
                EXPECT_EQ(numbers(marked(c.reject)[0])[0], c.pairs == chip.count ? 0x1234 : c.pairs);
            }
            EXPECT_EQ(marked(name + "_SetConfig +").size(), 1u);
            ASSERT_EQ(marked(name + "_SetConfig -").size(), 1u);
            // The events name the device's chip, whichever routine ran.
            EXPECT_EQ(host::Traces::text(marked(name + "_SetConfig -")[0], 1), "DW9806B");
        }
        std::copy(before.begin(), before.end(), table);
    }

    clear();
    EXPECT_EQ(DW9719_SetConfig(ctx, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(marked("DW9719_SetConfig -").size(), 1u);
}

TEST_F(VcmTableTest, SetConfigOnOneDeviceChangesWhatInitProgramsOnAnother)
{
    PDEVICE_CONTEXT other = add();
    select("DW9718", ctx, 0x10);
    select("DW9718", other, 0x11);
    ASSERT_EQ(DW9718_SetConfig(ctx, config({0, 0x01, 1, 0x3A, 2, 0, 3, 0, 4, 0, 5, 0x65, 0x10, 0x02}).data()),
              STATUS_SUCCESS);
    clear();
    ASSERT_EQ(DW9718_Init(other), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (Wire{W({0x00, 0x01}), W({0x01, 0x3A}), W({0x02, 0}), W({0x03, 0}), W({0x04, 0}),
                                W({0x05, 0x65}), W({0x10, 0x02})}));
    EXPECT_EQ(sys.bus().transcript().at(0).connection, 0x11u);
}

TEST_F(VcmTableTest, AFailedLockWaitEndsTheOperationWithoutTouchingTheBusOrTheLock)
{
    // A failure, and a success code that is not STATUS_SUCCESS: neither is the lock.
    for (NTSTATUS wait : {STATUS_UNSUCCESSFUL, STATUS_TIMEOUT}) {
        for (auto& chip : sim::actuator_chips()) {
            SCOPED_TRACE(chip.name + " " + host::status_name(wait));
            select(chip.name);
            ctx->VcmPosition = 33;
            KeClearEvent(&ctx->BusLock);  // whoever failed to get the lock must not release it
            clear();
            USHORT position = 0x1234;
            ULONG status = 0x5678;
            sys.faults().fail("KeWaitForSingleObject", wait, 0, 0);
            std::vector<std::pair<std::string, NTSTATUS>> calls = {{"_SetPos", row().SetPos(ctx, 100)},
                                                                   {"_GetPos", row().GetPos(ctx, &position)}};
            if (chip.busy_reg) {  // GetStatus asks the chip, under the lock
                calls.emplace_back("_GetStatus", row().GetStatus(ctx, &status));
            }
            sys.faults().clear();
            for (auto& [routine, result] : calls) {
                EXPECT_EQ(result, wait) << routine;
                auto events = marked(chip.name + routine + " KeWaitForSingleObject fail");
                ASSERT_EQ(events.size(), 1u) << routine;
                EXPECT_EQ(numbers(events[0]), std::vector<uint32_t>{uint32_t(wait)});
                EXPECT_TRUE(marked(chip.name + routine).empty()) << "no exit event";
            }
            EXPECT_TRUE(timeline().empty());
            EXPECT_FALSE(lock_free());
            EXPECT_EQ(ctx->VcmPosition, 33);
            EXPECT_EQ(position, 0x1234);
            EXPECT_EQ(status, 0x5678u);
            KeSetEvent(&ctx->BusLock, 0, FALSE);
        }
    }
}

TEST_F(VcmTableTest, NullPointersAndTheChipNameOfEvents)
{
    select("DW9714");
    for (ULONG i = 1; i < VCM_TYPE_COUNT; i++) {
        const VCM_DRIVER& r = platform::actuator_table()[i];
        SCOPED_TRACE(r.Name);
        ULONG flag = 0, empty[] = {0};
        USHORT position = 0;
        for (NTSTATUS status : {r.Init(nullptr), r.ResetPos(nullptr), r.SetPos(nullptr, 1), r.SetConfig(nullptr, empty),
                                r.GetPos(nullptr, &position), r.GetPos(ctx, nullptr), r.GetStatus(nullptr, &flag),
                                r.GetStatus(ctx, nullptr), r.GetHPStatus(nullptr, &flag), r.GetHPStatus(ctx, nullptr)}) {
            EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
        }
    }
    EXPECT_EQ(DW9806B_WarmStart(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(timeline().empty());
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_TRUE(lock_free());

    // A DW9714 routine on a device without an actuator traces "NoneVCM".
    ctx->VcmType = 0;
    ASSERT_EQ(DW9714_SetPos(ctx, 5), STATUS_SUCCESS);
    EXPECT_EQ(host::Traces::text(marked("DW9714_SetPos").at(0), 1), "NoneVCM");
    EXPECT_EQ(host::Traces::text(marked("VcmWriteWord").at(0), 1), "NoneVCM");
}

}  // namespace
}  // namespace korvanel::test
