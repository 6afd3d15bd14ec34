// The chip drivers on the wire, byte for byte: start-up, positions with
// their clamping and read-modify-write registers, read-back decoding, the
// busy flag and the reset ramps with their pauses on the virtual clock.
#include "vcm_fixture.h"

#include "sim/scripted.h"

namespace korvanel::test {
namespace {

class VcmChipTest : public VcmTest {};

TEST_F(VcmChipTest, StartUpProgramsEachChipFromItsSettings)
{
    const struct {
        const char* chip;
        std::vector<std::string> wire;
        const char* id_text;  // the identification event, if any
        uint32_t id;
    } cases[] = {
        {"AD5816",
         {W({0x01}), R(0x02), W({0x02, 0x02}), W({0x06, 0x02}), W({0x07, 0x96}), W({0x08, 0x50}), W({0x03, 0x00}),
          W({0x04, 0x00})},
         "IC Version:", 0x02},
        {"DW9719",
         {W({0x00}), R(0xF1), W({0x02, 0x01}), W({0x02, 0x02}), W({0x06, 0x40}), W({0x07, 0x60}), W({0x03, 0x00}),
          W({0x04, 0x00})},
         "IC Info:", 0xF1},
        {"DW9718",
         {W({0x00, 0x00}), W({0x01, 0x39}), W({0x02, 0x00}), W({0x03, 0x00}), W({0x04, 0x00}), W({0x05, 0x61}),
          W({0x10, 0x00})},
         nullptr, 0},
        {"WV517S",
         {W({0x40, 0x01}), W({0x41, 0x00}), W({0x42, 0x00}), W({0x43, 0x01}), W({0x44, 0xA0}), W({0x45, 0x00})},
         nullptr, 0},
        {"DW9714", {W({0xEC, 0xA3}), W({0xA1, 0x0D}), W({0xF2, 0xC0}), W({0xDC, 0x51})}, nullptr, 0},
        // Register 0xFF in the table is a 1 ms pause, not a write.
        {"DW9806B",
         {W({0x00}), R(0xD1), W({0x02, 0x01}), W({0x02, 0x00}), "delay 1 ms", W({0x02, 0x02}), W({0x06, 0x61}),
          W({0x07, 0x3D})},
         "IC Info:", 0xD1},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.chip);
        select(c.chip);
        clear();
        EXPECT_EQ(row().Init(ctx), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), c.wire);
        std::string name = c.chip;
        ASSERT_EQ(marked(name + "_Init +").size(), 1u);
        ASSERT_EQ(marked(name + "_Init -").size(), 1u);
        EXPECT_EQ(host::Traces::text(marked(name + "_Init -")[0], 1), name);
        if (c.id_text) {
            ASSERT_EQ(marked(c.id_text).size(), 1u);
            EXPECT_EQ(numbers(marked(c.id_text)[0]), std::vector<uint32_t>{c.id});
        }
        EXPECT_EQ(ctx->VcmPosition, 0) << "start-up records no position";
    }
}

TEST_F(VcmChipTest, Ad5823StartUpKeepsTheBitsItsEntriesDoNotOwn)
{
    auto& vcm = select("AD5823");
    vcm.poke(0x04, 0xF0);  // bit 2 is the ring-control enable entry 2 sets
    vcm.poke(0x02, 0xFF);  // bits 7..6 stay, bits 5..0 come from entry 0
    EXPECT_EQ(AD5823_Init(ctx), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (std::vector<std::string>{W({0x04}), R(0xF0), W({0x04, 0xF4}), W({0x02}), R(0xFF),
                                                    W({0x02, 0xC0}), W({0x03, 0x60}), W({0x06, 0x00}),
                                                    W({0x07, 0xA0})}));
}

TEST_F(VcmChipTest, Lc898122xaStartUpWritesThirtyEightEntriesAndCentresTheLens)
{
    auto& vcm = select("LC898122XA");
    EXPECT_EQ(LC898122XA_Init(ctx), STATUS_SUCCESS);
    auto wire = timeline();
    ASSERT_EQ(wire.size(), 40u);
    EXPECT_EQ(wire[0], W({0x02, 0x7E}));
    EXPECT_EQ(wire[1], R(0x42));
    EXPECT_EQ(wire[2], W({0x02, 0xD0, 0x03}));
    EXPECT_EQ(wire[14], W({0x03, 0x80, 0x80}));
    EXPECT_EQ(wire[15], W({0x03, 0x81, 0x00}));
    EXPECT_EQ(wire[39], W({0x00, 0xA0, 0x80}));
    EXPECT_EQ(vcm.code(), 1024);
    // The identification byte travels in the exit event.
    ASSERT_EQ(marked("LC898122XA_Init -").size(), 1u);
    EXPECT_EQ(numbers(marked("LC898122XA_Init -")[0]), std::vector<uint32_t>{0x42});
}

TEST_F(VcmChipTest, PositionsAreClampedPerChipAndRecordedAsEachChipSays)
{
    const struct {
        const char* chip;
        SHORT position;
        int code;       // what the part receives
        SHORT recorded; // VcmPosition afterwards
        int high = 0;   // the code-MSB register before, for the merging chips
    } cases[] = {
        {"AD5823", 0x2AB, 0x2AB, 0x2AB, 0xF4},  // 0xF4 -> 0xF6: bit 2 and the reserved bits stay
        {"AD5823", 2000, 1023, 2000},           // the request is recorded, not the code
        {"AD5823", 0, 1, 0},
        {"AD5823", -5, 1, -5},
        {"AD5816", -5, 0, -5},
        {"AD5816", 2000, 1023, 2000},
        {"DW9719", -1, 0, -1, 0xFF},
        {"DW9719", 0x301, 0x301, 0x301, 0x80},
        {"DW9718", 2000, 1023, 1023},  // unsigned, the code is recorded
        {"DW9718", 0, 1, 1},
        {"DW9718", -1, 1023, 1023},  // 0xFFFF taken unsigned
        {"WV517S", 0, 1, 1},
        {"WV517S", 0x155, 0x155, 0x155},
        {"DW9714", 0x155, 0x155, 0x155},
        {"DW9714", 0, 1, 1},
        {"DW9714", 5000, 1023, 1023},
        {"DW9806B", 0, 1, 0},
        {"DW9806B", 2000, 1023, 2000},
        {"LC898122XA", 1500, 1500, 1500},
        {"LC898122XA", 3000, 2047, 2047},
        {"LC898122XA", 0, 0, 0},
        {"LC898122XA", -1, 2047, 2047},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.chip) + " " + std::to_string(c.position));
        auto& vcm = select(c.chip);
        auto& chip = sim::actuator_chip(c.chip);
        vcm.poke(chip.high_reg, uint8_t(c.high));
        ctx->VcmPosition = 7;
        clear();
        int64_t start = sys.clock().now();
        EXPECT_EQ(row().SetPos(ctx, c.position), STATUS_SUCCESS);
        int high = c.high;
        EXPECT_EQ(timeline(), position_wire().at(c.chip)(c.code, high));
        EXPECT_EQ(vcm.code(), c.code);
        EXPECT_EQ(ctx->VcmPosition, c.recorded);
        EXPECT_EQ(ctx->VcmLastMoveDistance, LONG(USHORT(c.recorded)) - 7);
        EXPECT_EQ(ctx->VcmLastMoveTime, start);
        auto exit = marked(std::string(c.chip) + "_SetPos");
        ASSERT_EQ(exit.size(), 1u);
        EXPECT_EQ(numbers(exit[0]), (std::vector<uint32_t>{uint32_t(LONG(c.recorded)), 0}));
        EXPECT_TRUE(lock_free());
    }
}

TEST_F(VcmChipTest, Dw9714TakesItsModeNibbleFromTheFifthEntryAtEveryMove)
{
    select("DW9714");
    const struct {
        ULONG data;
        std::string wire;
    } cases[] = {{0x0, W({0x15, 0x50})}, {0xF, W({0x15, 0x5F})}, {0x25, W({0x15, 0x55})}};
    for (auto& c : cases) {
        DW9714_Settings[4].Data = c.data;
        clear();
        EXPECT_EQ(DW9714_SetPos(ctx, 0x155), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), std::vector<std::string>{c.wire}) << c.data;
    }
}

TEST_F(VcmChipTest, ReadBackDecodesTheCodeRegistersInEachChipsOrder)
{
    const struct {
        const char* chip;
        uint8_t high, low;  // as the part holds them
        std::vector<std::string> wire;
        USHORT position;
    } cases[] = {
        {"AD5823", 0xF6, 0xAB, {W({0x04}), R(0xF6), W({0x05}), R(0xAB)}, 0x2AB},
        {"AD5816", 0xFE, 0x12, {W({0x03}), R(0xFE), W({0x04}), R(0x12)}, 0x212},
        {"DW9719", 0x03, 0xFF, {W({0x03}), R(0x03), W({0x04}), R(0xFF)}, 1023},
        {"DW9806B", 0x01, 0x00, {W({0x03}), R(0x01), W({0x04}), R(0x00)}, 256},
        {"DW9718", 0x01, 0x23, {W({0x03}), R(0x23), W({0x02}), R(0x01)}, 0x123},
        {"WV517S", 0x02, 0x34, {W({0x42}), R(0x34), W({0x41}), R(0x02)}, 0x234},
        {"LC898122XA", 0xBB, 0x80, {W({0x03, 0x80}), R(0xBB), W({0x03, 0x81}), R(0x80)}, 1500},
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
        EXPECT_EQ(timeline(), c.wire);
        EXPECT_EQ(numbers(marked(std::string(c.chip) + "_GetPos").at(0)), (std::vector<uint32_t>{c.position, 0}));
    }

    // DW9714's word, top twelve bits as they come: the flag bits included.
    select("DW9714");
    auto scripted = std::make_shared<sim::ScriptedPeripheral>();
    scripted->reply({0x3F, 0xF5}).reply({0xC0, 0x00});
    sys.bus().attach(kConnection, scripted);
    USHORT position = 0;
    EXPECT_EQ(DW9714_GetPos(ctx, &position), STATUS_SUCCESS);
    EXPECT_EQ(position, 1023);
    EXPECT_EQ(DW9714_GetPos(ctx, &position), STATUS_SUCCESS);
    EXPECT_EQ(position, 0xC00);
}

TEST_F(VcmChipTest, ChipsWithABusyFlagReportItUntilTheLensSettles)
{
    const struct {
        const char* chip;
        std::string address;  // the status register's address phase
    } cases[] = {{"DW9719", W({0x05})}, {"DW9806B", W({0x05})}, {"LC898122XA", W({0x03, 0x35})}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.chip);
        auto& vcm = select(c.chip);
        ASSERT_EQ(row().SetPos(ctx, 600), STATUS_SUCCESS);
        for (ULONG expected : {1u, 0u}) {
            if (expected == 0) {
                sys.clock().advance(vcm.busy_until() - sys.clock().now());
            }
            clear();
            ULONG status = 7;
            EXPECT_EQ(row().GetStatus(ctx, &status), STATUS_SUCCESS);
            EXPECT_EQ(status, expected);
            EXPECT_EQ(timeline(), (std::vector<std::string>{c.address, R(int(expected))}));
            EXPECT_EQ(numbers(marked(std::string(c.chip) + "_GetStatus").at(0)),
                      (std::vector<uint32_t>{expected, 0}));
        }
    }
}

TEST_F(VcmChipTest, ResetRampsStepThirtyTwoCodesWithTheirPauses)
{
    const struct {
        const char* chip;
        SHORT from;           // the recorded position
        USHORT low;           // VcmLowPosition
        std::vector<int> steps;
        int pause_ms;
    } cases[] = {
        {"AD5823", 100, 0, {100, 68, 36, 4, 1}, 1},
        {"AD5823", 2000, 0, {1}, 1},  // above the range: straight to rest
        {"AD5823", -5, 0, {1}, 1},
        {"AD5816", 40, 0, {40, 8, 0}, 1},
        {"DW9719", 100, 300, {100, 132, 164, 196, 228, 260, 292, 300}, 10},
        {"DW9719", 400, 300, {400, 368, 336, 304, 300}, 10},
        {"DW9719", 300, 300, {300}, 10},
        {"DW9719", 2000, 300, {300}, 10},
        {"WV517S", 70, 0, {70, 38, 6, 1}, 1},
        {"DW9714", 100, 0, {100, 68, 36, 4, 1}, 1},
        {"LC898122XA", 1100, 0, {1100, 1068, 1036, 1004, 1024}, 1},  // one step back up after passing 1024
        {"LC898122XA", 900, 0, {900, 932, 964, 996, 1024}, 1},
        {"LC898122XA", 1024, 0, {1024}, 1},
        {"LC898122XA", 3000, 0, {1024}, 1},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.chip) + " from " + std::to_string(c.from));
        auto& vcm = select(c.chip);
        ctx->VcmPosition = c.from;
        ctx->VcmLowPosition = c.low;
        clear();
        EXPECT_EQ(row().ResetPos(ctx), STATUS_SUCCESS);
        std::vector<std::string> wire;
        int high = 0;
        for (int code : c.steps) {
            wire = wire + position_wire().at(c.chip)(code, high);
            wire.push_back("delay " + std::to_string(c.pause_ms) + " ms");
        }
        EXPECT_EQ(timeline(), wire);
        EXPECT_EQ(vcm.code(), c.steps.back());
        EXPECT_EQ(ctx->VcmPosition, c.steps.back());
        EXPECT_EQ(marked(std::string(c.chip) + "_ResetPos +").size(), 1u);
        EXPECT_EQ(marked(std::string(c.chip) + "_ResetPos -").size(), 1u);
    }

    // DW9718 from 2000: SetPos records the code, the ramp starts at 1023.
    select("DW9718");
    ASSERT_EQ(DW9718_SetPos(ctx, 2000), STATUS_SUCCESS);
    clear();
    ASSERT_EQ(DW9718_ResetPos(ctx), STATUS_SUCCESS);
    std::vector<int> expected = {1023};  // the SetPos before the ramp
    for (int p = 1023; p > 1; p -= 32) {
        expected.push_back(p);
    }
    expected.push_back(1);
    EXPECT_EQ(latched(), expected);
    EXPECT_EQ(sys.clock().stall_count(), (expected.size() - 1) * 20);  // 1 ms each, spun
}

TEST_F(VcmChipTest, SettledStatusFollowsTheLastMove)
{
    select("AD5823");
    for (auto* r : {&VcmDrivers[1], &VcmDrivers[2], &VcmDrivers[3], &VcmDrivers[4], &VcmDrivers[5], &VcmDrivers[6],
                    &VcmDrivers[7], &VcmDrivers[8]}) {
        ULONG settled = 0;
        EXPECT_EQ(r->GetHPStatus(ctx, &settled), STATUS_SUCCESS) << r->Name;
        EXPECT_EQ(settled, 1u) << r->Name << ": nothing has moved yet";
    }
    ULONG moving = 7;
    EXPECT_EQ(VcmTimedGetStatus(ctx, &moving), STATUS_SUCCESS);
    EXPECT_EQ(moving, 0u);

    // 1 ms per code moved, at most 40 ms; moving up to and including the end.
    const struct {
        SHORT to;
        int64_t settle_ms;
    } moves[] = {{10, 10}, {110, 40}, {100, 10}, {-5, 40}};
    for (auto& m : moves) {
        SCOPED_TRACE(m.to);
        ASSERT_EQ(AD5823_SetPos(ctx, m.to), STATUS_SUCCESS);
        sys.clock().advance_ms(m.settle_ms);
        ULONG settled = 7;
        EXPECT_EQ(VcmTimedGetStatus(ctx, &moving), STATUS_SUCCESS);
        EXPECT_EQ(AD5823_GetHPStatus(ctx, &settled), STATUS_SUCCESS);
        EXPECT_EQ(moving, 1u);
        EXPECT_EQ(settled, 0u);
        sys.clock().advance(1);
        EXPECT_EQ(VcmTimedGetStatus(ctx, &moving), STATUS_SUCCESS);
        EXPECT_EQ(VcmTimedGetHPStatus(ctx, &settled), STATUS_SUCCESS);
        EXPECT_EQ(moving, 0u);
        EXPECT_EQ(settled, 1u);
    }
    // The chip's own routine traces; the shared ones do not.
    EXPECT_EQ(marked("AD5823_GetHPStatus").size(), 5u);
    EXPECT_EQ(numbers(marked("AD5823_GetHPStatus").back()), (std::vector<uint32_t>{0, 0}));
}

}  // namespace
}  // namespace korvanel::test
