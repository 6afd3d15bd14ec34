// actuator_cli.h - korvanel-sim's lens-actuator options: the chip, its
// connection, address and module positions, the operations (operations.h)
// and the chart file; and the part's report as text.
//
//   korvanel-sim --vcm DW9719 --vcm-low 200 --bus-speed 400k
//                --vcm-ops init,setpos:300,getpos,status,advance:10,status,resetpos --svg lens.svg
#pragma once

#include "operations.h"

#include "platform/actuator.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

struct ActuatorOptions {
    platform::ActuatorSelection selection;  // chip: name or table row; empty: no actuator
    std::string connection = "0x1C";        // --vcm-connection as given; into selection by the check
    std::string ops = "init,setpos:512,getpos,status,hpstatus,resetpos";
    bool ops_given = false;
    std::string svg;                     // trajectory chart file
    bool force = false;                  // --force: the chart may replace a file
};

void add_actuator_options(CLI::App& app, ActuatorOptions& options);

// The checked operation list, or a message for the user (exit status 2).
// Fills the selection's connection.
std::optional<std::vector<ActuatorOp>> check_actuator_options(ActuatorOptions& options, std::string& error);

void print_actuator(const nlohmann::ordered_json& result);

}  // namespace korvanel::tool
