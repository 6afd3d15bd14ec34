// The scenario checker on its own: each kind of expectation against
// observations made up here, no bench. Each case is a way a comparison could
// go wrong: the wrong side compared, a number or status taken as text, the
// wrong transfer or byte named, a tolerance too wide or too narrow.
#include <gtest/gtest.h>

#include "tools/scenario_check.h"

#include <string>
#include <vector>

namespace korvanel::test {
namespace {

using tool::check_step;
using tool::Expect;
using tool::Observation;
using json = nlohmann::ordered_json;
using Failures = std::vector<std::string>;

struct Case {
    const char* what;
    Expect expect;
    Observation seen;
    Failures failures;  // exactly these, in this order
};

void check_all(const std::vector<Case>& cases)
{
    for (auto& c : cases) {
        EXPECT_EQ(check_step(c.expect, c.seen), c.failures) << c.what;
    }
}

bench::BusTransfer transfer(bench::Direction direction, std::vector<uint8_t> bytes, uint64_t connection = 0x1c,
                           NTSTATUS status = STATUS_SUCCESS)
{
    return {0, connection, uint8_t(connection & 0x7F), 0, direction, uint32_t(bytes.size()), bytes, std::nullopt, status, 0, 0};
}
bench::BusTransfer write(std::vector<uint8_t> bytes, uint64_t connection = 0x1c, NTSTATUS status = STATUS_SUCCESS)
{
    return transfer(bench::Direction::Write, std::move(bytes), connection, status);
}
bench::BusTransfer read(std::vector<uint8_t> bytes, uint64_t connection = 0x1c, NTSTATUS status = STATUS_SUCCESS)
{
    return transfer(bench::Direction::Read, std::move(bytes), connection, status);
}

Observation returning(json values) { return {.values = std::move(values)}; }
Expect values(json expected) { return {.count = 1, .values = std::move(expected)}; }

TEST(ScenarioCheck, StatusIsComparedByValue)
{
    check_all({
        {"same", {.status = STATUS_SUCCESS}, {.status = "STATUS_SUCCESS"}, {}},
        {"different", {.status = STATUS_SUCCESS}, {.status = "STATUS_UNSUCCESSFUL"},
         {"status: expected STATUS_SUCCESS, got STATUS_UNSUCCESSFUL"}},
        {"a status the bench has no name for", {.status = NTSTATUS(0xC0001234)}, {.status = "0xC0001234"}, {}},
        {"a number for a named status", {.status = STATUS_UNSUCCESSFUL}, {.status = "0xC0000001"}, {}},
        {"no status returned", {.status = STATUS_SUCCESS}, {}, {"status: the step returns no status"}},
        {"not expected, not checked", {}, {.status = "STATUS_UNSUCCESSFUL"}, {}},
    });
}

TEST(ScenarioCheck, ValuesMatchByValueWithinRecordsAndLists)
{
    json table = {{"Count", 2}, {"Entries", {{{"Width", 128}, {"Height", 24}}, {{"Width", 4032}, {"Height", 3024}}}}};
    check_all({
        {"hex text for a number", values({{"Signature", "0x09FCD140"}}), returning({{"Signature", 167563584}}), {}},
        {"decimal text for a number", values({{"Width", "640"}}), returning({{"Width", 640}}), {}},
        {"a different number", values({{"Width", 640}}), returning({{"Width", 1920}}),
         {"values.Width: expected 640, got 1920"}},
        {"hex text, different number", values({{"VariantCode", "0x1"}}), returning({{"VariantCode", 0}}),
         {"values.VariantCode: expected \"0x1\", got 0"}},
        {"texts are compared as written", values({{"SensorName", "haps"}}), returning({{"SensorName", "HAPS"}}),
         {"values.SensorName: expected \"haps\", got \"HAPS\""}},
        {"statuses by value", values({{"Result", "0xC0000001"}}), returning({{"Result", "STATUS_UNSUCCESSFUL"}}), {}},
        {"memory data by its bytes", values({{"data", "01  02"}}), returning({{"data", "0102"}}), {}},
        {"other texts are not bytes", values({{"name", "01 02"}}), returning({{"name", "0102"}}),
         {"values.name: expected \"01 02\", got \"0102\""}},
        {"only the expected fields", values({{"List", {{"Entries", {{{"Width", 128}}, json::object()}}}}}),
         returning({{"List", table}}), {}},
        {"a field deep in a list", values({{"List", {{"Entries", {json::object(), {{"Height", 3000}}}}}}}),
         returning({{"List", table}}), {"values.List.Entries[1].Height: expected 3000, got 3024"}},
        {"a list of another length", values({{"List", {{"Entries", {{{"Width", 128}}}}}}}),
         returning({{"List", table}}),
         {"values.List.Entries: expected [{\"Width\":128}], got " + table["Entries"].dump()}},
        {"a record where a number came back", values({{"Count", {{"Low", 1}}}}), returning({{"Count", 2}}),
         {"values.Count: expected {\"Low\":1}, got 2"}},
        {"not returned, with what was", values({{"Sizes", 1}}), returning({{"Size", 2}, {"Width", 3}}),
         {"values.Sizes: not returned (returned: Size, Width)"}},
        {"not returned, nothing was", values({{"Sizes", 1}}), returning(json::object()),
         {"values.Sizes: not returned"}},
        {"each mismatch once", values({{"Width", 1}, {"Height", 2}}), returning({{"Width", 3}, {"Height", 2}}),
         {"values.Width: expected 1, got 3"}},
    });
}

TEST(ScenarioCheck, BusLinesAndTransferCount)
{
    auto bus = [](std::vector<std::string> lines) { return Expect{.bus = std::move(lines)}; };
    auto seen = [](std::vector<bench::BusTransfer> transfers) { return Observation{.transfers = std::move(transfers)}; };
    check_all({
        {"the same transfers", bus({"W 03", "R 00", "W 04 2C"}), seen({write({3}), read({0}), write({4, 0x2c})}), {}},
        {"the first that differs is named by its number", bus({"W 03", "R 00", "W 04 2D"}),
         seen({write({3}), read({0}), write({4, 0x2c})}), {"bus: transfer 3: expected W 04 2D, got W 04 2C"}},
        {"each that differs", bus({"R 03", "W 00"}), seen({write({3}), read({0})}),
         {"bus: transfer 1: expected R 03, got W 03", "bus: transfer 2: expected W 00, got R 00"}},
        {"connection when the line gives one", bus({"0x50 W 00 10", "R FF"}),
         seen({write({0, 0x10}, 0x50), read({0xff}, 0x51)}), {}},
        {"another connection", bus({"0x51 W 00 10"}), seen({write({0, 0x10}, 0x50)}),
         {"bus: transfer 1: expected 0x51 W 00 10, got 0x50 W 00 10"}},
        {"a transfer's status", bus({"W 00 10  STATUS_NO_SUCH_DEVICE"}),
         seen({write({0, 0x10}, 0x50, STATUS_NO_SUCH_DEVICE)}), {}},
        {"a failed transfer expected to pass", bus({"W 00 10"}), seen({write({0, 0x10}, 0x50, STATUS_NO_SUCH_DEVICE)}),
         {"bus: transfer 1: expected W 00 10, got W 00 10  STATUS_NO_SUCH_DEVICE"}},
        {"a read that brought nothing", bus({"R  STATUS_IO_TIMEOUT"}), seen({read({}, 0x1c, STATUS_IO_TIMEOUT)}), {}},
        {"fewer expected: every transfer listed", bus({"W 00", "R F1"}), seen({write({0}), read({0xf1}), write({2, 1})}),
         {"bus: expected 2 transfers, got 3:\n          W 00\n          R F1\n          W 02 01"}},
        {"none made", bus({"W 00"}), seen({}), {"bus: expected 1 transfers, got 0"}},
        {"none expected, none made", bus({}), seen({}), {}},
        {"transfer count", {.transfers = 1}, seen({}), {"transfers: expected 1, got 0"}},
        {"transfer count met", {.transfers = 2}, seen({write({0}), read({0})}), {}},
    });
}

TEST(ScenarioCheck, MemoryNamesTheFirstDifferingByte)
{
    std::vector<uint8_t> contents(32, 0);
    contents[3] = 0xFF;
    contents[4] = 0x01;
    contents[5] = 0x02;
    auto memory = [](std::vector<tool::MemoryExpect> ranges) { return Expect{.memory = std::move(ranges)}; };
    Observation seen{.memory = contents};
    check_all({
        {"the same bytes", memory({{3, {0xFF, 0x01, 0x02}}}), seen, {}},
        {"the last byte differs", memory({{3, {0xFF, 0x01, 0x03}}}), seen,
         {"memory at 0x0003 (3 bytes): from 0x0005 expected 03, got 02"}},
        {"the first byte differs", memory({{2, {0x01, 0xFF}}}), seen,
         {"memory at 0x0002 (2 bytes): from 0x0002 expected 01 FF, got 00 FF"}},
        {"at most eight bytes shown", memory({{16, std::vector<uint8_t>(12, 0xAA)}}), seen,
         {"memory at 0x0010 (12 bytes): from 0x0010 expected AA AA AA AA AA AA AA AA, got 00 00 00 00 00 00 00 00"}},
        {"each range on its own", memory({{0, {0, 0, 0}}, {4, {0x02}}, {31, {0}}}), seen,
         {"memory at 0x0004 (1 bytes): from 0x0004 expected 02, got 01"}},
    });
}

TEST(ScenarioCheck, LensPowerAndClock)
{
    check_all({
        {"lens where expected", {.lens = 300}, {.lens = 300}, {}},
        {"lens one code off", {.lens = 301}, {.lens = 300}, {"lens: expected code 301, got 300"}},
        {"no lens observed", {.lens = 301}, {}, {}},
        {"power on", {.power = "D0"}, {.power = PowerDeviceD0}, {}},
        {"power off expected", {.power = "D3"}, {.power = PowerDeviceD0}, {"power: expected D3, got D0"}},
        {"a state between", {.power = "D3"}, {.power = PowerDeviceD2}, {"power: expected D3, got D2"}},
        {"references", {.references = 1}, {.references = 0}, {"power references: expected 1, got 0"}},
        {"no references expected", {.references = 0}, {.references = 0}, {}},
        {"clock to the 100 ns", {.clock_ms = 8020.915}, {.clock = 80209150}, {}},
        {"clock a tick late", {.clock_ms = 1.0001}, {.clock = 10000}, {"clock: expected 1.0001 ms, got 1.0000 ms"}},
        {"clock a tick early", {.clock_ms = 1}, {.clock = 10001}, {"clock: expected 1.0000 ms, got 1.0001 ms"}},
        {"clock within half a tick", {.clock_ms = 1.00004}, {.clock = 10000}, {}},
        {"clock read from the run's start", {.clock_ms = 1}, {.clock = 0}, {"clock: expected 1.0000 ms, got 0.0000 ms"}},
    });
}

TEST(ScenarioCheck, TraceTextsWithinTheStepsEvents)
{
    std::vector<tool::TraceEntry> events = {
        {0, "INFO", "sensor", 12, "PowerUp 1920 x 1080"},
        {0, "ERROR", "vcm_access", 4, "write failed STATUS_IO_TIMEOUT"},
    };
    Observation seen{.trace = events};
    auto trace = [](std::vector<std::string> texts) { return Expect{.trace = std::move(texts)}; };
    check_all({
        {"within an event's text", trace({"write failed"}), seen, {}},
        {"level and module count", trace({"ERROR vcm_access #4 write"}), seen, {}},
        {"every text must be found", trace({"PowerUp", "PowerUp failed"}), seen,
         {"trace: no event of the step contains \"PowerUp failed\"; it traced:\n"
          "          INFO sensor #12 PowerUp 1920 x 1080\n"
          "          ERROR vcm_access #4 write failed STATUS_IO_TIMEOUT"}},
        {"a text across two events", trace({"1080 ERROR"}), seen,
         {"trace: no event of the step contains \"1080 ERROR\"; it traced:\n"
          "          INFO sensor #12 PowerUp 1920 x 1080\n"
          "          ERROR vcm_access #4 write failed STATUS_IO_TIMEOUT"}},
        {"nothing traced", trace({"PowerUp"}), {}, {"trace: no event of the step contains \"PowerUp\" (it traced nothing)"}},
    });
}

// Several expectations of one step fail in the order a reader finds them.
// A capture's transfers against the step's as the wire shows them; with
// timing, the bench's STOP-to-START gaps (idle time plus the drawn bus-free
// time, 1.8 us at 400 kHz) against the capture's, less the tolerance.
TEST(ScenarioCheck, BusCaptureTransfersAndGaps)
{
    auto timed = [](int64_t second_start) {
        Observation seen;
        seen.speed = bench::BusSpeed::Fast;
        int64_t first = bench::Bus::wire_time(bench::BusSpeed::Fast, 1);
        seen.transfers = {transfer(bench::Direction::Write, {0x03}), transfer(bench::Direction::Write, {0x04})};
        seen.transfers[0].address = seen.transfers[1].address = 0x0C;
        seen.transfers[0].sequence = 1;  // two requests: a STOP between them
        seen.transfers[1].sequence = 2;
        seen.transfers[0].duration = seen.transfers[1].duration = first;
        seen.transfers[1].time = first + second_start;
        return seen;
    };
    auto capture = [](uint8_t second, std::optional<double> tolerance) {
        Expect x;
        x.bus_capture = "move.vcd";
        wire::WireTransfer w{false, 0x0C, bench::Direction::Write, true, {0x03}, {true}, true};
        wire::Capture c;
        c.transfers = {w, w};
        c.transfers[1].bytes[0] = second;
        c.samples = {{0, 100}, {1100, 1200}};  // a 10 us gap at 100 MHz
        c.samplerate = 1e8;
        x.capture = c;
        x.capture_tolerance_us = tolerance;
        return x;
    };
    check_all({
        {"equal", capture(0x04, std::nullopt), timed(0), {}},
        {"a byte differs",
         capture(0x05, std::nullopt),
         timed(0),
         {"bus_capture: move.vcd: transfer 2 differs:\n          bench:   S 0x0C W ACK: 04 ACK P\n          capture: S "
          "0x0C W ACK: 05 ACK P\n          first differing byte: 1 of 1 (bench 04, capture 05)"}},
        {"gap long enough", capture(0x04, 0.0), timed(82), {}},  // 8.2 + 1.8 us
        {"gap short by less than the tolerance", capture(0x04, 0.5), timed(78), {}},
        {"gap too short",
         capture(0x04, 0.1),
         timed(78),
         {"capture_timing: move.vcd: the gap before transfer 2 is 9.6 us on the bench, 10.0 us in the capture "
          "(tolerance 0.1 us)"}},
    });
}

TEST(ScenarioCheck, FailuresInTheOrderOfTheExpectations)
{
    Expect expect{.status = STATUS_SUCCESS, .transfers = 1, .lens = 5, .power = "D0"};
    Observation seen{.status = "STATUS_IO_TIMEOUT", .lens = 4, .power = PowerDeviceD3};
    EXPECT_EQ(check_step(expect, seen), (Failures{"status: expected STATUS_SUCCESS, got STATUS_IO_TIMEOUT",
                                                  "transfers: expected 1, got 0", "lens: expected code 5, got 4",
                                                  "power: expected D0, got D3"}));
}

}  // namespace
}  // namespace korvanel::test
