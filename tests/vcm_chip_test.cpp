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
        const char* id_text;  // the identification event, if any
    } cases[] = {
        // AD5823 replaces bit 2 of register 0x04 and bits 5..0 of register 0x02 only.
        {"AD5823", {{4, 0xF0}, {2, 0xFF}}, "W 04|R F0|W 04 F4|W 02|R FF|W 02 C0|W 03 60|W 06 00|W 07 A0", 9, nullptr},
        {"AD5816", {}, "W 01|R 02|W 02 02|W 06 02|W 07 96|W 08 50|W 03 00|W 04 00", 8, "IC Version:"},
        {"DW9719", {}, "W 00|R F1|W 02 01|W 02 02|W 06 40|W 07 60|W 03 00|W 04 00", 8, "IC Info:"},
        {"DW9718", {}, "W 00 00|W 01 39|W 02 00|W 03 00|W 04 00|W 05 61|W 10 00", 7, nullptr},
        {"WV517S", {}, "W 40 01|W 41 00|W 42 00|W 43 01|W 44 A0|W 45 00", 6, nullptr},
        {"DW9714", {}, "W EC A3|W A1 0D|W F2 C0|W DC 51", 4, nullptr},
        // Register 0xFF in the table is a 1 ms pause, not a write.
        {"DW9806B", {}, "W 00|R D1|W 02 01|W 02 00|delay 1 ms|W 02 02|W 06 61|W 07 3D", 7, "IC Info:"},
        // Entries 12 and 13 centre the lens; the identification byte goes
        // into the exit event.
        {"LC898122XA", {}, "W 02 7E|R 42|W 02 D0 03|W 02 56 00", 40, nullptr},
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
        std::string name = c.chip;
        EXPECT_EQ(marked(name + "_Init +").size(), 1u);
        ASSERT_EQ(marked(name + "_Init -").size(), 1u);
        if (c.id_text) {
            ASSERT_EQ(marked(c.id_text).size(), 1u);
            EXPECT_EQ(R(uint8_t(numbers(marked(c.id_text)[0]).at(0))), expected[1]) << "the byte read";
        }
        EXPECT_EQ(ctx->VcmPosition, 0) << "start-up records no position";
    }
    EXPECT_EQ(part->code(), 1024);
    EXPECT_EQ(numbers(marked("LC898122XA_Init -")[0]), std::vector<uint32_t>{0x42});
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
        EXPECT_EQ(numbers(marked(std::string(c.chip) + "_SetPos").at(0)),
                  (std::vector<uint32_t>{uint32_t(LONG(c.recorded)), 0}));
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
        EXPECT_EQ(numbers(marked(std::string(c.chip) + "_GetPos").at(0)), (std::vector<uint32_t>{c.position, 0}));
    }
}

TEST_F(VcmChipTest, ResetRampsStepThirtyTwoCodesWithTheirPauses)
{
    const struct {
        const char* chip;
        SHORT from;  // the recorded position
        USHORT low;  // VcmLowPosition
        std::vector<int> steps;
        int pause_ms;
    } cases[] = {
        {"AD5823", 100, 0, {100, 68, 36, 4, 1}, 1},
        {"AD5823", 2000, 0, {1}, 1},  // above the range: straight to rest
        {"AD5823", 0, 0, {1}, 1},     // below the rest: the chips that ramp down only go straight there
        {"AD5816", 40, 0, {40, 8, 0}, 1},
        {"AD5816", -40, 0, {0}, 1},
        {"DW9718", 70, 0, {70, 38, 6, 1}, 1},
        {"DW9718", 0, 0, {1}, 1},
        {"DW9719", 100, 300, {100, 132, 164, 196, 228, 260, 292, 300}, 10},
        {"DW9719", 400, 300, {400, 368, 336, 304, 300}, 10},
        {"DW9719", 300, 300, {300}, 10},
        {"WV517S", 70, 0, {70, 38, 6, 1}, 1},
        {"WV517S", 0, 0, {1}, 1},
        {"DW9714", 100, 0, {100, 68, 36, 4, 1}, 1},
        {"DW9714", 0, 0, {1}, 1},
        {"LC898122XA", 1100, 0, {1100, 1068, 1036, 1004, 1024}, 1},  // one step back up after passing 1024
        {"LC898122XA", 900, 0, {900, 932, 964, 996, 1024}, 1},
        {"LC898122XA", 3000, 0, {1024}, 1},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.chip) + " from " + std::to_string(c.from));
        auto& vcm = select(c.chip);
        ctx->VcmPosition = c.from;
        ctx->VcmLowPosition = c.low;
        clear();
        EXPECT_EQ(row().ResetPos(ctx), STATUS_SUCCESS);
        // Every step latched on the part, each followed by its pause.
        std::vector<int> latched, pauses;
        for (auto& point : vcm.trajectory()) {
            latched.push_back(point.code);
        }
        for (auto& line : timeline()) {
            if (line.starts_with("delay ")) {
                pauses.push_back(std::stoi(line.substr(6)));
            }
        }
        EXPECT_EQ(latched, c.steps);
        EXPECT_EQ(pauses, std::vector<int>(c.steps.size(), c.pause_ms));
        EXPECT_EQ(ctx->VcmPosition, c.steps.back());
        EXPECT_EQ(marked(std::string(c.chip) + "_ResetPos -").size(), 1u);
    }

    // A position at the top of a chip's range is stepped down from; one past
    // it goes straight to rest.
    for (auto [chip, top, rest] : {std::tuple{"AD5823", 1023, 1}, {"AD5816", 1023, 0}, {"DW9719", 1023, 0},
                                   {"DW9718", 1023, 1}, {"WV517S", 1023, 1}, {"DW9714", 1023, 1},
                                   {"LC898122XA", 2047, 1024}}) {
        for (int from : {top, top + 1}) {
            SCOPED_TRACE(std::string(chip) + " from " + std::to_string(from));
            auto& vcm = select(chip);
            ctx->VcmPosition = SHORT(from);
            ctx->VcmLowPosition = 0;
            ASSERT_EQ(row().ResetPos(ctx), STATUS_SUCCESS);
            ASSERT_FALSE(vcm.trajectory().empty());
            EXPECT_EQ(vcm.trajectory().front().code, from == top ? top : rest);
        }
    }

    // DW9719's rest is the module's low position as it stands at each step:
    // raised past the next step during the first pause, the ramp from 500
    // ends at once on the new one.
    auto& dw9719 = select("DW9719");
    ctx->VcmPosition = 500;
    ctx->VcmLowPosition = 100;
    sys.clock().add_timer(sys.clock().now() + 5 * 10000, [&] { ctx->VcmLowPosition = 480; });
    ASSERT_EQ(DW9719_ResetPos(ctx), STATUS_SUCCESS);
    std::vector<int> latched;
    for (auto& point : dw9719.trajectory()) {
        latched.push_back(point.code);
    }
    EXPECT_EQ(latched, (std::vector<int>{500, 480}));

    // DW9718 records the clamped code, so after SetPos(2000) the ramp
    // starts at 1023: 32 steps, then 1.
    select("DW9718");
    ASSERT_EQ(DW9718_SetPos(ctx, 2000), STATUS_SUCCESS);
    ASSERT_EQ(DW9718_ResetPos(ctx), STATUS_SUCCESS);
    auto points = part->trajectory();
    ASSERT_EQ(points.size(), 34u);
    EXPECT_EQ(points[1].code, 1023);
    EXPECT_EQ(points[32].code, 31);
    EXPECT_EQ(points[33].code, 1);
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
