// memory_cli.cpp - korvanel-sim's module-memory work.
#include "memory_cli.h"

#include "platform/checked.h"
#include "bus_report.h"
#include "files.h"
#include "parse.h"

#include "host/bus.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace korvanel::tool {

using nlohmann::ordered_json;

namespace {

// A note, not a refusal: the driver's own range checks are what runs.
std::string outside_memory(int64_t address, int64_t length, size_t size)
{
    if (length >= 1 && address + length <= int64_t(size)) {
        return {};
    }
    return "the range " + std::to_string(address) + " + " + std::to_string(length) + " lies outside the memory's " +
           std::to_string(size) + " bytes; it goes to the driver as written";
}

}  // namespace

std::optional<std::string> parse_memory_ops(const std::string& text, size_t size, std::vector<MemoryOp>& ops,
                                            std::vector<std::string>* notes)
{
    for (const auto& item : split(text, ',')) {
        auto fields = split(item, ':');
        if (fields.size() == 1 && fields[0] == "load") {
            ops.push_back({MemoryOp::Kind::Load, 0, 0, {}});
            continue;
        }
        if (fields.size() != 3 || (fields[0] != "read" && fields[0] != "write" && fields[0] != "writefile")) {
            return "'" + excerpt(item) + "' is not load, read:ADDR:LEN, write:ADDR:HEXBYTES or writefile:ADDR:FILE";
        }
        auto address = parse_integer(fields[1], 0, 0xFFFF);
        if (!address) {
            return "'" + excerpt(fields[1]) + "' is not an address from 0 to 65535 (0xFFFF)";
        }
        MemoryOp op{fields[0] == "read" ? MemoryOp::Kind::Read : MemoryOp::Kind::Write, uint32_t(*address), 0, {}};
        int64_t length = 0;
        if (fields[0] == "read") {
            auto n = parse_integer(fields[2], INT32_MIN, INT32_MAX);
            if (!n) {
                return "'" + excerpt(fields[2]) + "' is not a length from -2147483648 to 2147483647";
            }
            length = op.length = int32_t(*n);
        } else if (fields[0] == "write") {
            auto data = parse_hex_bytes(fields[2]);
            if (!data) {
                return "'" + excerpt(fields[2]) + "' is not a list of hex bytes";
            }
            op.data = std::move(*data);
            length = int64_t(op.data.size());
        } else {
            std::string error;
            auto data = read_input(fields[2], "the data of a write", kWriteDataFileLimit, false, error);
            if (!data) {
                return "writefile: " + error;
            }
            if (data->empty()) {
                return "writefile: " + fields[2] + ": the file is empty";
            }
            op.data = std::move(*data);
            length = int64_t(op.data.size());
        }
        if (auto note = outside_memory(*address, length, size); !note.empty() && notes != nullptr) {
            notes->push_back(item.substr(0, 40) + ": " + note);
        }
        ops.push_back(std::move(op));
    }
    return std::nullopt;
}

ordered_json run_memory_op(_DEVICE_CONTEXT* context, const MemoryOp& op)
{
    const NVM_DRIVER& row = platform::memory_table()[context->NvmType];
    NTSTATUS status;
    ordered_json r;
    if (op.kind == MemoryOp::Kind::Load) {
        // The first successful load fills the cache and hands nothing
        // out; later ones return the cached bytes.
        bool was_loaded = context->NvmLoaded != 0;
        std::vector<uint8_t> buffer(NVM_CACHE_SIZE);
        ULONG size = ULONG(buffer.size());
        status = row.Load(context, &size, buffer.data());
        r = {{"op", "load"}, {"size", size}};
        r["data"] = was_loaded && NT_SUCCESS(status) ? hex_bytes(buffer.data(), size) : "";
    } else if (op.kind == MemoryOp::Kind::Read) {
        // As long as the driver is told, but only the pages it touches are
        // ever committed: a length the driver refuses costs nothing.
        size_t length = size_t(std::max<int32_t>(op.length, 0));
        std::unique_ptr<uint8_t, decltype(&free)> buffer(static_cast<uint8_t*>(calloc(std::max<size_t>(length, 1), 1)),
                                                         &free);
        status = !buffer ? STATUS_INSUFFICIENT_RESOURCES
                 : row.Read ? row.Read(context, USHORT(op.address), buffer.get(), LONG(op.length))
                            : STATUS_NOT_SUPPORTED;
        r = {{"op", "read"}, {"address", op.address}, {"length", op.length}};
        r["data"] = NT_SUCCESS(status) ? hex_bytes(buffer.get(), length) : "";
    } else {
        status = row.Write ? row.Write(context, USHORT(op.address), op.data.data(), LONG(op.data.size()))
                           : STATUS_NOT_SUPPORTED;
        r = {{"op", "write"}, {"address", op.address}, {"length", op.data.size()},
             {"data", hex_bytes(op.data.data(), op.data.size())}};
    }
    r["status"] = host::status_name(status);
    return r;
}

ordered_json run_memory(host::System& sys, _DEVICE_CONTEXT* context, const sim::Eeprom& model,
                        const std::vector<MemoryOp>& ops)
{
    const NVM_DRIVER& row = platform::memory_table()[context->NvmType];
    ordered_json report;
    report["type"] = context->NvmType;
    report["size"] = row.Size;
    report["page_size"] = row.PageSize;
    report["cache_length"] = context->NvmCacheLength;
    ordered_json slots = ordered_json::array();
    for (ULONG slot = I2C_SLOT_NVM; slot < I2C_CONNECTION_COUNT; slot++) {
        if (context->I2cConnections[slot].Present) {
            slots.push_back({{"slot", slot}, {"connection", context->I2cConnections[slot].ConnectionId}});
        }
    }
    report["connections"] = slots;

    int64_t origin = sys.clock().now();
    uint64_t first_transfer = sys.bus().transfer_count();
    ordered_json results = ordered_json::array();
    for (const auto& op : ops) {
        results.push_back(run_memory_op(context, op));
    }
    report["operations"] = results;

    auto transcript = sys.bus().transcript();
    std::erase_if(transcript, [&](const host::BusTransfer& t) { return t.index < first_transfer; });
    report["bus_time_ms"] = double(sys.clock().now() - origin) / 10000.0;
    report["transcript"] = transcript_json(transcript, origin);
    report["transcript_lines"] = transcript_lines(transcript, origin);
    report["contents"] = hex_dump(model.contents());
    return report;
}

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
    if (auto error = parse_memory_ops(options.ops, geometry->size, options.parsed, &options.notes)) {
        return "--nvm-ops: " + *error;
    }
    if (!options.save.empty()) {
        if (auto error = check_output(options.save, save_rule(options))) {
            return "--nvm-save " + *error;
        }
    }
    return std::nullopt;
}

ordered_json run_memory_options(host::System& sys, _DEVICE_CONTEXT* context, const MemoryOptions& options,
                                wire::Waveform* waveform)
{
    auto model = platform::select_memory(sys, context, options.selection);
    if (waveform != nullptr) {
        waveform->watch(model);
    }
    model->set_contents(0, options.initial);
    ordered_json report = run_memory(sys, context, *model, options.parsed);
    if (!options.notes.empty()) {
        report["notes"] = options.notes;
    }
    if (!options.save.empty()) {
        auto bytes = model->contents();
        auto error = write_output(options.save, std::string(bytes.begin(), bytes.end()), save_rule(options));
        report[error ? "save_error" : "saved"] = error ? "--nvm-save " + *error : options.save;
    }
    return report;
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
