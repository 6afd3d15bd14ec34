// scenario.h - korvanel-sim run FILE: a scenario file describes the devices
// (hardware identifier, registry values, a lens actuator, a module memory)
// and a list of steps, each with what it expects; the run prints every step
// and its outcome. A camera engineer writes regression tests with it
// without C++.
//
// The file is JSON with comments. A small one:
//
//   {
//     "description": "Preview at 1080p",
//     "device": {"hwid": "root\\KORVANEL", "registry": {"MipiLanes": 4}},
//     "steps": [
//       {"call": "SelectMode", "TableIndex": "Preview", "MinWidth": 1920, "MinHeight": 1080,
//        "expect": {"status": "STATUS_SUCCESS"}},
//       {"call": "GetModeInfo", "expect": {"values": {"Width": 1920, "Height": 1120}}}
//     ]
//   }
//
// The runner drives the bench as the tests do: the interface taken as the
// camera driver takes it, peripherals attached and selected as a platform
// would, nothing else of the driver touched. README.md ("Scenario files")
// lists every step and expectation.
//
// Exit status: 0 when every expectation is met and the driver unloads
// clean, 1 when one is not (the summary names the step and why), 2 when the
// file cannot be read or is malformed (the message names the line and the
// field) or a file it names cannot be read or written. Charts and saved
// memories are written only when the run passes, each through a temporary
// file, never over an existing file unless asked, never over the scenario.
#pragma once

#include "trace_view.h"

#include <ostream>
#include <string>

namespace korvanel::tool {

struct ScenarioOptions {
    bool verbose = false;  // every step's returned values, bus transfers and trace events
    bool json = false;     // the run as JSON instead of text
    TraceOptions trace;    // the run's decoded trace after the steps
    std::string vcd;       // the run's waveform file, instead of the scenario's "vcd"
    std::string output_dir;  // where charts and saved memories go; empty: beside the scenario
    bool force = false;      // they may replace existing files
};

// The exit status of a run the verifier stopped, as a bugcheck stops Windows.
constexpr int kVerifierStop = 3;

int run_scenario_file(const std::string& path, const ScenarioOptions& options, std::ostream& out, std::ostream& err);

// `name` is what messages call the file (and, when it is one, the file no
// output may replace); files the scenario names are found from `base_dir`,
// and so are the files it writes unless `options.output_dir` says otherwise.
int run_scenario_text(const std::string& text, const std::string& name, const std::string& base_dir,
                      const ScenarioOptions& options, std::ostream& out, std::ostream& err);

}  // namespace korvanel::tool
