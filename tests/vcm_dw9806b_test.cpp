// DW9806B in its camera modules: the warm start after Init and the reset
// ramps of START2REAR and CM500RF05SW700, step by step with their pauses;
// any other module goes straight to rest.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class Dw9806bTest : public VcmTest {
protected:
    int64_t since = 0;

    void SetUp() override
    {
        VcmTest::SetUp();
        select("DW9806B");
    }
    void clear()
    {
        VcmTest::clear();
        since = sys.clock().now();
    }

    // The timeline with each position's transfers (register 0x03 read and
    // merged, 0x04 written) shown as "code N", N being what the part
    // latched; the bytes of one position are in the chip test.
    Wire steps()
    {
        std::vector<int> codes;
        for (auto& point : part->trajectory()) {
            if (point.time >= since) {
                codes.push_back(point.code);
            }
        }
        Wire out;
        size_t next = 0;
        bool reading_msb = false;
        for (auto& line : timeline()) {
            if (line == "W 03" || (reading_msb && line.starts_with("R "))) {
                reading_msb = line == "W 03";
            } else if (line.starts_with("W 04 ")) {
                out.push_back("code " + (next < codes.size() ? std::to_string(codes[next++]) : "?"));
            } else if (!line.starts_with("W 03 ")) {
                out.push_back(line);
            }
        }
        return out;
    }

    // Each position, with the pause that goes with it before or after.
    static Wire moves(std::vector<int> codes, const std::string& before = "", const std::string& after = "")
    {
        Wire wire;
        for (int code : codes) {
            wire = wire + (before.empty() ? Wire{} : Wire{before}) + Wire{"code " + std::to_string(code)} +
                   (after.empty() ? Wire{} : Wire{after});
        }
        return wire;
    }

    static std::vector<int> range(int from, int to, int step)
    {
        std::vector<int> out;
        for (int p = from; step > 0 ? p <= to : p >= to; p += step) {
            out.push_back(p);
        }
        return out;
    }
};

TEST_F(Dw9806bTest, WarmStartWalksTheLensUpToTheModulesLowPositionOtherModulesGoStraightToRest)
{
    const Wire init = {W({0x00}), R(0xD1), W({0x02, 0x01}), W({0x02, 0}), "delay 1 ms", W({0x02, 0x02}),
                       W({0x06, 0x61}), W({0x07, 0x3D})};
    const Wire ring_off = {W({0x02, 0x00})}, ring_on = {W({0x02, 0x02})};
    const struct {
        const char* module;
        USHORT low;
        std::vector<int> steps;  // the first is what Init records
        bool ring_control;       // the walk runs with register 0x02 at 0x00, then 0x02
        const char* pause;       // after every step
        SHORT recorded;
    } cases[] = {
        {"START2REAR", 500, range(300, 500, 8), true, "", 500},
        {"START2REAR", 100, {}, true, "", 112},  // Init records 120, above L: no step, 8 below is recorded
        {"start2rear", 320, range(120, 320, 8), true, "", 320},
        {"CM500RF05SW700", 500, {450, 482, 514, 546}, false, "delay 10 ms", 546},
        {"HAPS", 500, {}, false, "", 0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.module) + " low " + std::to_string(c.low));
        select("DW9806B");
        set_module(c.module);
        ctx->VcmLowPosition = c.low;
        ctx->VcmPosition = 0;
        clear();
        EXPECT_EQ(DW9806B_Init(ctx), STATUS_SUCCESS);
        Wire walk = moves(c.steps, "", c.pause);
        EXPECT_EQ(steps(), c.ring_control ? init + ring_off + walk + ring_on : init + walk);
        EXPECT_EQ(ctx->VcmPosition, c.recorded);
        EXPECT_EQ(marked("DW9806B_WarmStart -").size(), 1u);
    }

    // Any other module goes straight to rest.
    ctx->VcmPosition = 500;
    clear();
    EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);
    EXPECT_EQ(steps(), moves({1}));
    EXPECT_EQ(ctx->VcmPosition, 0);
}

TEST_F(Dw9806bTest, ModuleRampsSlowDownNearTheLowPosition)
{
    // START2REAR from above its high position: down to it first, then with
    // the ring control off 8-code steps to the low position, 2-code steps to
    // 120, 32-code steps below, no pauses; rest is code 1.
    set_module("START2REAR");
    ctx->VcmLowPosition = 400;
    ctx->VcmHighPosition = 600;
    ctx->VcmPosition = 700;
    EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);
    Wire wire = moves({600}, "", "delay 10 ms") + Wire{W({0x02, 0x00})};
    wire = wire + moves(range(592, 400, -8));
    wire = wire + moves(range(398, 120, -2));
    EXPECT_EQ(steps(), wire + moves({88, 56, 24, 1}));
    // Rest is recorded as 0 with no distance: settled as soon as any time passed.
    EXPECT_EQ(ctx->VcmPosition, 0);
    EXPECT_EQ(ctx->VcmLastMoveDistance, 0);
    sys.clock().advance(1);
    ULONG settled = 0;
    EXPECT_EQ(DW9806B_GetHPStatus(ctx, &settled), STATUS_SUCCESS);
    EXPECT_EQ(settled, 1u);

    // CM500RF05SW700: 1 ms before each step down to L + 90, 10 ms before each
    // 8-code step down past L - 45, no pause below.
    set_module("CM500RF05SW700");
    ctx->VcmLowPosition = 300;
    ctx->VcmPosition = 500;
    clear();
    EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);
    wire = moves({468, 436, 404, 390}, "delay 1 ms");
    wire = wire + moves(range(382, 254, -8), "delay 10 ms");
    EXPECT_EQ(steps(), wire + moves({222, 190, 158, 126, 94, 62, 30, 1}));
    EXPECT_EQ(ctx->VcmPosition, 0);
}

// The CM500RF05SW700 ramp's comparisons at their exact bounds (L = 300,
// H = 600): p = H is not above H (1 ms, then a 32-code step); p = L + 90 is
// not above it (10 ms, then an 8-code step); p = L - 45 is not above it (a
// 32-code step, no pause).
TEST_F(Dw9806bTest, ModuleRampComparisonsAtTheirBounds)
{
    set_module("CM500RF05SW700");
    ctx->VcmLowPosition = 300;
    ctx->VcmHighPosition = 600;
    const struct {
        SHORT from;
        uint16_t first;
        const char* before;  // the pause before the first step, "" none
        const char* after;   // what follows the first step's four transfers
    } cases[] = {{600, 568, "delay 1 ms", "delay 1 ms"}, {390, 382, "delay 10 ms", "delay 10 ms"}, {255, 223, "", "W 03"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.from);
        ctx->VcmPosition = c.from;
        size_t moved = part->trajectory().size();
        clear();
        ASSERT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);
        ASSERT_GT(part->trajectory().size(), moved);
        EXPECT_EQ(part->trajectory()[moved].code, c.first);
        auto wire = timeline();
        size_t at = *c.before ? 1 : 0;
        EXPECT_EQ(at ? wire[0] : "", c.before);
        EXPECT_EQ(wire.at(at + 4), c.after);
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
    } cases[] = {{{0x02, 0x02}, sim::kNack}, {{0x02, 0x00}, STATUS_SUCCESS}, {{0x04}, sim::kNack}};
    for (const auto& c : cases) {
        SCOPED_TRACE(wire_line('W', c.prefix));
        ctx->VcmPosition = 300;
        sys.bus().clear_faults();
        sys.bus().fail_when({.direction = host::Direction::Write, .prefix = c.prefix}, host::BusFault::nack());
        EXPECT_EQ(DW9806B_WarmStart(ctx), c.status);
    }
    sys.bus().clear_faults();
    sys.bus().fail_when({.direction = host::Direction::Write, .prefix = {0x02, 0x02}}, host::BusFault::nack(), 1);
    EXPECT_EQ(DW9806B_Init(ctx), STATUS_SUCCESS);
}

}  // namespace
}  // namespace korvanel::test
