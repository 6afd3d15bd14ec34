// The bus as a waveform: the drawn SCL and SDA meet the I2C-bus timing
// minimums at each speed, each transfer covers exactly the time the bus
// charged for it, and what a decoder reads back (acknowledges, repeated
// STARTs, a part holding the clock) is what the transcript says.
#include "wire/vcd.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

namespace korvanel::test {
namespace {

using bench::BusSpeed;
using bench::BusTransfer;
using models::Direction;

// SCL and SDA edges read back from a dump: time in ns, 'c' or 'd', new level.
using Edges = std::vector<std::tuple<int64_t, char, int>>;

Edges read_edges(const std::string& path)
{
    std::ifstream in(path);
    std::map<std::string, char> ids;
    Edges e;
    std::string line;
    int64_t now = 0;
    std::map<char, int> level{{'c', 1}, {'d', 1}};  // idle: the dump's initial values are no edges
    while (std::getline(in, line)) {
        if (line.rfind("$var", 0) == 0) {
            std::istringstream words(line);
            std::string var, wire, width, id, name;
            words >> var >> wire >> width >> id >> name;
            if (name == "scl" || name == "sda") {
                ids[id] = name == "scl" ? 'c' : 'd';
            }
        } else if (!line.empty() && line[0] == '#') {
            now = std::stoll(line.substr(1)) * 10;
        } else if (!line.empty() && (line[0] == '0' || line[0] == '1') && ids.count(line.substr(1))) {
            char wire = ids[line.substr(1)];
            if (level[wire] != line[0] - '0') {
                level[wire] = line[0] - '0';
                e.emplace_back(now, wire, line[0] - '0');
            }
        }
    }
    return e;
}

BusTransfer transfer(int64_t time, Direction direction, std::vector<uint8_t> bytes, NTSTATUS status,
                     int64_t duration, uint64_t sequence, uint32_t length = 0)
{
    uint32_t n = length != 0 ? length : uint32_t(bytes.size());
    return {0, 0, 0x50, sequence, direction, n, std::move(bytes), std::nullopt, status, time, duration};
}

// Every kind of transfer, back to back (the tightest case for the bus-free
// time), and one after a gap.
std::vector<BusTransfer> every_kind(BusSpeed speed)
{
    auto wire = [speed](size_t n) { return bench::Bus::wire_time(speed, n); };
    std::vector<BusTransfer> ts;
    int64_t t = 1000;
    auto add = [&](Direction d, std::vector<uint8_t> b, NTSTATUS s, int64_t dur, uint64_t seq, uint32_t len = 0) {
        ts.push_back(transfer(t, d, std::move(b), s, dur, seq, len));
        t += dur;
    };
    add(Direction::Write, {0x00, 0x20, 0x5A}, STATUS_SUCCESS, wire(3), 1);
    add(Direction::Write, {0x00, 0x20}, STATUS_SUCCESS, wire(2), 2);        // a register read in one
    add(Direction::Read, {0xA5, 0x0F}, STATUS_SUCCESS, wire(2), 2);         // sequence: repeated START
    add(Direction::Write, {0x01}, models::kNack, wire(0), 3, 1);               // address not acknowledged
    add(Direction::Write, {0x10, 0x11}, models::kNack, wire(2), 4);            // last byte not acknowledged
    add(Direction::Write, {0x10}, STATUS_SUCCESS, wire(1) + 400, 5);       // the part stretches the clock
    add(Direction::Read, {}, STATUS_IO_TIMEOUT, wire(0) + 20000, 6, 4);     // held until the time-out
    t += 50000;                                                             // a 5 ms write cycle
    add(Direction::Read, {}, models::kNack, wire(2), 7, 2);                    // failed read: SDA released
    return ts;
}

std::string write_dump(const std::vector<BusTransfer>& ts, BusSpeed speed, const std::string& name)
{
    std::string path = testing::TempDir() + name;
    files::OutputFile file;
    wire::VcdWriter vcd;
    EXPECT_FALSE(file.open(path, {true, "", {}}));
    EXPECT_FALSE(vcd.start(file, speed));
    for (auto& t : ts) {
        vcd.transfer(t);
    }
    vcd.finish(ts.back().time + ts.back().duration + 100);
    EXPECT_FALSE(file.commit());
    return path;
}

// At each speed the drawn SCL and SDA meet the timing minimums, and each
// transfer's STOP (its SCL rise) falls where the bus's charge for it ends,
// less the clock's high time: drawn span and wire time agree, clock
// stretching and time-outs included.
TEST(Vcd, DrawnTimingMeetsTheBusMinimumsAndSpansTheWireTimeAtEverySpeed)
{
    for (BusSpeed speed : {BusSpeed::Standard, BusSpeed::Fast, BusSpeed::FastPlus}) {
        SCOPED_TRACE(int(speed));
        const auto& min = wire::i2c_minimums(speed);
        auto ts = every_kind(speed);
        auto edges = read_edges(write_dump(ts, speed, "timing.vcd"));
        int scl = 1, sda = 1;
        int64_t scl_at = 0, sda_at = 0, stop_at = -1'000'000'000;
        int starts = 0;
        std::vector<int64_t> stop_scl_rises;  // STOPs and repeated-START set-ups
        for (auto [time, line, level] : edges) {
            if (line == 'c') {
                if (level == 0 && scl == 1) {
                    EXPECT_GE(time - scl_at, min.high) << "tHIGH at " << time;
                    if (sda == 0 && sda_at > scl_at) {
                        EXPECT_GE(time - sda_at, min.hold_start) << "tHD;STA at " << time;
                    }
                } else if (level == 1 && scl == 0) {
                    EXPECT_GE(time - scl_at, min.low) << "tLOW at " << time;
                    if (sda_at > scl_at) {
                        EXPECT_GE(time - sda_at, min.setup_data) << "tSU;DAT at " << time;
                    }
                }
                scl = level;
                scl_at = time;
            } else {
                if (scl == 1 && level == 0) {  // START or repeated START
                    starts++;
                    EXPECT_GE(time - scl_at, min.setup_start) << "tSU;STA at " << time;
                    EXPECT_GE(time - stop_at, min.bus_free) << "tBUF at " << time;
                } else if (scl == 1 && level == 1) {  // STOP
                    stop_scl_rises.push_back(scl_at);
                    EXPECT_GE(time - scl_at, min.setup_stop) << "tSU;STO at " << time;
                    stop_at = time;
                } else {
                    EXPECT_GE(time - scl_at, min.hold_data) << "tHD;DAT at " << time;
                }
                sda = level;
                sda_at = time;
            }
        }
        EXPECT_EQ(starts, 8);  // one a transfer, the repeated START among them
        EXPECT_EQ(scl, 1);     // idle high at the end
        EXPECT_EQ(sda, 1);
        std::vector<int64_t> expected;
        for (size_t i = 0; i < ts.size(); i++) {
            if (i != 1) {  // the write before the repeated START has no STOP
                expected.push_back((ts[i].time + ts[i].duration) * 100 - wire::i2c_timing(speed).high());
            }
        }
        EXPECT_EQ(stop_scl_rises, expected);
    }
}

TEST(Vcd, WhatTheWireShowsOfEachKindOfTransfer)
{
    auto wire = wire::wire_transcript(every_kind(BusSpeed::Fast), BusSpeed::Fast);
    std::vector<std::string> text;
    for (auto& w : wire) {
        text.push_back(wire::wire_text(w));
    }
    EXPECT_EQ(text, (std::vector<std::string>{
                        "S 0x50 W ACK: 00 ACK 20 ACK 5A ACK P",
                        "S 0x50 W ACK: 00 ACK 20 ACK",
                        "Sr 0x50 R ACK: A5 ACK 0F NACK P",  // the controller NACKs the last byte it reads
                        "S 0x50 W NACK P",
                        "S 0x50 W ACK: 10 ACK 11 NACK P",
                        "S 0x50 W ACK: 10 ACK P",
                        "S 0x50 R ACK P",
                        "S 0x50 R ACK: FF ACK FF NACK P",
                    }));
}

// Changes of other signals land between the edges of the transfer they
// happened in, in time order.
TEST(Vcd, OtherSignalsInterleaveInTimeOrder)
{
    std::string path = testing::TempDir() + "signals.vcd";
    files::OutputFile file;
    wire::VcdWriter vcd;
    ASSERT_FALSE(file.open(path, {true, "", {}}));
    ASSERT_FALSE(vcd.start(file, BusSpeed::Standard));
    EXPECT_TRUE(wire::VcdWriter().start(file, BusSpeed::Instant));  // no wire time to draw by
    int code = vcd.add_signal("lens_code", 10, 0);
    vcd.transfer(transfer(0, Direction::Write, {0x03, 0x01}, STATUS_SUCCESS, 290, 1));
    vcd.change(code, 290, 0x12C);  // latched at the stop
    vcd.change(code, 100, 0x001);  // reported late, happened mid-transfer
    vcd.transfer(transfer(400, Direction::Write, {0x04}, STATUS_SUCCESS, 200, 2));
    vcd.finish(1000);
    ASSERT_FALSE(file.commit());
    std::ifstream in(path);
    std::string line, dump;
    int64_t last = -1;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#') {
            int64_t now = std::stoll(line.substr(1));
            EXPECT_GT(now, last);
            last = now;
        }
        dump += line + "\n";
    }
    EXPECT_NE(dump.find("$var wire 1 0 lens_code[0] $end"), std::string::npos);
    EXPECT_NE(dump.find("#1000\n10\n"), std::string::npos);  // bit 0 set at 10 us, before the edges there
    EXPECT_NE(dump.find("#2900\n"), std::string::npos);
    EXPECT_EQ(last, 10000);
}

}  // namespace
}  // namespace korvanel::test
