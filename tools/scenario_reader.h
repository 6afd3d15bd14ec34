// scenario_reader.h - a scenario file read into the model: its devices and
// its steps, each checked completely and ready to run, or a message that
// names the line and the field of the first thing wrong with it.
#pragma once

#include "scenario_model.h"

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// The scenario in `text`, or nothing with `error` set to "NAME:LINE: what is
// wrong". Files it names (memory contents, data to write) are read from
// `base_dir`.
std::optional<Scenario> read_scenario(const std::string& text, const std::string& name, const std::string& base_dir,
                                      std::string& error);


// Two parts on one connection id, or an actuator and a memory of one device
// on one bus address: the device, its field ("actuator/connection",
// "memory/connection", "memory/address") and what is wrong. Shared by the
// scenario reader and the command-line options.
struct PartClash {
    size_t device;
    std::string field;
    std::string message;
};
std::optional<PartClash> part_clash(const std::vector<DeviceSetup>& devices);

// Why the scenario cannot be drawn as a waveform (an instant bus, a step
// that changes the speed), or nothing.
std::optional<std::string> waveform_problem(const Scenario& scenario);

}  // namespace korvanel::tool
