// memory_cli.h - korvanel-sim's module-memory work: select a memory type for
// the device as a platform would (NvmType, geometry, cache length, the
// connection slots and their ids), attach the part's model, run a list of
// loads, reads and writes through the NVM_DRIVER row, and report statuses,
// the decoded bus transcript and the resulting contents.
//
//   korvanel-sim --nvm 5 --nvm-ops load,load,write:0x10:a1b2c3,read:0x10:3 --bus-speed 400k
//
// The runner is a library: a scenario runner calls parse_memory_ops() and
// run_memory() with its own System and device.
#pragma once

#include "platform/memory.h"
#include "wire/waveform.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct _DEVICE_CONTEXT;

namespace korvanel::tool {

struct MemoryOp {
    enum class Kind { Load, Read, Write } kind;
    uint32_t address = 0;       // 16 bits, as the driver takes it
    int32_t length = 0;         // read: bytes to read, a LONG as the driver takes it
    std::vector<uint8_t> data;  // write: bytes to write
};

// "load", "read:ADDR:LEN", "write:ADDR:HEXBYTES", "writefile:ADDR:FILE",
// comma-separated; addresses and lengths decimal or 0x hex, each within the
// type the driver takes (a 16-bit address, a signed 32-bit length). A range
// outside the memory's `size` bytes still goes to the driver, which judges
// it; `notes` gets a line for each. An error message, or nothing.
std::optional<std::string> parse_memory_ops(const std::string& text, size_t size, std::vector<MemoryOp>& ops,
                                            std::vector<std::string>* notes = nullptr);

// Runs the operations on the selected memory: statuses and data, the
// transcript of the run, and the contents afterwards.
nlohmann::ordered_json run_memory(host::System& sys, _DEVICE_CONTEXT* context, const sim::Eeprom& model,
                                  const std::vector<MemoryOp>& ops);

// One operation through the row NvmType selects: its status and data.
nlohmann::ordered_json run_memory_op(_DEVICE_CONTEXT* context, const MemoryOp& op);


// ---- The command-line face ---------------------------------------------------
struct MemoryOptions {
    std::string type;       // --nvm
    std::string connection = "0x50";
    std::string file;       // --nvm-file
    std::string cache_length;
    std::string ops;
    std::string save;
    std::string address;    // --nvm-address
    bool force = false;     // --force: --nvm-save may replace a file

    // Filled by prepare().
    platform::MemorySelection selection;
    std::vector<uint8_t> initial;
    std::vector<MemoryOp> parsed;
    std::vector<std::string> notes;  // operations whose range lies outside the memory
    bool requested() const { return !type.empty(); }
};

void add_memory_options(CLI::App& app, MemoryOptions& options);
// Checks the options and reads the files they name: an error message for
// the user (exit status 2), or nothing.
std::optional<std::string> prepare_memory(MemoryOptions& options);
// Attaches, fills, runs and saves; the report for --json and print_memory(),
// with "save_error" when --nvm-save could not be written.
nlohmann::ordered_json run_memory_options(host::System& sys, _DEVICE_CONTEXT* context, const MemoryOptions& options,
                                          wire::Waveform* waveform = nullptr);
void print_memory(const nlohmann::ordered_json& report);

}  // namespace korvanel::tool
