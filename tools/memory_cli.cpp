// memory_cli.cpp - korvanel-sim's module-memory work.
#include "memory_cli.h"
#include "bus_report.h"
#include "parse.h"

#include "host/bus.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"

#include <algorithm>
#include <cstdio>

namespace korvanel::tool {

using nlohmann::ordered_json;

namespace {

std::string in_memory(uint64_t address, uint64_t length, size_t size)
{
    if (length < 1 || address + length > size) {
        return "the range " + std::to_string(address) + " + " + std::to_string(length) +
               " is not within the memory's " + std::to_string(size) + " bytes";
    }
    return {};
}

}  // namespace

std::optional<std::string> parse_memory_ops(const std::string& text, size_t size, std::vector<MemoryOp>& ops)
{
    for (const auto& item : split(text, ',')) {
        auto fields = split(item, ':');
        if (fields.size() == 1 && fields[0] == "load") {
            ops.push_back({MemoryOp::Kind::Load, 0, 0, {}});
            continue;
        }
        if (fields.size() != 3 || (fields[0] != "read" && fields[0] != "write" && fields[0] != "writefile")) {
            return "'" + item + "' is not load, read:ADDR:LEN, write:ADDR:HEXBYTES or writefile:ADDR:FILE";
        }
        auto address = parse_unsigned(fields[1]);
        if (!address) {
            return "'" + fields[1] + "' is not an address";
        }
        MemoryOp op{fields[0] == "read" ? MemoryOp::Kind::Read : MemoryOp::Kind::Write, uint32_t(*address), 0, {}};
        uint64_t length = 0;
        if (fields[0] == "read") {
            auto n = parse_unsigned(fields[2]);
            if (!n) {
                return "'" + fields[2] + "' is not a length";
            }
            length = op.length = uint32_t(std::min<uint64_t>(*n, UINT32_MAX));
        } else {
            auto data = fields[0] == "write" ? parse_hex_bytes(fields[2]) : read_binary_file(fields[2]);
            if (!data) {
                return fields[0] == "write" ? "'" + fields[2] + "' is not a list of hex bytes"
                                            : "cannot read " + fields[2];
            }
            op.data = std::move(*data);
            length = op.data.size();
        }
        if (auto error = in_memory(*address, length, size); !error.empty()) {
            return item.substr(0, 40) + ": " + error;
        }
        ops.push_back(std::move(op));
    }
    return std::nullopt;
}

ordered_json run_memory_op(_DEVICE_CONTEXT* context, const MemoryOp& op)
{
    const NVM_DRIVER& row = NvmDriverTable[context->NvmType];
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
        std::vector<uint8_t> buffer(op.length);
        status = row.Read ? row.Read(context, USHORT(op.address), buffer.data(), LONG(op.length))
                          : STATUS_NOT_SUPPORTED;
        r = {{"op", "read"}, {"address", op.address}, {"length", op.length}};
        r["data"] = NT_SUCCESS(status) ? hex_bytes(buffer.data(), buffer.size()) : "";
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
    const NVM_DRIVER& row = NvmDriverTable[context->NvmType];
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
        bool stray = !options.file.empty() || !options.ops.empty() || !options.save.empty() ||
                     !options.cache_length.empty() || !options.address.empty();
        return stray ? std::optional<std::string>("the memory options need --nvm TYPE") : std::nullopt;
    }
    auto type = parse_unsigned(options.type);
    auto geometry = type && *type < NVM_TYPE_COUNT ? platform::memory_geometry(unsigned(*type)) : std::nullopt;
    if (!geometry) {
        return "--nvm: unknown memory type '" + options.type + "' (types 5 to 12 have a memory)";
    }
    auto connection = parse_unsigned(options.connection);
    if (!connection) {
        return "--nvm-connection: '" + options.connection + "' is not a connection id";
    }
    options.selection = {unsigned(*type), *connection, uint32_t(std::min<size_t>(geometry->size, NVM_CACHE_SIZE))};
    if (!options.cache_length.empty()) {
        auto length = parse_unsigned(options.cache_length);
        if (!length || *length > UINT32_MAX) {
            return "--nvm-cache-length: '" + options.cache_length + "' is not a length";
        }
        options.selection.cache_length = uint32_t(*length);
    }
    if (!options.address.empty()) {
        // A block memory's last block must answer on a 7-bit address too.
        auto address = parse_integer(options.address, 0, 0x80 - long(geometry->connections));
        if (!address) {
            return "--nvm-address: '" + options.address + "' is not a 7-bit bus address for this memory";
        }
        options.selection.address = uint8_t(*address);
    }
    if (!options.file.empty()) {
        auto data = read_binary_file(options.file);
        if (!data) {
            return "--nvm-file: cannot read " + options.file;
        }
        if (data->size() > geometry->size) {
            return "--nvm-file: " + options.file + " holds " + std::to_string(data->size()) +
                   " bytes, more than the memory's " + std::to_string(geometry->size);
        }
        options.initial = std::move(*data);
    }
    if (auto error = parse_memory_ops(options.ops, geometry->size, options.parsed)) {
        return "--nvm-ops: " + *error;
    }
    return std::nullopt;
}

ordered_json run_memory_options(host::System& sys, _DEVICE_CONTEXT* context, const MemoryOptions& options,
                                Waveform* waveform)
{
    auto model = platform::select_memory(sys, context, options.selection);
    if (waveform != nullptr) {
        waveform->watch(model);
    }
    model->set_contents(0, options.initial);
    ordered_json report = run_memory(sys, context, *model, options.parsed);
    if (!options.save.empty()) {
        auto error = model->save_file(options.save);
        report["saved"] = error ? *error : options.save;
    }
    return report;
}

void print_memory(const ordered_json& report)
{
    printf("Memory: type %u, %u bytes, %u-byte pages, cache length %u\n", report["type"].get<unsigned>(),
           report["size"].get<unsigned>(), report["page_size"].get<unsigned>(), report["cache_length"].get<unsigned>());
    for (auto& c : report["connections"]) {
        printf("  slot %u: connection %s\n", c["slot"].get<unsigned>(),
               connection_text(c["connection"].get<uint64_t>()).c_str());
    }
    for (auto& r : report["operations"]) {
        std::string op = r["op"].get<std::string>();
        if (op == "load") {
            printf("load: %s, size %u\n", r["status"].get<std::string>().c_str(), r["size"].get<unsigned>());
        } else {
            printf("%s 0x%04x, %u bytes: %s\n", op.c_str(), r["address"].get<unsigned>(), r["length"].get<unsigned>(),
                   r["status"].get<std::string>().c_str());
        }
        if (!r["data"].get<std::string>().empty()) {
            printf("  %s\n", r["data"].get<std::string>().c_str());
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
        printf("Saved: %s\n", report["saved"].get<std::string>().c_str());
    }
}

}  // namespace korvanel::tool
