// scenario_file.h - a scenario file as read: its devices and its steps, each
// checked completely and ready to run, or a message that names the line and
// the field of the first thing wrong with it. scenario.h runs it.
#pragma once

#include "actuator_cli.h"
#include "calls.h"
#include "memory_cli.h"

#include "host/bus.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
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
    std::string plot;  // trajectory chart file
    std::optional<platform::MemorySelection> memory;
    size_t memory_size = 0;
    size_t memory_connections = 0;  // one, or one per 256-byte block
    std::vector<uint8_t> contents;
    std::string save;
};

struct MemoryExpect {
    uint32_t address;
    std::vector<uint8_t> data;
};

// What a step expects; empty members are not checked.
struct Expect {
    size_t count = 0;  // expectations in this step
    std::optional<NTSTATUS> status;
    std::optional<nlohmann::ordered_json> values;
    std::optional<std::vector<std::string>> bus;
    std::optional<long long> transfers;
    std::vector<MemoryExpect> memory;
    std::optional<long long> lens;
    std::optional<std::string> power;
    std::optional<long long> references;
    std::optional<double> clock_ms;
    std::vector<std::string> trace;
};

// A fault rule for the bus (the k-th transfer from here, or matching ones),
// a platform routine to fail, or every rule cleared.
struct FaultStep {
    enum class What { Bus, Routine, Clear } what;
    host::BusFault fault{host::BusFault::Kind::Fail, STATUS_SUCCESS};
    std::optional<uint64_t> transfer = {};  // the k-th transfer from here, 1 the next
    host::BusMatch match = {};
    std::string routine = {};
    NTSTATUS status = STATUS_SUCCESS;
    unsigned skip = 0;
    unsigned times = 1;
};

struct Step {
    size_t index;      // from 0
    int line;          // where the step starts in the file
    enum class Kind { Call, Vcm, Nvm, Advance, BusSpeed, Fault, Pnp, Interface, Check } kind;
    size_t device = 0;
    std::string title = {};
    std::string note = {};
    PreparedCall call = {};
    const RecordLayout* record = nullptr;  // the record the call fills, for showing its fields
    ActuatorOp vcm{ActuatorOp::Kind::Init, 0, {}, {}};
    MemoryOp nvm{MemoryOp::Kind::Load, 0, 0, {}};
    int64_t advance = 0;  // 100 ns units
    host::BusSpeed speed = host::BusSpeed::Instant;
    FaultStep fault{FaultStep::What::Clear};
    std::string action = {};  // Pnp: query_remove, query_stop; Interface: take, release
    Expect expect = {};
};

struct Scenario {
    std::string description;
    host::BusSpeed speed = host::BusSpeed::Instant;
    bool trace = false;
    std::vector<DeviceSetup> devices;
    std::vector<Step> steps;
};

// The scenario in `text`, or nothing with `error` set to "NAME:LINE: what is
// wrong". Files it names (memory contents, data to write) are read from
// `base_dir`.
std::optional<Scenario> read_scenario(const std::string& text, const std::string& name, const std::string& base_dir,
                                      std::string& error);

}  // namespace korvanel::tool
