// memory_cli.h - korvanel-sim's module-memory options: the memory type
// (NvmType, geometry, cache length), its connection and address, the
// initial contents, the operations (operations.h) and the file to save it
// to; and the part's report as text.
//
//   korvanel-sim --nvm 5 --nvm-ops load,load,write:0x10:a1b2c3,read:0x10:3 --bus-speed 400k
#pragma once

#include "operations.h"

#include "platform/memory.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

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
void print_memory(const nlohmann::ordered_json& report);

}  // namespace korvanel::tool
