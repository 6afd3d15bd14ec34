// actuator_cli.h - korvanel-sim's lens-actuator work: attach an actuator
// model on a connection, select it for the device as a platform would, run a
// list of operations through the driver's table row, and report the decoded
// bus transcript and the lens trajectory as text, JSON or an SVG chart.
//
//   korvanel-sim --vcm DW9719 --vcm-low 200 --bus-speed 400k
//                --vcm-ops init,setpos:300,getpos,status,advance:10,status,resetpos --svg lens.svg
//
// Operations: init, setpos:N, getpos, status (GetStatus), hpstatus
// (GetHPStatus), setconfig:COUNT:REG:DATA:... (the SetConfig array, numbers
// decimal or 0x-hex), resetpos, advance:MS (let virtual time pass).
#pragma once

#include "platform/actuator.h"
#include "wire/waveform.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

struct ActuatorOp {
    enum class Kind { Init, SetPos, GetPos, Status, HpStatus, SetConfig, ResetPos, Advance };
    Kind kind;
    long value = 0;             // SetPos: the position; Advance: milliseconds
    std::vector<ULONG> config;  // SetConfig: the count, then the pairs
    std::string text;           // as written
};

// "AD5823, DW9714, ...": the chips a model exists for, in table order.
std::string actuator_chip_names();

// One operation ("setpos:300"), or a message saying what is wrong with it.
std::optional<ActuatorOp> parse_actuator_op(const std::string& token, std::string& error);
// The comma-separated list, or a message saying what is wrong with it.
std::optional<std::vector<ActuatorOp>> parse_actuator_ops(const std::string& list, std::string& error);

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

// Runs the operations through the row VcmType selects. The result holds the
// chip, each operation with its status and outputs, the decoded bus
// transcript and the lens trajectory (times in ms from the start of the run).
nlohmann::ordered_json run_actuator(host::System& sys, PDEVICE_CONTEXT context, const std::vector<ActuatorOp>& ops);

// One operation through the selected row (VcmType 1 to 8): its status, what
// it read ("position", "moving", "settled") and the recorded position.
nlohmann::ordered_json run_actuator_op(host::System& sys, PDEVICE_CONTEXT context, const ActuatorOp& op);

// Every code the model latched, with times in ms from `origin`, the run's
// end and the chip's largest code: what trajectory_svg() draws.
nlohmann::ordered_json lens_trajectory(const sim::ActuatorModel* model, int64_t origin, int64_t end);

// The tool's run: attach, run, write the chart if asked (the result says
// where, in "chart"). False with a message when the chart cannot be written.
bool run_actuator_options(host::System& sys, PDEVICE_CONTEXT context, const ActuatorOptions& options,
                          const std::vector<ActuatorOp>& ops, nlohmann::ordered_json& result, std::string& error,
                          wire::Waveform* waveform = nullptr);

void print_actuator(const nlohmann::ordered_json& result);

// A step chart of the trajectory: time on x (ms, or s for a long run), code
// on y fitted to the moves and the module's low and high positions (both
// marked), a dot per move, each operation labelled at its time ("operations":
// {"time_ms", "op"}), the chip, module and low/high in the title; an empty
// run says it has no moves.
std::string trajectory_svg(const nlohmann::ordered_json& result);

}  // namespace korvanel::tool
