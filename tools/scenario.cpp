// scenario.cpp - a scenario run: read, then each step performed, checked
// and reported in turn, then the run ended and summed up.
#include "scenario.h"

#include "scenario_check.h"
#include "scenario_exec.h"
#include "scenario_reader.h"
#include "scenario_report.h"

#include <fstream>
#include <sstream>

namespace korvanel::tool {

int run_scenario_text(const std::string& text, const std::string& name, const std::string& base_dir,
                      const ScenarioOptions& options, std::ostream& out, std::ostream& err)
{
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
        scenario->vcd = options.vcd;
    }
    Executor executor(*scenario, options.verbose, options.trace);
    auto reporter = make_reporter({options.json, options.verbose, options.trace.requested()}, *scenario, name,
                                  executor.origin(), out);
    // A waveform file that cannot be written is bad input, as for the other modes.
    bool ready = executor.set_up();
    if (!ready && executor.waveform_refused()) {
        err << "korvanel-sim: --vcd: " << *executor.waveform_refused() << "\n";
        return 2;
    }
    reporter->begin();
    if (ready) {
        for (auto& step : scenario->steps) {
            Observation seen = executor.perform(step);
            auto failures = seen.problems;
            auto unmet = check_step(step.expect, seen);
            failures.insert(failures.end(), unmet.begin(), unmet.end());
            reporter->step(step, seen, failures);
        }
    }
    reporter->finish(executor.finish());
    return reporter->passed() ? 0 : 1;
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
