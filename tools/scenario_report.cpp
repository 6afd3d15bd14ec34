// scenario_report.cpp - a scenario's run as text and as JSON.
#include "scenario_report.h"

#include "bus_report.h"
#include "known_names.h"
#include "parse.h"
#include "records.h"

#include "bench/spb_controller.h"
#include "bench/verifier.h"

#include <algorithm>
#include <cstdio>

namespace korvanel::tool {

using json = nlohmann::ordered_json;

namespace {

std::string json_text(const json& v) { return v.is_string() ? v.get<std::string>() : v.dump(); }

// An argument as a step's title shows it: texts bare, objects as {name=value ...}.
std::string brief(const json& v)
{
    std::string out;
    if (v.is_object()) {
        for (auto& [key, value] : v.items()) {
            out += (out.empty() ? "{" : " ") + key + "=" + brief(value);
        }
        return out.empty() ? "{}" : out + "}";
    }
    if (v.is_array()) {
        for (auto& value : v) {
            out += (out.empty() ? "[" : ", ") + brief(value);
        }
        return out.empty() ? "[]" : out + "]";
    }
    return json_text(v);
}

// " name=value" for each argument.
std::string arguments(const json& args)
{
    std::string out;
    for (auto& [name, value] : args.items()) {
        out += " " + name + "=" + brief(value);
    }
    return out;
}

std::string fault_title(const FaultAction& f)
{
    if (f.what == FaultAction::What::Routine) {
        return "fail_routine " + f.routine + arguments(f.shown);
    }
    using Kind = bench::BusFault::Kind;
    std::string what = f.what == FaultAction::What::Clear ? "clear"
                       : f.fault.kind == Kind::Nack       ? "nack"
                       : f.fault.kind == Kind::Timeout    ? "timeout"
                       : f.fault.kind == Kind::Fail       ? "fail"
                                                          : "complete";
    return "fault " + what + arguments(f.shown);
}

// Long data on one line: its first eight bytes and its length.
std::string brief_bytes(const std::vector<uint8_t>& bytes)
{
    return hex_bytes(bytes.data(), std::min<size_t>(bytes.size(), 8)) + " ... (" + std::to_string(bytes.size()) +
           " bytes)";
}

std::string memory_title(const MemoryAction& m)
{
    if (m.op.kind != MemoryOp::Kind::Write || m.op.data.size() <= 8) {
        return "nvm " + m.written;
    }
    auto fields = split(m.written, ':');
    return "nvm " + fields[0] + ":" + fields[1] + ":" + brief_bytes(m.op.data);
}

// Returned bytes longer than a line: the whole of them as a dump, or nothing
// when the value is not such a byte string.
std::vector<std::string> long_bytes(const json& value)
{
    auto bytes = value.is_string() ? parse_hex_bytes(value.get<std::string>()) : std::nullopt;
    return bytes && bytes->size() > kBytesPerLine ? byte_lines(*bytes) : std::vector<std::string>{};
}

// On the step's line they are shown by their first eight bytes and their length.
std::string value_text(const RecordLayout* record, const std::string& key, const json& value)
{
    if (long_bytes(value).empty()) {
        return field_text(record ? find_field(*record, key) : nullptr, value);
    }
    return brief_bytes(*parse_hex_bytes(value.get<std::string>()));
}

// What the run should know before it reads the steps: devices whose
// hardware identifier names no variant run with the driver's default identity.
std::vector<std::string> identity_notes(const Scenario& scenario)
{
    std::vector<std::string> notes;
    for (auto& d : scenario.devices) {
        if (!variant_name(d.hwid)) {
            bool several = scenario.devices.size() > 1;
            notes.push_back("hardware identifier '" + excerpt(d.hwid) + "'" + (several ? " of '" + excerpt(d.name) + "'" : "") +
                            " matches no variant: the driver chooses its default identity, SensorName \"" +
                            kDefaultSensorName + "\"");
        }
    }
    return notes;
}

// The stop a step ended with, on its line: "STOP 0xA IRQL_NOT_LESS_OR_EQUAL
// in WdfDeviceStopIdle (called by PowerUp)"; the expectation alone says
// only that the code was right.
std::string stop_text(const bench::Violation& v)
{
    char code[16];
    snprintf(code, sizeof code, "0x%X", v.stop.code);
    return std::string("STOP ") + code + " " + v.stop.bugcheck + " in " + v.routine +
           (v.caller.empty() ? "" : " (called by " + v.caller + ")");
}

const RecordLayout* filled_record(const Step& step)
{
    auto* call = std::get_if<CallAction>(&step.action);
    return call ? call->record : nullptr;
}

}  // namespace

std::string step_title(const Scenario& scenario, const Step& step)
{
    struct Titles {
        std::string operator()(const CallAction& a) const { return a.name + arguments(a.args); }
        std::string operator()(const ActuatorAction& a) const { return "vcm " + a.op.text; }
        std::string operator()(const MemoryAction& a) const { return memory_title(a); }
        std::string operator()(const AdvanceAction& a) const { return "advance " + a.written + " ms"; }
        std::string operator()(const BusSpeedAction& a) const { return "bus speed " + a.written; }
        std::string operator()(const FaultAction& a) const { return fault_title(a); }
        std::string operator()(PnpAction a) const
        {
            return a == PnpAction::QueryRemove ? "query_remove" : "query_stop";
        }
        std::string operator()(InterfaceAction a) const
        {
            return a == InterfaceAction::Take ? "interface take" : "interface release";
        }
        std::string operator()(CheckAction) const { return "check"; }
    };
    std::string title = std::visit(Titles{}, step.action);
    // With several devices, a step that works on one names it.
    if (scenario.devices.size() > 1 && (on_device(step.action) || step.device_given)) {
        title = "[" + scenario.devices[step.device].name + "] " + title;
    }
    return title;
}

Reporter::Reporter(const Scenario& scenario, const std::string& name, int64_t origin, std::ostream& out)
    : scenario_(scenario), name_(name), origin_(origin), out_(out), notes_(identity_notes(scenario))
{
}

void Reporter::step(const Step& step, const Observation& seen, const std::vector<std::string>& failures)
{
    std::string title = step_title(scenario_, step);
    expectations_ += step.expect.count;
    show_step(step, title, seen, failures);
    std::string brief_title = title.size() > 40 ? title.substr(0, 37) + "..." : title;
    for (auto& f : failures) {
        failures_.push_back("step " + std::to_string(step.index + 1) + " (line " + std::to_string(step.line) + ", " +
                            brief_title + "): " + f);
    }
}

void Reporter::finish(const RunEnd& end)
{
    failures_.insert(failures_.end(), end.failures.begin(), end.failures.end());
    show_finish(end);
}

namespace {

class TextReporter : public Reporter {
public:
    TextReporter(const ReportOptions& options, const Scenario& scenario, const std::string& name, int64_t origin,
                 std::ostream& out)
        : Reporter(scenario, name, origin, out), options_(options)
    {
    }

    void begin() override
    {
        out_ << "Scenario " << printable(name_) << (scenario_.description.empty() ? "" : ": " + printable(scenario_.description))
             << "\n";
        for (auto& note : notes_) {
            out_ << "Note: " << printable(note) << "\n";
        }
    }

private:
    ReportOptions options_;

    void show_step(const Step& step, const std::string& title, const Observation& seen,
                   const std::vector<std::string>& failures) override
    {
        if (!step.note.empty()) {
            out_ << "  # " << printable(step.note) << "\n";
        }
        char head[64];
        snprintf(head, sizeof head, "  %4zu  line %-4d %10s ms  ", step.index + 1, step.line,
                 milliseconds(seen.start - origin_).c_str());
        const RecordLayout* record = filled_record(step);
        std::string shown;
        // The values the step expected, as they came back (0x09FCD140, "HAPS").
        if (step.expect.values) {
            for (auto& [key, value] : step.expect.values->items()) {
                if (seen.values.contains(key)) {
                    shown += "  " + key + " " + value_text(record, key, seen.values[key]);
                }
            }
        }
        out_ << head << printable(title) << (seen.status ? "  " + *seen.status : "") << shown
             << (seen.violation ? "  " + stop_text(*seen.violation) : "") << "  "
             << (failures.empty() ? (step.expect.count ? "ok" : "done") : "FAILED") << "\n";
        for (auto& f : failures) {
            out_ << "        " << f << "\n";
        }
        if (!options_.verbose) {
            return;
        }
        if (record != nullptr && !seen.values.empty()) {
            for (auto& line : record_lines(*record, {seen.values})) {
                out_ << "      " << line << "\n";
            }
        } else {
            for (auto& [key, value] : seen.values.items()) {
                out_ << "        " << key << " " << value_text(nullptr, key, value) << "\n";
                for (auto& line : long_bytes(value)) {
                    out_ << "          " << line << "\n";
                }
            }
        }
        for (auto& t : seen.transfers) {
            for (auto& line : transfer_lines(t, origin_)) {
                out_ << "        " << line << "\n";
            }
        }
        for (auto& e : seen.trace) {
            out_ << "        " << trace_line(e, origin_) << "\n";
        }
    }

    void show_finish(const RunEnd& end) override
    {
        if (options_.show_trace) {
            out_ << "Trace:\n";
            for (auto& e : end.trace) {
                out_ << "  " << trace_line(e, origin_) << "\n";
            }
        }
        out_ << "Unload: " << end.unload << "\n";
        for (auto& o : end.outputs) {
            out_ << (o.written ? "Wrote: " : "Not written, the run failed: ") << printable(o.file) << " (" << o.what
                 << ")\n";
        }
        if (failures_.empty()) {
            out_ << "Passed: " << scenario_.steps.size() << " steps, " << expectations_ << " expectations met, "
                 << milliseconds(end.clock) << " ms on the bench's clock\n";
            return;
        }
        out_ << "FAILED: " << failures_.size() << " failure" << (failures_.size() > 1 ? "s" : "") << " in "
             << scenario_.steps.size() << " steps\n";
        for (auto& f : failures_) {
            out_ << "  " << f << "\n";
        }
    }
};

class JsonReporter : public Reporter {
public:
    using Reporter::Reporter;

private:
    json steps_ = json::array();

    void show_step(const Step& step, const std::string& title, const Observation& seen,
                   const std::vector<std::string>& failures) override
    {
        json j = {{"step", step.index + 1}, {"line", step.line}, {"title", title}};
        if (!step.note.empty()) {
            j["note"] = step.note;
        }
        j["time_ms"] = double(seen.start - origin_) / 10000.0;
        if (seen.status) {
            j["status"] = *seen.status;
        }
        if (seen.violation) {
            j["stop"] = {{"bugcheck", seen.violation->stop.bugcheck}, {"code", seen.violation->stop.code},
                         {"routine", seen.violation->routine}, {"caller", seen.violation->caller},
                         {"text", stop_text(*seen.violation)}};
        }
        if (!seen.values.empty()) {
            j["values"] = seen.values;
        }
        j["transfers"] = transcript_json(seen.transfers, origin_);
        j["trace"] = trace_json(seen.trace, origin_);
        j["expectations"] = step.expect.count;
        j["failures"] = failures;
        steps_.push_back(std::move(j));
    }

    void show_finish(const RunEnd& end) override
    {
        json j = {{"scenario", name_}, {"description", scenario_.description}};
        j["notes"] = notes_;
        j["steps"] = steps_;
        j["trace"] = trace_json(end.trace, origin_);
        j["virtual_time_ms"] = double(end.clock) / 10000.0;
        j["unload"] = end.unload;
        j["written"] = json::array();
        j["not_written"] = json::array();
        for (auto& o : end.outputs) {
            j[o.written ? "written" : "not_written"].push_back({{"file", o.file}, {"what", o.what}});
        }
        j["failures"] = failures_;
        out_ << json_dump(j, 2) << "\n";
    }
};

}  // namespace

std::unique_ptr<Reporter> make_reporter(const ReportOptions& options, const Scenario& scenario,
                                        const std::string& name, int64_t origin, std::ostream& out)
{
    if (options.json) {
        return std::make_unique<JsonReporter>(scenario, name, origin, out);
    }
    return std::make_unique<TextReporter>(options, scenario, name, origin, out);
}

}  // namespace korvanel::tool
