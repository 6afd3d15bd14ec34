// scenario.cpp - running a scenario on a fresh bench, step by step.
#include "scenario.h"

#include "bus_report.h"
#include "parse.h"
#include "scenario_file.h"

#include "host/bus.h"
#include "host/system.h"
#include "platform/device.h"
#include "sensor/device_context.h"
#include "sim/actuator.h"
#include "sim/eeprom.h"
#include "trace/trace.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

namespace korvanel::tool {

using json = nlohmann::ordered_json;
using nlohmann::ordered_json;

namespace {

// ---- Running -----------------------------------------------------------------------

struct DeviceState {
    const DeviceSetup* setup;
    host::Device* device = nullptr;
    PDEVICE_CONTEXT context = nullptr;
    SENSOR_INTERFACE si{};
    int held = 0;  // interface references the scenario holds
    std::shared_ptr<sim::ActuatorModel> lens = {};
    std::shared_ptr<sim::Eeprom> memory = {};
};

// One transfer as a scenario writes it, with the connection when asked.
std::string wire_text(const host::BusTransfer& t, bool connection)
{
    std::string out = connection ? connection_text(t.connection) + " " : "";
    out += t.direction == host::Direction::Write ? "W" : "R";
    if (!t.bytes.empty()) {
        out += " " + hex_bytes(t.bytes.data(), t.bytes.size());
    }
    if (t.status != STATUS_SUCCESS) {
        out += "  " + host::status_name(t.status);
    }
    return out;
}

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

struct StepResult {
    std::optional<std::string> status;
    ordered_json values = ordered_json::object();
    std::vector<host::BusTransfer> transfers;
    std::vector<TraceEntry> trace;
    std::vector<std::string> failures;
    int64_t time = 0;
};

class Runner {
public:
    Runner(const Scenario& scenario, const std::string& name, const ScenarioOptions& options, std::ostream& out)
        : scenario_(scenario), name_(name), options_(options), out_(out)
    {
    }

    int run();

private:
    const Scenario& scenario_;
    std::string name_;
    const ScenarioOptions& options_;
    std::ostream& out_;
    host::System sys_;
    int64_t origin_ = 0;
    std::vector<DeviceState> devices_;
    bool tracing_ = false;
    std::vector<TraceEntry> run_trace_;
    ordered_json json_steps_ = ordered_json::array();
    std::vector<std::string> failures_;  // "step 4 (line 22): why"
    size_t expectations_ = 0;
    bool set_up(std::string& problem);
    // The trace events since the last call, decoded; those the options
    // accept are kept for the run's trace.
    std::vector<TraceEntry> collect_trace();
    StepResult perform(const Step& step);
    void check(const Step& step, StepResult& r);
    void report(const Step& step, const StepResult& r);
    std::string finish();
};

bool Runner::set_up(std::string& problem)
{
    sys_.bus().set_speed(scenario_.speed);
    tracing_ = scenario_.trace || options_.verbose || options_.trace.requested();
    if (tracing_) {
        sys_.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    origin_ = sys_.clock().now();
    NTSTATUS status = platform::load_driver(sys_);
    if (!NT_SUCCESS(status)) {
        problem = "DriverEntry failed: " + host::status_name(status);
        return false;
    }
    for (auto& setup : scenario_.devices) {
        // The values in force when this device is added: device add reads them.
        for (auto& v : setup.registry) {
            if (v.remove) {
                sys_.registry().remove(v.name);
            } else {
                sys_.registry().set(v.name, v.type, v.data);
            }
        }
        DeviceState d{&setup};
        host::DeviceConfig config;
        config.hardware_ids = {host::to_utf16(setup.hwid)};
        d.device = &sys_.add_device(config);
        if (!NT_SUCCESS(d.device->add_status())) {
            problem = "device add of '" + setup.name + "' failed: " + host::status_name(d.device->add_status());
            return false;
        }
        d.context = static_cast<PDEVICE_CONTEXT>(d.device->context());
        status = d.device->query_interface(GUID_SENSOR_INTERFACE, &d.si, SENSOR_INTERFACE_VERSION);
        if (!NT_SUCCESS(status)) {
            problem = "the interface of '" + setup.name + "' could not be taken: " + host::status_name(status);
            return false;
        }
        d.held = 1;
        if (setup.actuator) {
            d.lens = platform::select_actuator(sys_, d.context, *setup.actuator);
        }
        if (setup.memory) {
            d.memory = platform::select_memory(sys_, d.context, *setup.memory);
            d.memory->set_contents(0, setup.contents);
        }
        devices_.push_back(std::move(d));
    }
    // Device add's own events belong to no step.
    collect_trace();
    return true;
}

std::vector<TraceEntry> Runner::collect_trace()
{
    if (!tracing_) {
        return {};
    }
    auto events = sys_.traces().events();
    sys_.traces().clear();
    auto entries = trace_entries(sys_.traces(), events, TraceOptions{});
    for (auto& e : entries) {
        if (options_.trace.requested() && options_.trace.accepts(e)) {
            run_trace_.push_back(e);
        }
    }
    return entries;
}

StepResult Runner::perform(const Step& step)
{
    StepResult r;
    DeviceState& d = devices_[step.device];
    sys_.bus().clear_transcript();
    r.time = sys_.clock().now();
    auto take_status = [&](ordered_json result) {
        if (result.contains("status")) {
            r.status = result["status"].get<std::string>();
            result.erase("status");
        }
        result.erase("op");
        r.values = std::move(result);
    };
    switch (step.kind) {
    case Step::Kind::Call:
        take_status(step.call(d.si, options_.verbose));
        break;
    case Step::Kind::Vcm:
        take_status(run_actuator_op(sys_, d.context, step.vcm));
        break;
    case Step::Kind::Nvm:
        take_status(run_memory_op(d.context, step.nvm));
        break;
    case Step::Kind::Advance:
        sys_.clock().advance(step.advance);
        break;
    case Step::Kind::BusSpeed:
        sys_.bus().set_speed(step.speed);
        break;
    case Step::Kind::Fault: {
        const FaultStep& f = step.fault;
        if (f.what == FaultStep::What::Clear) {
            sys_.bus().clear_faults();
            sys_.faults().clear();
        } else if (f.what == FaultStep::What::Routine) {
            sys_.faults().fail(f.routine, f.status, f.skip, f.times);
        } else if (f.transfer) {
            sys_.bus().fail_transfer(sys_.bus().transfer_count() + *f.transfer - 1, f.fault);
        } else {
            sys_.bus().fail_when(f.match, f.fault, f.skip, f.times);
        }
        break;
    }
    case Step::Kind::Pnp:
        r.status = host::status_name(step.action == "query_remove" ? d.device->query_remove()
                                                                   : d.device->query_stop());
        break;
    case Step::Kind::Interface:
        if (step.action == "take") {
            SENSOR_INTERFACE si{};
            NTSTATUS status = d.device->query_interface(GUID_SENSOR_INTERFACE, &si, SENSOR_INTERFACE_VERSION);
            r.status = host::status_name(status);
            d.held += NT_SUCCESS(status) ? 1 : 0;
        } else if (d.held == 0) {
            r.failures.push_back("the scenario holds no reference on the interface to release");
        } else {
            d.si.InterfaceHeader.InterfaceDereference(d.si.InterfaceHeader.Context);
            d.held--;
        }
        break;
    case Step::Kind::Check:
        break;
    }
    r.transfers = sys_.bus().transcript();
    r.trace = collect_trace();
    return r;
}

void Runner::check(const Step& step, StepResult& r)
{
    const Expect& x = step.expect;
    DeviceState& d = devices_[step.device];
    auto& failures = r.failures;
    if (x.status) {
        if (!r.status) {
            failures.push_back("status: the step returns no status");
        } else if (parse_status(*r.status) != x.status) {
            failures.push_back("status: expected " + host::status_name(*x.status) + ", got " + *r.status);
        }
    }
    if (x.values) {
        compare(*x.values, r.values, "values", failures);
    }
    if (x.transfers && size_t(*x.transfers) != r.transfers.size()) {
        failures.push_back("transfers: expected " + std::to_string(*x.transfers) + ", got " +
                           std::to_string(r.transfers.size()));
    }
    if (x.bus) {
        auto& want = *x.bus;
        std::vector<std::string> got;
        for (size_t i = 0; i < r.transfers.size(); i++) {
            bool connection = i < want.size() && want[i].rfind("0x", 0) == 0;
            got.push_back(wire_text(r.transfers[i], connection));
        }
        if (got.size() != want.size()) {
            std::string list;
            for (auto& g : got) {
                list += "\n          " + g;
            }
            failures.push_back("bus: expected " + std::to_string(want.size()) + " transfers, got " +
                               std::to_string(got.size()) + (list.empty() ? "" : ":" + list));
        } else {
            for (size_t i = 0; i < got.size(); i++) {
                if (got[i] != want[i]) {
                    failures.push_back("bus: transfer " + std::to_string(i + 1) + ": expected " + want[i] + ", got " +
                                       got[i]);
                }
            }
        }
    }
    for (auto& m : x.memory) {
        auto have = d.memory->bytes(m.address, m.data.size());
        auto diff = std::mismatch(m.data.begin(), m.data.end(), have.begin());
        if (diff.first != m.data.end()) {
            size_t at = m.address + size_t(diff.first - m.data.begin());
            size_t n = std::min<size_t>(8, size_t(m.data.end() - diff.first));
            char head[96];
            snprintf(head, sizeof head, "memory at 0x%04x (%zu bytes): from 0x%04zx expected ", m.address,
                     m.data.size(), at);
            failures.push_back(head + hex_bytes(&*diff.first, n) + ", got " + hex_bytes(&*diff.second, n));
        }
    }
    if (x.lens && d.lens && d.lens->code() != *x.lens) {
        failures.push_back("lens: expected code " + std::to_string(*x.lens) + ", got " +
                           std::to_string(d.lens->code()));
    }
    if (x.power) {
        DEVICE_POWER_STATE state = d.device->power_state();
        std::string now = state == PowerDeviceD0 ? "D0" : state == PowerDeviceD3 ? "D3" : "D" + std::to_string(int(state) - 1);
        if (now != *x.power) {
            failures.push_back("power: expected " + *x.power + ", got " + now);
        }
    }
    if (x.references && d.device->power_references() != *x.references) {
        failures.push_back("power references: expected " + std::to_string(*x.references) + ", got " +
                           std::to_string(d.device->power_references()));
    }
    if (x.clock_ms) {
        double now = double(sys_.clock().now() - origin_) / 10000.0;
        if (std::fabs(now - *x.clock_ms) > 0.00005) {
            char expected[32];
            snprintf(expected, sizeof expected, "%.4f", *x.clock_ms);
            failures.push_back(std::string("clock: expected ") + expected + " ms, got " +
                               milliseconds(sys_.clock().now() - origin_) + " ms");
        }
    }
    for (auto& text : x.trace) {
        bool found = std::any_of(r.trace.begin(), r.trace.end(), [&](const TraceEntry& e) {
            return (e.level + " " + e.module + " #" + std::to_string(e.number) + " " + e.text).find(text) !=
                   std::string::npos;
        });
        if (!found) {
            std::string seen;
            for (auto& e : r.trace) {
                seen += "\n          " + e.level + " " + e.module + " #" + std::to_string(e.number) + " " + e.text;
            }
            failures.push_back("trace: no event of the step contains \"" + text + "\"" +
                               (seen.empty() ? " (it traced nothing)" : "; it traced:" + seen));
        }
    }
}

// A returned value as the record's field shows it (0x09FCD140, "HAPS").
std::string shown_value(const Step& step, const std::string& key, const ordered_json& value)
{
    return field_text(step.record ? find_field(*step.record, key) : nullptr, value);
}

void Runner::report(const Step& step, const StepResult& r)
{
    int line = step.line;
    bool ok = r.failures.empty();
    if (options_.json) {
        ordered_json j = {{"step", step.index + 1}, {"line", line}, {"title", step.title}};
        if (!step.note.empty()) {
            j["note"] = step.note;
        }
        j["time_ms"] = double(r.time - origin_) / 10000.0;
        if (r.status) {
            j["status"] = *r.status;
        }
        if (!r.values.empty()) {
            j["values"] = r.values;
        }
        j["transfers"] = transcript_json(r.transfers, origin_);
        j["trace"] = trace_json(r.trace, origin_);
        j["expectations"] = step.expect.count;
        j["failures"] = r.failures;
        json_steps_.push_back(std::move(j));
        return;
    }
    if (!step.note.empty()) {
        out_ << "  # " << step.note << "\n";
    }
    char head[64];
    snprintf(head, sizeof head, "  %4zu  line %-4d %10s ms  ", step.index + 1, line,
             milliseconds(r.time - origin_).c_str());
    std::string shown;
    // The values the step expected, as they came back.
    if (step.expect.values) {
        for (auto& [key, value] : step.expect.values->items()) {
            if (r.values.contains(key)) {
                shown += "  " + key + " " + shown_value(step, key, r.values[key]);
            }
        }
    }
    out_ << head << step.title << (r.status ? "  " + *r.status : "") << shown << "  "
         << (ok ? (step.expect.count ? "ok" : "done") : "FAILED") << "\n";
    for (auto& f : r.failures) {
        out_ << "        " << f << "\n";
    }
    if (options_.verbose) {
        if (step.record != nullptr && !r.values.empty()) {
            for (auto& line : record_lines(*step.record, {r.values})) {
                out_ << "      " << line << "\n";
            }
        } else {
            for (auto& [key, value] : r.values.items()) {
                out_ << "        " << key << " " << field_text(nullptr, value) << "\n";
            }
        }
        for (auto& t : r.transfers) {
            out_ << "        " << transfer_line(t, origin_) << "\n";
        }
        for (auto& e : r.trace) {
            out_ << "        " << trace_line(e, origin_) << "\n";
        }
    }
}

// Releases what the scenario holds, writes charts and memories, unloads.
std::string Runner::finish()
{
    for (auto& d : devices_) {
        for (; d.held > 0; d.held--) {
            d.si.InterfaceHeader.InterfaceDereference(d.si.InterfaceHeader.Context);
        }
        if (!d.setup->plot.empty()) {
            ordered_json chart = {{"chip", d.lens->chip().name},
                                  {"bus_speed", bus_speed_text(sys_.bus().speed())}};
            chart.update(lens_trajectory(d.lens.get(), origin_, sys_.clock().now()));
            bool written = bool(std::ofstream(d.setup->plot) << trajectory_svg(chart));
            if (!written) {
                failures_.push_back("cannot write the lens chart " + d.setup->plot);
            } else if (!options_.json) {
                out_ << "Lens trajectory of " << d.setup->name << " (" << chart["trajectory"].size()
                     << " moves) drawn in " << d.setup->plot << "\n";
            }
        }
        if (!d.setup->save.empty()) {
            if (auto error = d.memory->save_file(d.setup->save)) {
                failures_.push_back(*error);
            }
        }
    }
    auto report = sys_.unload_driver();
    collect_trace();  // unload's own events
    if (!report.clean()) {
        failures_.push_back("unload: " + report.text());
    }
    return report.clean() ? "clean" : report.text();
}

int Runner::run()
{
    if (!options_.json) {
        out_ << "Scenario " << name_ << (scenario_.description.empty() ? "" : ": " + scenario_.description) << "\n";
    }
    std::string problem;
    if (!set_up(problem)) {
        failures_.push_back(problem);
    } else {
        for (auto& step : scenario_.steps) {
            StepResult r = perform(step);
            check(step, r);
            expectations_ += step.expect.count;
            report(step, r);
            for (auto& f : r.failures) {
                std::string title = step.title.size() > 40 ? step.title.substr(0, 37) + "..." : step.title;
                failures_.push_back("step " + std::to_string(step.index + 1) + " (line " +
                                    std::to_string(step.line) + ", " + title + "): " + f);
            }
        }
    }
    std::string unload = problem.empty() ? finish() : "not reached";
    double end_ms = double(sys_.clock().now() - origin_) / 10000.0;
    if (options_.json) {
        ordered_json j = {{"scenario", name_}, {"description", scenario_.description}, {"steps", json_steps_}};
        j["trace"] = trace_json(run_trace_, origin_);
        j["virtual_time_ms"] = end_ms;
        j["unload"] = unload;
        j["failures"] = failures_;
        out_ << j.dump(2) << "\n";
    } else {
        if (options_.trace.requested()) {
            out_ << "Trace:\n";
            for (auto& e : run_trace_) {
                out_ << "  " << trace_line(e, origin_) << "\n";
            }
        }
        out_ << "Unload: " << unload << "\n";
        if (failures_.empty()) {
            out_ << "Passed: " << scenario_.steps.size() << " steps, " << expectations_ << " expectations met, "
                 << milliseconds(sys_.clock().now() - origin_) << " ms on the bench's clock\n";
        } else {
            out_ << "FAILED: " << failures_.size() << " failure" << (failures_.size() > 1 ? "s" : "") << " in "
                 << scenario_.steps.size() << " steps\n";
            for (auto& f : failures_) {
                out_ << "  " << f << "\n";
            }
        }
    }
    return failures_.empty() ? 0 : 1;
}

}  // namespace

int run_scenario_text(const std::string& text, const std::string& name, const std::string& base_dir,
                      const ScenarioOptions& options, std::ostream& out, std::ostream& err)
{
    std::string error;
    auto scenario = read_scenario(text, name, base_dir, error);
    if (!scenario) {
        err << error << "\n";
        return 2;
    }
    return Runner(*scenario, name, options, out).run();
}

int run_scenario_file(const std::string& path, const ScenarioOptions& options, std::ostream& out, std::ostream& err)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        err << "korvanel-sim: cannot read " << path << "\n";
        return 2;
    }
    std::stringstream text;
    text << in.rdbuf();
    auto slash = path.rfind('/');
    std::string base = slash == std::string::npos ? "" : path.substr(0, slash);
    return run_scenario_text(text.str(), path, base, options, out, err);
}

}  // namespace korvanel::tool
