// scenario_check.cpp - a step's expectations against what it did.
#include "scenario_check.h"

#include "bus_report.h"
#include "parse.h"

#include "bench/spb_controller.h"
#include "bench/text.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>

namespace korvanel::tool {

using json = nlohmann::ordered_json;

namespace {

// Expected values within the returned ones: objects by their keys, lists
// element by element, numbers by value however written, statuses by value,
// memory data by its bytes.
void compare(const json& expected, const json& actual, const std::string& where, std::vector<std::string>& failures)
{
    auto mismatch = [&] { failures.push_back(where + ": expected " + expected.dump() + ", got " + actual.dump()); };
    if (expected.is_object()) {
        if (!actual.is_object()) {
            return mismatch();
        }
        for (auto& [key, value] : expected.items()) {
            if (!actual.contains(key)) {
                std::string returned;
                for (auto& [k, v] : actual.items()) {
                    returned += (returned.empty() ? " (returned: " : ", ") + k;
                }
                failures.push_back(where + "." + key + ": not returned" + returned + (returned.empty() ? "" : ")"));
            } else {
                compare(value, actual[key], where + "." + key, failures);
            }
        }
        return;
    }
    if (expected.is_array()) {
        if (!actual.is_array() || actual.size() != expected.size()) {
            return mismatch();
        }
        for (size_t i = 0; i < expected.size(); i++) {
            compare(expected[i], actual[i], where + "[" + std::to_string(i) + "]", failures);
        }
        return;
    }
    auto e_number = json_integer(expected, LLONG_MIN, LLONG_MAX);
    auto a_number = json_integer(actual, LLONG_MIN, LLONG_MAX);
    if (e_number && a_number) {
        if (*e_number != *a_number) {
            mismatch();
        }
        return;
    }
    if (expected.is_string() && actual.is_string()) {
        auto e_status = parse_status(expected.get<std::string>());
        auto a_status = parse_status(actual.get<std::string>());
        if (e_status && a_status) {
            if (*e_status != *a_status) {
                mismatch();
            }
            return;
        }
        bool data = where.size() >= 5 && where.compare(where.size() - 5, 5, ".data") == 0;
        auto e_bytes = parse_hex_bytes(expected.get<std::string>());
        auto a_bytes = parse_hex_bytes(actual.get<std::string>());
        if (data && e_bytes && a_bytes) {
            if (*e_bytes != *a_bytes) {
                mismatch();
            }
            return;
        }
    }
    if (expected != actual) {
        mismatch();
    }
}

void check_bus(const std::vector<std::string>& want, const std::vector<bench::BusTransfer>& transfers,
               std::vector<std::string>& failures)
{
    std::vector<std::string> got;
    for (size_t i = 0; i < transfers.size(); i++) {
        bool connection = i < want.size() && want[i].rfind("0x", 0) == 0;
        got.push_back(wire_text(transfers[i], connection));
    }
    if (got.size() != want.size()) {
        std::string list;
        for (auto& g : got) {
            list += "\n          " + g;
        }
        failures.push_back("bus: expected " + std::to_string(want.size()) + " transfers, got " +
                           std::to_string(got.size()) + (list.empty() ? "" : ":" + list));
        return;
    }
    for (size_t i = 0; i < got.size(); i++) {
        if (got[i] != want[i]) {
            failures.push_back("bus: transfer " + std::to_string(i + 1) + ": expected " + want[i] + ", got " + got[i]);
        }
    }
}

// The step's transfers as the wire shows them against the capture's; with
// capture timing, each gap between two transfers on the bench must be at
// least as long as the capture's, less the tolerance.
void check_capture(const Expect& x, const Observation& seen, std::vector<std::string>& failures)
{
    auto bench = wire::wire_transcript(seen.transfers, seen.speed);
    if (auto difference = wire::compare_wire(bench, x.capture->transfers)) {
        std::string text = "bus_capture: " + x.bus_capture + ": ";
        for (char c : *difference) {
            text += c == '\n' ? std::string("\n        ") : std::string(1, c);
        }
        failures.push_back(text);
        return;
    }
    if (!x.capture_tolerance_us || bench.size() != seen.transfers.size() || seen.speed == bench::BusSpeed::Instant) {
        return;
    }
    // The bench's STOP and START sit inside the transfers' spans: the gap
    // between them is the idle time plus the drawn bus-free time.
    // In nanoseconds; half of one forgives the capture's rounding.
    int64_t bus_free = wire::i2c_timing(seen.speed).bus_free();
    const auto& samples = x.capture->samples;
    for (size_t i = 1; i < seen.transfers.size(); i++) {
        const auto& before = seen.transfers[i - 1];
        double bench_gap = double((seen.transfers[i].time - before.time - before.duration) * 100 + bus_free);
        double capture_gap = double(samples[i].first - samples[i - 1].second) * 1e9 / x.capture->samplerate;
        if (bench_gap + 0.5 < capture_gap - *x.capture_tolerance_us * 1e3) {
            char text[200];
            std::snprintf(text, sizeof text,
                          "capture_timing: %s: the gap before transfer %zu is %.1f us on the bench, %.1f us in the "
                          "capture (tolerance %.1f us)",
                          x.bus_capture.c_str(), i + 1, bench_gap / 1e3, capture_gap / 1e3, *x.capture_tolerance_us);
            failures.push_back(text);
            return;
        }
    }
}

// From the first byte that differs, up to eight bytes of each side.
void check_memory(const MemoryExpect& m, const std::vector<uint8_t>& contents, std::vector<std::string>& failures)
{
    size_t from = std::min<size_t>(m.address, contents.size());
    std::vector<uint8_t> have(contents.begin() + ptrdiff_t(from),
                              contents.begin() + ptrdiff_t(std::min(contents.size(), from + m.data.size())));
    size_t i = 0;
    while (i < m.data.size() && i < have.size() && m.data[i] == have[i]) {
        i++;
    }
    if (i == m.data.size()) {
        return;
    }
    size_t n = std::min<size_t>(8, m.data.size() - i);
    char head[96];
    snprintf(head, sizeof head, "memory at 0x%04x (%zu bytes): from 0x%04zx expected ", m.address, m.data.size(),
             m.address + i);
    size_t got = std::min(n, have.size() - std::min(i, have.size()));
    failures.push_back(head + hex_bytes(&m.data[i], n) + ", got " + hex_bytes(have.data() + i, got));
}

std::string power_text(DEVICE_POWER_STATE state)
{
    return state == PowerDeviceD0 ? "D0" : state == PowerDeviceD3 ? "D3" : "D" + std::to_string(int(state) - 1);
}

std::string event_text(const TraceEntry& e)
{
    return e.level + " " + e.module + " #" + std::to_string(e.number) + " " + e.text;
}

}  // namespace

std::string wire_text(const bench::BusTransfer& t, bool connection)
{
    std::string out = connection ? connection_text(t.connection) + " " : "";
    out += t.direction == bench::Direction::Write ? "W" : "R";
    if (!t.bytes.empty()) {
        out += " " + hex_bytes(t.bytes.data(), t.bytes.size());
    }
    if (t.status != STATUS_SUCCESS) {
        out += "  " + bench::status_name(t.status);
    }
    return out;
}

std::vector<std::string> check_step(const Expect& x, const Observation& seen)
{
    std::vector<std::string> failures;
    if (x.status) {
        if (!seen.status) {
            failures.push_back("status: the step returns no status");
        } else if (parse_status(*seen.status) != x.status) {
            failures.push_back("status: expected " + bench::status_name(*x.status) + ", got " + *seen.status);
        }
    }
    if (x.values) {
        compare(*x.values, seen.values, "values", failures);
    }
    if (x.transfers && size_t(*x.transfers) != seen.transfers.size()) {
        failures.push_back("transfers: expected " + std::to_string(*x.transfers) + ", got " +
                           std::to_string(seen.transfers.size()));
    }
    if (x.bus) {
        check_bus(*x.bus, seen.transfers, failures);
    }
    if (x.capture) {
        check_capture(x, seen, failures);
    }
    for (auto& m : x.memory) {
        check_memory(m, seen.memory, failures);
    }
    if (x.lens && seen.lens && *seen.lens != *x.lens) {
        failures.push_back("lens: expected code " + std::to_string(*x.lens) + ", got " + std::to_string(*seen.lens));
    }
    if (x.power && power_text(seen.power) != *x.power) {
        failures.push_back("power: expected " + *x.power + ", got " + power_text(seen.power));
    }
    if (x.references && seen.references != *x.references) {
        failures.push_back("power references: expected " + std::to_string(*x.references) + ", got " +
                           std::to_string(seen.references));
    }
    if (x.clock_ms && std::fabs(double(seen.clock) / 10000.0 - *x.clock_ms) > 0.00005) {
        char expected[32];
        snprintf(expected, sizeof expected, "%.4f", *x.clock_ms);
        failures.push_back(std::string("clock: expected ") + expected + " ms, got " + milliseconds(seen.clock) + " ms");
    }
    if (x.violation && !seen.violation) {
        failures.push_back("violation: expected " + *x.violation + ", the step ran without one");
    } else if (x.violation && seen.violation->stop.bugcheck != *x.violation) {
        failures.push_back("violation: expected " + *x.violation + ", got\n" + seen.violation->text());
    } else if (!x.violation && seen.violation) {
        failures.push_back("the verifier stopped the step:\n" + seen.violation->text());
    }
    for (auto& text : x.trace) {
        bool found = std::any_of(seen.trace.begin(), seen.trace.end(),
                                 [&](const TraceEntry& e) { return event_text(e).find(text) != std::string::npos; });
        if (!found) {
            std::string traced;
            for (auto& e : seen.trace) {
                traced += "\n          " + event_text(e);
            }
            failures.push_back("trace: no event of the step contains \"" + text + "\"" +
                               (traced.empty() ? " (it traced nothing)" : "; it traced:" + traced));
        }
    }
    return failures;
}

}  // namespace korvanel::tool
