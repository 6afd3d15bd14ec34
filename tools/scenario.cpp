// scenario.cpp - a scenario run: read, then each step performed, checked
// and reported in turn, then the run ended and summed up.
#include "scenario.h"

#include "scenario_check.h"
#include "scenario_exec.h"
#include "scenario_reader.h"
#include "scenario_report.h"

#include "files/files.h"
#include "known_names.h"
#include "parse.h"

#include <algorithm>

namespace korvanel::tool {

using namespace files;

namespace {

// Where the scenario's charts, saved memories and waveform go, each checked before
// anything runs; the first problem, or nothing.
std::optional<std::string> place_outputs(Scenario& scenario, const std::string& name, const std::string& base_dir,
                                         const ScenarioOptions& options, const OutputRule& rule)
{
    const std::string& folder = options.output_dir.empty() ? base_dir : options.output_dir;
    std::vector<std::string> placed;
    for (auto& d : scenario.devices) {
        std::string device = scenario.devices.size() > 1 ? "device '" + excerpt(d.name) + "': " : "";
        for (auto [file, key] : {std::pair{&d.plot, "plot"}, std::pair{&d.save, "save"}}) {
            if (file->empty()) {
                continue;
            }
            *file = beside(folder, *file);
            std::string where = name + ": " + device + "\"" + key + "\" ";
            const std::string& path = *file;
            if (std::any_of(placed.begin(), placed.end(), [&](auto& p) { return same_file(p, path); })) {
                return where + *file + ": another output of this run is written there";
            }
            placed.push_back(*file);
            if (auto problem = check_output(*file, rule)) {
                return where + *problem;
            }
        }
    }
    // The waveform: the scenario's "vcd" found like its other outputs, --vcd
    // as the user typed it.
    if (!scenario.vcd.empty() || !options.vcd.empty()) {
        std::string where = name + ": " + (options.vcd.empty() ? "\"vcd\" " : "--vcd ");
        scenario.vcd = options.vcd.empty() ? beside(folder, scenario.vcd) : options.vcd;
        if (std::any_of(placed.begin(), placed.end(), [&](auto& p) { return same_file(p, scenario.vcd); })) {
            return where + scenario.vcd + ": another output of this run is written there";
        }
        if (auto problem = check_output(scenario.vcd, rule)) {
            return where + *problem;
        }
    }
    return std::nullopt;
}

}  // namespace

int run_scenario_text(const std::string& text, const std::string& name, const std::string& base_dir,
                      const ScenarioOptions& options, std::ostream& out, std::ostream& err)
{
    // The scenario itself is `name`; the files it names are read now.
    forget_inputs();
    std::string error;
    auto scenario = read_scenario(text, name, base_dir, error);
    if (!scenario) {
        err << error << "\n";
        return 2;
    }
    if (!options.vcd.empty()) {
        if (auto problem = waveform_problem(*scenario)) {
            err << "korvanel-sim: --vcd: " << name << ": " << *problem << "\n";
            return 2;
        }
    }
    OutputRule rule{options.force || scenario->overwrite, "--force (or \"overwrite\": true in the scenario)", {name}};
    if (auto problem = place_outputs(*scenario, name, base_dir, options, rule)) {
        err << *problem << "\n";
        return 2;
    }
    Executor executor(*scenario, options.verbose, options.trace);
    auto reporter = make_reporter({options.json, options.verbose, options.trace.requested()}, *scenario, name,
                                  executor.origin(), out);
    // A waveform file that cannot be written is bad input, as for the other modes.
    bool ready = executor.set_up(rule);
    if (!ready && executor.waveform_refused()) {
        err << "korvanel-sim: --vcd: " << *executor.waveform_refused() << "\n";
        return 2;
    }
    std::vector<std::string> given;
    for (auto& d : scenario->devices) {
        for (auto& v : d.registry) {
            if (!v.remove) {
                given.push_back(v.name);
            }
        }
    }
    if (ready) {
        reporter->add_notes(unread_registry_notes(given, executor.registry_read()));
    }
    reporter->begin();
    bool stopped = false;  // by a violation the scenario did not expect
    if (ready) {
        for (auto& step : scenario->steps) {
            Observation seen = executor.perform(step);
            auto failures = seen.problems;
            auto unmet = check_step(step.expect, seen);
            failures.insert(failures.end(), unmet.begin(), unmet.end());
            reporter->step(step, seen, failures);
            // A bugcheck ends the machine's work: no step runs after one.
            if (seen.violation) {
                stopped = !step.expect.violation;
                break;
            }
        }
    }
    RunEnd end = executor.finish();
    // A failed run writes nothing: its files would pass for a good run's.
    bool write_failed = false;
    if (reporter->passed() && end.failures.empty()) {
        for (auto& o : end.outputs) {
            // The waveform was drawn as the run went, into a temporary file.
            auto problem = o.waveform ? executor.write_waveform() : write_output(o.file, o.bytes, rule);
            if (problem) {
                end.failures.push_back("cannot write " + *problem);
                write_failed = true;
            } else {
                o.written = true;
            }
        }
    }
    reporter->finish(end);
    return write_failed ? 2 : stopped ? kVerifierStop : reporter->passed() ? 0 : 1;
}

int run_scenario_file(const std::string& path, const ScenarioOptions& options, std::ostream& out, std::ostream& err)
{
    std::string error;
    auto text = read_input(path, "a scenario", kScenarioFileLimit, true, error);
    if (!text) {
        err << "korvanel-sim: cannot read the scenario " << error << "\n";
        return 2;
    }
    auto slash = path.rfind('/');
    std::string base = slash == std::string::npos ? "" : path.substr(0, slash);
    return run_scenario_text(std::string(text->begin(), text->end()), path == "-" ? "standard input" : path, base,
                             options, out, err);
}

}  // namespace korvanel::tool
