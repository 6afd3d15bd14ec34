// operations.cpp - the actuator and memory operation languages: read, and
// performed through the driver's rows.
#include "operations.h"

#include "bus_report.h"
#include "files/files.h"
#include "parse.h"

#include "platform/checked.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace korvanel::tool {

using namespace files;

using nlohmann::ordered_json;

std::string OpError::what() const
{
    std::string place = count > 1 ? "operation " + std::to_string(position) : "";
    std::string quoted = item.empty() ? "" : "'" + item + "'";
    std::string where = place + (place.empty() || quoted.empty() ? "" : " ") + quoted;
    return (field.empty() ? "" : field + ": ") + where + (where.empty() ? "" : ": ") + message;
}

namespace {

// Reads each item of `list` with `one`, which says what is wrong with an
// item or nothing, and clears `quoted` when its message is about a file the
// item names and stands without the item; the first mistake stops the list.
template <class One>
bool parse_list(const std::string& list, const std::string& field, OpError& error, One one)
{
    auto items = split(list, ',');
    for (size_t i = 0; i < items.size(); i++) {
        bool quoted = true;
        std::string message = items[i].empty() ? "an empty operation" : one(items[i], quoted);
        if (!message.empty()) {
            error = {field, i + 1, items.size(), quoted ? excerpt(items[i]) : "", message};
            return false;
        }
    }
    return true;
}

// What is wrong with an actuator operation, or nothing with `op` filled.
std::string actuator_op(const std::string& token, ActuatorOp& op)
{
    static const struct {
        const char* name;
        ActuatorOp::Kind kind;
        const char* argument;  // what the argument is, or none
    } names[] = {
        {"init", ActuatorOp::Kind::Init, nullptr},         {"setpos", ActuatorOp::Kind::SetPos, "a position"},
        {"getpos", ActuatorOp::Kind::GetPos, nullptr},     {"status", ActuatorOp::Kind::Status, nullptr},
        {"hpstatus", ActuatorOp::Kind::HpStatus, nullptr}, {"setconfig", ActuatorOp::Kind::SetConfig, "values"},
        {"resetpos", ActuatorOp::Kind::ResetPos, nullptr}, {"advance", ActuatorOp::Kind::Advance, "milliseconds"},
    };
    auto fields = split(token, ':');
    auto* known = std::find_if(std::begin(names), std::end(names), [&](auto& n) { return fields[0] == n.name; });
    if (known == std::end(names)) {
        return "unknown operation (init, setpos:N, getpos, status, hpstatus, setconfig:COUNT:REG:DATA:..., resetpos, "
               "advance:MS)";
    }
    op = {known->kind, 0, {}, token};
    size_t arguments = fields.size() - 1;
    if ((known->argument == nullptr) != (arguments == 0)) {
        return known->argument ? std::string("needs ") + known->argument + ", as " + known->name + ":300"
                               : "takes no argument";
    }
    if (op.kind == ActuatorOp::Kind::SetPos || op.kind == ActuatorOp::Kind::Advance) {
        bool position = op.kind == ActuatorOp::Kind::SetPos;
        auto v = arguments == 1 ? parse_integer(fields[1], position ? -32768 : 0, position ? 65535 : 3600000)
                                : std::nullopt;
        if (!v) {
            return std::string("takes one ") +
                   (position ? "16-bit position (-32768 to 65535)" : "count of milliseconds up to 3600000");
        }
        op.value = long(*v);
    } else if (op.kind == ActuatorOp::Kind::SetConfig) {
        for (size_t i = 1; i < fields.size(); i++) {
            auto v = parse_integer(fields[i], 0, 0xFFFFFFFFll);
            if (!v) {
                return "'" + excerpt(fields[i]) + "' is not a 32-bit number";
            }
            op.config.push_back(ULONG(*v));
        }
        // The driver reads as many pairs as the count says.
        if (op.config.size() != 1 + 2 * size_t(op.config[0])) {
            return "gives a count of " + std::to_string(op.config[0]) + ", which needs " +
                   std::to_string(2 * size_t(op.config[0])) + " values after it, not " +
                   std::to_string(op.config.size() - 1);
        }
    }
    return {};
}

// A note, not a refusal: the driver's own range checks are what runs.
std::string outside_memory(int64_t address, int64_t length, size_t size)
{
    if (length >= 1 && address + length <= int64_t(size)) {
        return {};
    }
    return "the range " + std::to_string(address) + " + " + std::to_string(length) + " lies outside the memory's " +
           std::to_string(size) + " bytes; it goes to the driver as written";
}

// What is wrong with a memory operation, or nothing with `op` filled.
std::string memory_op(const std::string& item, MemoryOp& op, int64_t& length, bool& quoted)
{
    auto fields = split(item, ':');
    if (fields.size() == 1 && fields[0] == "load") {
        op = {MemoryOp::Kind::Load, 0, 0, {}};
        return {};
    }
    if (fields.size() != 3 || (fields[0] != "read" && fields[0] != "write" && fields[0] != "writefile")) {
        return "not load, read:ADDR:LEN, write:ADDR:HEXBYTES or writefile:ADDR:FILE";
    }
    auto address = parse_integer(fields[1], 0, 0xFFFF);
    if (!address) {
        return "'" + excerpt(fields[1]) + "' is not an address from 0 to 65535 (0xFFFF)";
    }
    op = {fields[0] == "read" ? MemoryOp::Kind::Read : MemoryOp::Kind::Write, uint32_t(*address), 0, {}};
    if (fields[0] == "read") {
        auto n = parse_integer(fields[2], INT32_MIN, INT32_MAX);
        if (!n) {
            return "'" + excerpt(fields[2]) + "' is not a length from -2147483648 to 2147483647";
        }
        length = op.length = int32_t(*n);
        return {};
    }
    if (fields[0] == "write") {
        auto data = parse_hex_bytes(fields[2]);
        if (!data) {
            return "'" + excerpt(fields[2]) + "' is not a list of hex bytes";
        }
        op.data = std::move(*data);
    } else {
        std::string error;
        auto data = read_input(fields[2], "the data of a write", kWriteDataFileLimit, false, error);
        quoted = data && !data->empty();
        if (!data) {
            return "writefile: " + error;
        }
        if (data->empty()) {
            return "writefile: " + excerpt(fields[2]) + ": the file is empty";
        }
        op.data = std::move(*data);
    }
    length = int64_t(op.data.size());
    return {};
}

}  // namespace

bool parse_actuator_ops(const std::string& list, const std::string& field, std::vector<ActuatorOp>& ops,
                        OpError& error)
{
    return parse_list(list, field, error, [&](const std::string& item, bool&) {
        ActuatorOp op{};
        auto message = actuator_op(item, op);
        if (message.empty()) {
            ops.push_back(std::move(op));
        }
        return message;
    });
}

bool parse_memory_ops(const std::string& list, const std::string& field, size_t size, std::vector<MemoryOp>& ops,
                      OpError& error, std::vector<std::string>* notes)
{
    return parse_list(list, field, error, [&](const std::string& item, bool& quoted) {
        MemoryOp op{};
        int64_t length = 0;
        auto message = memory_op(item, op, length, quoted);
        if (!message.empty()) {
            return message;
        }
        if (auto note = op.kind == MemoryOp::Kind::Load ? "" : outside_memory(op.address, length, size);
            !note.empty() && notes != nullptr) {
            notes->push_back(printable(item.substr(0, 40)) + ": " + note);
        }
        ops.push_back(std::move(op));
        return std::string();
    });
}

ordered_json run_actuator_op(bench::Bench& sys, PDEVICE_CONTEXT context, const ActuatorOp& op)
{
    const VCM_DRIVER& row = platform::actuator_table()[context->VcmType];
    ordered_json r = ordered_json::object();
    NTSTATUS status = STATUS_SUCCESS;
    USHORT position = 0;
    ULONG flag = 0;
    switch (op.kind) {
    case ActuatorOp::Kind::Init:
        status = row.Init(context);
        break;
    case ActuatorOp::Kind::SetPos:
        status = row.SetPos(context, SHORT(op.value));
        break;
    case ActuatorOp::Kind::GetPos:
        status = row.GetPos(context, &position);
        r["position"] = position;
        break;
    case ActuatorOp::Kind::Status:
        status = row.GetStatus(context, &flag);
        r["moving"] = flag;
        break;
    case ActuatorOp::Kind::HpStatus:
        status = row.GetHPStatus(context, &flag);
        r["settled"] = flag;
        break;
    case ActuatorOp::Kind::SetConfig:
        status = row.SetConfig(context, op.config.data());
        break;
    case ActuatorOp::Kind::ResetPos:
        status = row.ResetPos(context);
        break;
    case ActuatorOp::Kind::Advance:
        sys.clock().advance_ms(op.value);
        break;
    }
    r["status"] = bench::status_name(status);
    r["recorded_position"] = context->VcmPosition;
    return r;
}

ordered_json run_memory_op(PDEVICE_CONTEXT context, const MemoryOp& op)
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
    r["status"] = bench::status_name(status);
    return r;
}

}  // namespace korvanel::tool
