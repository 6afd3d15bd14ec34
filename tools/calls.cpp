// calls.cpp - the interface operations as named calls.
#include "calls.h"

#include "parse.h"

#include "bench/text.h"

#include <algorithm>
#include <cstring>
#include <strings.h>
#include <optional>

namespace korvanel::tool {

using json = nlohmann::ordered_json;
using nlohmann::ordered_json;

namespace {

struct Operation;

// A prepared call as an operation makes it, with the context to pass.
using Made = std::function<ordered_json(const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool raw)>;

// Reads one call's arguments; the first problem found is kept in `error`.
class Reader {
public:
    Reader(const json& args, const Operation& op, ArgumentError& error);

    bool ok() const { return error_.message.empty(); }
    void fail(const std::string& field, const std::string& message)
    {
        if (ok()) {
            error_ = {field, message};
        }
    }
    // A number argument; without a fallback it must be given.
    long long integer(const char* name, long long low, long long high, std::optional<long long> fallback);
    const char* pointer(size_t i) const;
    // The pointer parameter is to be passed as null.
    bool null(const char* pointer) const
    {
        return std::find(nulls_.begin(), nulls_.end(), pointer) != nulls_.end();
    }
    // The caller's record as it arrives: "fill", then "in".
    std::vector<uint8_t> record(Record record);
    // An output's value as it arrives ("in": {"Value": 7}), else 0.
    ULONG output(const char* name);
    // A list of records of `record`'s layout under `name`.
    std::vector<uint8_t> records(const char* name, Record record);
    const json* get(const char* name) const
    {
        return args_.is_object() && args_.contains(name) ? &args_[name] : nullptr;
    }

private:
    const json& args_;
    const Operation& operation_;
    ArgumentError& error_;
    std::vector<std::string> nulls_;
};

struct Operation {
    const char* name;
    std::vector<const char*> arguments;  // inputs by name
    std::vector<const char*> pointers;   // pointer parameters "null" may name
    std::vector<const char*> outputs;    // numbers it writes, which "in" may preset
    std::optional<Record> record;        // the record it fills or hands out
    std::function<Made(Reader&)> prepare;
};

ordered_json with_status(NTSTATUS status) { return {{"status", bench::status_name(status)}}; }

ordered_json with_record(NTSTATUS status, Record record, const void* data, bool raw)
{
    ordered_json out = with_status(status);
    out.update(decode_record(record_layout(record), data, raw));
    return out;
}

ordered_json list_json(const MODE_LIST* list, Record record)
{
    ordered_json entries = ordered_json::array();
    const auto& layout = record_layout(record);
    for (ULONG i = 0; list->Entries != nullptr && i < list->Count; i++) {
        entries.push_back(decode_record(layout, static_cast<const uint8_t*>(list->Entries) + i * layout.size));
    }
    return {{"Count", list->Count}, {"Entries", entries}};
}

// A call that takes one number through a pointer and hands back the word it
// wrote (GetAuxFlag, GetParameterWord).
template <auto Member>
Made value_call(Reader& r)
{
    ULONG initial = r.output("Value");
    bool null_value = r.null("Value");
    return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
        ULONG value = initial;
        NTSTATUS status = (si.*Member)(context, null_value ? nullptr : &value);
        ordered_json out = with_status(status);
        out["Value"] = value;
        return out;
    };
}

// A call that fills the caller's record through its one pointer parameter
// (GetSensorCaps, GetModuleInfo).
template <auto Member, typename T, Record R>
Made record_call(Reader& r)
{
    auto initial = r.record(R);
    bool null_record = r.null(r.pointer(0));
    return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool raw) {
        T record;
        memcpy(&record, initial.data(), sizeof record);
        NTSTATUS status = (si.*Member)(context, null_record ? nullptr : &record);
        return with_record(status, R, &record, raw);
    };
}

// A call that takes nothing but the context (AcceptNotice, PowerUp, PowerDown).
template <auto Member>
Made context_call(Reader&)
{
    return [](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
        return with_status((si.*Member)(context));
    };
}

const std::vector<Operation>& operations();

}  // namespace

// ---- Reader ------------------------------------------------------------------

namespace {

Reader::Reader(const json& args, const Operation& op, ArgumentError& error) : args_(args), operation_(op), error_(error)
{
    if (!args.is_object() && !args.is_null()) {
        fail("", std::string(op.name) + " takes its arguments by name");
        return;
    }
    bool fills = op.record.has_value() || !op.outputs.empty();
    for (auto& item : args.items()) {
        const std::string& key = item.key();
        bool known = std::any_of(op.arguments.begin(), op.arguments.end(), [&](auto* a) { return key == a; }) ||
                     key == "null" || (fills && (key == "fill" || key == "in"));
        if (!known) {
            std::string takes;
            for (auto* a : op.arguments) {
                takes += std::string(takes.empty() ? "" : ", ") + a;
            }
            fail(key, std::string(op.name) + " has no argument '" + excerpt(key) + "'" +
                          (takes.empty() ? "" : " (it takes " + takes + ")"));
            return;
        }
    }
    if (const json* nulls = get("null")) {
        if (!nulls->is_array()) {
            fail("null", "'null' is a list of pointer parameters");
            return;
        }
        for (size_t i = 0; i < nulls->size(); i++) {
            const json& n = (*nulls)[i];
            std::string name = n.is_string() ? n.get<std::string>() : "";
            bool pointer = name == "Context" || std::any_of(op.pointers.begin(), op.pointers.end(),
                                                            [&](auto* p) { return name == p; });
            if (!pointer) {
                std::string takes = "Context";
                for (auto* p : op.pointers) {
                    takes += std::string(", ") + p;
                }
                fail("null/" + std::to_string(i), std::string(op.name) + " has no pointer parameter " + n.dump() +
                                                      " (" + takes + ")");
                return;
            }
            nulls_.push_back(name);
        }
    }
}

const char* Reader::pointer(size_t i) const { return operation_.pointers.at(i); }

long long Reader::integer(const char* name, long long low, long long high, std::optional<long long> fallback)
{
    const json* value = get(name);
    if (value == nullptr) {
        if (!fallback) {
            fail(name, std::string(operation_.name) + " needs " + name);
        }
        return fallback.value_or(0);
    }
    auto v = json_integer(*value, low, high);
    if (!v) {
        fail(name, std::string(name) + " takes a number from " + std::to_string(low) + " to " + std::to_string(high));
        return 0;
    }
    return *v;
}

std::vector<uint8_t> Reader::record(Record record)
{
    const auto& layout = record_layout(record);
    auto fill = get("fill") ? integer("fill", 0, 255, 0) : 0;
    std::vector<uint8_t> bytes(layout.size, uint8_t(fill));
    if (const json* in = get("in")) {
        if (auto problem = encode_fields(layout, *in, bytes.data())) {
            fail("in", *problem);
        }
    }
    return bytes;
}

ULONG Reader::output(const char* name)
{
    const json* in = get("in");
    if (in == nullptr) {
        return 0;
    }
    if (!in->is_object()) {
        fail("in", "'in' holds the outputs as they arrive, by name");
        return 0;
    }
    for (auto& item : in->items()) {
        const std::string& key = item.key();
        if (std::none_of(operation_.outputs.begin(), operation_.outputs.end(), [&](auto* o) { return key == o; })) {
            fail("in/" + key, std::string(operation_.name) + " has no output '" + excerpt(key) + "'");
            return 0;
        }
    }
    if (!in->contains(name)) {
        return 0;
    }
    auto v = json_integer((*in)[name], 0, 0xFFFFFFFFll);
    if (!v) {
        fail(std::string("in/") + name, std::string(name) + " takes a 32-bit number");
    }
    return ULONG(v.value_or(0));
}

std::vector<uint8_t> Reader::records(const char* name, Record record)
{
    const auto& layout = record_layout(record);
    const json* list = get(name);
    std::vector<uint8_t> bytes;
    if (list == nullptr) {
        return bytes;
    }
    if (!list->is_array()) {
        fail(name, std::string(name) + " is a list of " + layout.name + " records");
        return bytes;
    }
    bytes.resize(list->size() * layout.size);
    for (size_t i = 0; i < list->size(); i++) {
        if (auto problem = encode_fields(layout, (*list)[i], bytes.data() + i * layout.size)) {
            fail(std::string(name) + "/" + std::to_string(i), *problem);
        }
    }
    return bytes;
}

// ---- The operations -------------------------------------------------------------

// Each prepare() reads its arguments into copies the call lambda owns, so a
// prepared call can be made again and again.
const std::vector<Operation>& operations()
{
    static const std::vector<Operation> table = {
        {"AcceptRecord", {"Record"}, {"Record"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             std::vector<ULONG> words(4);
             if (const json* given = r.get("Record")) {
                 if (!given->is_array()) {
                     r.fail("Record", "Record is a list of 32-bit words");
                 }
                 words.resize(std::max<size_t>(4, given->is_array() ? given->size() : 0));
                 for (size_t i = 0; given->is_array() && i < given->size(); i++) {
                     auto v = json_integer((*given)[i], 0, 0xFFFFFFFFll);
                     if (!v) {
                         r.fail("Record/" + std::to_string(i), "Record holds 32-bit words");
                     }
                     words[i] = ULONG(v.value_or(0));
                 }
             }
             bool null_record = r.null("Record");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 auto copy = words;
                 return with_status(si.AcceptRecord(context, null_record ? nullptr : copy.data()));
             };
         }},
        {"GetSensorCaps", {}, {"Caps"}, {}, Record::Caps,
         record_call<&SENSOR_INTERFACE::GetSensorCaps, SENSOR_CAPS, Record::Caps>},
        {"GetMipiConfig", {}, {"Port", "Lanes", "Format"}, {"Port", "Lanes", "Format"}, std::nullopt,
         [](Reader& r) -> Made {
             ULONG initial[3] = {r.output("Port"), r.output("Lanes"), r.output("Format")};
             bool nulls[3] = {r.null("Port"), r.null("Lanes"), r.null("Format")};
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 ULONG v[3] = {initial[0], initial[1], initial[2]};
                 si.GetMipiConfig(context, nulls[0] ? nullptr : &v[0], nulls[1] ? nullptr : &v[1],
                                  nulls[2] ? nullptr : &v[2]);
                 return ordered_json{{"Port", v[0]}, {"Lanes", v[1]}, {"Format", v[2]}};
             };
         }},
        {"GetSensorParameters", {}, {"Parameters"}, {}, Record::Parameters,
         [](Reader& r) -> Made {
             bool null_out = r.null("Parameters");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool raw) {
                 const SENSOR_PARAMETERS* parameters = nullptr;
                 NTSTATUS status = si.GetSensorParameters(context, null_out ? nullptr : &parameters);
                 return parameters ? with_record(status, Record::Parameters, parameters, raw) : with_status(status);
             };
         }},
        {"GetModeTables", {}, {"Still", "Video", "Preview", "Raw"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             bool nulls[4] = {r.null("Still"), r.null("Video"), r.null("Preview"), r.null("Raw")};
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 const MODE_LIST* lists[4] = {};
                 const MODE_LIST** out[4];
                 for (int t = 0; t < 4; t++) {
                     out[t] = nulls[t] ? nullptr : &lists[t];
                 }
                 ordered_json result = with_status(si.GetModeTables(context, out[0], out[1], out[2], out[3]));
                 for (int t = 0; t < 4; t++) {
                     if (lists[t] != nullptr) {
                         result[mode_table_names()[t]] = list_json(lists[t], Record::ModeEntry);
                     }
                 }
                 return result;
             };
         }},
        {"GetPdafTable", {}, {"List"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             bool null_out = r.null("List");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 const MODE_LIST* list = nullptr;
                 ordered_json result = with_status(si.GetPdafTable(context, null_out ? nullptr : &list));
                 if (list != nullptr) {
                     result["List"] = list_json(list, Record::PdafMode);
                 }
                 return result;
             };
         }},
        {"SelectMode", {"TableIndex", "MinWidth", "MinHeight", "FrameRate"}, {}, {}, std::nullopt,
         [](Reader& r) -> Made {
             long long table = 2;
             if (const json* given = r.get("TableIndex"); given != nullptr && given->is_string()) {
                 auto index = table_index(given->get<std::string>());
                 if (!index) {
                     r.fail("TableIndex", "TableIndex " + given->dump() + " is not " + table_index_forms());
                 }
                 table = index.value_or(2);
             } else {
                 table = r.integer("TableIndex", INT32_MIN, INT32_MAX, 2);
             }
             LONG w = LONG(r.integer("MinWidth", INT32_MIN, INT32_MAX, std::nullopt));
             LONG h = LONG(r.integer("MinHeight", INT32_MIN, INT32_MAX, std::nullopt));
             LONG fps = LONG(r.integer("FrameRate", INT32_MIN, INT32_MAX, 0));
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 return with_status(si.SelectMode(context, LONG(table), w, h, fps));
             };
         }},
        {"AcceptEntry", {"Entry"}, {"Entry"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             SENSOR_ENTRY entry{};
             if (const json* given = r.get("Entry")) {
                 if (auto problem = encode_fields(record_layout(Record::Entry), *given, &entry)) {
                     r.fail("Entry", *problem);
                 }
             }
             bool null_entry = r.null("Entry");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 SENSOR_ENTRY copy = entry;
                 return with_status(si.AcceptEntry(context, null_entry ? nullptr : &copy));
             };
         }},
        {"AcceptPointer", {}, {"Pointer"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             bool null_pointer = r.null("Pointer");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 ULONG anything = 0;
                 return with_status(si.AcceptPointer(context, null_pointer ? nullptr : &anything));
             };
         }},
        {"AcceptValue", {"Value"}, {"Value"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             ULONG value = ULONG(r.integer("Value", 0, 0xFFFFFFFFll, 0));
             bool null_value = r.null("Value");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 ULONG copy = value;
                 return with_status(si.AcceptValue(context, null_value ? nullptr : &copy));
             };
         }},
        {"AcceptPair", {"First", "Second"}, {}, {}, std::nullopt,
         [](Reader& r) -> Made {
             ULONG first = ULONG(r.integer("First", 0, 0xFFFFFFFFll, 0));
             ULONG second = ULONG(r.integer("Second", 0, 0xFFFFFFFFll, 0));
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 return with_status(si.AcceptPair(context, first, second));
             };
         }},
        {"AcceptNotice", {}, {}, {}, std::nullopt, context_call<&SENSOR_INTERFACE::AcceptNotice>},
        {"GetModeInfo", {"Size"}, {"Size", "Info"}, {}, Record::ModeInfo,
         [](Reader& r) -> Made {
             ULONG size = ULONG(r.integer("Size", 0, 0xFFFFFFFFll, sizeof(SENSOR_MODE_INFO)));
             auto initial = r.record(Record::ModeInfo);
             bool null_size = r.null("Size"), null_info = r.null("Info");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool raw) {
                 SENSOR_MODE_INFO info;
                 memcpy(&info, initial.data(), sizeof info);
                 ULONG in_out = size;
                 NTSTATUS status = si.GetModeInfo(context, null_size ? nullptr : &in_out,
                                                  null_info ? nullptr : &info);
                 ordered_json out = with_status(status);
                 out["Size"] = in_out;
                 out.update(decode_record(record_layout(Record::ModeInfo), &info, raw));
                 return out;
             };
         }},
        {"PowerUp", {}, {}, {}, std::nullopt, context_call<&SENSOR_INTERFACE::PowerUp>},
        {"PowerDown", {}, {}, {}, std::nullopt, context_call<&SENSOR_INTERFACE::PowerDown>},
        {"GetAuxFlag", {}, {"Value"}, {"Value"}, std::nullopt, value_call<&SENSOR_INTERFACE::GetAuxFlag>},
        {"GetParameterWord", {}, {"Value"}, {"Value"}, std::nullopt,
         value_call<&SENSOR_INTERFACE::GetParameterWord>},
        {"GetModuleInfo", {}, {"Info"}, {}, Record::ModuleInfo,
         record_call<&SENSOR_INTERFACE::GetModuleInfo, SENSOR_MODULE_INFO, Record::ModuleInfo>},
        {"QueryProperty", {"Id"}, {"Value"}, {"Value"}, std::nullopt,
         [](Reader& r) -> Made {
             LONG id = LONG(r.integer("Id", INT32_MIN, INT32_MAX, SensorPropertyLinkRate));
             ULONG initial = r.output("Value");
             bool null_value = r.null("Value");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 ULONG value = initial;
                 ordered_json out = with_status(si.QueryProperty(context, id, null_value ? nullptr : &value));
                 out["Value"] = value;
                 return out;
             };
         }},
        {"GetPdafInfo", {"Width", "Height"}, {"Info", "Record"}, {}, Record::PdafInfo,
         [](Reader& r) -> Made {
             auto initial = r.record(Record::PdafInfo);
             PDAF_INFO request;
             memcpy(&request, initial.data(), sizeof request);
             request.Width = ULONG(r.integer("Width", 0, 0xFFFFFFFFll, request.Width));
             request.Height = ULONG(r.integer("Height", 0, 0xFFFFFFFFll, request.Height));
             bool null_info = r.null("Info"), null_record = r.null("Record");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool raw) {
                 PDAF_INFO info = request;
                 PPDAF_INFO record = null_record ? nullptr : &info;
                 NTSTATUS status = si.GetPdafInfo(context, null_info ? nullptr : &record);
                 return with_record(status, Record::PdafInfo, &info, raw);
             };
         }},
        {"AcceptEntryList", {"Entries", "Count"}, {"Entries"}, {}, std::nullopt,
         [](Reader& r) -> Made {
             auto entries = r.records("Entries", Record::Entry);
             size_t given = entries.size() / sizeof(SENSOR_ENTRY);
             USHORT count = USHORT(r.integer("Count", 0, 0xFFFF, (long long)given));
             // The driver reads Count entries, whatever the list holds.
             entries.resize(std::max<size_t>(given, count) * sizeof(SENSOR_ENTRY));
             bool null_entries = r.null("Entries");
             return [=](const SENSOR_INTERFACE& si, PSENSOR_CONTEXT context, bool) {
                 auto copy = entries;
                 auto* list = reinterpret_cast<PSENSOR_ENTRY>(copy.data());
                 return with_status(si.AcceptEntryList(context, null_entries ? nullptr : list, count));
             };
         }},
    };
    return table;
}

const Operation* find_operation(const std::string& name)
{
    for (auto& s : operations()) {
        if (name == s.name) {
            return &s;
        }
    }
    return nullptr;
}

}  // namespace

const std::vector<const char*>& mode_table_names()
{
    static const std::vector<const char*> names = {"Still", "Video", "Preview", "Raw"};
    return names;
}

std::optional<long long> table_index(const std::string& text)
{
    auto& names = mode_table_names();
    for (size_t i = 0; i < names.size(); i++) {
        if (strcasecmp(names[i], text.c_str()) == 0) {
            return (long long)i;
        }
    }
    return parse_integer(text, INT32_MIN, INT32_MAX);
}

std::string table_index_forms()
{
    std::string out = "a mode table: ";
    auto& names = mode_table_names();
    for (size_t i = 0; i < names.size(); i++) {
        out += std::string(i ? ", " : "") + names[i] + " (" + std::to_string(i) + ")";
    }
    return out + ", or a number from -2147483648 to 2147483647";
}

std::vector<std::string> call_names()
{
    std::vector<std::string> names;
    for (auto& s : operations()) {
        names.push_back(s.name);
    }
    return names;
}

const RecordLayout* call_record(const std::string& name)
{
    const Operation* op = find_operation(name);
    return op && op->record ? &record_layout(*op->record) : nullptr;
}

PreparedCall prepare_call(const std::string& name, const json& args, ArgumentError& error)
{
    error = {};
    const Operation* op = find_operation(name);
    if (op == nullptr) {
        std::string names;
        for (auto& s : operations()) {
            names += std::string(names.empty() ? "" : ", ") + s.name;
        }
        error = {"", "'" + excerpt(name) + "' is not an operation of SENSOR_INTERFACE (" + names + ")"};
        return nullptr;
    }
    Reader reader(args, *op, error);
    Made made = reader.ok() ? op->prepare(reader) : nullptr;
    if (!reader.ok()) {
        return nullptr;
    }
    bool null_context = reader.null("Context");
    return [made, null_context](const SENSOR_INTERFACE& si, bool raw) {
        return made(si, null_context ? nullptr : static_cast<PSENSOR_CONTEXT>(si.InterfaceHeader.Context), raw);
    };
}

}  // namespace korvanel::tool
