// records.cpp - the sensor's published records as named fields.
#include "records.h"

#include "bus_report.h"
#include "parse.h"

#include "bench/text.h"
#include "sensor/sensor_interface.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace korvanel::tool {

using nlohmann::ordered_json;
using Kind = RecordField::Kind;

namespace {

// Offsets and sizes come from the header's own declarations, so a layout
// here cannot drift from the record the driver fills.
#define FIELD(Type, Member, K) \
    RecordField { #Member, offsetof(Type, Member), sizeof(((Type*)nullptr)->Member), K }

const RecordLayout kCaps = {
    "SENSOR_CAPS",
    sizeof(SENSOR_CAPS),
    {FIELD(SENSOR_CAPS, Capabilities, Kind::Hex),
     FIELD(SENSOR_CAPS, Reserved, Kind::Number),
     FIELD(SENSOR_CAPS, ModeFlags, Kind::Hex),
     {"CapsMode", offsetof(SENSOR_CAPS, ModeFlags), 4, Kind::Bits, SENSOR_CAPS_MODE_SHIFT, 3,
      {{SENSOR_CAPS_MODE_RGBIR, "SENSOR_CAPS_MODE_RGBIR"}, {SENSOR_CAPS_MODE_RGB, "SENSOR_CAPS_MODE_RGB"}}},
     FIELD(SENSOR_CAPS, Count, Kind::Number),
     FIELD(SENSOR_CAPS, Mask, Kind::Hex)}};

const RecordLayout kParameters = {"SENSOR_PARAMETERS",
                                  sizeof(SENSOR_PARAMETERS),
                                  {FIELD(SENSOR_PARAMETERS, Values, Kind::Words),
                                   FIELD(SENSOR_PARAMETERS, HdrWord, Kind::Number),
                                   FIELD(SENSOR_PARAMETERS, Reserved84, Kind::Number),
                                   FIELD(SENSOR_PARAMETERS, PdafType, Kind::Number),
                                   FIELD(SENSOR_PARAMETERS, Reserved, Kind::Words)}};

const RecordLayout kModeInfo = {
    "SENSOR_MODE_INFO",
    sizeof(SENSOR_MODE_INFO),
    {FIELD(SENSOR_MODE_INFO, Signature, Kind::Hex),  FIELD(SENSOR_MODE_INFO, Width, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Height, Kind::Number),  FIELD(SENSOR_MODE_INFO, Zero8, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Height10, Kind::Number), FIELD(SENSOR_MODE_INFO, One12, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Four14, Kind::Number),  FIELD(SENSOR_MODE_INFO, Zero16, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Width20, Kind::Number), FIELD(SENSOR_MODE_INFO, Height22, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Width24, Kind::Number), FIELD(SENSOR_MODE_INFO, Height26, Kind::Number),
     FIELD(SENSOR_MODE_INFO, One28, Kind::Number),   FIELD(SENSOR_MODE_INFO, One29, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Width30, Kind::Number), FIELD(SENSOR_MODE_INFO, Height32, Kind::Number),
     FIELD(SENSOR_MODE_INFO, Zero34, Kind::Number),  FIELD(SENSOR_MODE_INFO, Untouched, Kind::Bytes)}};

const RecordLayout kModuleInfo = {"SENSOR_MODULE_INFO",
                                  sizeof(SENSOR_MODULE_INFO),
                                  {FIELD(SENSOR_MODULE_INFO, SensorGuid, Kind::Guid),
                                   FIELD(SENSOR_MODULE_INFO, VariantCode, Kind::Number),
                                   FIELD(SENSOR_MODULE_INFO, MipiFormat, Kind::Number),
                                   FIELD(SENSOR_MODULE_INFO, DriverName, Kind::Text),
                                   FIELD(SENSOR_MODULE_INFO, SensorName, Kind::Text),
                                   FIELD(SENSOR_MODULE_INFO, ModuleName, Kind::Text),
                                   FIELD(SENSOR_MODULE_INFO, BaseSensorName, Kind::Text),
                                   FIELD(SENSOR_MODULE_INFO, ModuleRevision, Kind::Text),
                                   FIELD(SENSOR_MODULE_INFO, VendorName, Kind::Text)}};

const RecordLayout kPdafInfo = {
    "PDAF_INFO",
    sizeof(PDAF_INFO),
    {FIELD(PDAF_INFO, Byte0, Kind::Number),      FIELD(PDAF_INFO, Untouched, Kind::Bytes),
     FIELD(PDAF_INFO, InterleaveMode, Kind::Number), FIELD(PDAF_INFO, FormatFlagA, Kind::Number),
     FIELD(PDAF_INFO, Width, Kind::Number),      FIELD(PDAF_INFO, Height, Kind::Number),
     FIELD(PDAF_INFO, PdafWidth, Kind::Number),  FIELD(PDAF_INFO, PdafHeight, Kind::Number),
     FIELD(PDAF_INFO, Word28, Kind::Number),     FIELD(PDAF_INFO, FormatFlagB, Kind::Number),
     FIELD(PDAF_INFO, Word36, Kind::Number)}};

const RecordLayout kModeEntry = {
    "MODE_ENTRY",
    sizeof(MODE_ENTRY),
    {FIELD(MODE_ENTRY, Width, Kind::Number), FIELD(MODE_ENTRY, Height, Kind::Number),
     FIELD(MODE_ENTRY, Fixed0, Kind::Number), FIELD(MODE_ENTRY, Fixed1, Kind::Number),
     FIELD(MODE_ENTRY, FrameRate, Kind::Number), FIELD(MODE_ENTRY, Word5, Kind::Number),
     FIELD(MODE_ENTRY, Reserved6, Kind::Number), FIELD(MODE_ENTRY, Word7, Kind::Number)}};

const RecordLayout kPdafMode = {"PDAF_MODE",
                                sizeof(PDAF_MODE),
                                {FIELD(PDAF_MODE, Width, Kind::Number), FIELD(PDAF_MODE, Height, Kind::Number),
                                 FIELD(PDAF_MODE, FrameRate, Kind::Number)}};

const RecordLayout kEntry = {"SENSOR_ENTRY",
                             sizeof(SENSOR_ENTRY),
                             {FIELD(SENSOR_ENTRY, Word0, Kind::Number), FIELD(SENSOR_ENTRY, Word1, Kind::Number),
                              FIELD(SENSOR_ENTRY, Word2, Kind::Number), FIELD(SENSOR_ENTRY, Word3, Kind::Number),
                              FIELD(SENSOR_ENTRY, Word4, Kind::Number)}};

#undef FIELD

uint32_t load(const uint8_t* at, size_t size)
{
    uint32_t v = 0;
    memcpy(&v, at, std::min<size_t>(size, sizeof v));  // little-endian, as the records are
    return v;
}

void store(uint8_t* at, size_t size, uint32_t v) { memcpy(at, &v, std::min<size_t>(size, sizeof v)); }

uint32_t bit_mask(const RecordField& f) { return f.width >= 32 ? ~0u : ((1u << f.width) - 1) << f.shift; }

const char* value_name(const RecordField& f, uint32_t value)
{
    for (auto& [v, name] : f.value_names) {
        if (v == value) {
            return name;
        }
    }
    return nullptr;
}

// A key of a decoded record that a field of the layout stands for.
bool field_key(const RecordLayout& layout, const std::string& key)
{
    for (auto& f : layout.fields) {
        if (key == f.name || (f.kind == Kind::Bits && !f.value_names.empty() && key == std::string(f.name) + "Name")) {
            return true;
        }
    }
    return false;
}

}  // namespace

const RecordField* find_field(const RecordLayout& layout, const std::string& name)
{
    for (auto& f : layout.fields) {
        if (name == f.name) {
            return &f;
        }
    }
    return nullptr;
}

const RecordLayout& record_layout(Record record)
{
    switch (record) {
    case Record::Caps:
        return kCaps;
    case Record::Parameters:
        return kParameters;
    case Record::ModeInfo:
        return kModeInfo;
    case Record::ModuleInfo:
        return kModuleInfo;
    case Record::PdafInfo:
        return kPdafInfo;
    case Record::ModeEntry:
        return kModeEntry;
    case Record::PdafMode:
        return kPdafMode;
    case Record::Entry:
        break;
    }
    return kEntry;
}

ordered_json decode_record(const RecordLayout& layout, const void* data, bool raw)
{
    auto* bytes = static_cast<const uint8_t*>(data);
    ordered_json out = ordered_json::object();
    for (auto& f : layout.fields) {
        const uint8_t* at = bytes + f.offset;
        switch (f.kind) {
        case Kind::Number:
        case Kind::Hex:
            out[f.name] = load(at, f.size);
            break;
        case Kind::Bits: {
            uint32_t value = (load(at, 4) & bit_mask(f)) >> f.shift;
            out[f.name] = value;
            if (!f.value_names.empty()) {
                const char* name = value_name(f, value);
                out[std::string(f.name) + "Name"] = name ? name : "";
            }
            break;
        }
        case Kind::Words: {
            ordered_json words = ordered_json::array();
            for (size_t i = 0; i < f.size; i += 4) {
                words.push_back(load(at + i, 4));
            }
            out[f.name] = words;
            break;
        }
        case Kind::Text:
            out[f.name] = std::string(reinterpret_cast<const char*>(at), strnlen(reinterpret_cast<const char*>(at), f.size));
            break;
        case Kind::Guid: {
            GUID guid;
            memcpy(&guid, at, sizeof guid);
            out[f.name] = bench::guid_text(guid);
            break;
        }
        case Kind::Bytes:
            out[f.name] = hex_bytes(at, f.size);
            break;
        }
    }
    if (raw) {
        out["bytes"] = hex_bytes(bytes, layout.size);
    }
    return out;
}

std::optional<std::string> encode_fields(const RecordLayout& layout, const nlohmann::ordered_json& fields, void* data)
{
    if (!fields.is_object()) {
        return std::string("the fields of ") + layout.name + " are an object of names and values";
    }
    auto* bytes = static_cast<uint8_t*>(data);
    for (auto& [name, value] : fields.items()) {
        const RecordField* f = find_field(layout, name);
        if (f == nullptr) {
            return std::string(layout.name) + " has no field '" + excerpt(name) + "'";
        }
        uint8_t* at = bytes + f->offset;
        std::string bad = "'" + excerpt(name) + "' of " + layout.name + " ";
        switch (f->kind) {
        case Kind::Number:
        case Kind::Hex: {
            auto v = json_integer(value, 0, f->size >= 4 ? 0xFFFFFFFFll : (1ll << (8 * f->size)) - 1);
            if (!v) {
                return bad + "takes a number of " + std::to_string(8 * f->size) + " bits";
            }
            store(at, f->size, uint32_t(*v));
            break;
        }
        case Kind::Bits: {
            auto v = json_integer(value, 0, (1ll << f->width) - 1);
            if (!v) {
                return bad + "takes a number of " + std::to_string(f->width) + " bits";
            }
            store(at, 4, (load(at, 4) & ~bit_mask(*f)) | (uint32_t(*v) << f->shift));
            break;
        }
        case Kind::Words:
            if (!value.is_array() || value.size() > f->size / 4) {
                return bad + "takes a list of at most " + std::to_string(f->size / 4) + " numbers";
            }
            for (size_t i = 0; i < value.size(); i++) {
                auto v = json_integer(value[i], 0, 0xFFFFFFFFll);
                if (!v) {
                    return bad + "takes 32-bit numbers";
                }
                store(at + 4 * i, 4, uint32_t(*v));
            }
            break;
        case Kind::Text: {
            if (!value.is_string() || value.get<std::string>().size() > f->size) {
                return bad + "takes a text of at most " + std::to_string(f->size) + " characters";
            }
            auto text = value.get<std::string>();
            memcpy(at, text.data(), text.size());
            if (text.size() < f->size) {
                at[text.size()] = 0;
            }
            break;
        }
        case Kind::Bytes: {
            auto v = value.is_string() ? parse_hex_bytes(value.get<std::string>()) : std::nullopt;
            if (!v || v->size() != f->size) {
                return bad + "takes " + std::to_string(f->size) + " hex bytes";
            }
            memcpy(at, v->data(), v->size());
            break;
        }
        case Kind::Guid:
            return bad + "is not set by the caller";
        }
    }
    return std::nullopt;
}

std::string field_text(const RecordField* f, const ordered_json& value)
{
    if (value.is_string()) {
        return f != nullptr && f->kind == Kind::Text ? "\"" + value.get<std::string>() + "\"" : value.get<std::string>();
    }
    if (value.is_array()) {
        bool same = value.size() > 4 && std::all_of(value.begin(), value.end(), [&](auto& v) { return v == value[0]; });
        if (same) {
            return "all " + value[0].dump() + " (" + std::to_string(value.size()) + " words)";
        }
        std::string out;
        for (auto& v : value) {
            out += (out.empty() ? "" : " ") + v.dump();
        }
        return out;
    }
    if (f != nullptr && f->kind == Kind::Hex && value.is_number_unsigned()) {
        char text[16];
        snprintf(text, sizeof text, "0x%08X", value.get<uint32_t>());
        return text;
    }
    if (f != nullptr && f->kind == Kind::Bits && value.is_number_unsigned()) {
        const char* name = value_name(*f, value.get<uint32_t>());
        return value.dump() + (name ? std::string(" (") + name + ")" : "");
    }
    return value.dump();
}

std::vector<std::string> record_lines(const RecordLayout& layout, const std::vector<ordered_json>& records,
                                      const std::vector<std::string>& headers)
{
    std::vector<std::pair<std::string, const RecordField*>> rows;
    if (!records.empty()) {
        for (auto& [key, value] : records[0].items()) {
            if (key != "bytes" && !field_key(layout, key)) {
                rows.emplace_back(key, nullptr);
            }
        }
    }
    for (auto& f : layout.fields) {
        rows.emplace_back(f.name, &f);
    }
    // Columns as wide as their widest cell.
    std::vector<std::vector<std::string>> cells;
    if (!headers.empty()) {
        cells.push_back({""});
        cells.back().insert(cells.back().end(), headers.begin(), headers.end());
    }
    for (auto& [key, field] : rows) {
        std::vector<std::string> line = {key};
        for (auto& r : records) {
            line.push_back(r.contains(key) ? field_text(field, r[key]) : "");
        }
        cells.push_back(std::move(line));
    }
    std::vector<size_t> width;
    for (auto& line : cells) {
        width.resize(std::max(width.size(), line.size()));
        for (size_t c = 0; c < line.size(); c++) {
            width[c] = std::max(width[c], line[c].size());
        }
    }
    std::vector<std::string> out;
    for (auto& line : cells) {
        std::string text = " ";
        for (size_t c = 0; c < line.size(); c++) {
            text += " " + line[c];
            if (c + 1 < line.size()) {
                text += std::string(width[c] - line[c].size() + 1, ' ');
            }
        }
        out.push_back(text);
    }
    for (size_t r = 0; r < records.size(); r++) {
        auto bytes = records[r].contains("bytes") ? parse_hex_bytes(records[r]["bytes"].get<std::string>())
                                                  : std::nullopt;
        if (bytes && r < headers.size()) {
            out.push_back("  " + headers[r] + ":");
        }
        for (auto& line : bytes ? hex_dump(*bytes) : std::vector<std::string>{}) {
            out.push_back("    " + line);
        }
    }
    return out;
}

}  // namespace korvanel::tool
