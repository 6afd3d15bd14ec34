// memory_cli.cpp - korvanel-sim's module-memory work.
#include "memory_cli.h"

#include "platform/checked.h"
#include "bus_report.h"
#include "files/files.h"
#include "parse.h"

#include "bench/spb_controller.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace korvanel::tool {

using namespace files;

using nlohmann::ordered_json;

// ---- The command-line face -----------------------------------------------------

namespace {

OutputRule save_rule(const MemoryOptions& options)
{
    return {options.force, "--force", {options.file}};
}

}  // namespace

void add_memory_options(CLI::App& app, MemoryOptions& options)
{
    app.add_option("--nvm", options.type, "attach a module memory of this NVM type (5 to 12) and select it");
    app.add_option("--nvm-connection", options.connection,
                   "connection id of slot 2 (default 0x50); block parts take consecutive ids");
    app.add_option("--nvm-address", options.address,
                   "its 7-bit bus address (block 0's for a block memory; default 0x50)");
    app.add_option("--nvm-file", options.file, "initial memory contents (binary, from address 0)");
    app.add_option("--nvm-cache-length", options.cache_length, "NvmCacheLength (default the smaller of size and 750)");
    app.add_option("--nvm-ops", options.ops,
                   "memory operations, comma-separated: load, read:ADDR:LEN, write:ADDR:HEXBYTES, writefile:ADDR:FILE");
    app.add_option("--nvm-save", options.save, "save the memory contents to this file afterwards");
}

std::optional<std::string> prepare_memory(MemoryOptions& options)
{
    if (!options.requested()) {
        return std::nullopt;
    }
    auto type = parse_integer(options.type, 0, NVM_TYPE_COUNT - 1);
    auto geometry = type ? platform::memory_geometry(unsigned(*type)) : std::nullopt;
    if (!geometry) {
        return "--nvm: unknown memory type '" + excerpt(options.type) + "' (types 5 to 12 have a memory)";
    }
    auto connection = parse_unsigned(options.connection);
    if (!connection) {
        return "--nvm-connection: '" + excerpt(options.connection) + "' is not a connection id (0 to 0xFFFFFFFFFFFFFFFF)";
    }
    options.selection = {unsigned(*type), *connection, uint32_t(std::min<size_t>(geometry->size, NVM_CACHE_SIZE))};
    if (!options.cache_length.empty()) {
        auto length = parse_integer(options.cache_length, 0, UINT32_MAX);
        if (!length) {
            return "--nvm-cache-length: '" + excerpt(options.cache_length) + "' is not a length from 0 to 4294967295";
        }
        options.selection.cache_length = uint32_t(*length);
    }
    if (!options.address.empty()) {
        // A block memory's last block must answer on a 7-bit address too.
        auto address = parse_integer(options.address, 0, 0x80 - long(geometry->connections));
        if (!address) {
            return "--nvm-address: '" + excerpt(options.address) + "' is not a 7-bit bus address for this memory";
        }
        options.selection.address = uint8_t(*address);
    }
    if (!options.file.empty()) {
        std::string error;
        auto data = read_input(options.file, "a memory image of type " + options.type, geometry->size, true, error);
        if (!data) {
            return "--nvm-file " + error;
        }
        options.initial = std::move(*data);
    }
    if (OpError error; !parse_memory_ops(options.ops, "--nvm-ops", geometry->size, options.parsed, error,
                                         &options.notes)) {
        return error.what();
    }
    if (!options.save.empty()) {
        if (auto error = check_output(options.save, save_rule(options))) {
            return "--nvm-save " + *error;
        }
    }
    return std::nullopt;
}

void print_memory(const ordered_json& report)
{
    printf("Memory: type %u, %u bytes, %u-byte pages, cache length %u\n", report["type"].get<unsigned>(),
           report["size"].get<unsigned>(), report["page_size"].get<unsigned>(), report["cache_length"].get<unsigned>());
    for (auto& note : report.value("notes", ordered_json::array())) {
        printf("Note: %s\n", note.get<std::string>().c_str());
    }
    for (auto& c : report["connections"]) {
        printf("  slot %u: connection %s\n", c["slot"].get<unsigned>(),
               connection_text(c["connection"].get<uint64_t>()).c_str());
    }
    for (auto& r : report["operations"]) {
        std::string op = r["op"].get<std::string>();
        if (op == "load") {
            printf("load: %s, size %u\n", r["status"].get<std::string>().c_str(), r["size"].get<unsigned>());
        } else {
            printf("%s 0x%04x, %d bytes: %s\n", op.c_str(), r["address"].get<unsigned>(), r["length"].get<int>(),
                   r["status"].get<std::string>().c_str());
        }
        for (auto& line : byte_lines(parse_hex_bytes(r["data"].get<std::string>()).value_or(std::vector<uint8_t>{}))) {
            printf("  %s\n", line.c_str());
        }
    }
    printf("Bus transcript (%.4f ms):\n", report["bus_time_ms"].get<double>());
    for (auto& line : report["transcript_lines"]) {
        printf("  %s\n", line.get<std::string>().c_str());
    }
    printf("Contents:\n");
    for (auto& line : report["contents"]) {
        printf("  %s\n", line.get<std::string>().c_str());
    }
    if (report.contains("saved")) {
        printf("Saved: %s\n", printable(report["saved"].get<std::string>()).c_str());
    }
}

}  // namespace korvanel::tool
