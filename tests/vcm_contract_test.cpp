// One contract for all eight actuators, driver and model together: after
// start-up a move lands the lens on the code the driver meant, the busy
// state clears after a settle time that grows with the distance, the code
// reads back, and the reset ramp brings the lens to rest.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

struct Contract {
    const char* chip;
    int min_code;
    int max_code;
    int rest;  // where ResetPos leaves the lens (DW9719: the module's low position)
};

void PrintTo(const Contract& c, std::ostream* os) { *os << c.chip; }

class VcmContractTest : public VcmTest, public ::testing::WithParamInterface<Contract> {
protected:
    static constexpr USHORT kLowPosition = 200;

    sim::ActuatorModel* vcm = nullptr;

    void SetUp() override
    {
        VcmTest::SetUp();
        vcm = &select(GetParam().chip);
        sys.bus().set_speed(host::BusSpeed::Fast);
        ctx->VcmLowPosition = kLowPosition;
        ctx->VcmHighPosition = 800;
        set_module("START2REAR");  // DW9806B's gentle ramps; the others do not look
    }
};

TEST_P(VcmContractTest, AMoveLandsTheLensOnTheCodeAndReadsBack)
{
    const Contract& c = GetParam();
    ASSERT_EQ(row().Init(ctx), STATUS_SUCCESS);
    for (int target : {300, c.min_code, c.max_code, (c.min_code + c.max_code) / 2, 5000, 0, 1}) {
        SCOPED_TRACE(target);
        int code = std::clamp(target, c.min_code, c.max_code);
        clear();
        ASSERT_EQ(row().SetPos(ctx, SHORT(target)), STATUS_SUCCESS);
        EXPECT_EQ(vcm->code(), code);
        // Latched at the stop condition of the transfer that carried the code.
        auto last = sys.bus().transcript().back();
        EXPECT_EQ(vcm->trajectory().back().time, last.time + last.duration);
        USHORT position = 0xFFFF;
        ASSERT_EQ(row().GetPos(ctx, &position), STATUS_SUCCESS);
        EXPECT_EQ(position, code);
        EXPECT_TRUE(lock_free());
    }
}

TEST_P(VcmContractTest, TheBusyStateClearsAfterASettleTimeThatGrowsWithTheDistance)
{
    ASSERT_EQ(row().Init(ctx), STATUS_SUCCESS);
    ASSERT_EQ(row().SetPos(ctx, 100), STATUS_SUCCESS);
    int64_t previous = 0;
    int from = vcm->code();
    for (int to : {110, 400}) {
        sys.clock().advance(vcm->busy_until() - sys.clock().now() + 1);
        ASSERT_FALSE(vcm->busy());
        ASSERT_EQ(row().SetPos(ctx, SHORT(to)), STATUS_SUCCESS);
        int64_t settle = vcm->busy_until() - vcm->trajectory().back().time;
        EXPECT_EQ(settle, vcm->chip().settle_time(unsigned(std::abs(to - from))));
        EXPECT_GT(settle, previous);
        previous = settle;
        from = to;

        // The chips with a busy flag say so through GetStatus.
        for (bool busy : {true, false}) {
            if (!busy) {
                sys.clock().advance(vcm->busy_until() - sys.clock().now());
            }
            EXPECT_EQ(vcm->busy(), busy);
            if (vcm->chip().busy_reg) {
                ULONG status = 7;
                ASSERT_EQ(row().GetStatus(ctx, &status), STATUS_SUCCESS);
                EXPECT_EQ(status, busy ? 1u : 0u);
            }
        }
    }
}

TEST_P(VcmContractTest, ResetBringsTheLensToRest)
{
    const Contract& c = GetParam();
    ASSERT_EQ(row().Init(ctx), STATUS_SUCCESS);
    ASSERT_EQ(row().SetPos(ctx, 700), STATUS_SUCCESS);
    size_t before = vcm->trajectory().size();
    ASSERT_EQ(row().ResetPos(ctx), STATUS_SUCCESS);
    EXPECT_EQ(vcm->code(), c.rest);
    // Every step goes one way, towards rest.
    auto points = vcm->trajectory();
    int towards = c.rest > 700 ? 1 : -1;
    for (size_t i = before + 1; i < points.size(); i++) {
        EXPECT_GE((points[i].code - points[i - 1].code) * towards, 0) << i;
        EXPECT_GT(points[i].time, points[i - 1].time) << "steps are paced";
    }
    EXPECT_GT(points.size() - before, 2u);
    EXPECT_TRUE(lock_free());
}

TEST_P(VcmContractTest, ReadsContinueThroughTheRegisterFile)
{
    auto& chip = vcm->chip();
    if (chip.interface == sim::ActuatorChip::Interface::CommandWord) {
        // No registers: a read returns the position word, however long.
        ASSERT_EQ(row().SetPos(ctx, 0x155), STATUS_SUCCESS);
        std::vector<uint8_t> bytes(4);
        EXPECT_EQ(vcm->read(bytes), STATUS_SUCCESS);
        EXPECT_EQ(bytes, (std::vector<uint8_t>{0x15, 0x50, 0x15, 0x50}));
        return;
    }
    // One write with the address and both code bytes, then one read of two.
    std::vector<uint8_t> write;
    if (chip.interface == sim::ActuatorChip::Interface::Reg16) {
        write = {uint8_t(chip.high_reg >> 8), uint8_t(chip.high_reg), 0xBB, 0x80};
    } else {
        write = {uint8_t(chip.high_reg), 0x02, 0x34};
    }
    ASSERT_EQ(vcm->write(write), STATUS_SUCCESS);
    std::vector<uint8_t> address(write.begin(), write.end() - 2);
    ASSERT_EQ(vcm->write(address), STATUS_SUCCESS);
    std::vector<uint8_t> bytes(2);
    ASSERT_EQ(vcm->read(bytes), STATUS_SUCCESS);
    EXPECT_EQ(bytes, std::vector<uint8_t>(write.end() - 2, write.end()));
    EXPECT_EQ(vcm->code(), chip.interface == sim::ActuatorChip::Interface::Reg16 ? 1500 : 0x234);
}

INSTANTIATE_TEST_SUITE_P(AllActuators, VcmContractTest,
                         ::testing::Values(Contract{"AD5823", 1, 1023, 1}, Contract{"DW9714", 1, 1023, 1},
                                           Contract{"AD5816", 0, 1023, 0}, Contract{"DW9719", 0, 1023, 200},
                                           Contract{"DW9718", 1, 1023, 1}, Contract{"DW9806B", 1, 1023, 1},
                                           Contract{"WV517S", 1, 1023, 1}, Contract{"LC898122XA", 0, 2047, 1024}),
                         [](const auto& info) { return std::string(info.param.chip); });

}  // namespace
}  // namespace korvanel::test
