// vcm_fixture.h - a device with a lens actuator on connection slot 1, as a
// platform that selects one would set it up, and ways to read what happened:
// the bus and the pauses as one timeline ("W 04 F6", "R F4", "delay 1 ms"),
// and trace events by marker text. The driver-global settings tables are
// restored after every test.
#pragma once

#include "driver_fixture.h"

#include "bench/spb_controller.h"
#include "platform/actuator.h"
#include "vcm/vcm.h"

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korvanel::test {

using Wire = std::vector<std::string>;

inline std::string wire_line(char direction, const std::vector<uint8_t>& bytes)
{
    std::string s(1, direction);
    char b[4];
    for (uint8_t byte : bytes) {
        snprintf(b, sizeof b, " %02X", byte);
        s += b;
    }
    return s;
}
inline std::string wire_text(const bench::BusTransfer& t)
{
    return wire_line(t.direction == bench::Direction::Write ? 'W' : 'R', t.bytes);
}
inline std::string W(std::vector<uint8_t> bytes) { return wire_line('W', bytes); }
inline std::string R(uint8_t byte) { return wire_line('R', {byte}); }
// "W 04|R F0|delay 1 ms": a timeline written as text.
inline Wire wire(const std::string& text)
{
    Wire out;
    for (size_t start = 0, bar; start <= text.size(); start = bar + 1) {
        bar = std::min(text.find('|', start), text.size());
        out.push_back(text.substr(start, bar - start));
    }
    return out;
}
inline Wire operator+(Wire a, const Wire& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class VcmTest : public DriverTest {
protected:
    static constexpr uint64_t kConnection = 0x1C;
    PDEVICE_CONTEXT ctx = nullptr;
    std::shared_ptr<models::ActuatorModel> part;

    static std::vector<std::pair<VCM_REG_DATA*, size_t>> settings()
    {
        return {{AD5823_Settings, AD5823_SETTINGS_COUNT}, {DW9714_Settings, DW9714_SETTINGS_COUNT},
                {AD5816_Settings, AD5816_SETTINGS_COUNT}, {DW9719_Settings, DW9719_SETTINGS_COUNT},
                {DW9718_Settings, DW9718_SETTINGS_COUNT}, {DW9806B_Settings, DW9806B_SETTINGS_COUNT},
                {WV517S_Settings, WV517S_SETTINGS_COUNT}, {LC898122XA_Settings, LC898122XA_SETTINGS_COUNT}};
    }
    std::vector<std::vector<VCM_REG_DATA>> saved_;

    void SetUp() override
    {
        DriverTest::SetUp();
        for (auto [table, count] : settings()) {
            saved_.emplace_back(table, table + count);
        }
        ctx = add();
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }

    void TearDown() override
    {
        for (size_t i = 0; i < saved_.size(); i++) {
            std::copy(saved_[i].begin(), saved_[i].end(), settings()[i].first);
        }
        DriverTest::TearDown();
    }

    // What a platform that selects an actuator sets, and the part on the bus.
    models::ActuatorModel& select(const std::string& chip, PDEVICE_CONTEXT device = nullptr,
                               uint64_t connection = kConnection)
    {
        device = device ? device : ctx;
        // The module's positions are the test's to set.
        USHORT low = device->VcmLowPosition, high = device->VcmHighPosition;
        part = platform::select_actuator(sys, device, {chip, connection, low, high});
        return *part;
    }

    const VCM_DRIVER& row() { return platform::actuator_table()[ctx->VcmType]; }
    void set_module(const char* name) { snprintf(ctx->SensorName, sizeof ctx->SensorName, "%s", name); }
    bool lock_free(PDEVICE_CONTEXT device = nullptr) { return KeReadStateEvent(&(device ? device : ctx)->BusLock); }

    void clear()
    {
        sys.bus().clear_transcript();
        sys.clock().clear_delays();
        sys.traces().clear();
    }

    // Transfers in order, each preceded by the pauses since the one before
    // as one "delay N ms" (processor stalls and sleeps alike); `show` gives
    // a transfer's line, "" to leave it out.
    Wire timeline(const std::function<std::string(const bench::BusTransfer&)>& show = wire_text)
    {
        auto delays = sys.clock().delays();
        Wire out;
        size_t d = 0;
        auto pauses_before = [&](int64_t time) {
            int64_t units = 0;
            for (; d < delays.size() && delays[d].at < time; d++) {
                units += delays[d].kind == bench::Clock::Delay::Kind::Stall ? delays[d].amount * 10 : -delays[d].amount;
            }
            if (units > 0) {
                out.push_back("delay " + std::to_string(units / 10000) + " ms");
            }
        };
        for (auto& t : sys.bus().transcript()) {
            pauses_before(t.time);
            if (auto line = show(t); !line.empty()) {
                out.push_back(line);
            }
        }
        pauses_before(INT64_MAX);
        return out;
    }

    // The timeline with each move shown as "code N", N as the part latched
    // it, in place of the transfers to its code registers (a merging chip's
    // read of the high register included).
    Wire moves()
    {
        auto points = part->trajectory();
        const auto& chip = part->chip();
        bool words = chip.interface == models::ActuatorChip::Interface::CommandWord, addressed = false;
        size_t next = 0, width = chip.interface == models::ActuatorChip::Interface::Reg16 ? 2 : 1;
        return timeline([&](const bench::BusTransfer& t) {
            bool read = t.direction == bench::Direction::Read;
            unsigned reg = t.bytes.size() < width ? ~0u : width == 2 ? t.bytes[0] << 8 | t.bytes[1] : t.bytes[0];
            bool code_reg = !read && (words || reg == chip.high_reg || reg == chip.low_reg);
            bool latching = words || (reg == chip.low_reg && t.bytes.size() > width);
            bool drop = code_reg || (read && addressed);
            addressed = code_reg && t.bytes.size() == width;
            for (; next < points.size() && points[next].time < t.time + t.duration; next++) {
            }
            if (code_reg && latching && next < points.size() && points[next].time == t.time + t.duration) {
                return "code " + std::to_string(points[next++].code);
            }
            return drop ? std::string() : wire_text(t);
        });
    }
    // Each code, with the pause that goes with it before or after.
    static Wire steps(const std::vector<int>& codes, const std::string& before = "", const std::string& after = "")
    {
        Wire out;
        for (int code : codes) {
            out = out + (before.empty() ? Wire{} : Wire{before}) + Wire{"code " + std::to_string(code)} +
                  (after.empty() ? Wire{} : Wire{after});
        }
        return out;
    }
    static std::vector<int> range(int from, int to, int step)
    {
        std::vector<int> out;
        for (int p = from; step > 0 ? p <= to : p >= to; p += step) {
            out.push_back(p);
        }
        return out;
    }

    // Trace events whose marker text (the argument after the chip name) is
    // `marker`, and the numbers an event carries after its two texts.
    std::vector<bench::Traces::Event> marked(const std::string& marker)
    {
        std::vector<bench::Traces::Event> out;
        for (auto& e : sys.traces().events()) {
            if (bench::Traces::text(e, 2) == marker) {
                out.push_back(e);
            }
        }
        return out;
    }
    static std::vector<uint32_t> numbers(const bench::Traces::Event& e)
    {
        std::vector<uint32_t> out;
        for (size_t i = 3; i < e.args.size(); i++) {
            out.push_back(bench::Traces::u32(e, i));
        }
        return out;
    }
};

}  // namespace korvanel::test
