// The fault sweep: every operation of every chip, with each of its transfers
// in turn failed, not acknowledged or timed out. Whatever fails, BusLock is
// free afterwards; a failure ends the operation at once with that transfer's
// status, except where the chip does not look at the result; and a failed
// operation leaves the recorded position and the caller's output as they
// were.
#include "vcm_fixture.h"

#include <iostream>

namespace korvanel::test {
namespace {

enum class Op { Init, SetPos, GetPos, GetStatus, ResetPos };

struct Scenario {
    const char* chip;
    Op op;
    SHORT start = 0;  // the recorded position before
    const char* module = "HAPS";
    USHORT low = 0;
    USHORT high = 0;
};

// Start-up, a move and the reads of every chip; ramps of a few steps; and
// DW9806B's start-up and ramps in both its modules.
std::vector<Scenario> scenarios()
{
    std::vector<Scenario> out;
    for (auto& chip : models::actuator_chips()) {
        for (Op op : {Op::Init, Op::SetPos, Op::GetPos, Op::GetStatus}) {
            if (op != Op::GetStatus || chip.busy_reg) {
                out.push_back({chip.name.c_str(), op});
            }
        }
    }
    out.insert(out.end(), {{"AD5823", Op::ResetPos, 100}, {"DW9714", Op::ResetPos, 100}, {"AD5816", Op::ResetPos, 40},
                           {"DW9719", Op::ResetPos, 100, "HAPS", 200}, {"DW9718", Op::ResetPos, 100},
                           {"WV517S", Op::ResetPos, 70}, {"LC898122XA", Op::ResetPos, 1100},
                           {"DW9806B", Op::Init, 0, "START2REAR", 150}, {"DW9806B", Op::Init, 0, "CM500RF05SW700", 100},
                           {"DW9806B", Op::ResetPos, 190, "START2REAR", 130, 200},
                           {"DW9806B", Op::ResetPos, 150, "CM500RF05SW700", 20, 100}});
    return out;
}

constexpr SHORT kTarget = 300;
constexpr USHORT kNoPosition = 0xBEEF;
constexpr ULONG kNoFlag = 0xBEEF;

class VcmFaultTest : public VcmTest {
protected:
    USHORT position = kNoPosition;
    ULONG flag = kNoFlag;

    void prepare(const Scenario& s)
    {
        select(s.chip);
        set_module(s.module);
        ctx->VcmPosition = s.start;
        ctx->VcmLastMoveDistance = 0;
        ctx->VcmLastMoveTime = 0;
        ctx->VcmLowPosition = s.low;
        ctx->VcmHighPosition = s.high;
        position = kNoPosition;
        flag = kNoFlag;
        sys.bus().clear_faults();
        clear();
    }

    NTSTATUS run(const Scenario& s)
    {
        const VCM_DRIVER& r = row();
        return s.op == Op::Init       ? r.Init(ctx)
               : s.op == Op::SetPos   ? r.SetPos(ctx, kTarget)
               : s.op == Op::GetPos   ? r.GetPos(ctx, &position)
               : s.op == Op::GetStatus ? r.GetStatus(ctx, &flag)
                                       : r.ResetPos(ctx);
    }

    // Transfers whose outcome the chip does not look at: DW9718's and
    // WV517S's high code register in a move, DW9806B's ring-control switch
    // off before a ramp, and everything DW9806B's warm start does after Init
    // programmed the chip (the identification read and five writes).
    static bool result_ignored(const Scenario& s, const bench::BusTransfer& t, size_t k)
    {
        std::string chip = s.chip;
        bool moving = s.op == Op::SetPos || s.op == Op::ResetPos;
        if ((chip == "DW9718" || chip == "WV517S") && moving) {
            return t.direction == bench::Direction::Write && t.bytes[0] == models::actuator_chip(chip).high_reg;
        }
        if (chip == "DW9806B" && s.op == Op::Init) {
            return k >= 7;
        }
        if (chip == "DW9806B" && s.op == Op::ResetPos) {
            return t.bytes == std::vector<uint8_t>{0x02, 0x00};
        }
        return false;
    }
};

TEST_F(VcmFaultTest, EveryTransferOfEveryOperationFailedThreeWays)
{
    const bench::BusFault faults[] = {bench::BusFault::fail(STATUS_DEVICE_PROTOCOL_ERROR), bench::BusFault::nack(),
                                     bench::BusFault::timeout()};
    size_t cases = 0;
    auto all = scenarios();
    for (auto& s : all) {
        std::string what = std::string(s.chip) + " operation " + std::to_string(int(s.op)) + " (" + s.module + ")";
        prepare(s);
        ASSERT_EQ(run(s), STATUS_SUCCESS) << what;
        auto clean = sys.bus().transcript();
        ASSERT_FALSE(clean.empty()) << what;
        SHORT clean_position = ctx->VcmPosition;
        LONG clean_distance = ctx->VcmLastMoveDistance;

        for (size_t k = 0; k < clean.size(); k++) {
            cases++;
            for (auto& fault : faults) {
                SCOPED_TRACE(what + ", transfer " + std::to_string(k) + " " + wire_text(clean[k]) + " -> " +
                             bench::status_name(fault.status));
                prepare(s);
                uint16_t code_before = part->code();
                sys.bus().fail_transfer(sys.bus().transfer_count() + k, fault);
                NTSTATUS status = run(s);
                auto wire = sys.bus().transcript();

                EXPECT_TRUE(lock_free());
                if (!lock_free()) {
                    KeSetEvent(&ctx->BusLock, 0, FALSE);  // so that the sweep goes on
                }
                if (result_ignored(s, clean[k], k)) {
                    // Nothing else is different either: the move is
                    // recorded as in the run without a failure.
                    EXPECT_EQ(status, STATUS_SUCCESS);
                    if (s.op != Op::Init) {
                        EXPECT_EQ(ctx->VcmPosition, clean_position);
                        EXPECT_EQ(ctx->VcmLastMoveDistance, clean_distance);
                        EXPECT_NE(ctx->VcmLastMoveTime, 0);
                    }
                    continue;
                }
                EXPECT_EQ(status, fault.status);
                EXPECT_EQ(wire.size(), k + 1) << "the failure ends the operation at once";
                EXPECT_EQ(position, kNoPosition);
                EXPECT_EQ(flag, kNoFlag);
                if (s.op == Op::SetPos) {
                    EXPECT_EQ(ctx->VcmPosition, s.start);
                    EXPECT_EQ(ctx->VcmLastMoveDistance, 0);
                    EXPECT_EQ(ctx->VcmLastMoveTime, 0);
                    EXPECT_EQ(part->code(), code_before);
                }
                if (s.op == Op::ResetPos) {
                    // Where the last step that went through left it; DW9806B
                    // records its rest position before the final move.
                    auto points = part->trajectory();
                    SHORT reached = points.empty() ? s.start : SHORT(points.back().code);
                    bool final_move = k + 4 >= clean.size();
                    if (std::string(s.chip) == "DW9806B" && final_move) {
                        reached = 0;
                    }
                    EXPECT_EQ(ctx->VcmPosition, reached);
                }
            }
        }
    }
    std::cout << "[ fault sweep ] " << cases << " (chip, operation, k) cases over " << all.size()
              << " operations of 8 chips, each failed, NACKed and timed out: " << 3 * cases << " runs\n";
    RecordProperty("fault_sweep_cases", int(cases));
}

}  // namespace
}  // namespace korvanel::test
