// The actuator table and the rules every chip follows: the rows, SetConfig
// checks on the shared settings tables, the bus lock when its wait fails,
// and the chip name every event carries.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class VcmTableTest : public VcmTest {};

TEST_F(VcmTableTest, RowsAreIndexedByActuatorNumber)
{
    const struct {
        const char* name;
        ULONGLONG home;
        bool timed_status;     // GetStatus from the settle time, not from the chip
        bool timed_hp_status;  // the shared GetHPStatus, which does not trace
    } rows[] = {
        {"NoneVCM", 0, false, false}, {"AD5823", 1, true, false},        {"DW9714", 1, true, true},
        {"AD5816", 1, true, false},   {"DW9719", 1, false, false},       {"DW9718", 1, true, true},
        {"DW9806B", 1, false, false}, {"WV517S", 1, true, true},         {"LC898122XA", 1024, false, true},
    };
    ASSERT_EQ(RTL_NUMBER_OF(rows), size_t(VCM_TYPE_COUNT));
    for (ULONG i = 0; i < VCM_TYPE_COUNT; i++) {
        const VCM_DRIVER& r = VcmDrivers[i];
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(r.Id, i);
        EXPECT_STREQ(r.Name, rows[i].name);
        EXPECT_EQ(r.HomePosition, rows[i].home);
        if (i == 0) {
            EXPECT_TRUE(!r.Init && !r.ResetPos && !r.SetPos && !r.GetPos && !r.GetStatus && !r.GetHPStatus &&
                        !r.SetConfig);
            continue;
        }
        EXPECT_TRUE(r.Init && r.ResetPos && r.SetPos && r.GetPos && r.GetStatus && r.GetHPStatus && r.SetConfig);
        EXPECT_EQ(r.GetStatus == VcmTimedGetStatus, rows[i].timed_status);
        EXPECT_EQ(r.GetHPStatus == VcmTimedGetHPStatus, rows[i].timed_hp_status);
        EXPECT_EQ(sim::actuator_chip(rows[i].name).vcm_type, i) << "the model for the row";
    }
}

TEST_F(VcmTableTest, SetConfigAcceptsOnlyTheChipsCountAndRegisters)
{
    select("DW9806B");
    auto table = [](const std::vector<ULONG>& pairs) {
        std::vector<ULONG> config = {ULONG(pairs.size() / 2)};
        config.insert(config.end(), pairs.begin(), pairs.end());
        return config;
    };
    const struct {
        const char* what;
        int row;
        std::vector<ULONG> config;
        bool applied;
        size_t checked;      // "reg - data" events
        const char* reject;  // "incorrect count" or "incorrect reg - data"
    } cases[] = {
        {"DW9806B, its last Reg is not compared", VCM_TYPE_DW9806B,
         table({2, 0x11, 2, 0x12, 0xFF, 5, 2, 0x13, 6, 0x14, 0x99, 0x15}), true, 5, nullptr},
        {"DW9806B, one pair too many", VCM_TYPE_DW9806B,
         table({2, 1, 2, 0, 0xFF, 1, 2, 2, 6, 0x61, 7, 0x3D, 8, 0}), false, 0, "incorrect count"},
        {"AD5823, second Reg 4 instead of 3", VCM_TYPE_AD5823, table({2, 1, 4, 0x60, 4, 4, 5, 0, 6, 0, 7, 0xA0}),
         false, 2, "incorrect reg - data"},
        {"AD5823, all six", VCM_TYPE_AD5823, table({2, 0x21, 3, 0x22, 4, 0x23, 5, 0x24, 6, 0x25, 7, 0x26}), true, 6,
         nullptr},
        {"DW9714, entry 4's Reg is free", VCM_TYPE_DW9714,
         table({0xEC, 0xA3, 0xA1, 0x0E, 0xF2, 0xC0, 0xDC, 0x51, 0x77, 0x0F}), true, 4, nullptr},
        {"DW9718, the seventh Reg is free", VCM_TYPE_DW9718,
         table({0, 0, 1, 0x39, 2, 0, 3, 0, 4, 0, 5, 0x62, 0x55, 1}), true, 6, nullptr},
        {"DW9718, sixth Reg wrong", VCM_TYPE_DW9718, table({0, 0, 1, 0x39, 2, 0, 3, 0, 4, 0, 6, 0x62, 0x10, 1}),
         false, 6, "incorrect reg - data"},
        {"WV517S, count 0", VCM_TYPE_WV517S, {0}, false, 0, "incorrect count"},
        {"LC898122XA, 37 pairs", VCM_TYPE_LC898122XA, table(std::vector<ULONG>(37 * 2, 0x25)), false, 0,
         "incorrect count"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto& t = settings_tables()[size_t(c.row - 1)];
        std::vector<VCM_REG_DATA> before(t.table, t.table + t.count);
        const std::vector<ULONG>& config = c.config;
        clear();
        EXPECT_EQ(VcmDrivers[c.row].SetConfig(ctx, config.data()), STATUS_SUCCESS);
        for (size_t i = 0; i < t.count; i++) {
            EXPECT_EQ(t.table[i].Reg, before[i].Reg) << "registers never change";
            EXPECT_EQ(t.table[i].Data, c.applied ? config[2 + 2 * i] : before[i].Data) << i;
        }
        EXPECT_EQ(marked("reg - data").size(), c.checked);
        if (c.reject) {
            ASSERT_EQ(marked(c.reject).size(), 1u);
            EXPECT_EQ(numbers(marked(c.reject)[0]).at(0), config[c.checked ? 1 + 2 * (c.checked - 1) : 0]);
        }
        std::string name = VcmDrivers[c.row].Name;
        EXPECT_EQ(marked(name + "_SetConfig +").size(), 1u);
        EXPECT_EQ(marked(name + "_SetConfig -").size(), 1u);
        // The events name the device's chip, whichever routine ran.
        EXPECT_EQ(host::Traces::text(marked(name + "_SetConfig -")[0], 1), "DW9806B");
        std::copy(before.begin(), before.end(), t.table);
    }

    clear();
    EXPECT_EQ(DW9719_SetConfig(ctx, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(marked("DW9719_SetConfig +").size(), 1u);
    EXPECT_EQ(marked("DW9719_SetConfig -").size(), 1u);
    ULONG config[] = {0};
    EXPECT_EQ(DW9719_SetConfig(nullptr, config), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(timeline().empty());
}

TEST_F(VcmTableTest, SetConfigOnOneDeviceChangesWhatInitProgramsOnAnother)
{
    PDEVICE_CONTEXT other = add();
    select("DW9718", ctx, 0x10);
    select("DW9718", other, 0x11);
    ULONG config[] = {7, 0, 0x01, 1, 0x3A, 2, 0, 3, 0, 4, 0, 5, 0x65, 0x10, 0x02};
    ASSERT_EQ(DW9718_SetConfig(ctx, config), STATUS_SUCCESS);

    clear();
    ASSERT_EQ(VcmDrivers[VCM_TYPE_DW9718].Init(other), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (std::vector<std::string>{W({0x00, 0x01}), W({0x01, 0x3A}), W({0x02, 0x00}),
                                                    W({0x03, 0x00}), W({0x04, 0x00}), W({0x05, 0x65}),
                                                    W({0x10, 0x02})}));
    for (auto& t : sys.bus().transcript()) {
        EXPECT_EQ(t.connection, 0x11u);
    }
    EXPECT_EQ(part->peek(0x05), 0x65);
}

TEST_F(VcmTableTest, AFailedLockWaitEndsTheOperationWithoutTouchingTheBusOrTheLock)
{
    const struct {
        const char* chip;
        bool reads_status;  // GetStatus asks the chip, under the lock
    } chips[] = {{"AD5823", false}, {"DW9714", false}, {"AD5816", false},  {"DW9719", true},
                 {"DW9718", false}, {"DW9806B", true}, {"WV517S", false}, {"LC898122XA", true}};
    // A failure, and a success code that is not STATUS_SUCCESS: neither is the lock.
    for (NTSTATUS wait : {STATUS_UNSUCCESSFUL, STATUS_TIMEOUT}) {
        for (auto& c : chips) {
            SCOPED_TRACE(std::string(c.chip) + " " + host::status_name(wait));
            select(c.chip);
            ctx->VcmPosition = 33;
            // Someone else holds the lock: whoever failed to get it must not release it.
            KeClearEvent(&ctx->BusLock);
            clear();
            std::string name = c.chip;
            USHORT position = 0x1234;
            ULONG status = 0x5678;
            std::vector<std::pair<std::string, NTSTATUS>> calls;
            sys.faults().fail("KeWaitForSingleObject", wait);
            calls.emplace_back(name + "_SetPos", row().SetPos(ctx, 100));
            sys.faults().fail("KeWaitForSingleObject", wait);
            calls.emplace_back(name + "_GetPos", row().GetPos(ctx, &position));
            if (c.reads_status) {
                sys.faults().fail("KeWaitForSingleObject", wait);
                calls.emplace_back(name + "_GetStatus", row().GetStatus(ctx, &status));
            }
            for (auto& [routine, result] : calls) {
                EXPECT_EQ(result, wait) << routine;
                auto events = marked(routine + " KeWaitForSingleObject fail");
                ASSERT_EQ(events.size(), 1u) << routine;
                EXPECT_EQ(numbers(events[0]), std::vector<uint32_t>{uint32_t(wait)});
                EXPECT_EQ(host::Traces::text(events[0], 1), name);
                EXPECT_EQ(marked(routine).size(), 0u) << "no exit event";
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

TEST_F(VcmTableTest, EventsNameTheSelectedRowAndNoneOutsideTheTable)
{
    select("DW9714");
    // A DW9714 routine on a device without an actuator traces "NoneVCM".
    ctx->VcmType = 0;
    ASSERT_EQ(DW9714_SetPos(ctx, 5), STATUS_SUCCESS);
    auto events = marked("DW9714_SetPos");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(host::Traces::text(events[0], 1), "NoneVCM");
    EXPECT_EQ(host::Traces::text(marked("VcmWriteWord").at(0), 1), "NoneVCM");

    // Outside 0..8: no event at all, and the primitives touch nothing.
    clear();
    ctx->VcmType = 9;
    ULONG config[] = {5, 0xEC, 0xA3, 0xA1, 0x0D, 0xF2, 0xC0, 0xDC, 0x51, 0, 0};
    USHORT position = 0;
    EXPECT_EQ(DW9714_Init(ctx), STATUS_SUCCESS);
    EXPECT_EQ(DW9714_SetPos(ctx, 300), STATUS_SUCCESS);
    EXPECT_EQ(DW9714_GetPos(ctx, &position), STATUS_SUCCESS);
    EXPECT_EQ(DW9714_ResetPos(ctx), STATUS_SUCCESS);
    EXPECT_EQ(DW9714_SetConfig(ctx, config), STATUS_SUCCESS);
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_TRUE(sys.bus().transcript().empty());
    EXPECT_TRUE(lock_free());
}

TEST_F(VcmTableTest, NullPointersAreRefusedBeforeAnything)
{
    select("LC898122XA");
    for (ULONG i = 1; i < VCM_TYPE_COUNT; i++) {
        const VCM_DRIVER& r = VcmDrivers[i];
        SCOPED_TRACE(r.Name);
        ULONG config[] = {0};
        USHORT position = 0;
        ULONG flag = 0;
        EXPECT_EQ(r.Init(nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.ResetPos(nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.SetPos(nullptr, 1), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetPos(nullptr, &position), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetPos(ctx, nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetStatus(nullptr, &flag), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetStatus(ctx, nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetHPStatus(nullptr, &flag), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.GetHPStatus(ctx, nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(r.SetConfig(nullptr, config), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(DW9806B_WarmStart(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(timeline().empty());
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_TRUE(lock_free());
}

}  // namespace
}  // namespace korvanel::test
