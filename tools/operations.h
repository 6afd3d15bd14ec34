// operations.h - the two operation languages korvanel-sim speaks, read and
// performed in one place: the lens actuator's ("init,setpos:300,getpos")
// and the module memory's ("load,read:0x10:4,write:0x10:a1b2"), whether they
// come from --vcm-ops / --nvm-ops or from a scenario step.
//
//   actuator: init, setpos:N, getpos, status (GetStatus), hpstatus
//             (GetHPStatus), setconfig:COUNT:REG:DATA:... (the SetConfig
//             array), resetpos, advance:MS (let virtual time pass)
//   memory:   load, read:ADDR:LEN, write:ADDR:HEXBYTES, writefile:ADDR:FILE
//
// Numbers are decimal or 0x hex, each within the type the driver takes.
#pragma once

#include "bench/bench.h"
#include "sensor/device_context.h"

#include <nlohmann/json.hpp>

#include <cstdint>
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

struct MemoryOp {
    enum class Kind { Load, Read, Write } kind;
    uint32_t address = 0;       // 16 bits, as the driver takes it
    int32_t length = 0;         // read: bytes to read, a LONG as the driver takes it
    std::vector<uint8_t> data;  // write: bytes to write
};

// A mistake in an operation list: the list it is in ("--vcm-ops"; empty
// where the caller names the place itself), the operation's place in the
// list, a bounded excerpt of it and what is wrong.
struct OpError {
    std::string field;
    size_t position = 0;  // from 1
    size_t count = 0;     // operations in the list
    std::string item;     // excerpt() of the operation
    std::string message;
    // "--vcm-ops: operation 2 'setpos': needs a position, as setpos:300";
    // the place is left out of a list of one.
    std::string what() const;
};

// The comma-separated list; false with `error` filled at the first mistake.
bool parse_actuator_ops(const std::string& list, const std::string& field, std::vector<ActuatorOp>& ops,
                        OpError& error);

// Files named by writefile are read here. A range outside the memory's
// `size` bytes still goes to the driver, which judges it; `notes` gets a
// line for each.
bool parse_memory_ops(const std::string& list, const std::string& field, size_t size, std::vector<MemoryOp>& ops,
                      OpError& error, std::vector<std::string>* notes = nullptr);

// One operation through the row VcmType selects (1 to 8): its status, what
// it read ("position", "moving", "settled") and the recorded position.
nlohmann::ordered_json run_actuator_op(bench::Bench& sys, PDEVICE_CONTEXT context, const ActuatorOp& op);

// One operation through the row NvmType selects: its status and data.
nlohmann::ordered_json run_memory_op(PDEVICE_CONTEXT context, const MemoryOp& op);

}  // namespace korvanel::tool
