// The page engines: the bytes each puts on the wire, its slot and time-out,
// its length rules, and the wait it takes after a write or an erase. (A
// failed read phase is swept through every read command in the memory
// fault sweep; the texts each failure traces are in the trace contract.)
#include "nvm_fixture.h"

#include "bus/i2c.h"

namespace korvanel::test {
namespace {

class NvmEngineTest : public NvmTest {
protected:
    // The memory's slots open, as the commands leave them for the engines.
    void open(unsigned type)
    {
        for (ULONG s = 0; s < I2C_CONNECTION_COUNT; s++) {
            DeinitI2c(ctx, s);
        }
        select(type);
        for (ULONG s = 0; s < part->connections().size(); s++) {
            ASSERT_EQ(InitI2c(ctx, I2C_SLOT_NVM + s), STATUS_SUCCESS);
        }
        forget();
    }
};

TEST_F(NvmEngineTest, ReadLengthsAndTheCleanupStatus)
{
    open(5);
    UCHAR buffer[4];
    EXPECT_EQ(nvmRead0(ctx, 0, buffer, 0), STATUS_SUCCESS);
    EXPECT_EQ(nvmRead0(ctx, 0, buffer, -1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(M24c64RomRead(ctx, 0, buffer, 0), STATUS_SUCCESS);
    EXPECT_TRUE(sys.bus().transcript().empty());

    // An address phase that completes with STATUS_NOTIFY_CLEANUP ends
    // nvmRead0 before the data phase; M24c64RomRead reads on.
    sys.bus().fail_when({}, bench::BusFault::complete_with(STATUS_NOTIFY_CLEANUP));
    EXPECT_EQ(nvmRead0(ctx, 0x10, buffer, 4), STATUS_INVALID_PARAMETER);
    sys.bus().fail_when({}, bench::BusFault::complete_with(STATUS_NOTIFY_CLEANUP));
    EXPECT_EQ(M24c64RomRead(ctx, 0x10, buffer, 4), STATUS_SUCCESS);

    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 00 10 STATUS_NOTIFY_CLEANUP", "w50 00 10 STATUS_NOTIFY_CLEANUP",
                                                   "r50 4"}));

    // No texts for a type past the table.
    ctx->NvmType = NVM_TYPE_COUNT;
    forget();
    EXPECT_EQ(nvmRead0(ctx, 0, buffer, -1), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(sys.traces().events().empty());
}

TEST_F(NvmEngineTest, WritesSendAddressAndDataInOneRequestAndWaitAfterwards)
{
    auto data = pattern(64);
    const struct {
        unsigned type;
        const char* what;
        std::function<NTSTATUS(PDEVICE_CONTEXT, const UCHAR*)> write;
        NTSTATUS status;
        std::vector<std::string> wire;  // transfers and waits
    } cases[] = {
        {5, "nvmWrite0 past the page", [](auto c, auto d) { return nvmWrite0(c, 0, d, 65); }, STATUS_INVALID_PARAMETER,
         {"sleep 20"}},
        {5, "nvmWrite0 nothing", [](auto c, auto d) { return nvmWrite0(c, 0x0102, d, 0); }, STATUS_SUCCESS,
         {"w50 01 02", "sleep 20"}},
        {10, "bulkWrite", [](auto c, auto d) { return bulkWrite(c, 0x1FE0, d, 2); }, STATUS_SUCCESS,
         {"w50 1F E0 10 17", "spin 5"}},
        {10, "bulkWrite too long", [](auto c, auto d) { return bulkWrite(c, 0, d, 33); }, STATUS_INVALID_PARAMETER,
         {}},
        {6, "RomWrite1 16", [](auto c, auto d) { return RomWrite1(c, 2, 0x10, d, 16); }, STATUS_SUCCESS,
         {"w52 10 " + hex_bytes(data.data(), 16), "spin 5"}},
        {6, "RomWrite1 17", [](auto c, auto d) { return RomWrite1(c, 0, 0, d, 17); }, STATUS_INVALID_PARAMETER,
         {"spin 5"}},
        {6, "RomWrite1 past the blocks", [](auto c, auto d) { return RomWrite1(c, 8, 0, d, 1); },
         STATUS_INVALID_PARAMETER, {"spin 5"}},
        {11, "RomWrite3", [](auto c, auto d) { return RomWrite3(c, 7, 0x3FF, d, 1); }, STATUS_SUCCESS,
         {"w50 1F FF 10", "spin 5"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        open(c.type);
        EXPECT_EQ(c.write(ctx, data.data()), c.status);
        EXPECT_EQ(timeline(), c.wire);
        for (auto& t : sys.bus().transcript()) {
            EXPECT_EQ(t.timeout, -500000);
        }
    }
}

TEST_F(NvmEngineTest, AFailedWriteIsAParameterErrorAndOnlyBulkWriteSkipsTheWait)
{
    open(10);
    UCHAR byte = 0x42;
    sys.bus().fail_when({}, bench::BusFault::nack(), 0, 0);
    EXPECT_EQ(bulkWrite(ctx, 0, &byte, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(nvmWrite0(ctx, 0, &byte, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 00 00 42 STATUS_NO_SUCH_DEVICE",
                                                   "w50 00 00 42 STATUS_NO_SUCH_DEVICE", "sleep 20"}));

    // Past the largest write page the transfer buffer holds (64 bytes),
    // nvmWrite0 refuses the length and traces it, whatever NvmPageSize says;
    // up to it, NvmPageSize is the limit.
    sys.bus().clear_faults();
    ctx->NvmPageSize = 1000;
    auto data = pattern(100);
    forget();
    EXPECT_EQ(nvmWrite0(ctx, 0, data.data(), 65), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(nvmWrite0(ctx, 0, data.data(), 64), STATUS_SUCCESS);
    ctx->NvmPageSize = 8;
    EXPECT_EQ(nvmWrite0(ctx, 0, data.data(), 9), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(nvmWrite0(ctx, 0, data.data(), 8), STATUS_SUCCESS);
    auto wire = timeline();
    ASSERT_EQ(wire.size(), 6u);
    EXPECT_EQ(wire[1], "w50 00 00 " + hex_bytes(data.data(), 64));
    EXPECT_EQ(wire[4], "w50 00 00 " + hex_bytes(data.data(), 8));
}

TEST_F(NvmEngineTest, PageErase3SendsItsCommandAndAlwaysWaits)
{
    open(11);
    EXPECT_EQ(PageErase3(ctx, 3, 0), STATUS_SUCCESS);
    EXPECT_EQ(PageErase3(ctx, 0, 1), STATUS_SUCCESS);
    EXPECT_EQ(PageErase3(ctx, 8, 0), STATUS_SUCCESS);
    sys.bus().fail_when({}, bench::BusFault::timeout());
    EXPECT_EQ(PageErase3(ctx, 0, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 83 EE", "sleep 10", "w50 81 EE", "sleep 50", "sleep 10",
                                                   "w50 81 EE STATUS_IO_TIMEOUT", "sleep 50"}));
}

}  // namespace
}  // namespace korvanel::test
