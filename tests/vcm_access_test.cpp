// Lens-actuator register access: one SPB transfer per request with the
// 8-second time-out, address and data phases as separate requests, the
// 0xFF pause, the 12-bit word, and what a failure, a missing connection or
// an out-of-range VcmType leaves behind.
#include "vcm_fixture.h"

#include "models/scripted.h"

namespace korvanel::test {
namespace {

class VcmAccessTest : public VcmTest {
protected:
    std::shared_ptr<models::ScriptedPeripheral> scripted = std::make_shared<models::ScriptedPeripheral>();

    void SetUp() override
    {
        VcmTest::SetUp();
        select("LC898122XA");
        sys.bus().attach(kConnection, scripted);  // a part that answers exactly what the test scripts
    }
};

TEST_F(VcmAccessTest, EachRequestIsOneTransferWithAnEightSecondTimeOut)
{
    scripted->expect_write({0x03, 0x81, 0x20}).expect_write({0x03}).reply({0x81}).expect_write({0x12, 0x34});
    scripted->reply({0x12, 0x34}).reply({0xFF, 0xFF}).reply({0xC0, 0x0F});
    UCHAR byte = 0;
    ASSERT_EQ(VcmWriteReg16(ctx, 0x0381, 0x20), STATUS_SUCCESS);
    ASSERT_EQ(VcmReadReg8(ctx, 0x03, &byte), STATUS_SUCCESS);
    EXPECT_EQ(byte, 0x81);
    ASSERT_EQ(VcmWriteWord(ctx, 0x12, 0x34), STATUS_SUCCESS);
    // A bare word read: the first byte and the high nibble of the second.
    for (USHORT expected : {0x123, 0xFFF, 0xC00}) {
        USHORT word = 0;
        ASSERT_EQ(VcmReadWord(ctx, &word), STATUS_SUCCESS);
        EXPECT_EQ(word, expected);
    }
    EXPECT_EQ(timeline(), wire("W 03 81 20|W 03|R 81|W 12 34|R 12 34|R FF FF|R C0 0F"));
    EXPECT_TRUE(scripted->mismatches().empty());
    for (auto& t : sys.bus().transcript()) {
        EXPECT_EQ(t.timeout, -80000000) << wire_text(t);
    }
    EXPECT_EQ(sys.bus().targets().size(), 1u) << "opened once, kept open";
}

TEST_F(VcmAccessTest, PausesMissingConnectionsAndOutOfRangeTypes)
{
    UCHAR byte = 0x77;
    USHORT word = 0x777;
    auto all = [&] {
        return std::vector<NTSTATUS>{VcmReadReg8(ctx, 4, &byte), VcmReadReg16(ctx, 4, &byte), VcmReadWord(ctx, &word),
                                     VcmWriteReg8(ctx, 4, 1),    VcmWriteReg16(ctx, 4, 1),    VcmWriteWord(ctx, 4, 1)};
    };
    // Register 0xFF is a pause between settings writes; it needs no connection.
    ctx->I2cConnections[I2C_SLOT_VCM].Present = 0;
    EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 1), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), Wire{"delay 1 ms"});
    EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 20), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), Wire{"delay 21 ms"});
    EXPECT_EQ(sys.clock().sleep_count(), 1u) << "20 ms sleeps";

    // Without the connection: its status, no request, the outputs as they were.
    EXPECT_EQ(all(), std::vector<NTSTATUS>(6, STATUS_NOT_SUPPORTED));
    EXPECT_EQ(marked("VcmWriteWord").size(), 0u) << "a write that never went out is not traced as one";

    // VcmType past the table: success without effect, not even the connection.
    ctx->I2cConnections[I2C_SLOT_VCM].Present = 1;
    clear();
    for (LONG type : {9, 100, -1}) {
        ctx->VcmType = type;
        EXPECT_EQ(all(), std::vector<NTSTATUS>(6, STATUS_SUCCESS));
        EXPECT_EQ(VcmWriteReg8(ctx, 0xFF, 5), STATUS_SUCCESS);
    }
    EXPECT_TRUE(timeline().empty());
    EXPECT_TRUE(sys.bus().targets().empty());
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_EQ(byte, 0x77);
    EXPECT_EQ(word, 0x777);

    for (NTSTATUS status : {VcmReadReg8(ctx, 4, nullptr), VcmReadReg16(ctx, 4, nullptr), VcmReadWord(ctx, nullptr),
                            VcmWriteReg8(nullptr, 0xFF, 1)}) {
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    }
}

}  // namespace
}  // namespace korvanel::test
