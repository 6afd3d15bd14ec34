// The chip drivers on the wire, byte for byte: start-up, positions with
// their clamping and read-modify-write registers, read-back decoding and the
// reset ramps with their pauses on the virtual clock. (The busy flag's wire
// is in the contract suite.)
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class VcmChipTest : public VcmTest {};

TEST_F(VcmChipTest, StartUpProgramsEachChipFromItsSettings)
{
    const struct {
        const char* chip;
        std::vector<std::pair<uint16_t, uint8_t>> pokes;  // what the part holds before
        const char* wire;                                 // the whole start-up, or its beginning
        size_t transfers;
    } cases[] = {
        // AD5823 replaces bit 2 of register 0x04 and bits 5..0 of register 0x02 only.
        {"AD5823", {{4, 0xF0}, {2, 0xFF}}, "W 04|R F0|W 04 F4|W 02|R FF|W 02 C0|W 03 60|W 06 00|W 07 A0", 9},
        {"AD5816", {}, "W 01|R 02|W 02 02|W 06 02|W 07 96|W 08 50|W 03 00|W 04 00", 8},
        {"DW9719", {}, "W 00|R F1|W 02 01|W 02 02|W 06 40|W 07 60|W 03 00|W 04 00", 8},
        {"DW9718", {}, "W 00 00|W 01 39|W 02 00|W 03 00|W 04 00|W 05 61|W 10 00", 7},
        {"WV517S", {}, "W 40 01|W 41 00|W 42 00|W 43 01|W 44 A0|W 45 00", 6},
        {"DW9714", {}, "W EC A3|W A1 0D|W F2 C0|W DC 51", 4},
        // Register 0xFF in the table is a 1 ms pause, not a write.
        {"DW9806B", {}, "W 00|R D1|W 02 01|W 02 00|delay 1 ms|W 02 02|W 06 61|W 07 3D", 7},
        // Entries 12 and 13 centre the lens.
        {"LC898122XA", {}, "W 02 7E|R 42|W 02 D0 03|W 02 56 00", 40},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.chip);
        auto& vcm = select(c.chip);
        for (auto [reg, value] : c.pokes) {
            vcm.poke(reg, value);
        }
        clear();
        EXPECT_EQ(row().Init(ctx), STATUS_SUCCESS);
        auto expected = wire(c.wire), seen = timeline();
        EXPECT_EQ(Wire(seen.begin(), seen.begin() + std::min(seen.size(), expected.size())), expected);
        EXPECT_EQ(sys.bus().transcript().size(), c.transfers);
        EXPECT_EQ(ctx->VcmPosition, 0) << "start-up records no position";
    }
    EXPECT_EQ(part->code(), 1024);
}

TEST_F(VcmChipTest, PositionsAreClampedPerChipAndRecordedAsEachChipSays)
{
    const struct {
        const char* chip;
        SHORT position;
        const char* wire;  // from the chip's register map
        int code;        // what the part latches
        SHORT recorded;  // VcmPosition afterwards
        int high = 0;    // the code-MSB register before, for the merging chips
    } cases[] = {
        // 0xF4 -> 0xF6: the merging chips keep the other bits of the MSB register.
        {"AD5823", 0x2AB, "W 04|R F4|W 04 F6|W 05 AB", 0x2AB, 0x2AB, 0xF4},
        {"AD5823", 2000, "W 04|R 00|W 04 03|W 05 FF", 1023, 2000},  // the request is recorded, not the code
        {"AD5823", -5, "W 04|R 00|W 04 00|W 05 01", 1, -5},
        {"AD5816", -5, "W 03 00|W 04 00", 0, -5},
        {"DW9719", -1, "W 03|R FF|W 03 FC|W 04 00", 0, -1, 0xFF},
        {"DW9718", -1, "W 02 03|W 03 FF", 1023, 1023},  // 0xFFFF taken unsigned, the code is recorded
        {"WV517S", 0, "W 41 00|W 42 01", 1, 1},
        {"DW9714", 0, "W 00 10", 1, 1},
        {"DW9714", 5000, "W 3F F0", 1023, 1023},
        {"DW9806B", 0, "W 03|R 00|W 03 00|W 04 01", 1, 0},
        {"LC898122XA", 1500, "W 03 80 BB|W 03 81 80", 1500, 1500},
        {"LC898122XA", 3000, "W 03 80 FF|W 03 81 E0", 2047, 2047},
        {"LC898122XA", 0, "W 03 80 00|W 03 81 00", 0, 0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.chip) + " " + std::to_string(c.position));
        auto& vcm = select(c.chip);
        vcm.poke(vcm.chip().high_reg, uint8_t(c.high));
        ctx->VcmPosition = 7;
        clear();
        int64_t start = sys.clock().now();
        EXPECT_EQ(row().SetPos(ctx, c.position), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), wire(c.wire));
        EXPECT_EQ(vcm.code(), c.code);
        EXPECT_EQ(ctx->VcmPosition, c.recorded);
        EXPECT_EQ(ctx->VcmLastMoveDistance, LONG(USHORT(c.recorded)) - 7);
        EXPECT_EQ(ctx->VcmLastMoveTime, start);
    }

    // DW9714's mode nibble is the low four bits of entry 4, read at every move.
    for (auto [data, low_byte] : {std::pair<ULONG, uint8_t>{0xF, 0x5F}, {0x25, 0x55}}) {
        DW9714_Settings[4].Data = data;
        clear();
        EXPECT_EQ(DW9714_SetPos(ctx, 0x155), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), Wire{W({0x15, low_byte})});
    }
}

TEST_F(VcmChipTest, ReadBackDecodesTheCodeRegistersInEachChipsOrder)
{
    const struct {
        const char* chip;
        uint8_t high, low;  // as the part holds them
        const char* wire;
        USHORT position;
    } cases[] = {
        {"AD5823", 0xF6, 0xAB, "W 04|R F6|W 05|R AB", 0x2AB},     {"AD5816", 0xFE, 0x12, "W 03|R FE|W 04|R 12", 0x212},
        {"DW9719", 0x03, 0xFF, "W 03|R 03|W 04|R FF", 1023},      {"DW9806B", 0x01, 0x00, "W 03|R 01|W 04|R 00", 256},
        {"DW9718", 0x01, 0x23, "W 03|R 23|W 02|R 01", 0x123},     {"WV517S", 0x02, 0x34, "W 42|R 34|W 41|R 02", 0x234},
        {"LC898122XA", 0xBB, 0x80, "W 03 80|R BB|W 03 81|R 80", 1500},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.chip);
        auto& vcm = select(c.chip);
        vcm.poke(vcm.chip().high_reg, c.high);
        vcm.poke(vcm.chip().low_reg, c.low);
        clear();
        USHORT position = 0xFFFF;
        EXPECT_EQ(row().GetPos(ctx, &position), STATUS_SUCCESS);
        EXPECT_EQ(position, c.position);
        EXPECT_EQ(timeline(), wire(c.wire));
    }
}

// Each chip's ramp from where its style (down only, either way, down then up)
// and its range limit change the walk: above the rest with an overshoot,
// below it, at the top of the range and one past it.
TEST_F(VcmChipTest, ResetRampsStepThirtyTwoCodesWithAPauseAfterEach)
{
    auto then = [](std::vector<int> codes, std::vector<int> more) {
        codes.insert(codes.end(), more.begin(), more.end());
        return codes;
    };
    struct Case {
        const char* chip;
        SHORT from;  // the recorded position
        USHORT low;  // VcmLowPosition
        std::vector<int> steps;
        int pause_ms;
    };
    std::vector<Case> cases = {
        {"AD5816", 40, 0, {40, 8, 0}, 1},
        {"AD5816", -40, 0, {0}, 1},
        {"DW9719", 100, 300, then(range(100, 292, 32), {300}), 10},
        {"DW9719", 400, 300, {400, 368, 336, 304, 300}, 10},
        {"DW9719", 300, 300, {300}, 10},
        {"LC898122XA", 1100, 0, {1100, 1068, 1036, 1004, 1024}, 1},  // one step back up after passing 1024
        {"LC898122XA", 900, 0, {900, 932, 964, 996, 1024}, 1},
        {"LC898122XA", 2047, 0, then(range(2047, 1055, -32), {1023, 1024}), 1},
        {"LC898122XA", 2048, 0, {1024}, 1},
        {"DW9806B", 500, 0, {1}, 0},  // in a module without its own ramp: straight to rest
    };
    for (auto [chip, rest, pause] : {std::tuple{"AD5823", 1, 1}, {"DW9714", 1, 1}, {"DW9718", 1, 1}, {"WV517S", 1, 1},
                                     {"AD5816", 0, 1}, {"DW9719", 0, 10}}) {
        cases.insert(cases.end(),
                     {{chip, 1023, 0, then(range(1023, 31, -32), {rest}), pause}, {chip, 1024, 0, {rest}, pause}});
        if (rest == 1) {
            cases.insert(cases.end(), {{chip, 100, 0, {100, 68, 36, 4, 1}, 1}, {chip, 0, 0, {1}, 1}});
        }
    }
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.chip) + " from " + std::to_string(c.from));
        select(c.chip);
        set_module("HAPS");
        ctx->VcmPosition = c.from;
        ctx->VcmLowPosition = c.low;
        clear();
        EXPECT_EQ(row().ResetPos(ctx), STATUS_SUCCESS);
        EXPECT_EQ(moves(), steps(c.steps, "", c.pause_ms ? "delay " + std::to_string(c.pause_ms) + " ms" : ""));
        // DW9806B records its rest as 0, so that it counts as settled at once.
        EXPECT_EQ(ctx->VcmPosition, c.pause_ms ? c.steps.back() : 0);
    }

    // DW9719's rest is the module's low position as it stands at each step:
    // raised past the next step during the first pause, the ramp from 500
    // ends at once on the new one.
    select("DW9719");
    ctx->VcmPosition = 500;
    ctx->VcmLowPosition = 100;
    clear();
    sys.clock().add_timer(sys.clock().now() + 5 * 10000, [&] { ctx->VcmLowPosition = 480; });
    ASSERT_EQ(DW9719_ResetPos(ctx), STATUS_SUCCESS);
    EXPECT_EQ(moves(), steps({500, 480}, "", "delay 10 ms"));
}

TEST_F(VcmChipTest, SettledStatusFollowsTheLastMove)
{
    select("AD5823");
    auto expect_moving = [&](ULONG expected) {
        ULONG moving = 7, settled = 7;
        EXPECT_EQ(VcmTimedGetStatus(ctx, &moving), STATUS_SUCCESS);
        EXPECT_EQ(AD5823_GetHPStatus(ctx, &settled), STATUS_SUCCESS);
        EXPECT_EQ(moving, expected);
        EXPECT_EQ(settled, 1 - expected);
    };
    expect_moving(0);  // nothing has moved yet
    // 1 ms per code moved, at most 40 ms; moving up to and including the end.
    for (auto [to, settle_ms] : {std::pair<SHORT, int>{10, 10}, {110, 40}, {100, 10}, {-5, 40}}) {
        SCOPED_TRACE(to);
        ASSERT_EQ(AD5823_SetPos(ctx, to), STATUS_SUCCESS);
        sys.clock().advance_ms(settle_ms);
        expect_moving(1);
        sys.clock().advance(1);
        expect_moving(0);
    }
    // The chip's own routine traces; the shared ones do not.
    EXPECT_EQ(marked("AD5823_GetHPStatus").size(), 9u);
}

}  // namespace
}  // namespace korvanel::test
