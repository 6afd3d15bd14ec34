// One contract for all eight actuators, driver and model together: after
// start-up a move lands the lens on the code the driver meant at the stop
// condition of the transfer that carried it, the code reads back, and the
// busy state clears after a settle time that grows with the distance.
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

struct Contract {
    const char* chip;
    int min_code;
    int max_code;
    bool signed_request;  // a negative SetPos argument counts below the range, not far above it
};

void PrintTo(const Contract& c, std::ostream* os) { *os << c.chip; }

class VcmContractTest : public VcmTest, public ::testing::WithParamInterface<Contract> {
protected:
    models::ActuatorModel* vcm = nullptr;

    void SetUp() override
    {
        VcmTest::SetUp();
        vcm = &select(GetParam().chip);
        sys.bus().set_speed(bench::BusSpeed::Fast);
        ASSERT_EQ(row().Init(ctx), STATUS_SUCCESS);
    }
};

TEST_P(VcmContractTest, AMoveLandsTheLensOnTheCodeAndReadsBack)
{
    const Contract& c = GetParam();
    for (int target : {300, c.min_code, c.max_code, (c.min_code + c.max_code) / 2, 5000, 0, 1, -5}) {
        SCOPED_TRACE(target);
        int request = c.signed_request ? target : USHORT(target);
        int code = std::clamp(request, c.min_code, c.max_code);
        ASSERT_EQ(row().SetPos(ctx, SHORT(target)), STATUS_SUCCESS);
        EXPECT_EQ(vcm->code(), code);
        auto last = sys.bus().transcript().back();
        EXPECT_EQ(vcm->trajectory().back().time, last.time + last.duration);
        USHORT position = 0xFFFF;
        ASSERT_EQ(row().GetPos(ctx, &position), STATUS_SUCCESS);
        EXPECT_EQ(position, code);
    }
}

TEST_P(VcmContractTest, TheBusyStateClearsAfterASettleTimeThatGrowsWithTheDistance)
{
    EXPECT_LT(vcm->chip().settle_time(10), vcm->chip().settle_time(290));
    int from = 100;
    ASSERT_EQ(row().SetPos(ctx, SHORT(from)), STATUS_SUCCESS);
    for (int to : {110, 400}) {
        sys.clock().advance(vcm->busy_until() - sys.clock().now() + 1);
        ASSERT_EQ(row().SetPos(ctx, SHORT(to)), STATUS_SUCCESS);
        EXPECT_EQ(vcm->busy_until() - vcm->trajectory().back().time, vcm->chip().settle_time(unsigned(to - from)));
        from = to;
        // The chips with a busy flag say so through GetStatus: bit 0 of
        // their status register.
        for (uint8_t busy : {1, 0}) {
            sys.clock().advance(busy ? 0 : vcm->busy_until() - sys.clock().now());
            EXPECT_EQ(vcm->busy(sys.clock().now()), busy != 0);
            if (auto reg = vcm->chip().busy_reg) {
                clear();
                ULONG status = 7;
                ASSERT_EQ(row().GetStatus(ctx, &status), STATUS_SUCCESS);
                EXPECT_EQ(status, busy);
                std::string address = *reg > 0xFF ? W({uint8_t(*reg >> 8), uint8_t(*reg)}) : W({uint8_t(*reg)});
                EXPECT_EQ(timeline(), (Wire{address, R(busy)}));
            }
        }
    }
}

TEST_P(VcmContractTest, APartInItsPowerUpTimeDoesNotAcknowledge)
{
    vcm->power_on(sys.clock().now());
    NTSTATUS expected = vcm->chip().power_up_us > 0 ? models::kNack : STATUS_SUCCESS;
    EXPECT_EQ(row().SetPos(ctx, 300), expected);
    sys.clock().advance(vcm->chip().power_up_us * 10);
    EXPECT_EQ(row().SetPos(ctx, 300), STATUS_SUCCESS);
    EXPECT_EQ(vcm->code(), 300);
}

INSTANTIATE_TEST_SUITE_P(AllActuators, VcmContractTest,
                         ::testing::Values(Contract{"AD5823", 1, 1023, true}, Contract{"DW9714", 1, 1023, false},
                                           Contract{"AD5816", 0, 1023, true}, Contract{"DW9719", 0, 1023, true},
                                           Contract{"DW9718", 1, 1023, false}, Contract{"DW9806B", 1, 1023, true},
                                           Contract{"WV517S", 1, 1023, false},
                                           Contract{"LC898122XA", 0, 2047, false}),
                         [](const auto& info) { return std::string(info.param.chip); });

}  // namespace
}  // namespace korvanel::test
