// scenario_fields.h - reading one field of a scenario file: checks of its
// type and range that stop the reading with the field's JSON pointer and what
// is wrong, shared by the readers of the document, its devices and its steps.
#pragma once

#include "bus_report.h"
#include "files/files.h"
#include "parse.h"
#include "scenario_json.h"

#include "bench/spb_controller.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

namespace korvanel::tool {

// The first problem in a file: where (a JSON pointer) and what.
struct FieldError {
    std::string path;
    std::string message;
};

class FieldReader {
public:
    // Files the scenario names are found in `base_dir`.
    explicit FieldReader(const std::string& base_dir) : base_dir_(base_dir) {}

protected:
    using json = nlohmann::ordered_json;

    std::string base_dir_;

    [[noreturn]] static void fail(const std::string& path, const std::string& message)
    {
        throw FieldError{path, message};
    }
    static std::string json_text(const json& v) { return v.is_string() ? v.get<std::string>() : v.dump(); }
    // A value quoted in a message: as JSON, and bounded.
    static std::string shown(const json& v) { return excerpt(json_dump(v)); }

    static void only(const json& object, const std::string& path, std::initializer_list<const char*> keys)
    {
        for (auto& item : object.items()) {
            const std::string& key = item.key();
            if (std::none_of(keys.begin(), keys.end(), [&](const char* k) { return key == k; })) {
                std::string known;
                for (auto* k : keys) {
                    known += std::string(known.empty() ? "" : ", ") + k;
                }
                fail(path + "/" + pointer_token(key), "unknown field '" + excerpt(key) + "' (known here: " + known + ")");
            }
        }
    }
    // A key the file format once spelled otherwise: refused with the spelling
    // it has now, so that an old file fails loudly instead of being misread.
    static void renamed(const json& object, const std::string& path,
                        std::initializer_list<std::pair<const char*, const char*>> keys)
    {
        for (auto [old, now] : keys) {
            if (object.contains(old)) {
                fail(path + "/" + old, std::string("'") + old + "' is now spelled '" + now + "', as the --" + now +
                                           " options are");
            }
        }
    }
    // An empty text names nothing and is refused where a name, a file or a
    // word is wanted; descriptions, notes and registry texts may be empty.
    static std::string text(const json& v, const std::string& path, bool empty_allowed = false)
    {
        if (!v.is_string()) {
            fail(path, "takes a text");
        }
        if (!empty_allowed && v.get<std::string>().empty()) {
            fail(path, "takes a text, not an empty one");
        }
        return v.get<std::string>();
    }
    static long long integer(const json& v, const std::string& path, long long low, long long high)
    {
        auto n = json_integer(v, low, high);
        if (!n) {
            fail(path, "takes a number from " + std::to_string(low) + " to " + std::to_string(high) + ", not " +
                           shown(v));
        }
        return *n;
    }
    static NTSTATUS status(const json& v, const std::string& path)
    {
        auto s = v.is_string() ? parse_status(v.get<std::string>()) : std::nullopt;
        if (!s) {
            fail(path, "takes a status name (STATUS_SUCCESS, STATUS_NO_SUCH_DEVICE, ...) or a 0x number, not " +
                           shown(v));
        }
        return *s;
    }
    static bench::BusSpeed bus_speed(const json& v, const std::string& path)
    {
        std::string t = v.is_string() ? v.get<std::string>() : "";
        if (t == "instant") {
            return bench::BusSpeed::Instant;
        }
        auto s = parse_bus_speed(t);
        if (!s) {
            fail(path, "takes 100k, 400k, 1m or instant, not " + shown(v));
        }
        return *s;
    }
    // A file the scenario names, found beside it unless the path is absolute.
    std::string beside(const std::string& name) const { return files::beside(base_dir_, name); }
    // `what` and `limit` as files::read_input() takes them.
    std::vector<uint8_t> file(const json& v, const std::string& path, const std::string& what, size_t limit) const
    {
        std::string error;
        auto data = files::read_input(beside(text(v, path)), what, limit, false, error);
        if (!data) {
            fail(path, "cannot read " + error);
        }
        return *data;
    }

    static std::vector<uint8_t> hex(const json& v, const std::string& path)
    {
        auto bytes = v.is_string() ? parse_hex_bytes(v.get<std::string>()) : std::nullopt;
        if (!bytes) {
            fail(path, "takes hex bytes (\"01 02 FF\"), not " + shown(v));
        }
        return *bytes;
    }

};

}  // namespace korvanel::tool
