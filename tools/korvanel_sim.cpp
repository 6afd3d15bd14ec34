// korvanel-sim - runs the driver on the simulated platform as a user would:
// loads it, adds a device, takes SENSOR_INTERFACE as the camera driver does
// and prints what every provided slot tells, then releases the interface and
// unloads cleanly.
//
//   korvanel-sim                                 the default device
//   korvanel-sim --hwid 'root\KORVANEL\rgbir'    another variant
//   korvanel-sim --reg MipiLanes=4 --reg MipiMBps=1500
//   korvanel-sim --select 2:1920:1080:0 --trace --json
//   korvanel-sim --raw                             records with their bytes
//   korvanel-sim --trace-level error --trace-module sensor
//   korvanel-sim --real-time                       waits take real time
//   korvanel-sim --nvm 10 --nvm-ops load,load --bus-speed 400k   a module memory
//   korvanel-sim --vcm DW9719 --vcm-ops init,setpos:300,resetpos --svg lens.svg
//   korvanel-sim --vcm AD5823 --bus-speed 400k --vcd lens.vcd   the run as a waveform
//   korvanel-sim run examples/preview_mode.jsonc    a scenario file
#include "option_run.h"
#include "parse.h"
#include "scenario.h"
#include "trace_view.h"

#include "bench/verifier.h"
#include "wire/waveform.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <sys/stat.h>

using korvanel::tool::excerpt;

namespace {

// The arguments longer than a message quotes whole.
std::vector<std::string> long_arguments;

// A command-line mistake: the message and a one-line hint, exit status 2.
// An argument the message quotes whole (as the option parser's own messages
// do) is cut to its excerpt, whatever its size.
int usage_error(std::string message, bool run)
{
    for (auto& argument : long_arguments) {
        std::string shown = excerpt(argument);
        for (size_t at = message.find(argument); at != std::string::npos; at = message.find(argument, at)) {
            message.replace(at, argument.size(), shown);
            at += shown.size();
        }
    }
    std::cerr << "korvanel-sim: " << message << "\n"
              << "Run 'korvanel-sim " << (run ? "run " : "") << "--help' for the options.\n";
    return 2;
}

// Every option given with an empty value names nothing: refused.
std::optional<std::string> empty_value(const CLI::App& app)
{
    for (const CLI::Option* option : app.get_options()) {
        for (auto& value : option->results()) {
            if (value.empty() && option->get_expected_min() > 0) {
                return option->get_name() + ": an empty value";
            }
        }
    }
    return std::nullopt;
}

// An option given twice would keep one of its values silently, a flag
// would mean nothing more: refused. --reg and --trace-module are lists.
std::optional<std::string> given_twice(const CLI::App& app)
{
    for (const CLI::Option* option : app.get_options()) {
        std::string name = option->get_name();
        if (option->count() > 1 && name != "--reg" && name != "--trace-module") {
            return name + " is given " + std::to_string(option->count()) + " times; give it once";
        }
    }
    return std::nullopt;
}

// Options that have no effect without another are refused, not ignored.
std::optional<std::string> without_effect(const CLI::App& app)
{
    auto given = [&](const char* name) { return app.get_option(name)->count() > 0; };
    static const struct {
        std::vector<const char*> options;
        std::vector<const char*> needs;  // any one of these
    } rules[] = {
        {{"--vcm-connection", "--vcm-address", "--vcm-low", "--vcm-high", "--module", "--vcm-ops", "--svg"}, {"--vcm"}},
        {{"--nvm-connection", "--nvm-address", "--nvm-file", "--nvm-cache-length", "--nvm-ops", "--nvm-save"}, {"--nvm"}},
        {{"--bus-speed", "--vcd", "--bus-capture"}, {"--vcm", "--nvm"}},
        {{"--capture-channels"}, {"--bus-capture"}},
        {{"--force"}, {"--svg", "--nvm-save", "--vcd"}},
    };
    for (auto& rule : rules) {
        if (std::any_of(rule.needs.begin(), rule.needs.end(), given)) {
            continue;
        }
        for (auto* option : rule.options) {
            if (given(option)) {
                std::string needs;
                for (auto* n : rule.needs) {
                    needs += std::string(needs.empty() ? "" : " or ") + n;
                }
                return std::string(option) + " has no effect without " + needs;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

static int run(int argc, char** argv);

// A rule of the Windows kernel broken on the bench stops the run with the
// report a bugcheck would give, and an exit status of its own.
int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const korvanel::bench::Bugcheck&) {
        // The verifier's hook has printed the report.
        return korvanel::tool::kVerifierStop;
    }
}

static int run(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        if (strlen(argv[i]) > 80) {
            long_arguments.emplace_back(argv[i]);
        }
    }
    CLI::App app{"korvanel-sim: run the korvanel camera sensor driver on the simulated platform"};
    korvanel::tool::SimOptions options;
    korvanel::tool::add_sim_options(app, options);

    auto* run = app.add_subcommand("run", "run a scenario file: its devices, its steps and what each step expects");
    std::string scenario_file;
    korvanel::tool::ScenarioOptions scenario;
    run->add_option("FILE", scenario_file, "the scenario (JSON, comments allowed), or - for standard input")
        ->required();
    run->add_flag("-v,--verbose", scenario.verbose, "print each step's values, bus transfers and trace events");
    run->add_flag("--json", scenario.json, "print the run as JSON");
    run->add_option("--vcd", scenario.vcd, korvanel::wire::waveform_option_help());
    run->add_option("--output-dir", scenario.output_dir,
                    "write the scenario's charts, saved memories and waveform here (default: beside the scenario)");
    run->add_flag("--force", scenario.force, "charts, saved memories and waveforms may replace existing files");
    korvanel::tool::add_trace_options(*run, scenario.trace);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << (run->parsed() ? run->help() : app.help());
        return 0;
    } catch (const CLI::ParseError& e) {
        return usage_error(e.what(), run->parsed());
    }
    if (auto problem = given_twice(run->parsed() ? *run : app)) {
        return usage_error(*problem, run->parsed());
    }
    if (auto problem = empty_value(run->parsed() ? *run : app)) {
        return usage_error(*problem, run->parsed());
    }
    if (run->parsed()) {
        // The scenario says what the device is: options before "run" would be ignored.
        for (const CLI::Option* option : app.get_options()) {
            if (option->count() > 0) {
                return usage_error(option->get_name() + " has no effect before run: the scenario describes the " +
                                       "devices, and run's own options (-v, --json, --trace...) go after it",
                                   true);
            }
        }
        if (auto problem = korvanel::tool::check_trace_options(scenario.trace)) {
            return usage_error(*problem, true);
        }
        struct stat st;
        if (!scenario.output_dir.empty() && (stat(scenario.output_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
            return usage_error("--output-dir " + scenario.output_dir + ": not a folder", true);
        }
        return korvanel::tool::run_scenario_file(scenario_file, scenario, std::cout, std::cerr);
    }
    if (auto problem = without_effect(app)) {
        return usage_error(*problem, false);
    }
    if (auto problem = korvanel::tool::check_trace_options(options.trace)) {
        return usage_error(*problem, false);
    }
    korvanel::tool::OptionRun option_run;
    if (auto problem = korvanel::tool::read_options(options, option_run)) {
        return usage_error(*problem, false);
    }
    return korvanel::tool::run_options(options, option_run);
}
