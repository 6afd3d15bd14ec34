// vcd.cpp - drawing bus transfers as SCL and SDA edges, streamed into a
// Value Change Dump.
#include "vcd.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <stdexcept>

namespace korvanel::wire {

using bench::Bus;

namespace {

// The dump's time unit: 10 ns resolves the 50 ns data hold of 1 MHz and keeps
// the sample rate a decoder sees at 100 MHz.
constexpr int64_t kUnitNs = 10;
constexpr int kScl = 0, kSda = 1;

size_t speed_index(BusSpeed speed)
{
    switch (speed) {
    case BusSpeed::Standard: return 0;
    case BusSpeed::Fast: return 1;
    case BusSpeed::FastPlus: return 2;
    default: throw std::invalid_argument("a waveform needs a clocked bus speed (100k, 400k or 1m)");
    }
}

}  // namespace

const I2cTiming& i2c_timing(BusSpeed speed)
{
    // Each leaves room above every minimum below; tHD;DAT is drawn above its
    // zero minimum so that no edge of SDA coincides with one of SCL.
    static const I2cTiming kTimings[] = {
        {10000, 5000, 300, 5000, 4000},  // 100 kHz
        {2500, 1500, 100, 1000, 700},    // 400 kHz
        {1000, 600, 50, 400, 300},       // 1 MHz
    };
    return kTimings[speed_index(speed)];
}

const I2cMinimums& i2c_minimums(BusSpeed speed)
{
    // UM10204, characteristics of the SDA and SCL bus lines: Standard-mode,
    // Fast-mode, Fast-mode Plus.
    static const I2cMinimums kMinimums[] = {
        {4700, 4000, 4700, 4000, 250, 0, 4000, 4700},
        {1300, 600, 600, 600, 100, 0, 600, 1300},
        {500, 260, 260, 260, 50, 0, 260, 500},
    };
    return kMinimums[speed_index(speed)];
}

std::optional<WireTransfer> on_wire(const BusTransfer& t, BusSpeed speed, bool held, bool joins_next)
{
    WireTransfer w;
    w.repeated_start = held;
    w.address = t.address;
    w.direction = t.direction;
    bool timed_out = t.status == STATUS_IO_TIMEOUT;
    bool whole;
    if (speed == BusSpeed::Instant) {
        // No wire time to tell by: the status alone decides.
        whole = NT_SUCCESS(t.status);
    } else if (t.duration < Bus::wire_time(speed, 0)) {
        return std::nullopt;
    } else {
        whole = !timed_out && t.duration >= Bus::wire_time(speed, t.length);
    }
    w.address_ack = timed_out || whole;
    if (whole && t.length > 0) {
        if (t.direction == Direction::Write) {
            w.bytes = t.bytes;
            w.acks.assign(t.length, true);
            w.acks.back() = t.status != models::kNack;
        } else {
            w.bytes = t.bytes.size() == t.length ? t.bytes : std::vector<uint8_t>(t.length, 0xFF);
            w.acks.assign(t.length, true);
            w.acks.back() = false;
        }
    }
    w.stop = !(joins_next && NT_SUCCESS(t.status));
    return w;
}

std::vector<WireTransfer> wire_transcript(const std::vector<BusTransfer>& transcript, BusSpeed speed)
{
    std::vector<WireTransfer> out;
    bool held = false;
    for (size_t i = 0; i < transcript.size(); i++) {
        bool joins_next = i + 1 < transcript.size() && transcript[i + 1].sequence == transcript[i].sequence;
        auto w = on_wire(transcript[i], speed, held, joins_next);
        held = w && !w->stop;
        if (w) {
            out.push_back(std::move(*w));
        }
    }
    return out;
}

std::string wire_text(const WireTransfer& t)
{
    char text[16];
    std::snprintf(text, sizeof text, "%s 0x%02X %c %s", t.repeated_start ? "Sr" : "S", t.address,
                  t.direction == Direction::Read ? 'R' : 'W', t.address_ack ? "ACK" : "NACK");
    std::string out = text;
    for (size_t i = 0; i < t.bytes.size(); i++) {
        std::snprintf(text, sizeof text, "%s %02X %s", i == 0 ? ":" : "", t.bytes[i], t.acks[i] ? "ACK" : "NACK");
        out += text;
    }
    if (t.stop) {
        out += " P";
    }
    return out;
}

// ---- The file ----------------------------------------------------------------

std::optional<std::string> VcdWriter::start(files::OutputFile& out, BusSpeed speed, int64_t origin)
{
    try {
        speed_index(speed);
    } catch (const std::invalid_argument& e) {
        return std::string(e.what());
    }
    out_ = &out;
    speed_ = speed;
    origin_ = origin;
    signals_ = {{"scl", {}, 1, 1}, {"sda", {}, 1, 1}};
    return std::nullopt;
}

int VcdWriter::add_signal(const std::string& name, unsigned width, uint64_t initial)
{
    signals_.push_back({name, {}, width, initial});
    return int(signals_.size() - 1);
}

void VcdWriter::header()
{
    started_ = true;
    buffer_ += "$version korvanel-sim $end\n$timescale 10ns $end\n$scope module bench $end\n";
    size_t wires = 0;
    for (auto& signal : signals_) {
        for (unsigned b = signal.width; b-- > 0;) {
            // Identifiers from the printable range, as short as the count
            // allows; '#' and '$' would read as a time stamp or a keyword.
            std::string id;
            for (size_t n = wires++;; n = n / 90 - 1) {
                char c = char('%' + n % 90);
                id += c;
                if (n < 90) {
                    break;
                }
            }
            signal.ids.insert(signal.ids.begin(), id);
            std::string name = signal.width == 1 ? signal.name : signal.name + "[" + std::to_string(b) + "]";
            buffer_ += "$var wire 1 " + id + " " + name + " $end\n";
        }
    }
    buffer_ += "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n";
    now_ = 0;
    for (size_t i = 0; i < signals_.size(); i++) {
        uint64_t v = signals_[i].value;
        signals_[i].value = ~v;  // so that set() writes it
        set(int(i), v);
    }
    buffer_ += "$end\n";
}

void VcdWriter::spill()
{
    if (buffer_.size() >= (size_t(1) << 16)) {
        out_->write(buffer_);
        written_ += buffer_.size();
        buffer_.clear();
    }
}

void VcdWriter::set(int signal, uint64_t value)
{
    Signal& s = signals_[size_t(signal)];
    if (s.value == value) {
        return;
    }
    for (unsigned b = 0; b < s.width; b++) {
        uint64_t bit = value >> b & 1;
        if ((s.value >> b & 1) != bit) {
            buffer_ += char('0' + bit);
            buffer_ += s.ids[b];
            buffer_ += '\n';
        }
    }
    s.value = value;
}

void VcdWriter::flush_changes(int64_t until)
{
    while (!changes_.empty() && changes_.top().time <= until) {
        Change c = changes_.top();
        changes_.pop();
        if (c.time > now_) {
            char text[24];
            text[0] = '#';
            auto r = std::to_chars(text + 1, text + 23, c.time / kUnitNs);
            *r.ptr++ = '\n';
            buffer_.append(text, size_t(r.ptr - text));
            now_ = c.time;
        }
        set(c.signal, c.value);
    }
}

void VcdWriter::at(int64_t ns)
{
    flush_changes(ns);
    if (ns > now_) {
        char text[24];
        text[0] = '#';
        auto r = std::to_chars(text + 1, text + 23, ns / kUnitNs);
        *r.ptr++ = '\n';
        buffer_.append(text, size_t(r.ptr - text));
        now_ = ns;
    }
}

void VcdWriter::change(int signal, int64_t time, uint64_t value)
{
    changes_.push({(time - origin_) * 100, order_++, signal, value});
}

void VcdWriter::transfer(const BusTransfer& t)
{
    if (!started_) {
        header();
    }
    if (pending_) {
        draw(*pending_, pending_->sequence == t.sequence);
    }
    pending_ = t;
    spill();
}

// ---- Drawing -------------------------------------------------------------------

void VcdWriter::draw(const BusTransfer& t, bool joins_next)
{
    auto wire = on_wire(t, speed_, held_, joins_next);
    drawn_++;
    held_ = wire && !wire->stop;
    if (!wire) {
        return;
    }
    const I2cTiming& k = i2c_timing(speed_);
    int64_t t0 = (t.time - origin_) * 100;
    // START (or repeated START): SDA falls while SCL is high, then SCL falls.
    at(t0);
    set(kScl, 1);
    set(kSda, 1);
    at(t0 + k.period - k.hold_start);
    set(kSda, 0);
    int64_t slot = t0 + k.period;
    auto bit = [&](int value) {
        at(slot);
        set(kScl, 0);
        at(slot + k.hold_data);
        set(kSda, uint64_t(value));
        at(slot + k.low);
        set(kScl, 1);
        slot += k.period;
    };
    auto byte = [&](uint8_t value, bool ack) {
        for (int b = 7; b >= 0; b--) {
            bit((value >> b) & 1);
        }
        bit(ack ? 0 : 1);
    };
    byte(uint8_t(wire->address << 1 | (wire->direction == Direction::Read ? 1 : 0)), wire->address_ack);
    for (size_t i = 0; i < wire->bytes.size(); i++) {
        byte(wire->bytes[i], wire->acks[i]);
    }
    // Whatever the bus charged beyond the bits is the part holding SCL low
    // (clock stretching, or a part that never lets go until the time-out).
    int64_t stretch = t.duration * 100 - (slot - t0) - k.period;
    if (stretch > 0) {
        at(slot);
        set(kScl, 0);
        slot += stretch;
    }
    // STOP: SDA low under a low SCL, SCL rises, then SDA. Before a repeated
    // START SDA is released instead and SCL stays high.
    at(slot);
    set(kScl, 0);
    at(slot + k.hold_data);
    set(kSda, wire->stop ? 0 : 1);
    at(slot + k.low);
    set(kScl, 1);
    if (wire->stop) {
        at(slot + k.low + k.setup_stop);
        set(kSda, 1);
    }
}

void VcdWriter::finish(int64_t end)
{
    if (out_ == nullptr) {
        return;
    }
    if (!started_) {
        header();
    }
    if (pending_) {
        draw(*pending_, false);
        pending_.reset();
    }
    flush_changes(INT64_MAX / 2);
    at(std::max((end - origin_) * 100, now_));
    written_ += buffer_.size();
    out_->write(buffer_);
    buffer_.clear();
    out_ = nullptr;
}

}  // namespace korvanel::wire
