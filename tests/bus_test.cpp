// The simulated resource hub and SPB bus under the driver: which requests it
// refuses, what it carries out and records, how long transfers take on the
// clock, and each kind of injected fault.
#include "driver_fixture.h"

#include "bus/i2c.h"
#include "bench/spb_controller.h"
#include "models/recording.h"
#include "models/scripted.h"

#include <tuple>

namespace korvanel::test {
namespace {

using bench::BusFault;
using bench::BusSpeed;
using models::Direction;

constexpr uint64_t kId = 0x2a;
constexpr LONGLONG kEightSeconds = -80000000;

// One execute-sequence request as the actuator and memory code build it.
struct Sequence {
    SPB_TRANSFER_LIST list{};
    WDF_MEMORY_DESCRIPTOR input{};
    WDF_REQUEST_SEND_OPTIONS options{};
    PWDF_REQUEST_SEND_OPTIONS options_ptr = &options;
    ULONG code = IOCTL_SPB_EXECUTE_SEQUENCE;

    Sequence(Direction direction, uint8_t* buffer, ULONG length, LONGLONG timeout = kEightSeconds)
    {
        list.Size = sizeof(list);
        list.TransferCount = 1;
        list.Transfers[0].Direction =
            direction == Direction::Write ? SpbTransferDirectionToDevice : SpbTransferDirectionFromDevice;
        list.Transfers[0].Buffer.Format = SpbTransferBufferFormatSimple;
        list.Transfers[0].Buffer.Simple.Buffer = buffer;
        list.Transfers[0].Buffer.Simple.BufferCb = length;
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&input, &list, sizeof(list));
        WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0);
        WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, timeout);
    }
    Sequence(const Sequence&) = delete;

    NTSTATUS send(WDFIOTARGET target, ULONG_PTR* returned = nullptr)
    {
        return WdfIoTargetSendIoctlSynchronously(target, NULL, code, &input, NULL, options_ptr, returned);
    }
};

class BusTest : public DriverTest {
protected:
    PDEVICE_CONTEXT ctx = nullptr;
    WDFIOTARGET target = nullptr;
    std::shared_ptr<models::ScriptedPeripheral> script;
    std::shared_ptr<models::RecordingPeripheral> part;

    void SetUp() override
    {
        DriverTest::SetUp();
        ctx = add();
        ctx->I2cConnections[1].ConnectionId = kId;
        ctx->I2cConnections[1].Present = 1;
        fresh_part();
        ASSERT_EQ(InitI2c(ctx, 1), STATUS_SUCCESS);
        target = ctx->I2cConnections[1].Target;
    }

    void fresh_part()
    {
        script = std::make_shared<models::ScriptedPeripheral>();
        part = std::make_shared<models::RecordingPeripheral>(script);
        sys.bus().attach(kId, part);
    }

    NTSTATUS send(Direction direction, std::vector<uint8_t>& bytes, LONGLONG timeout = kEightSeconds,
                  ULONG_PTR* returned = nullptr)
    {
        Sequence s(direction, bytes.data(), ULONG(bytes.size()), timeout);
        return s.send(target, returned);
    }
};

TEST_F(BusTest, RefusesMalformedRequestsBeforeTheBus)
{
    const struct {
        const char* what;
        void (*spoil)(Sequence&);
        NTSTATUS status;
    } cases[] = {
        {"another control code", [](Sequence& s) { s.code = 0x41804; }, STATUS_INVALID_DEVICE_REQUEST},
        {"input as an MDL", [](Sequence& s) { s.input.Type = WdfMemoryDescriptorTypeMdl; }, STATUS_INVALID_PARAMETER},
        {"input shorter than a list", [](Sequence& s) { s.input.u.BufferType.Length = 40; }, STATUS_INVALID_PARAMETER},
        {"list Size 40", [](Sequence& s) { s.list.Size = 40; }, STATUS_INVALID_PARAMETER},
        {"two transfers", [](Sequence& s) { s.list.TransferCount = 2; }, STATUS_INVALID_PARAMETER},
        {"no direction", [](Sequence& s) { s.list.Transfers[0].Direction = SpbTransferDirectionNone; },
         STATUS_INVALID_PARAMETER},
        {"buffer list", [](Sequence& s) { s.list.Transfers[0].Buffer.Format = SpbTransferBufferFormatList; },
         STATUS_INVALID_PARAMETER},
        {"no buffer", [](Sequence& s) { s.list.Transfers[0].Buffer.Simple.Buffer = nullptr; }, STATUS_INVALID_PARAMETER},
        {"empty buffer", [](Sequence& s) { s.list.Transfers[0].Buffer.Simple.BufferCb = 0; }, STATUS_INVALID_PARAMETER},
        {"send options of the wrong size", [](Sequence& s) { s.options.Size = 8; }, STATUS_INFO_LENGTH_MISMATCH},
    };
    uint8_t bytes[2] = {0x04, 0x01};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Sequence s(Direction::Write, bytes, sizeof(bytes));
        c.spoil(s);
        ULONG_PTR returned = 99;
        EXPECT_EQ(s.send(target, &returned), c.status);
        EXPECT_EQ(returned, 0u);
        EXPECT_FALSE(sys.bus().last_rejection().empty());
    }
    EXPECT_TRUE(sys.bus().transcript().empty());
    EXPECT_TRUE(part->records().empty());
}

TEST_F(BusTest, RecordsEveryTransferWithItsOutcome)
{
    script->expect_write({0x03, 0x80}).reply({0x5a}).expect_write({0x04, 0x00}, models::kNack).reply({0x11},
                                                                                                  STATUS_UNSUCCESSFUL);
    std::vector<uint8_t> address = {0x03, 0x80}, data = {0xEE}, refused = {0x04, 0x00}, unread = {0xEE};
    ULONG_PTR returned[4];
    int64_t start = sys.clock().now();
    EXPECT_EQ(send(Direction::Write, address, kEightSeconds, &returned[0]), STATUS_SUCCESS);
    EXPECT_EQ(send(Direction::Read, data, kEightSeconds, &returned[1]), STATUS_SUCCESS);
    EXPECT_EQ(send(Direction::Write, refused, -500000, &returned[2]), models::kNack);
    EXPECT_EQ(send(Direction::Read, unread, -500000, &returned[3]), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(data[0], 0x5a);
    EXPECT_EQ(unread[0], 0xEE) << "a failed read must not hand bytes back";
    EXPECT_EQ(std::vector<ULONG_PTR>(returned, returned + 4), (std::vector<ULONG_PTR>{2, 1, 0, 0}));
    EXPECT_TRUE(script->mismatches().empty());

    using Row = std::tuple<Direction, std::vector<uint8_t>, std::optional<int64_t>, NTSTATUS>;
    std::vector<Row> rows;
    for (const auto& t : sys.bus().transcript()) {
        EXPECT_EQ(t.connection, kId);
        EXPECT_EQ(t.time, start);
        rows.emplace_back(t.direction, t.bytes, t.timeout, t.status);
    }
    EXPECT_EQ(rows, (std::vector<Row>{{Direction::Write, {0x03, 0x80}, kEightSeconds, STATUS_SUCCESS},
                                      {Direction::Read, {0x5a}, kEightSeconds, STATUS_SUCCESS},
                                      {Direction::Write, {0x04, 0x00}, -500000, models::kNack},
                                      {Direction::Read, {}, -500000, STATUS_UNSUCCESSFUL}}));
}

TEST_F(BusTest, WireTimeAtEachBusSpeed)
{
    // Start, address and data bytes with their acknowledge, stop: a 2-byte
    // write is 29 clocks, a 1-byte read 20, an unacknowledged address 11.
    const struct {
        BusSpeed speed;
        int64_t write2, read1, nack;  // 100 ns units
    } cases[] = {
        {BusSpeed::Instant, 0, 0, 0},
        {BusSpeed::Standard, 2900, 2000, 1100},
        {BusSpeed::Fast, 725, 500, 275},
        {BusSpeed::FastPlus, 290, 200, 110},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<uint32_t>(c.speed));
        sys.bus().set_speed(c.speed);
        sys.bus().clear_transcript();
        sys.bus().fail_transfer(sys.bus().transfer_count() + 2, BusFault::nack());
        int64_t start = sys.clock().now();
        std::vector<uint8_t> w = {0x04, 0x01}, r = {0};
        send(Direction::Write, w);
        send(Direction::Read, r);
        send(Direction::Write, w);

        auto t = sys.bus().transcript();
        ASSERT_EQ(t.size(), 3u);
        EXPECT_EQ(t[0].duration, c.write2);
        EXPECT_EQ(t[1].duration, c.read1);
        EXPECT_EQ(t[2].duration, c.nack);
        EXPECT_EQ(t[1].time, start + c.write2);
        EXPECT_EQ(sys.clock().now() - start, c.write2 + c.read1 + c.nack);
    }
}

TEST_F(BusTest, EachKindOfFault)
{
    using Script = models::ScriptedPeripheral;
    const struct {
        const char* what;
        void (*arrange)(bench::Bus&, Script&);
        Direction direction;
        LONGLONG timeout;
        NTSTATUS status;
        bool part_saw_it;
        int64_t elapsed;  // 100 ns units, on an instant bus
    } cases[] = {
        {"fail by index",
         [](bench::Bus& bus, Script&) { bus.fail_transfer(bus.transfer_count(), BusFault::fail(STATUS_DEVICE_PROTOCOL_ERROR)); },
         Direction::Write, kEightSeconds, STATUS_DEVICE_PROTOCOL_ERROR, false, 0},
        {"NACK by rule",
         [](bench::Bus& bus, Script&) { bus.fail_when({.connection = kId, .direction = Direction::Read}, BusFault::nack()); },
         Direction::Read, kEightSeconds, models::kNack, false, 0},
        {"time-out",
         [](bench::Bus& bus, Script&) { bus.fail_transfer(bus.transfer_count(), BusFault::timeout()); },
         Direction::Write, -500000, STATUS_IO_TIMEOUT, false, 500000},
        {"completes with STATUS_NOTIFY_CLEANUP",
         [](bench::Bus& bus, Script&) { bus.fail_when({}, BusFault::complete_with(STATUS_NOTIFY_CLEANUP)); },
         Direction::Read, kEightSeconds, STATUS_NOTIFY_CLEANUP, true, 0},
        {"part holds the bus past the time-out",
         [](bench::Bus&, Script& script) { script.expect_write({}, STATUS_SUCCESS, 600000); },
         Direction::Write, -500000, STATUS_IO_TIMEOUT, true, 500000},
        {"part holds the bus a while",
         [](bench::Bus&, Script& script) { script.expect_write({}, STATUS_SUCCESS, 1000); },
         Direction::Write, -500000, STATUS_SUCCESS, true, 1000},
        {"nothing attached any more",
         [](bench::Bus& bus, Script&) { bus.detach(kId); },
         Direction::Write, kEightSeconds, models::kNack, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fresh_part();
        script->set_fill(0x3c);
        c.arrange(sys.bus(), *script);
        std::vector<uint8_t> bytes = {0x00};
        ULONG_PTR returned = 0;
        int64_t start = sys.clock().now();
        EXPECT_EQ(send(c.direction, bytes, c.timeout, &returned), c.status);
        EXPECT_EQ(sys.clock().now() - start, c.elapsed);
        EXPECT_EQ(part->records().size(), c.part_saw_it ? 1u : 0u);
        EXPECT_EQ(returned, NT_SUCCESS(c.status) ? 1u : 0u);
        if (c.direction == Direction::Read) {
            EXPECT_EQ(bytes[0], NT_SUCCESS(c.status) ? 0x3c : 0x00);
        }
        EXPECT_EQ(sys.bus().transcript().back().status, c.status);
        sys.bus().clear_faults();
    }
}

}  // namespace
}  // namespace korvanel::test
