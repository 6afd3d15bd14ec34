// vcd.h - the bus as a logic analyzer would have recorded it: a Value Change
// Dump of SCL and SDA drawn bit by bit on the bench's clock, with other
// signals (lens code, power state, a memory's write cycle) on the same axis.
// sigrok's I2C decoder, PulseView and GTKWave open it.
//
//   files::OutputFile file;                                     // tools/files.h
//   if (auto error = file.open("run.vcd", rule)) ...
//   VcdWriter vcd;
//   if (auto error = vcd.start(file, BusSpeed::Fast)) ...
//   int d0 = vcd.add_signal("d0", 1, 1);
//   sys.bus().observe([&](const BusTransfer& t) { vcd.transfer(t); });
//   ... the run; vcd.change(d0, when, 0) as things happen ...
//   vcd.finish(sys.clock().now());
//   if (auto error = file.commit()) ...                        // the file appears only now
//
// Streaming: a transfer is drawn when the next one arrives (the next one
// decides whether it ends in a STOP or a repeated START), so memory holds
// one transfer, not the run.
#pragma once

#include "bench/spb_controller.h"
#include "files/files.h"

#include <optional>
#include <queue>
#include <string>
#include <vector>

namespace korvanel::wire {

using bench::BusSpeed;
using bench::BusTransfer;
using models::Direction;

// How the waveform draws one clock at a speed, in nanoseconds. Each bit is
// one clock period: SCL low for `low` (SDA changes `hold_data` after SCL
// falls), then high for the rest. A START's SDA falls `hold_start` before
// SCL does; a STOP's SDA rises `setup_stop` after SCL rises.
struct I2cTiming {
    int64_t period, low, hold_data, hold_start, setup_stop;
    int64_t high() const { return period - low; }
    // STOP to START of transfers back to back, the shortest bus-free time.
    int64_t bus_free() const { return period - low - setup_stop + period - hold_start; }
};
// The I2C-bus standard's (UM10204) minimums at a speed, nanoseconds.
struct I2cMinimums {
    int64_t low, high, setup_start, hold_start, setup_data, hold_data, setup_stop, bus_free;
};
// Both only for the three clocked speeds.
const I2cTiming& i2c_timing(BusSpeed speed);
const I2cMinimums& i2c_minimums(BusSpeed speed);

// One transfer as the wire shows it: what a decoder reads back.
struct WireTransfer {
    bool repeated_start = false;  // began with a repeated START (it continues a sequence)
    uint8_t address = 0;          // 7-bit
    Direction direction = Direction::Write;
    bool address_ack = true;
    std::vector<uint8_t> bytes;   // the data bytes that went over
    std::vector<bool> acks;       // per byte: acknowledged (by the part on a write, the controller on a read)
    bool stop = true;             // ended with a STOP (false: a repeated START follows)
    bool operator==(const WireTransfer&) const = default;
};

// What a recorded transfer put on the wire, at the speed it ran at:
//  - a part that did not acknowledge (the bus charged the address only)
//    leaves SDA high in the ninth clock and the controller stops;
//  - a timed-out transfer: the part acknowledged its address and then held
//    SCL low until the time-out; the controller stops;
//  - a write the part took whole but completed with a NACK: the part did
//    not acknowledge its last byte;
//  - a read: the controller acknowledges each byte but the last; bytes the
//    driver did not receive (a failed request) show SDA released, 0xFF;
//  - `joins_next`: the next transfer continues this one's sequence, so this
//    one ends in a repeated START unless it failed; `held`: the transfer
//    before this one ended so, and this one begins with the repeated START.
// Nothing (nullopt) when the transfer held the bus too briefly to draw even
// its address (a request cancelled at once). At instant speed, with no wire
// time to tell by, a failed transfer counts as not acknowledged.
std::optional<WireTransfer> on_wire(const BusTransfer& t, BusSpeed speed, bool held, bool joins_next);
// A transcript's transfers in order as the wire shows them.
std::vector<WireTransfer> wire_transcript(const std::vector<BusTransfer>& transcript, BusSpeed speed);

// "S 0x50 W ACK: 00 20 ACK 01 ACK P", for messages and tests.
std::string wire_text(const WireTransfer& t);

class VcdWriter {
public:
    VcdWriter() = default;
    VcdWriter(const VcdWriter&) = delete;
    VcdWriter& operator=(const VcdWriter&) = delete;

    // Starts a dump into `out`, an open file its owner commits after
    // finish(); the error text for a bus without wire time. The dump's time
    // 0 is the clock's `origin`.
    std::optional<std::string> start(files::OutputFile& out, BusSpeed speed, int64_t origin = 0);
    // Another signal, before the first transfer: a 1-bit wire, or for a
    // wider one a wire per bit (NAME[n] ... NAME[0]), because sigrok's VCD
    // reader stops at the first multi-bit value. Returns its id for change().
    int add_signal(const std::string& name, unsigned width, uint64_t initial);

    // A signal's new value at `time` (bench units, not before the latest
    // drawn transfer's end). Changes inside a transfer still undrawn land
    // in their place.
    void change(int signal, int64_t time, uint64_t value);
    // The next transfer, in order.
    void transfer(const BusTransfer& t);
    // Draws what is left and idles to `end`. A write that failed on the
    // way is the file's to report, at its commit.
    void finish(int64_t end);

    uint64_t transfers_drawn() const { return drawn_; }
    uint64_t bytes_written() const { return written_; }

private:
    struct Signal {
        std::string name;
        std::vector<std::string> ids;  // a wire per bit, bit 0 first
        unsigned width;
        uint64_t value;
    };
    struct Change {
        int64_t time;  // ns
        uint64_t order;
        int signal;
        uint64_t value;
        bool operator>(const Change& o) const { return time != o.time ? time > o.time : order > o.order; }
    };
    void header();
    void draw(const BusTransfer& t, bool joins_next);
    void at(int64_t ns);                      // moves the dump's time on, flushing due changes first
    void set(int signal, uint64_t value);     // at the current time
    void flush_changes(int64_t until);        // changes due at or before `until` (ns)
    void spill();                             // the buffer to the file when it is full

    files::OutputFile* out_ = nullptr;
    BusSpeed speed_ = BusSpeed::Instant;
    int64_t origin_ = 0;
    std::vector<Signal> signals_;  // 0: scl, 1: sda
    std::priority_queue<Change, std::vector<Change>, std::greater<Change>> changes_;
    uint64_t order_ = 0;
    std::optional<BusTransfer> pending_;
    bool started_ = false;
    bool held_ = false;  // the latest drawn transfer ended in a repeated START
    int64_t now_ = -1;   // the dump's latest time stamp, ns
    std::string buffer_;
    uint64_t drawn_ = 0, written_ = 0;
};

}  // namespace korvanel::wire
