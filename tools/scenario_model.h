// scenario_model.h - a scenario as the runner works on it: the devices to set
// up and the steps, each one action and what it expects. The reader makes
// it from a file (scenario_reader.h); the executor performs it, the checker
// judges it and the reporters show it.
#pragma once

#include "calls.h"
#include "operations.h"
#include "wire/capture.h"

#include "bench/spb_controller.h"
#include "platform/actuator.h"
#include "platform/memory.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace korvanel::tool {

// A value under the service key as the scenario gives it; `remove` for null.
struct RegistryValue {
    std::string name;
    bool remove = false;
    uint32_t type = REG_NONE;
    std::vector<uint8_t> data = {};
};

// One device: added with its registry values in force, its interface taken,
// its peripherals attached and selected as a platform would.
struct DeviceSetup {
    std::string name;
    std::string hwid = "root\\KORVANEL";
    std::vector<RegistryValue> registry;
    std::optional<platform::ActuatorSelection> actuator;
    std::string plot;  // trajectory chart file, as written until the runner places it
    std::optional<platform::MemorySelection> memory;
    size_t memory_size = 0;
    size_t memory_connections = 0;  // one, or one per 256-byte block
    std::vector<uint8_t> contents;
    std::string save;
};

// ---- Actions: what a step does ---------------------------------------------------

// One slot of the interface. `args` are the arguments as written, for the
// step's title; `record` is the record the call fills, for showing its fields.
struct CallAction {
    std::string name;
    nlohmann::ordered_json args = nlohmann::ordered_json::object();
    PreparedCall call = {};
    const RecordLayout* record = nullptr;
};

struct ActuatorAction {
    ActuatorOp op;  // op.text is the operation as written
};

struct MemoryAction {
    MemoryOp op;
    std::string written;  // as in the file: a writefile path not yet resolved
};

struct AdvanceAction {
    int64_t units = 0;    // 100 ns
    std::string written;  // the milliseconds as in the file
};

struct BusSpeedAction {
    bench::BusSpeed speed = bench::BusSpeed::Instant;
    std::string written;
};

// A fault rule for the bus (the k-th transfer from here, or matching ones),
// a platform routine to fail, or every rule cleared.
struct FaultAction {
    enum class What { Bus, Routine, Clear } what = What::Clear;
    bench::BusFault fault{bench::BusFault::Kind::Fail, STATUS_SUCCESS};
    std::optional<uint64_t> transfer = {};  // the k-th transfer from here, 1 the next
    bench::BusMatch match = {};
    std::string routine = {};
    NTSTATUS status = STATUS_SUCCESS;
    unsigned skip = 0;
    unsigned times = 1;
    // transfer, match, status, skip and times as written, in that order.
    nlohmann::ordered_json shown = nlohmann::ordered_json::object();
};

enum class PnpAction { QueryRemove, QueryStop };
enum class InterfaceAction { Take, Release };

// A step that only checks its expectations.
struct CheckAction {};

using Action = std::variant<CallAction, ActuatorAction, MemoryAction, AdvanceAction, BusSpeedAction, FaultAction,
                            PnpAction, InterfaceAction, CheckAction>;

// Whether an action works on a device; the others (the clock, the bus) act
// on the bench as a whole.
inline bool on_device(const Action& action)
{
    return !std::holds_alternative<AdvanceAction>(action) && !std::holds_alternative<BusSpeedAction>(action) &&
           !std::holds_alternative<FaultAction>(action);
}

// ---- Expectations ---------------------------------------------------------------

struct MemoryExpect {
    uint32_t address;
    std::vector<uint8_t> data;
};

// What a step expects; empty members are not checked.
struct Expect {
    size_t count = 0;  // expectations in this step
    std::optional<NTSTATUS> status = {};
    std::optional<nlohmann::ordered_json> values = {};
    std::optional<std::vector<std::string>> bus = {};  // as the bench prints transfers
    std::optional<long long> transfers = {};
    std::vector<MemoryExpect> memory = {};
    std::optional<long long> lens = {};
    std::optional<std::string> power = {};  // "D0" or "D3"
    std::optional<long long> references = {};
    std::optional<double> clock_ms = {};
    std::vector<std::string> trace = {};  // texts some event of the step contains
    // The step's transfers as a logic analyzer captured them elsewhere (on
    // hardware), read with the file; compared transfer by transfer.
    std::string bus_capture = {};  // the file as written, for messages
    std::optional<wire::Capture> capture = {};
    // With "capture_timing": each gap between the step's transfers (STOP to
    // START) is at least the capture's, less this tolerance in microseconds.
    std::optional<double> capture_tolerance_us = {};
    std::optional<std::string> violation = {};  // the bugcheck the verifier stops the step with
};

struct Step {
    size_t index = 0;  // from 0
    int line = 0;      // where the step starts in the file
    size_t device = 0;
    bool device_given = false;  // the step names its device
    std::string note = {};
    KIRQL irql = PASSIVE_LEVEL;  // the level the step's calls are made at
    Action action = CheckAction{};
    Expect expect = {};
};

struct Scenario {
    std::string description;
    bench::BusSpeed speed = bench::BusSpeed::Instant;
    bool trace = false;
    std::string vcd;  // the run's waveform file; empty: none
    bool overwrite = false;  // charts and saved memories may replace existing files
    bool real_time = false;  // waits sleep and stalls spin (the options' --real-time)
    std::vector<DeviceSetup> devices;
    std::vector<Step> steps;
};

}  // namespace korvanel::tool
