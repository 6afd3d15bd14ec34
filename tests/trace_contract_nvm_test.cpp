// The memory's trace contract: every text the memory code puts in its trace
// (the commands' and engines' marker texts, which go out in one event with
// NvmType and two numbers, and the load's and stubs' own events), at its
// level, with its numbers, and the call and condition that reach it. Whoever
// reads the trace matches these texts, so a changed one, or one that moved
// to another level, another condition or another memory type, fails.
#include "nvm_fixture.h"

#include "nvm/nvm_internal.h"

#include <functional>
#include <gmock/gmock.h>

namespace korvanel::test {
namespace {

// What each memory type is: the size of its part and its write page (or
// block, or page). Only types 5, 7, 8 and 10 hand theirs to their commands
// through the context; the block and paged parts' commands take theirs at
// build time and types 0 to 4 have none, so nothing at run time notices a
// changed cell. Next to the table, its rows (with their Type and
// LoadAddress, which no command reads either) are held to NvmGeometry.
constexpr NVM_GEOMETRY kTypes[NVM_TYPE_COUNT] = {
    {0, 0},      {0, 0},         {0, 0},         {0, 0},         {0, 0},          {0x4000, 0x40}, {0x800, 0x100},
    {0x80, 0x8}, {0x1000, 0x20}, {0x400, 0x100}, {0x2000, 0x20}, {0x2000, 0x400}, {0x800, 0x100},
};
static_assert([] {
    for (ULONG t = 0; t < NVM_TYPE_COUNT; t++) {
        if (NvmGeometry[t].Size != kTypes[t].Size || NvmGeometry[t].PageSize != kTypes[t].PageSize) {
            return false;
        }
    }
    return true;
}(), "a memory type's size or write page changed");

constexpr uint32_t kNo = NVM_TRACE_NO_NUMBER;
constexpr uint32_t kParam = uint32_t(STATUS_INVALID_PARAMETER);
constexpr uint32_t kNack = uint32_t(models::kNack);

// A text, its level ('I' or 'E') and its numbers: a marker text's two, or
// the 32-bit arguments of an event of its own.
struct Text {
    std::string text;
    char level;
    std::vector<uint32_t> numbers = {kNo, kNo};
    bool operator==(const Text&) const = default;
};
void PrintTo(const Text& t, std::ostream* os)
{
    *os << '"' << t.text << "\" " << t.level << testing::PrintToString(t.numbers);
}

class NvmTraceContract : public NvmTest {};

TEST_F(NvmTraceContract, EveryMemoryTextAtItsLevelWithItsNumbersAndWhatReachesIt)
{
    using Step = std::function<void()>;
    auto d = pattern(128);  // d[0] 0x10, d[6] 0x3A, d[8] 0x48
    UCHAR b[128];
    auto R = [&](USHORT a, LONG n) -> Step { return [=, this, &b] { row->Read(ctx, a, b, n); }; };
    auto W = [&](USHORT a, LONG n) -> Step { return [=, this, &d] { row->Write(ctx, a, d.data(), n); }; };
    auto L = [&](ULONG capacity) -> Step { return [=, this, &b]() mutable { NvmLoad(ctx, &capacity, b); }; };
    Step R0 = [this] { row->Read(ctx, 7, nullptr, 1); };
    Step W0 = [this] { row->Write(ctx, 7, nullptr, 1); };
    auto N = [&](uint64_t k) -> Step {  // the call's k-th transfer is not acknowledged
        return [=, this] { sys.bus().fail_transfer(sys.bus().transfer_count() + k, bench::BusFault::nack()); };
    };
    Step wait_fails = [this] { sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL); };
    Step cleanup = [this] {
        sys.bus().fail_transfer(sys.bus().transfer_count(), bench::BusFault::complete_with(STATUS_NOTIFY_CLEANUP));
    };
    const struct {
        unsigned type;
        const char* how;
        Step call;
        std::vector<Text> texts;
        Step fault = {};
    } rows[] = {
        // The load and the stubs of types 3 and 4.
        {5, "load", L(750), {{"NvmLoad entry", 'I', {}}}},
        {5, "load into 749", L(749), {{"NvmLoad exit: size %u, buffer %p, %!STATUS!", 'I', {750, 0x80000005}}}},
        {5, "load, memory not available", L(750),
         {{"NvmLoad: memory not available, type %u, cache length %u", 'E', {5, 750}}},
         [this] { ctx->NvmAvailable = 0; }},
        {5, "load, data phase NACKed", L(750),
         {{"nvmRead0 Failed to read <1>!!", 'E', {kNack, kNo}}, {"CmdRead Error!", 'E', {kNack, kNo}},
          {"NvmLoad: reading the memory failed", 'E', {}}}, N(1)},
        {3, "load: 432 bytes", L(750), {{"NvmStub: address %u, length %u, %!STATUS!", 'I', {0, 432, 0}}}},
        {4, "load: the cache length", L(750), {{"NvmStub: address %u, length %u, %!STATUS!", 'I', {0, 750, 0}}}},
        {4, "write, no data", W0, {{"NvmStub: address %u, length %u, %!STATUS!", 'I', {7, 1, kParam}}}},
        // CmdRead and CmdWrite (types 5, 7 and 8 alike).
        {5, "read 4 at 0x100", R(0x100, 4),
         {{"CmdRead addr data:", 'I', {0x100, 0x5A}}, {"CmdRead len status:", 'I', {4, 0}}}},
        {5, "past the end", R(0x4000, 1), {{"CmdRead address is out of range!", 'E'}}},
        {5, "read, address phase NACKed", R(0, 4),
         {{"nvmRead0 Failed to read <0>!!", 'E', {kNack, kNo}}, {"CmdRead Error!", 'E', {kParam, kNo}}}, N(0)},
        {5, "read, address phase completes with STATUS_NOTIFY_CLEANUP", R(0, 4),
         {{"nvmRead0 temp WA for MFT0 data abort: treat STATUS_NOTIFY_CLEANUP as fail!", 'E', {0x10B, kNo}}}, cleanup},
        {5, "nvmRead0 of nothing", [&] { nvmRead0(ctx, 0, b, 0); },
         {{"nvmRead0 data length invalid error!!", 'E', {0, kNo}}}},
        {5, "80 at 60", W(60, 80), {{"CmdWrite addr data:", 'I', {60, 0x10}}, {"CmdWrite len status:", 'I', {80, 0}}}},
        {5, "write nothing", W(4, 0),
         {{"CmdWrite address is out of  range!!", 'E'}, {"CmdWrite addr data:", 'I', {4, kNo}},
          {"CmdWrite len status:", 'I', {0, kParam}}}},
        {5, "80 at 60, first chunk NACKed", W(60, 80),
         {{"nvmWrite0 Failed to write !!", 'E', {kNack, kNo}}, {"CmdWrite Error 0!!", 'E', {kParam, kNo}}}, N(0)},
        {5, "80 at 60, page NACKed", W(60, 80), {{"CmdWrite Error 1!!", 'E', {kParam, kNo}}}, N(1)},
        {5, "80 at 60, tail NACKed", W(60, 80), {{"CmdWrite Error 2!!", 'E', {kParam, kNo}}}, N(2)},
        {5, "a whole page", W(64, 64), {{"CmdWrite Done!!", 'I'}, {"NvmType %u: %s 0x%x 0x%x", 'I', {5, kNo, kNo}}}},
        {5, "nvmWrite0 past the page", [&] { nvmWrite0(ctx, 0, d.data(), 65); },
         {{"nvmWrite0 data length invalid error!!", 'E', {65, kNo}}}},
        // The M24c64 commands (type 10).
        {10, "read 4 at 0x100", R(0x100, 4),
         {{"Cmd_M24c64Read addr data:", 'I', {0x100, 0x5A}}, {"Cmd_M24c64Read len status:", 'I', {4, 0}}}},
        {10, "past the end", R(8190, 3), {{"Cmd_M24c64Read address is out of  range!!", 'E'}}},
        {10, "read, no buffer", R0, {{"CmdRead read buffer pointer is NULL!!", 'E'}}},
        {10, "read, the wait fails", R(0, 4), {{"KeWaitForSingleObject!", 'E', {0xC0000001, kNo}}}, wait_fails},
        {10, "read, address phase NACKed", R(0, 4),
         {{"M24c64RomRead Failed to read <0>!!", 'E', {kNack, kNo}}, {"M24c64RomRead Error!", 'E', {kParam, kNo}}},
         N(0)},
        {10, "data phase NACKed", R(0, 4), {{"M24c64RomRead Failed to read <1>!!", 'E', {kNack, kNo}}}, N(1)},
        {10, "M24c64RomRead of nothing", [&] { M24c64RomRead(ctx, 0, b, 0); },
         {{"M24c64RomRead address is out of range!", 'E'}}},
        {10, "write 40 at 30", W(30, 40),
         {{"Cmd_m24c64Write addr data:", 'I', {30, 0x10}}, {"Cmd_m24c64Write len status:", 'I', {40, 0}}}},
        {10, "past the end", W(8190, 3), {{"Cmd_M24c64Write address is out of  range!!", 'E'}}},
        {10, "write, no data", W0, {{"write buffer pointer is NULL!!!", 'E'}}},
        {10, "write, the wait fails", W(0, 4), {{"KeWaitForSingleObject !!", 'E', {0xC0000001, kNo}}}, wait_fails},
        {10, "write, slot 2 not configured", W(0, 4),
         {{"InitI2c error!!!", 'E', {0xC00000BB, kNo}}, {"Cmd_m24c64Write len status:", 'I', {4, 0xC00000BB}}},
         [this] { ctx->I2cConnections[I2C_SLOT_NVM].Present = 0; }},
        {10, "40 at 30, first chunk NACKed", W(30, 40), {{"bulkWrite Failed to write !!", 'E', {kNack, kNo}}}, N(0)},
        {10, "40 at 30, page NACKed", W(30, 40), {{"Cmd_M24c64Write Error 1!!", 'E', {kParam, kNo}}}, N(1)},
        {10, "40 at 30, tail NACKed", W(30, 40), {{"Cmd_M24c64Write Error 2!!", 'E', {kParam, kNo}}}, N(2)},
        {10, "two whole pages", W(0, 64), {{"Cmd_M24c64Write Done!!", 'I'}}},
        {10, "bulkWrite past the page", [&] { bulkWrite(ctx, 0, d.data(), 33); },
         {{"bulkWrite data length invalid error!!", 'E', {33, kNo}}}},
        // The 256-byte-block parts (types 6, 9 and 12): 20 bytes at 250 are
        // 6 in block 0 and 14 from the start of block 1; blocks 2 to 7 are
        // traced with their untouched plan.
        {6, "read 20 at 250", R(250, 20),
         {{"Cmd_Brca016Read addr data:", 'I', {250, 0x5A}}, {"Cmd_Brca016Read len status:", 'I', {20, 0}}}},
        {6, "past the end", R(2040, 9), {{"CmdRead address is out of range!", 'E'}}},
        {6, "write 20 at 250", W(250, 20),
         {{" write page", 'I', {1, kNo}}, {" __________", 'I', {0, 14}}, {" __________", 'I', {0, 256}},
          {"RomWrite1 addr data:", 'I', {0, 0x3A}}, {"RomWrite1 page status:", 'I', {1, 0}},
          {"Cmd_Brca016Write addr data:", 'I', {250, 0x10}}, {"Cmd_Brca016Write len status:", 'I', {20, 0}}}},
        {6, "past the end", W(2040, 9), {{"Cmd_Brca016Write address is out of  range!!", 'E'}}},
        {6, "block 0 NACKed", W(250, 20), {{"write eeprom error!!!", 'E', {kParam, kNo}}}, N(0)},
        {6, "RomRead1 of nothing", [&] { RomRead1(ctx, 0, 0, b, 0); }, {{"RomRead1 address is out of range!", 'E'}}},
        {9, "read 20 at 250", R(250, 20),
         {{"Cmd_Cat24cRead addr data:", 'I', {250, 0x5A}}, {"Cmd_Cat24cRead len status:", 'I', {20, 0}}}},
        {9, "write 20 at 250", W(250, 20),
         {{"RomWrite2 addr data:", 'I', {0, 0x3A}}, {"RomWrite2 page status:", 'I', {1, 0}},
          {"Cmd_Cat24cWrite addr data:", 'I', {250, 0x10}}, {"Cmd_Cat24cWrite len status:", 'I', {20, 0}}}},
        {9, "past the end", W(1020, 5), {{"Cmd_Cat24cWrite address is out of  range!!", 'E'}}},
        {9, "RomRead2 of nothing", [&] { RomRead2(ctx, 0, 0, b, 0); }, {{"RomRead2 address is out of range!", 'E'}}},
        {12, "read 20 at 250", R(250, 20),
         {{"Cmd_Cat24c16Read addr data:", 'I', {250, 0x5A}}, {"Cmd_Cat24c16Read len status:", 'I', {20, 0}}}},
        {12, "write 20 at 250", W(250, 20),
         {{"RomWrite4 addr data:", 'I', {0, 0x3A}}, {"RomWrite4 page status:", 'I', {1, 0}},
          {"Cmd_Cat24c16Write addr data:", 'I', {250, 0x10}}, {"Cmd_Cat24c16Write len status:", 'I', {20, 0}}}},
        {12, "past the end", W(2040, 9), {{"Cmd_Cat24c16Write address is out of  range!!", 'E'}}},
        {12, "read, no buffer", R0, {{"CmdRead read buffer pointer is NULL!!", 'E'}}},
        {12, "write, no data", W0, {{"write buffer pointer is NULL!!!", 'E'}}},
        {12, "RomRead4 of nothing", [&] { RomRead4(ctx, 0, 0, b, 0); }, {{"RomRead4 address is out of range!", 'E'}}},
        // The DW9806B's paged memory (type 11): 40 bytes at 1016 are 8 in
        // page 0 and 32 from the start of page 1, after the macro erase.
        {11, "read 48 at 1000", R(1000, 48),
         {{"Cmd_DW9806BRead addr data:", 'I', {1000, 0x5A}}, {"Cmd_DW9806BRead len status:", 'I', {48, 0}}}},
        {11, "write 40 at 1016", W(1016, 40),
         {{" erase macro", 'I', {2, kNo}}, {" write page", 'I', {1, 32}}, {"RomWrite3 addr data:", 'I', {0, 0x48}},
          {"RomWrite3 page status:", 'I', {1, 0}}, {"Cmd_DW9806BWrite addr data:", 'I', {1016, 0x10}},
          {"Cmd_DW9806BWrite len status:", 'I', {40, 0}}}},
        {11, "write within page 3: the page count", W(0x0C00, 1), {{" erase macro", 'I', {8, kNo}}}},
        {11, "past the end", W(8190, 3), {{"Cmd_DW9806BWrite address is out of  range!!", 'E'}}},
        {11, "write, the erase NACKed", W(1016, 40),
         {{"nvmWrite0 Failed to erase !!", 'E', {kNack, kNo}}, {"erase eeprom error!!!", 'E', {kParam, kNo}}}, N(0)},
        {11, "page 0 NACKed", W(1016, 40), {{"write eeprom error!!!", 'E', {kParam, kNo}}}, N(1)},
        {11, "PageErase3 of page 8", [&] { PageErase3(ctx, 8, 0); },
         {{"PageErase3 page length invalid error!!", 'E', {8, kNo}}}},
        {11, "RomRead3 of nothing", [&] { RomRead3(ctx, 0, 0, b, 0); }, {{"RomRead3 address is out of range!", 'E'}}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << "type " << r.type << ": " << r.how);
        select(r.type);
        if (part != nullptr) {  // every byte 0x5A: the first byte a read's exit text reports
            part->set_contents(0, std::vector<uint8_t>(part->contents().size(), 0x5A));
        }
        ctx->NvmLoaded = 0;
        sys.bus().clear_faults();
        sys.faults().clear();
        forget();
        if (r.fault) {
            r.fault();
        }
        r.call();
        std::vector<Text> seen;
        for (const auto& e : sys.traces().events()) {
            const auto* format = sys.traces().format(e);
            char level = format->flag == TRACE_ERROR ? 'E' : 'I';
            if (format->text == "NvmType %u: %s 0x%x 0x%x") {  // a marker text, after NvmType
                seen.push_back({bench::Traces::text(e, 2), level, {bench::Traces::u32(e, 3), bench::Traces::u32(e, 4)}});
            }
            std::vector<uint32_t> numbers;
            for (size_t i = 1; i < e.args.size(); i++) {
                if (e.args[i].size() == sizeof(uint32_t)) {
                    numbers.push_back(bench::Traces::u32(e, i));
                }
            }
            seen.push_back({format->text, level, numbers});
        }
        for (const auto& text : r.texts) {
            EXPECT_THAT(seen, testing::Contains(text));
        }
    }
}

}  // namespace
}  // namespace korvanel::test
