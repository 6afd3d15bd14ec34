// What the actuator drivers put in their trace: every text, with the chip
// name that goes first, its level, the numbers that follow and the operation
// and condition that reach it. A trace reader matches these; a row fails
// when no event has exactly its chip, text, format, level and numbers.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

constexpr NTSTATUS kWaitFailed = STATUS_TIMEOUT;  // a success code, but not the lock

struct Row {
    std::string chip;    // the device's chip, the event's first text
    std::string text;    // the marker text
    std::string format;  // what the event's format adds to the two texts
    uint32_t level;
    std::vector<uint32_t> numbers;
    std::string reach;
    std::function<void()> run = {};
    const char* unreachable = nullptr;  // why no run can emit it
};

class TraceContractVcmTest : public VcmTest {
protected:
    // The wait on BusLock fails: the routine returns its status at once with
    // that one event, sends nothing, leaves the lock to whoever holds it and
    // the recorded position as it was.
    void without_lock(const std::function<NTSTATUS()>& run)
    {
        KeClearEvent(&ctx->BusLock);
        ctx->VcmPosition = 33;
        sys.faults().fail("KeWaitForSingleObject", kWaitFailed, 0, 0);
        EXPECT_EQ(run(), kWaitFailed);
        sys.faults().clear();
        EXPECT_EQ(sys.traces().events().size(), 1u);
        EXPECT_TRUE(timeline().empty());
        EXPECT_FALSE(lock_free());
        EXPECT_EQ(ctx->VcmPosition, 33);
    }
    void fail_next(bench::BusMatch match, bench::BusFault fault) { sys.bus().fail_when(match, fault); }

    // SetConfig with `pairs` pairs, Data 0x40 + i, the Reg of pair `wrong`
    // 0x1234 and the others the table's: the registers never change, the
    // data only when the input is taken.
    void set_config(ULONG type, size_t pairs, size_t wrong, bool taken)
    {
        auto [table, count] = settings()[type - 1];
        std::vector<VCM_REG_DATA> before(table, table + count);
        std::vector<ULONG> config = {ULONG(pairs)};
        for (size_t i = 0; i < pairs; i++) {
            config.insert(config.end(), {i == wrong ? 0x1234 : i < count ? before[i].Reg : 0, ULONG(0x40 + i)});
        }
        EXPECT_EQ(platform::actuator_table()[type].SetConfig(ctx, config.data()), STATUS_SUCCESS);
        for (size_t i = 0; i < count; i++) {
            EXPECT_EQ(table[i].Reg, before[i].Reg) << "registers never change";
            EXPECT_EQ(table[i].Data, taken ? 0x40 + i : before[i].Data) << i;
        }
        std::copy(before.begin(), before.end(), table);
    }

    // Each chip's routines: rows generated from the chip list.
    std::vector<Row> chip_rows()
    {
        const struct {
            const char* name;
            size_t verified;  // leading pairs whose Reg SetConfig checks
        } chips[] = {{"AD5823", 6}, {"DW9714", 4}, {"AD5816", 6}, {"DW9719", 6},
                     {"DW9718", 6}, {"DW9806B", 5}, {"WV517S", 5}, {"LC898122XA", 38}};
        const std::string lock = " KeWaitForSingleObject fail";
        const char* timed = "the row's status routine is the settle-time one: no lock, no bus, no event";
        const std::vector<uint32_t> none, wait = {uint32_t(kWaitFailed)}, moved = {300, 0};
        std::vector<Row> rows;
        for (ULONG i = 1; i < VCM_TYPE_COUNT; i++) {
            const VCM_DRIVER* r = &platform::actuator_table()[i];
            std::string n = chips[i - 1].name;
            size_t v = chips[i - 1].verified, count = settings()[i - 1].second;
            uint32_t last = settings()[i - 1].first[v - 1].Reg;
            bool id_at_exit = n == "LC898122XA";  // the identification byte goes into the exit event
            std::vector<uint32_t> id = id_at_exit ? std::vector<uint32_t>{0x42} : none;
            const char* no_status = VcmDrivers[i].GetStatus != VcmTimedGetStatus ? nullptr : timed;
            const char* no_settled = VcmDrivers[i].GetHPStatus != VcmTimedGetHPStatus ? nullptr : timed;
            auto init = [r, this] { r->Init(ctx); };
            auto reset = [r, this] { r->ResetPos(ctx); };
            auto config = [=, this](size_t pairs, size_t wrong, bool taken) {
                return [=, this] { set_config(i, pairs, wrong, taken); };
            };
            auto move = [r, this] { return r->SetPos(ctx, 300); };
            auto status = [=, this](VCM_GET_STATUS* get) { return [=, this] { ULONG f; move(); get(ctx, &f); }; };
            rows.insert(rows.end(), {
                {n, n + "_Init +", "", TRACE_INFO, none, "Init", init},
                {n, n + "_Init -", id_at_exit ? " 0x%02x" : "", TRACE_INFO, id, "Init", init},
                {n, n + "_ResetPos +", "", TRACE_INFO, none, "ResetPos from 0", reset},
                {n, n + "_ResetPos -", "", TRACE_INFO, none, "ResetPos from 0", reset},
                {n, n + "_SetConfig +", "", TRACE_INFO, none, "SetConfig taken", config(count, v, true)},
                {n, n + "_SetConfig -", "", TRACE_INFO, none, "SetConfig without an array: invalid parameter",
                 [=, this] { EXPECT_EQ(r->SetConfig(ctx, nullptr), STATUS_INVALID_PARAMETER); }},
                {n, "reg - data", " 0x%x 0x%x", TRACE_INFO, {last, uint32_t(0x40 + v - 1)},
                 "SetConfig, any Reg past the verified ones wrong: taken", config(count, v, true)},
                {n, "incorrect reg - data", " 0x%x 0x%x", TRACE_INFO, {0x1234, uint32_t(0x40 + v - 1)},
                 "SetConfig, the last verified Reg wrong: refused", config(count, v - 1, false)},
                {n, "incorrect count", " %u", TRACE_INFO, {uint32_t(count + 1)}, "SetConfig with a pair more: refused",
                 config(count + 1, 99, false)},
                {n, "incorrect count", " %u", TRACE_INFO, {uint32_t(count - 1)}, "SetConfig with a pair fewer: refused",
                 config(count - 1, 99, false)},
                {n, n + "_SetPos", " %d %!STATUS!", TRACE_INFO, moved, "SetPos(300)", move},
                {n, n + "_SetPos" + lock, " %!STATUS!", TRACE_INFO, wait, "SetPos, the wait fails",
                 [=, this] { without_lock(move); }},
                {n, n + "_GetPos", " %u %!STATUS!", TRACE_INFO, moved, "GetPos after SetPos(300)",
                 [=, this] { USHORT p; move(); r->GetPos(ctx, &p); }},
                {n, n + "_GetPos" + lock, " %!STATUS!", TRACE_INFO, wait, "GetPos, the wait fails",
                 [=, this] { USHORT p = 7; without_lock([&] { return r->GetPos(ctx, &p); }); EXPECT_EQ(p, 7); }},
                {n, n + "_GetStatus", " %u %!STATUS!", TRACE_INFO, {1, 0}, "GetStatus right after SetPos(300)",
                 status(r->GetStatus), no_status},
                {n, n + "_GetStatus" + lock, " %!STATUS!", TRACE_INFO, wait, "GetStatus, the wait fails",
                 [=, this] { ULONG f = 7; without_lock([&] { return r->GetStatus(ctx, &f); }); EXPECT_EQ(f, 7u); },
                 no_status},
                {n, n + "_GetHPStatus", " %u %!STATUS!", TRACE_INFO, {0, 0}, "GetHPStatus right after SetPos(300)",
                 status(r->GetHPStatus), no_settled},
            });
        }
        return rows;
    }
};

TEST_F(TraceContractVcmTest, EveryTextWithItsLevelAndNumbers)
{
    using bench::BusFault;
    using bench::Direction;
    const uint32_t nack = uint32_t(models::kNack), timeout = uint32_t(STATUS_IO_TIMEOUT);
    const char *data = " reg 0x%x data 0x%x", *value = " reg 0x%x value 0x%02x", *failed = " failed %!STATUS!";
    UCHAR byte = 0x77;
    USHORT word = 0;
    ULONG flag = 0;
    auto none_vcm = [&] { select("DW9714"); ctx->VcmType = 0; DW9714_SetPos(ctx, 5); };
    auto dw9718_nack = [&] { fail_next({.prefix = {0x02}}, BusFault::nack()); DW9718_SetPos(ctx, 300); };
    auto module_init = [&](const char* module, USHORT low) {
        return [=, this] { set_module(module); ctx->VcmLowPosition = low; DW9806B_Init(ctx); };
    };
    std::vector<Row> rows = chip_rows();
    rows.insert(rows.end(), {
        // The chip name is the device's, whichever routine runs.
        {"NoneVCM", "DW9714_SetPos", " %d %!STATUS!", TRACE_INFO, {5, 0}, "DW9714_SetPos(5), VcmType 0", none_vcm},
        {"NoneVCM", "VcmWriteWord", data, TRACE_INFO, {0x00, 0x50}, "DW9714_SetPos(5), VcmType 0", none_vcm},

        // Register access: a read ends with the register and what the
        // caller's byte holds; a write that went out is traced whatever its
        // outcome; a failed request is an error with its status.
        {"DW9719", "VcmReadReg8", value, TRACE_INFO, {0x00, 0xF1}, "Init's identification read",
         [&] { DW9719_Init(ctx); }},
        {"AD5823", "VcmReadReg8", value, TRACE_INFO, {0x04, 0x77}, "no connection slot 1: the byte as it was",
         [&] { ctx->I2cConnections[I2C_SLOT_VCM].Present = 0; VcmReadReg8(ctx, 4, &byte); }},
        {"AD5823", "VcmReadReg8", failed, TRACE_ERROR, {nack}, "SetPos, the high register's address not acknowledged",
         [&] { fail_next({.prefix = {0x04}}, BusFault::nack()); AD5823_SetPos(ctx, 300); }},
        {"LC898122XA", "VcmReadReg16", value, TRACE_INFO, {0x27E, 0x42}, "Init's identification read",
         [&] { LC898122XA_Init(ctx); }},
        {"LC898122XA", "VcmReadReg16", failed, TRACE_ERROR, {timeout}, "GetStatus, the data phase times out",
         [&] { fail_next({.direction = Direction::Read}, BusFault::timeout()); LC898122XA_GetStatus(ctx, &flag); }},
        {"DW9714", "VcmReadWord", " value 0x%03x", TRACE_INFO, {0x12C}, "GetPos after SetPos(300)",
         [&] { DW9714_SetPos(ctx, 300); DW9714_GetPos(ctx, &word); }},
        {"DW9714", "VcmReadWord", failed, TRACE_ERROR, {nack}, "GetPos, the read not acknowledged",
         [&] { fail_next({.direction = Direction::Read}, BusFault::nack()); DW9714_GetPos(ctx, &word); }},
        // DW9806B reads its argument signed: below the range, code 1.
        {"DW9806B", "VcmWriteReg8", data, TRACE_INFO, {0x04, 0x01}, "SetPos(-5)", [&] { DW9806B_SetPos(ctx, -5); }},
        {"DW9806B", "VcmWriteReg8", " pause %u ms", TRACE_INFO, {1}, "Init: the settings entry of register 0xFF",
         [&] { DW9806B_Init(ctx); }},
        {"DW9718", "VcmWriteReg8", data, TRACE_INFO, {0x02, 0x01}, "SetPos(300), high write refused", dw9718_nack},
        {"DW9718", "VcmWriteReg8", failed, TRACE_ERROR, {nack}, "SetPos(300), high write refused", dw9718_nack},
        {"LC898122XA", "VcmWriteReg16", data, TRACE_INFO, {0x381, 0x80}, "SetPos(1500)",
         [&] { LC898122XA_SetPos(ctx, 1500); }},
        {"LC898122XA", "VcmWriteReg16", failed, TRACE_ERROR, {nack}, "SetPos, the first write not acknowledged",
         [&] { fail_next({.direction = Direction::Write}, BusFault::nack()); LC898122XA_SetPos(ctx, 1500); }},
        {"DW9714", "VcmWriteWord", data, TRACE_INFO, {0x00, 0x10}, "SetPos(0): code 1", [&] { DW9714_SetPos(ctx, 0); }},
        {"DW9714", "VcmWriteWord", failed, TRACE_ERROR, {timeout}, "Init, the first command word times out",
         [&] { fail_next({.direction = Direction::Write}, BusFault::timeout()); DW9714_Init(ctx); }},

        // Identification.
        {"AD5816", "IC Version:", " 0x%02x", TRACE_INFO, {0x02}, "Init reads register 1", [&] { AD5816_Init(ctx); }},
        {"DW9719", "IC Info:", " 0x%02x", TRACE_INFO, {0xF1}, "Init reads register 0", [&] { DW9719_Init(ctx); }},
        {"DW9806B", "IC Info:", " 0x%02x", TRACE_INFO, {0xD1}, "Init reads register 0", [&] { DW9806B_Init(ctx); }},

        // DW9806B's warm start, in the two modules that walk the lens.
        {"DW9806B", "DW9806B_WarmStart +", "", TRACE_INFO, {}, "Init, START2REAR", module_init("START2REAR", 500)},
        {"DW9806B", "DW9806B_WarmStart -", "", TRACE_INFO, {}, "Init, CM500RF05SW700",
         module_init("CM500RF05SW700", 500)},
    });

    for (auto& row : rows) {
        SCOPED_TRACE(row.chip + " \"" + row.text + "\": " + row.reach);
        if (row.unreachable) {
            continue;
        }
        ctx->VcmLowPosition = 0;
        ctx->VcmHighPosition = 1023;
        if (models::find_actuator_chip(row.chip)) {
            select(row.chip);
        }
        set_module("HAPS");
        ctx->VcmPosition = 0;
        byte = 0x77;
        sys.bus().clear_faults();
        clear();
        row.run();
        if (!lock_free()) {
            KeSetEvent(&ctx->BusLock, 0, FALSE);
        }
        bool found = false;
        std::vector<std::string> seen;
        for (auto& e : sys.traces().events()) {
            auto* f = sys.traces().format(e);
            found |= bench::Traces::text(e, 1) == row.chip && bench::Traces::text(e, 2) == row.text &&
                     f->text == "%s %s" + row.format && f->flag == row.level && numbers(e) == row.numbers;
            seen.push_back((f->flag == TRACE_ERROR ? "error " : "info ") + sys.traces().decode(e));
        }
        EXPECT_TRUE(found) << "no such event among " << testing::PrintToString(seen);
    }
}

}  // namespace
}  // namespace korvanel::test
