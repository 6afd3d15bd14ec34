// vcm_fixture.h - a device with a lens actuator on connection slot 1, as a
// platform that selects one would set it up, and ways to read what happened:
// the bus and the pauses as one timeline, and trace events by marker text.
// The driver-global settings tables are restored after every test.
#pragma once

#include "bench.h"

#include "host/bus.h"
#include "sim/actuator.h"
#include "vcm/vcm.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korvanel::test {

struct SettingsTable {
    VCM_REG_DATA* table;
    size_t count;
};

inline const std::vector<SettingsTable>& settings_tables()
{
    static const std::vector<SettingsTable> tables = {
        {AD5823_Settings, AD5823_SETTINGS_COUNT}, {DW9714_Settings, DW9714_SETTINGS_COUNT},
        {AD5816_Settings, AD5816_SETTINGS_COUNT}, {DW9719_Settings, DW9719_SETTINGS_COUNT},
        {DW9718_Settings, DW9718_SETTINGS_COUNT}, {DW9806B_Settings, DW9806B_SETTINGS_COUNT},
        {WV517S_Settings, WV517S_SETTINGS_COUNT}, {LC898122XA_Settings, LC898122XA_SETTINGS_COUNT},
    };
    return tables;
}

// "W 04 F6", "R F4": one transfer as the wire saw it (the bytes of a failed
// read are none).
inline std::string wire_text(const host::BusTransfer& t)
{
    std::string s = t.direction == host::Direction::Write ? "W" : "R";
    char b[4];
    for (uint8_t byte : t.bytes) {
        snprintf(b, sizeof b, " %02X", byte);
        s += b;
    }
    return s;
}

// Expected wire lines: W({0x04, 0xF6}) is "W 04 F6", R(0xF4) is "R F4".
inline std::string W(std::initializer_list<int> bytes)
{
    std::string s = "W";
    char b[4];
    for (int v : bytes) {
        snprintf(b, sizeof b, " %02X", v);
        s += b;
    }
    return s;
}

inline std::string R(int byte)
{
    char b[8];
    snprintf(b, sizeof b, "R %02X", byte);
    return b;
}

inline std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// What a part needs to see for one position, per chip; `high` is what the
// chip's code-MSB register holds before (the merging chips read it back).
using PositionWire = std::function<std::vector<std::string>(int code, int& high)>;

inline std::vector<std::string> merged(int high_reg, int low_reg, int code, int& high)
{
    int before = high;
    high = (before & ~3) | (code >> 8);
    return {W({high_reg}), R(before), W({high_reg, high}), W({low_reg, code & 0xFF})};
}

inline const std::map<std::string, PositionWire>& position_wire()
{
    static const std::map<std::string, PositionWire> wires = {
        {"AD5823", [](int c, int& h) { return merged(0x04, 0x05, c, h); }},
        {"DW9719", [](int c, int& h) { return merged(0x03, 0x04, c, h); }},
        {"DW9806B", [](int c, int& h) { return merged(0x03, 0x04, c, h); }},
        {"AD5816", [](int c, int&) { return std::vector<std::string>{W({0x03, c >> 8}), W({0x04, c & 0xFF})}; }},
        {"DW9718", [](int c, int&) { return std::vector<std::string>{W({0x02, c >> 8}), W({0x03, c & 0xFF})}; }},
        {"WV517S", [](int c, int&) { return std::vector<std::string>{W({0x41, c >> 8}), W({0x42, c & 0xFF})}; }},
        {"DW9714", [](int c, int&) { return std::vector<std::string>{W({c >> 4, (c << 4) & 0xFF})}; }},
        {"LC898122XA",
         [](int c, int&) {
             return std::vector<std::string>{W({0x03, 0x80, c >> 3}), W({0x03, 0x81, (c & 7) << 5})};
         }},
    };
    return wires;
}

class VcmTest : public DriverTest {
protected:
    static constexpr uint64_t kConnection = 0x1C;
    PDEVICE_CONTEXT ctx = nullptr;
    std::shared_ptr<sim::ActuatorModel> part;
    std::vector<std::vector<VCM_REG_DATA>> saved_;

    void SetUp() override
    {
        DriverTest::SetUp();
        for (auto& t : settings_tables()) {
            saved_.emplace_back(t.table, t.table + t.count);
        }
        ctx = add();
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }

    void TearDown() override
    {
        for (size_t i = 0; i < saved_.size(); i++) {
            std::copy(saved_[i].begin(), saved_[i].end(), settings_tables()[i].table);
        }
        DriverTest::TearDown();
    }

    // What a platform that selects an actuator sets, and the part on the bus.
    sim::ActuatorModel& select(const std::string& chip, PDEVICE_CONTEXT device = nullptr,
                               uint64_t connection = kConnection)
    {
        device = device ? device : ctx;
        part = std::make_shared<sim::ActuatorModel>(sim::actuator_chip(chip));
        sys.bus().attach(connection, part);
        device->VcmType = LONG(part->chip().vcm_type);
        device->I2cConnections[I2C_SLOT_VCM].ConnectionId = connection;
        device->I2cConnections[I2C_SLOT_VCM].Present = 1;
        return *part;
    }

    const VCM_DRIVER& row(PDEVICE_CONTEXT device = nullptr) { return VcmDrivers[(device ? device : ctx)->VcmType]; }

    void set_module(const char* name) { snprintf(ctx->SensorName, sizeof ctx->SensorName, "%s", name); }

    void clear()
    {
        sys.bus().clear_transcript();
        sys.clock().clear_delays();
        sys.traces().clear();
    }

    // The bus transfers and the pauses between them, in order: "W 04 F6",
    // "R F4", "delay 1 ms" (consecutive processor stalls and a sleep each
    // count as one pause).
    std::vector<std::string> timeline()
    {
        auto transfers = sys.bus().transcript();
        auto delays = sys.clock().delays();
        std::vector<std::string> out;
        size_t d = 0;
        int64_t stalled_us = 0;
        auto flush = [&] {
            if (stalled_us > 0) {
                out.push_back("delay " + std::to_string(stalled_us / 1000) + " ms");
                stalled_us = 0;
            }
        };
        auto take_delays_before = [&](int64_t time) {
            for (; d < delays.size() && delays[d].at < time; d++) {
                if (delays[d].kind == host::Clock::Delay::Kind::Stall) {
                    stalled_us += delays[d].amount;
                } else {
                    flush();
                    out.push_back("delay " + std::to_string(-delays[d].amount / 10000) + " ms");
                }
            }
            flush();
        };
        for (auto& t : transfers) {
            take_delays_before(t.time);
            out.push_back(wire_text(t));
        }
        take_delays_before(INT64_MAX);
        return out;
    }

    // Trace events whose marker text (the argument after the chip name) is `marker`.
    std::vector<host::Traces::Event> marked(const std::string& marker)
    {
        std::vector<host::Traces::Event> out;
        for (auto& e : sys.traces().events()) {
            if (host::Traces::text(e, 2) == marker) {
                out.push_back(e);
            }
        }
        return out;
    }

    // The numbers an event carries after its two texts.
    static std::vector<uint32_t> numbers(const host::Traces::Event& e)
    {
        std::vector<uint32_t> out;
        for (size_t i = 3; i < e.args.size(); i++) {
            out.push_back(host::Traces::u32(e, i));
        }
        return out;
    }

    // The positions a sequence of SetPos calls handed the chip, in order.
    std::vector<int> latched()
    {
        std::vector<int> out;
        for (auto& p : part->trajectory()) {
            out.push_back(p.code);
        }
        return out;
    }

    bool lock_free(PDEVICE_CONTEXT device = nullptr) { return KeReadStateEvent(&(device ? device : ctx)->BusLock) == 1; }
};

}  // namespace korvanel::test
