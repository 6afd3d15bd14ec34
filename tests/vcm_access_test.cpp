// Lens-actuator register access: one SPB transfer per request with the
// 8-second time-out, address and data phases as separate requests, the
// 0xFF pause, the 12-bit word, and what a failure or an out-of-range
// VcmType leaves behind.
#include "vcm_fixture.h"

#include "sim/scripted.h"

namespace korvanel::test {
namespace {

class VcmAccessTest : public VcmTest {
protected:
    std::shared_ptr<sim::ScriptedPeripheral> scripted;

    // A part that answers exactly what the test scripts.
    void script()
    {
        select("LC898122XA");
        scripted = std::make_shared<sim::ScriptedPeripheral>();
        sys.bus().attach(kConnection, scripted);
    }
};

TEST_F(VcmAccessTest, EachPrimitiveIsOneTransferPerRequestWithAnEightSecondTimeOut)
{
    script();
    scripted->expect_write({0x03, 0x81, 0x20});
    scripted->expect_write({0x03, 0x81}).reply({0x20});
    scripted->expect_write({0x03, 0x81});
    scripted->expect_write({0x03}).reply({0x81});
    scripted->expect_write({0x12, 0x34}).reply({0x12, 0x34});
    UCHAR byte = 0;
    USHORT word = 0;
    ASSERT_EQ(VcmWriteReg16(ctx, 0x0381, 0x20), STATUS_SUCCESS);
    ASSERT_EQ(VcmReadReg16(ctx, 0x0381, &byte), STATUS_SUCCESS);
    EXPECT_EQ(byte, 0x20);
    ASSERT_EQ(VcmWriteReg8(ctx, 0x03, 0x81), STATUS_SUCCESS);
    ASSERT_EQ(VcmReadReg8(ctx, 0x03, &byte), STATUS_SUCCESS);
    EXPECT_EQ(byte, 0x81);
    ASSERT_EQ(VcmWriteWord(ctx, 0x12, 0x34), STATUS_SUCCESS);
    ASSERT_EQ(VcmReadWord(ctx, &word), STATUS_SUCCESS);
    EXPECT_EQ(word, 0x123);

    // 16-bit addresses high byte first; the data phase of a read is a
    // request of its own; a bare word read has no address phase.
    EXPECT_EQ(timeline(), (std::vector<std::string>{"W 03 81 20", "W 03 81", "R 20", "W 03 81", "W 03", "R 81",
                                                    "W 12 34", "R 12 34"}));
    EXPECT_EQ(scripted->pending(), 0u);
    EXPECT_TRUE(scripted->mismatches().empty());
    for (auto& t : sys.bus().transcript()) {
        EXPECT_EQ(t.timeout, -80000000) << wire_text(t);
        EXPECT_EQ(t.connection, kConnection);
    }
    // The connection was opened once and stays open.
    EXPECT_EQ(sys.bus().targets().size(), 1u);
    EXPECT_EQ(ctx->I2cConnections[I2C_SLOT_VCM].Opened, 1);
}

TEST_F(VcmAccessTest, WordReadsKeepTheTopTwelveBits)
{
    script();
    const struct {
        uint8_t b0, b1;
        USHORT value;
    } cases[] = {{0x12, 0x34, 0x123}, {0xFF, 0xFF, 0xFFF}, {0x3F, 0xF5, 0x3FF}, {0xC0, 0x00, 0xC00}, {0x00, 0x0F, 0}};
    for (auto& c : cases) {
        scripted->reply({c.b0, c.b1});
        USHORT value = 0xBEEF;
        EXPECT_EQ(VcmReadWord(ctx, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, c.value) << std::hex << int(c.b0) << " " << int(c.b1);
    }
}

TEST_F(VcmAccessTest, RegisterFfIsAPauseThatNeedsNoConnection)
{
    ctx->VcmType = VCM_TYPE_DW9806B;  // slot 1 absent
    EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 1), STATUS_SUCCESS);
    EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 20), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"delay 1 ms", "delay 20 ms"}));
    EXPECT_TRUE(sys.bus().targets().empty());
    auto events = marked("VcmWriteReg8");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(host::Traces::text(events[0], 1), "DW9806B");
    EXPECT_EQ(numbers(events[1]), std::vector<uint32_t>{20});

    // Any other register needs the connection.
    EXPECT_EQ(VcmWriteReg8(ctx, 0xFE, 1), STATUS_NOT_SUPPORTED);
}

TEST_F(VcmAccessTest, AFailedPhaseLeavesTheOutputAndEndsTheRead)
{
    const struct {
        const char* what;
        uint64_t failed;  // which transfer of the read fails
        host::BusFault fault;
        std::vector<std::string> wire;
    } cases[] = {
        {"address phase NACKed", 0, host::BusFault::nack(), {"W 03 35"}},
        {"data phase timed out", 1, host::BusFault::timeout(), {"W 03 35", "R"}},
        {"address phase failed", 0, host::BusFault::fail(STATUS_DEVICE_PROTOCOL_ERROR), {"W 03 35"}},
    };
    select("LC898122XA");
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear();
        sys.bus().fail_transfer(sys.bus().transfer_count() + c.failed, c.fault);
        UCHAR byte = 0x5A;
        EXPECT_EQ(VcmReadReg16(ctx, 0x0335, &byte), c.fault.status);
        EXPECT_EQ(byte, 0x5A);
        EXPECT_EQ(timeline(), c.wire);
        // The error, then the end with the unchanged byte.
        auto events = marked("VcmReadReg16");
        ASSERT_EQ(events.size(), 2u);
        EXPECT_EQ(sys.traces().format(events[0])->flag, uint32_t(TRACE_ERROR));
        EXPECT_EQ(numbers(events[0]), std::vector<uint32_t>{uint32_t(c.fault.status)});
        EXPECT_EQ(numbers(events[1]), (std::vector<uint32_t>{0x0335, 0x5A}));
    }

    // A write is traced with its register and data whatever the outcome.
    clear();
    sys.bus().fail_transfer(sys.bus().transfer_count(), host::BusFault::nack());
    EXPECT_EQ(VcmWriteReg16(ctx, 0x0381, 0x20), sim::kNack);
    auto write_events = marked("VcmWriteReg16");
    ASSERT_EQ(write_events.size(), 2u);
    EXPECT_EQ(numbers(write_events[1]), (std::vector<uint32_t>{0x0381, 0x20}));
}

TEST_F(VcmAccessTest, NoConnectionAnOutOfRangeTypeOrNoPointerTouchNothing)
{
    UCHAR byte = 0x77;
    USHORT word = 0x777;
    // Slot 1 absent: the connection's status, the read's end event, no
    // request, the output as it was.
    ctx->VcmType = VCM_TYPE_AD5823;
    EXPECT_EQ(VcmReadReg8(ctx, 4, &byte), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(VcmReadWord(ctx, &word), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(VcmWriteWord(ctx, 1, 2), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(marked("VcmReadReg8").size(), 1u);
    EXPECT_EQ(marked("VcmWriteWord").size(), 0u);

    // VcmType past the table: success without effect, not even the connection.
    select("DW9719");
    sys.traces().clear();
    for (LONG type : {9, 100, -1}) {
        ctx->VcmType = type;
        EXPECT_EQ(VcmReadReg8(ctx, 4, &byte), STATUS_SUCCESS);
        EXPECT_EQ(VcmReadReg16(ctx, 4, &byte), STATUS_SUCCESS);
        EXPECT_EQ(VcmReadWord(ctx, &word), STATUS_SUCCESS);
        EXPECT_EQ(VcmWriteReg8(ctx, 4, 1), STATUS_SUCCESS);
        EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 5), STATUS_SUCCESS);
        EXPECT_EQ(VcmWriteReg16(ctx, 4, 1), STATUS_SUCCESS);
        EXPECT_EQ(VcmWriteWord(ctx, 4, 1), STATUS_SUCCESS);
    }
    EXPECT_EQ(byte, 0x77);
    EXPECT_EQ(word, 0x777);
    EXPECT_TRUE(timeline().empty());
    EXPECT_TRUE(sys.bus().targets().empty());
    EXPECT_TRUE(sys.traces().events().empty());

    ctx->VcmType = VCM_TYPE_DW9719;
    EXPECT_EQ(VcmReadReg8(ctx, 4, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmReadReg16(ctx, 4, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmReadWord(ctx, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmReadReg8(nullptr, 4, &byte), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmWriteReg8(nullptr, 0xFF, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmWriteReg16(nullptr, 4, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VcmWriteWord(nullptr, 4, 1), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(timeline().empty());
}

}  // namespace
}  // namespace korvanel::test
