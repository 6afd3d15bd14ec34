// DW9806B in its camera modules: the warm start after Init and the reset
// ramps of START2REAR and CM500RF05SW700, step by step with their pauses
// (any other module's straight return to rest is in the chips' ramp table).
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class Dw9806bTest : public VcmTest {
protected:
    void SetUp() override
    {
        VcmTest::SetUp();
        select("DW9806B");
    }
};

// The warm start after Init walks the lens up: START2REAR (ring control off
// meanwhile) in 8-code steps from what Init recorded to L, CM500RF05SW700 in
// 32-code steps to L + 50, 10 ms after each.
// The reset ramps end at code 1. START2REAR (L 400, H 600): down to H first,
// then with the ring control off 8-code steps to L, 2-code steps to 120,
// 32-code steps below, no pauses. CM500RF05SW700 (L 300, H 600): 1 ms before
// each step down to L + 90, 10 ms before each 8-code step down past L - 45,
// no pause below; no bound counts as above itself.
TEST_F(Dw9806bTest, ModuleWalksAfterInitAndDownToRest)
{
    constexpr SHORT kInit = -1;
    const Wire init = {W({0x00}), R(0xD1), W({0x02, 0x01}), W({0x02, 0}), "delay 1 ms", W({0x02, 0x02}),
                       W({0x06, 0x61}), W({0x07, 0x3D})};
    const Wire ring_off = {W({0x02, 0x00})}, ring_on = {W({0x02, 0x02})};
    const Wire below = steps({222, 190, 158, 126, 94, 62, 30, 1});
    const Wire near = steps(range(382, 254, -8), "delay 10 ms") + below;
    const struct {
        const char* module;
        USHORT low;
        SHORT from;  // the recorded position before ResetPos, or Init
        Wire wire;
        SHORT recorded;
    } cases[] = {
        {"START2REAR", 500, kInit, init + ring_off + steps(range(300, 500, 8)) + ring_on, 500},
        {"START2REAR", 100, kInit, init + ring_off + ring_on, 112},  // Init records 120, above L: 8 below is recorded
        {"start2rear", 320, kInit, init + ring_off + steps(range(120, 320, 8)) + ring_on, 320},
        {"CM500RF05SW700", 500, kInit, init + steps({450, 482, 514, 546}, "", "delay 10 ms"), 546},
        {"HAPS", 500, kInit, init, 0},
        {"START2REAR", 400, 700,
         steps({600}, "", "delay 10 ms") + ring_off + steps(range(592, 400, -8)) + steps(range(398, 120, -2)) +
             steps({88, 56, 24, 1}), 0},
        {"CM500RF05SW700", 300, 500, steps({468, 436, 404, 390}, "delay 1 ms") + near, 0},
        {"CM500RF05SW700", 300, 600, steps(range(568, 408, -32), "delay 1 ms") + steps({390}, "delay 1 ms") + near, 0},
        {"CM500RF05SW700", 300, 390, near, 0},
        {"CM500RF05SW700", 300, 255, steps({223, 191, 159, 127, 95, 63, 31, 1}), 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.module) + " low " + std::to_string(c.low) + " from " + std::to_string(c.from));
        set_module(c.module);
        ctx->VcmLowPosition = c.low;
        ctx->VcmHighPosition = 600;
        ctx->VcmPosition = c.from == kInit ? 0 : c.from;
        clear();
        EXPECT_EQ(c.from == kInit ? DW9806B_Init(ctx) : DW9806B_ResetPos(ctx), STATUS_SUCCESS);
        EXPECT_EQ(moves(), c.wire);
        EXPECT_EQ(ctx->VcmPosition, c.recorded);
        if (c.from != kInit) {
            // Rest is recorded as 0 with no distance: settled as soon as any time passed.
            EXPECT_EQ(ctx->VcmLastMoveDistance, 0);
            sys.clock().advance(1);
            ULONG settled = 0;
            EXPECT_EQ(DW9806B_GetHPStatus(ctx, &settled), STATUS_SUCCESS);
            EXPECT_EQ(settled, 1u);
        }
    }
}

// The warm start's own result: the last write of 0x02 to register 0x02 gives
// it, the first is not looked at, a failed step ends it with that step's
// status. Init's result stays that of its settings writes.
TEST_F(Dw9806bTest, WarmStartResult)
{
    set_module("START2REAR");
    ctx->VcmLowPosition = 316;
    const struct {
        std::vector<uint8_t> prefix;
        NTSTATUS status;
    } cases[] = {{{0x02, 0x02}, models::kNack}, {{0x02, 0x00}, STATUS_SUCCESS}, {{0x04}, models::kNack}};
    for (const auto& c : cases) {
        SCOPED_TRACE(wire_line('W', c.prefix));
        ctx->VcmPosition = 300;
        sys.bus().clear_faults();
        sys.bus().fail_when({.direction = bench::Direction::Write, .prefix = c.prefix}, bench::BusFault::nack());
        EXPECT_EQ(DW9806B_WarmStart(ctx), c.status);
    }
    sys.bus().clear_faults();
    sys.bus().fail_when({.direction = bench::Direction::Write, .prefix = {0x02, 0x02}}, bench::BusFault::nack(), 1);
    EXPECT_EQ(DW9806B_Init(ctx), STATUS_SUCCESS);
}

}  // namespace
}  // namespace korvanel::test
