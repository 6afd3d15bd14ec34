// scenario_check.h - what a step did, as the executor observed it, and the
// judgement of a step's expectations against it. Judging needs no bench:
// everything it looks at is in the observation.
#pragma once

#include "bench/verifier.h"

#include "scenario_model.h"
#include "trace_view.h"

#include "bench/spb_controller.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

struct Observation {
    int64_t start = 0;  // clock time the step began, 100 ns units
    std::optional<std::string> status = {};  // the name of what the action returned, if it returns one
    nlohmann::ordered_json values = nlohmann::ordered_json::object();
    nlohmann::ordered_json result = nlohmann::ordered_json::object();  // what the action returned, whole
    std::vector<bench::BusTransfer> transfers = {};
    std::vector<TraceEntry> trace = {};
    std::vector<std::string> problems = {};  // the action could not be done as asked
    std::optional<bench::Violation> violation = {};  // the verifier stopped the action

    // The device and the bench after the step.
    std::vector<uint8_t> memory = {};    // the memory's contents, when the step checks them
    std::optional<long long> lens = {};  // the code the actuator latched, when the device has one
    DEVICE_POWER_STATE power = PowerDeviceUnspecified;
    long long references = 0;  // power references
    int64_t clock = 0;         // since the run began, 100 ns units
    bench::BusSpeed speed = bench::BusSpeed::Instant;  // of the bus during the step
};

// One text per expectation not met ("lens: expected code 301, got 300"),
// in the order the expectations are listed in Expect.
std::vector<std::string> check_step(const Expect& expect, const Observation& seen);

// A transfer as a scenario's "bus" expectation writes it ("W 04 2C",
// "0x51 R FF", "W 00 10  STATUS_NO_SUCH_DEVICE"), with its connection when asked.
std::string wire_text(const bench::BusTransfer& transfer, bool connection);

}  // namespace korvanel::tool
