// DW9806B in its camera modules: the warm start after Init and the reset
// ramps of START2REAR and CM500RF05SW700, step by step with their pauses;
// any other module goes straight to rest.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class Dw9806bTest : public VcmTest {
protected:
    int high = 0;  // register 0x03 as the part holds it

    void SetUp() override
    {
        VcmTest::SetUp();
        select("DW9806B");
    }

    std::vector<std::string> moves(const std::vector<int>& codes)
    {
        std::vector<std::string> wire;
        for (int code : codes) {
            wire = wire + position_wire().at("DW9806B")(code, high);
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

    std::vector<std::string> init_wire()
    {
        return {W({0x00}), R(0xD1), W({0x02, 0x01}), W({0x02, 0x00}), "delay 1 ms", W({0x02, 0x02}),
                W({0x06, 0x61}), W({0x07, 0x3D})};
    }
};

TEST_F(Dw9806bTest, WarmStartWalksTheLensUpToTheModulesLowPosition)
{
    const struct {
        const char* module;
        USHORT low;
        SHORT start;  // what Init records before the walk
        std::vector<int> steps;
        bool ring_control;  // the walk runs with register 0x02 at 0x00, then 0x02
        const char* pause;  // after every step
        SHORT recorded;
    } cases[] = {
        {"START2REAR", 500, 300, range(300, 500, 8), true, nullptr, 500},
        {"START2REAR", 100, 120, {}, true, nullptr, 112},  // 120 is already above: no step, 8 below is recorded
        {"start2rear", 320, 120, range(120, 320, 8), true, nullptr, 320},
        {"CM500RF05SW700", 500, 450, {450, 482, 514, 546}, false, "delay 10 ms", 546},
        {"HAPS", 500, 0, {}, false, nullptr, 0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.module) + " low " + std::to_string(c.low));
        select("DW9806B");
        high = 0;
        set_module(c.module);
        ctx->VcmLowPosition = c.low;
        ctx->VcmPosition = 0;
        clear();
        EXPECT_EQ(DW9806B_Init(ctx), STATUS_SUCCESS);

        std::vector<std::string> wire = init_wire();
        if (c.ring_control) {
            wire.push_back(W({0x02, 0x00}));
        }
        for (int code : c.steps) {
            wire = wire + moves({code});
            if (c.pause) {
                wire.push_back(c.pause);
            }
        }
        if (c.ring_control) {
            wire.push_back(W({0x02, 0x02}));
        }
        EXPECT_EQ(timeline(), wire);
        EXPECT_EQ(ctx->VcmPosition, c.recorded);
        EXPECT_EQ(marked("DW9806B_WarmStart +").size(), 1u);
        EXPECT_EQ(marked("DW9806B_WarmStart -").size(), 1u);
        if (!c.steps.empty()) {
            EXPECT_EQ(numbers(marked("DW9806B_SetPos").at(0)), (std::vector<uint32_t>{uint32_t(c.start), 0}));
        }
    }
}

TEST_F(Dw9806bTest, Start2RearRampSlowsDownNearTheLowPosition)
{
    set_module("START2REAR");
    ctx->VcmLowPosition = 400;
    ctx->VcmHighPosition = 600;
    ctx->VcmPosition = 700;
    EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);

    // Down to the high position first, then 8-code steps to the low one,
    // 2-code steps to 120, 32-code steps below; rest is code 1.
    std::vector<std::string> wire = moves({600});
    wire.push_back("delay 10 ms");
    wire.push_back(W({0x02, 0x00}));
    wire = wire + moves(range(592, 400, -8));
    wire = wire + moves(range(398, 120, -2));
    wire = wire + moves({88, 56, 24, 1});
    EXPECT_EQ(timeline(), wire);

    // The rest position is recorded as 0 with no move, so the lens counts as
    // settled as soon as any time has passed.
    EXPECT_EQ(ctx->VcmPosition, 0);
    EXPECT_EQ(ctx->VcmLastMoveDistance, 0);
    sys.clock().advance(1);
    ULONG settled = 0;
    EXPECT_EQ(DW9806B_GetHPStatus(ctx, &settled), STATUS_SUCCESS);
    EXPECT_EQ(settled, 1u);
    EXPECT_EQ(part->code(), 1);
}

TEST_F(Dw9806bTest, Cm500RampPausesLongerNearTheLowPosition)
{
    set_module("CM500RF05SW700");
    ctx->VcmLowPosition = 300;
    ctx->VcmHighPosition = 600;
    ctx->VcmPosition = 500;
    EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);

    // 1 ms before each step down to L + 90, 10 ms before each 8-code step
    // down past L - 45, no pause below.
    std::vector<std::string> wire;
    for (int p : {468, 436, 404, 390}) {
        wire.push_back("delay 1 ms");
        wire = wire + moves({p});
    }
    for (int p : range(382, 254, -8)) {
        wire.push_back("delay 10 ms");
        wire = wire + moves({p});
    }
    wire = wire + moves({222, 190, 158, 126, 94, 62, 30, 1});
    EXPECT_EQ(timeline(), wire);
    EXPECT_EQ(ctx->VcmPosition, 0);
}

TEST_F(Dw9806bTest, OtherModulesAndOutOfRangePositionsGoStraightToRest)
{
    const struct {
        const char* module;
        SHORT from;
    } cases[] = {{"HAPS", 500}, {"", 100}, {"CM500RF05SW700", 2000}, {"CM500RF05SW700", -40}};
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.module) + " from " + std::to_string(c.from));
        set_module(c.module);
        ctx->VcmLowPosition = 300;
        ctx->VcmHighPosition = 600;
        ctx->VcmPosition = c.from;
        clear();
        high = part->peek(0x03);
        EXPECT_EQ(DW9806B_ResetPos(ctx), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), moves({1}));
        EXPECT_EQ(ctx->VcmPosition, 0);
    }
}

}  // namespace
}  // namespace korvanel::test
