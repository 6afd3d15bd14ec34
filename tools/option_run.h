// option_run.h - korvanel-sim without a scenario file: the options describe
// one device (hardware identifier, registry values, a lens actuator, a
// module memory), which the tool turns into a scenario of one device and
// runs through the scenario executor: every provided slot asked what it
// tells the camera driver, then the memory's and the actuator's operations.
// The report is the options' own: the interface and its records, each
// part's operations, transcript and contents, the trace and the unload.
#pragma once

#include "actuator_cli.h"
#include "memory_cli.h"
#include "scenario_model.h"
#include "trace_view.h"

#include "wire/capture.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

struct SimOptions {
    std::string hwid = "root\\KORVANEL";
    std::vector<std::string> registry;  // NAME=VALUE
    std::string select;                 // TABLE:WIDTH:HEIGHT:FPS
    bool json = false;
    bool raw = false;
    bool real_time = false;
    bool force = false;
    std::string bus_speed;
    MemoryOptions memory;
    ActuatorOptions actuator;
    std::string vcd;
    std::string bus_capture;
    std::string capture_channels;
    TraceOptions trace;
};

void add_sim_options(CLI::App& app, SimOptions& options);

// The options read and checked, with every file they name: the run's
// scenario and what the report needs besides it.
struct OptionRun {
    Scenario scenario;
    std::vector<LONG> select;                   // SelectMode's four arguments, or none
    std::vector<ActuatorOp> actuator_ops;
    std::vector<std::string> registry_names;    // as given, for the note on values never read
    std::optional<wire::Capture> capture;       // the bus to compare the run's with
    files::OutputRule outputs;
};

// The run the options describe, or a message for the user (exit status 2).
std::optional<std::string> read_options(SimOptions& options, OptionRun& run);

// Runs it and prints the report: 0 when the driver unloads clean (and the
// bus matches the capture), 1 when not, 2 when a file cannot be written,
// kVerifierStop when a kernel rule is broken.
int run_options(const SimOptions& options, const OptionRun& run);

}  // namespace korvanel::tool
