// records.h - the records the camera driver reads from the sensor, decoded to
// their named fields once: korvanel-sim's report, its JSON and scenario
// expectations all use the same decoding.
//
//   auto& layout = record_layout(Record::ModeInfo);
//   ordered_json fields = decode_record(layout, &info, /*raw=*/false);
//   fields["Width"]                       // 1920
//   for (auto& line : record_lines(layout, {fields})) puts(line.c_str());
//
// Field names are the header's member names (sensor/sensor_interface.h).
// Where the record defines a flag inside a word, the flag is a field of its
// own after the word, with the names of its values (SENSOR_CAPS: CapsMode).
#pragma once

#include "wdk/wdm.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

enum class Record { Caps, Parameters, ModeInfo, ModuleInfo, PdafInfo, ModeEntry, PdafMode, Entry };

struct RecordField {
    enum class Kind {
        Number,  // unsigned little-endian, 1, 2 or 4 bytes; shown in decimal
        Hex,     // the same, shown as 0x%08X
        Words,   // an array of 32-bit words
        Text,    // 8-bit characters, NUL-terminated within the field
        Guid,
        Bytes,   // bytes the record does not interpret, as hex
        Bits,    // bits [shift, shift + width) of the 32-bit word at offset
    };
    const char* name;
    size_t offset;
    size_t size;  // bytes
    Kind kind;
    unsigned shift = 0;
    unsigned width = 0;
    // Bits: the names of the values the record defines, as {value, name}.
    std::vector<std::pair<uint32_t, const char*>> value_names = {};
};

struct RecordLayout {
    const char* name;  // "SENSOR_MODE_INFO"
    size_t size;
    std::vector<RecordField> fields;
};

const RecordLayout& record_layout(Record record);
const RecordField* find_field(const RecordLayout& layout, const std::string& name);  // null when none

// The named fields in layout order; with `raw`, "bytes" holds the whole
// record in hex. A Bits field with value names is followed by NAME + "Name".
nlohmann::ordered_json decode_record(const RecordLayout& layout, const void* data, bool raw = false);

// Sets the named fields of `data` from `fields` (numbers, 0x-hex texts,
// texts for text fields, hex byte texts for byte fields). An error naming
// the field, or nothing.
std::optional<std::string> encode_fields(const RecordLayout& layout, const nlohmann::ordered_json& fields, void* data);

// One decoded record, or several side by side under `headers`: one line per
// field, "  Name  value  value ...". Keys of a decoded record that are not
// fields of the layout (a status, say) come first, in the first record's
// order. The "bytes" of a record follow as a hex dump.
std::vector<std::string> record_lines(const RecordLayout& layout, const std::vector<nlohmann::ordered_json>& records,
                                      const std::vector<std::string>& headers = {});

// How one decoded value reads in text: texts quoted, numbers of Hex fields in
// hex, word arrays as a list ("all 0 (29 words)" when every word is the same).
std::string field_text(const RecordField* field, const nlohmann::ordered_json& value);

}  // namespace korvanel::tool
