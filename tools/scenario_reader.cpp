// scenario_reader.cpp - reading a scenario file: JSON with comments, every
// field checked before anything runs, each problem reported with its line.
#include "scenario_reader.h"

#include "bus_report.h"
#include "parse.h"
#include "scenario_json.h"

#include "host/system.h"
#include "nvm/nvm.h"
#include "sim/actuator.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <sstream>

namespace korvanel::tool {

using json = nlohmann::ordered_json;

namespace {

// ---- Reading ------------------------------------------------------------------------

struct ScenarioError {
    std::string path;  // JSON pointer of the field
    std::string message;
};

[[noreturn]] void fail(const std::string& path, const std::string& message) { throw ScenarioError{path, message}; }

std::string json_text(const json& v) { return v.is_string() ? v.get<std::string>() : v.dump(); }

// Reads the document into a Scenario; the first problem throws with the
// field's path.
class ScenarioReader {
public:
    ScenarioReader(const std::string& base_dir) : base_dir_(base_dir) {}

    Scenario read(const json& doc)
    {
        Scenario s;
        if (!doc.is_object()) {
            fail("", "a scenario is an object with \"device\" and \"steps\"");
        }
        only(doc, "", {"description", "bus_speed", "trace", "device", "devices", "steps"});
        if (doc.contains("description")) {
            s.description = text(doc["description"], "/description");
        }
        if (doc.contains("bus_speed")) {
            s.speed = bus_speed(doc["bus_speed"], "/bus_speed");
        }
        if (doc.contains("trace")) {
            if (!doc["trace"].is_boolean()) {
                fail("/trace", "\"trace\" is true or false");
            }
            s.trace = doc["trace"].get<bool>();
        }
        if (doc.contains("device") == doc.contains("devices")) {
            fail(doc.contains("device") ? "/devices" : "", "give either \"device\" or \"devices\", one of them");
        }
        if (doc.contains("device")) {
            s.devices.push_back(device(doc["device"], "/device", "device"));
        } else {
            const json& list = doc["devices"];
            if (!list.is_array() || list.empty()) {
                fail("/devices", "\"devices\" is a list of devices");
            }
            for (size_t i = 0; i < list.size(); i++) {
                std::string path = "/devices/" + std::to_string(i);
                if (!list[i].is_object() || !list[i].contains("name")) {
                    fail(path, "each of several devices has a \"name\" the steps use");
                }
                s.devices.push_back(device(list[i], path, ""));
                for (size_t j = 0; j < i; j++) {
                    if (s.devices[j].name == s.devices[i].name) {
                        fail(path + "/name", "two devices are called '" + s.devices[i].name + "'");
                    }
                }
            }
        }
        // One part a connection: a second one attached there would replace the first.
        std::map<uint64_t, std::string> used;
        for (size_t i = 0; i < s.devices.size(); i++) {
            auto& d = s.devices[i];
            std::string path = doc.contains("device") ? "/device" : "/devices/" + std::to_string(i);
            std::vector<std::pair<uint64_t, std::string>> ids;
            if (d.actuator) {
                ids.emplace_back(d.actuator->connection, path + "/actuator/connection");
            }
            for (size_t b = 0; d.memory && b < d.memory_connections; b++) {
                ids.emplace_back(d.memory->first_connection + b, path + "/memory/connection");
            }
            for (auto& [id, where] : ids) {
                if (!used.emplace(id, d.name).second) {
                    fail(where, "connection " + connection_text(id) + " already has a part (of device '" + used[id] +
                                    "'); a memory of " + std::to_string(d.memory_connections) +
                                    " blocks takes that many connections from its first");
                }
            }
        }
        if (!doc.contains("steps") || !doc["steps"].is_array()) {
            fail(doc.contains("steps") ? "/steps" : "", "\"steps\" is the list of steps");
        }
        devices_ = &s.devices;
        for (size_t i = 0; i < doc["steps"].size(); i++) {
            s.steps.push_back(step(doc["steps"][i], i));
            if (s.steps.back().expect.count > 0 && s.steps.back().expect.trace.size() > 0) {
                s.trace = true;
            }
        }
        return s;
    }

private:
    std::string base_dir_;
    const std::vector<DeviceSetup>* devices_ = nullptr;

    static void only(const json& object, const std::string& path, std::initializer_list<const char*> keys)
    {
        for (auto& item : object.items()) {
            const std::string& key = item.key();
            if (std::none_of(keys.begin(), keys.end(), [&](const char* k) { return key == k; })) {
                std::string known;
                for (auto* k : keys) {
                    known += std::string(known.empty() ? "" : ", ") + k;
                }
                fail(path + "/" + pointer_token(key), "unknown field '" + key + "' (known here: " + known + ")");
            }
        }
    }
    static std::string text(const json& v, const std::string& path)
    {
        if (!v.is_string()) {
            fail(path, "takes a text");
        }
        return v.get<std::string>();
    }
    static long long integer(const json& v, const std::string& path, long long low, long long high)
    {
        auto n = json_integer(v, low, high);
        if (!n) {
            fail(path, "takes a number from " + std::to_string(low) + " to " + std::to_string(high) + ", not " +
                           v.dump());
        }
        return *n;
    }
    static NTSTATUS status(const json& v, const std::string& path)
    {
        auto s = v.is_string() ? parse_status(v.get<std::string>()) : std::nullopt;
        if (!s) {
            fail(path, "takes a status name (STATUS_SUCCESS, STATUS_NO_SUCH_DEVICE, ...) or a 0x number, not " +
                           v.dump());
        }
        return *s;
    }
    static host::BusSpeed bus_speed(const json& v, const std::string& path)
    {
        std::string t = v.is_string() ? v.get<std::string>() : "";
        if (t == "instant") {
            return host::BusSpeed::Instant;
        }
        auto s = parse_bus_speed(t);
        if (!s) {
            fail(path, "takes 100k, 400k, 1m or instant, not " + v.dump());
        }
        return *s;
    }
    // A file the scenario names, found beside it unless the path is absolute.
    std::string beside(const std::string& name) const
    {
        return name.empty() || name[0] == '/' || base_dir_.empty() ? name : base_dir_ + "/" + name;
    }
    std::vector<uint8_t> file(const json& v, const std::string& path) const
    {
        std::string full = beside(text(v, path));
        auto data = read_binary_file(full);
        if (!data) {
            fail(path, "cannot read " + full);
        }
        return *data;
    }

    RegistryValue registry_value(const std::string& name, const json& v, const std::string& path) const
    {
        RegistryValue r{name};
        auto utf16 = [](const std::string& s) {
            std::u16string w = host::to_utf16(s);
            std::vector<uint8_t> out((w.size() + 1) * 2, 0);
            memcpy(out.data(), w.data(), w.size() * 2);
            return out;
        };
        auto number = [&](const json& n, const std::string& p, int bytes) {
            auto value = uint64_t(integer(n, p, 0, bytes == 4 ? 0xFFFFFFFFll : INT64_MAX));
            std::vector<uint8_t> out(bytes);
            memcpy(out.data(), &value, bytes);
            return out;
        };
        if (v.is_null()) {
            r.remove = true;
        } else if (v.is_number() || (v.is_string() && parse_integer(v.get<std::string>(), 0, 0xFFFFFFFFll))) {
            r.type = REG_DWORD;
            r.data = number(v, path, 4);
        } else if (v.is_string()) {
            r.type = REG_SZ;
            r.data = utf16(v.get<std::string>());
        } else if (v.is_object() && v.size() == 1) {
            const std::string form = v.begin().key();
            const json& value = v.begin().value();
            std::string p = path + "/" + pointer_token(form);
            if (form == "dword" || form == "qword") {
                r.type = form == "dword" ? REG_DWORD : REG_QWORD;
                r.data = number(value, p, form == "dword" ? 4 : 8);
            } else if (form == "sz" || form == "expand_sz") {
                r.type = form == "sz" ? REG_SZ : REG_EXPAND_SZ;
                r.data = utf16(text(value, p));
            } else if (form == "multi_sz") {
                r.type = REG_MULTI_SZ;
                if (!value.is_array()) {
                    fail(p, "takes a list of texts");
                }
                for (size_t i = 0; i < value.size(); i++) {
                    auto part = utf16(text(value[i], p + "/" + std::to_string(i)));
                    r.data.insert(r.data.end(), part.begin(), part.end());
                }
                r.data.insert(r.data.end(), {0, 0});
            } else if (form == "binary") {
                r.type = REG_BINARY;
                r.data = hex(value, p);
            } else {
                fail(p, "a registry value is a number (REG_DWORD), a text (REG_SZ), null (absent), or one of "
                        "{\"dword\"}, {\"qword\"}, {\"sz\"}, {\"expand_sz\"}, {\"multi_sz\"}, {\"binary\"}, "
                        "{\"type\", \"data\"}");
            }
        } else if (v.is_object() && v.size() == 2 && v.contains("type") && v.contains("data")) {
            r.type = uint32_t(integer(v["type"], path + "/type", 0, 0xFFFFFFFFll));
            r.data = v["data"].is_string() && v["data"].get<std::string>().empty()
                         ? std::vector<uint8_t>{}
                         : hex(v["data"], path + "/data");
        } else {
            fail(path, "a registry value is a number, a text, null, or an object naming its type");
        }
        return r;
    }

    static std::vector<uint8_t> hex(const json& v, const std::string& path)
    {
        auto bytes = v.is_string() ? parse_hex_bytes(v.get<std::string>()) : std::nullopt;
        if (!bytes) {
            fail(path, "takes hex bytes (\"01 02 FF\"), not " + v.dump());
        }
        return *bytes;
    }

    DeviceSetup device(const json& d, const std::string& path, const std::string& default_name) const
    {
        if (!d.is_object()) {
            fail(path, "a device is an object");
        }
        only(d, path, {"name", "hwid", "registry", "actuator", "memory"});
        DeviceSetup setup;
        setup.name = d.contains("name") ? text(d["name"], path + "/name") : default_name;
        if (d.contains("hwid")) {
            setup.hwid = text(d["hwid"], path + "/hwid");
        }
        if (d.contains("registry")) {
            const json& reg = d["registry"];
            if (!reg.is_object()) {
                fail(path + "/registry", "\"registry\" holds values by name");
            }
            for (auto& [name, value] : reg.items()) {
                setup.registry.push_back(registry_value(name, value, path + "/registry/" + pointer_token(name)));
            }
        }
        if (d.contains("actuator")) {
            const json& a = d["actuator"];
            std::string p = path + "/actuator";
            if (!a.is_object() || !a.contains("chip")) {
                fail(p, "an actuator names its \"chip\"");
            }
            only(a, p, {"chip", "connection", "low", "high", "module", "plot"});
            platform::ActuatorSelection options;
            options.chip = json_text(a["chip"]);
            if (sim::find_actuator_chip(options.chip) == nullptr) {
                fail(p + "/chip", "unknown actuator chip " + a["chip"].dump() + " (" + actuator_chip_names() + ")");
            }
            if (a.contains("connection")) {
                options.connection = uint64_t(integer(a["connection"], p + "/connection", 0, INT64_MAX));
            }
            if (a.contains("low")) {
                options.low = unsigned(integer(a["low"], p + "/low", 0, 65535));
            }
            if (a.contains("high")) {
                options.high = unsigned(integer(a["high"], p + "/high", 0, 65535));
            }
            if (a.contains("module")) {
                options.module = text(a["module"], p + "/module");
            }
            if (a.contains("plot")) {
                setup.plot = text(a["plot"], p + "/plot");
            }
            setup.actuator = options;
        }
        if (d.contains("memory")) {
            const json& m = d["memory"];
            std::string p = path + "/memory";
            if (!m.is_object() || !m.contains("type")) {
                fail(p, "a memory names its NVM \"type\"");
            }
            only(m, p, {"type", "connection", "contents", "cache_length", "save"});
            unsigned type = unsigned(integer(m["type"], p + "/type", 0, NVM_TYPE_COUNT - 1));
            auto geometry = platform::memory_geometry(type);
            if (!geometry) {
                fail(p + "/type", "NVM type " + std::to_string(type) + " has no memory (types 5 to 12 have one)");
            }
            setup.memory_size = geometry->size;
            setup.memory_connections = geometry->connections;
            platform::MemorySelection selection{type, 0x50, uint32_t(std::min<size_t>(geometry->size, NVM_CACHE_SIZE))};
            if (m.contains("connection")) {
                selection.first_connection = uint64_t(integer(m["connection"], p + "/connection", 0, INT64_MAX));
            }
            if (m.contains("cache_length")) {
                selection.cache_length = uint32_t(integer(m["cache_length"], p + "/cache_length", 0, 0xFFFFFFFFll));
            }
            if (m.contains("contents")) {
                setup.contents = file(m["contents"], p + "/contents");
                if (setup.contents.size() > setup.memory_size) {
                    fail(p + "/contents", "the file holds " + std::to_string(setup.contents.size()) +
                                              " bytes, more than the memory's " + std::to_string(setup.memory_size));
                }
            }
            if (m.contains("save")) {
                setup.save = text(m["save"], p + "/save");
            }
            setup.memory = selection;
        }
        return setup;
    }

    // The step keys: each names what the step does. A part's step takes the
    // part's own name, as the device does, or its older short name.
    enum class Kind { Call, Actuator, Memory, Advance, BusSpeed, Fault, Pnp, Interface };
    static constexpr std::pair<const char*, Kind> step_keys[] = {
        {"call", Kind::Call},           {"actuator", Kind::Actuator},   {"vcm", Kind::Actuator},
        {"memory", Kind::Memory},       {"nvm", Kind::Memory},          {"advance_ms", Kind::Advance},
        {"bus_speed", Kind::BusSpeed},  {"fault", Kind::Fault},         {"fail_routine", Kind::Fault},
        {"pnp", Kind::Pnp},             {"interface", Kind::Interface},
    };

    Step step(const json& s, size_t index) const
    {
        std::string path = "/steps/" + std::to_string(index);
        if (!s.is_object()) {
            fail(path, "a step is an object");
        }
        Step step{index, 0};
        const char* kind_key = nullptr;
        Kind kind{};
        for (auto& [key, k] : step_keys) {
            if (s.contains(key)) {
                if (kind_key != nullptr) {
                    fail(path + "/" + key, std::string("a step does one thing: '") + kind_key + "' and '" + key +
                                               "' are two");
                }
                kind_key = key;
                kind = k;
            }
        }
        if (kind_key == nullptr && !s.contains("expect")) {
            fail(path, "a step does one of call, vcm, nvm, advance_ms, bus_speed, fault, fail_routine, pnp, "
                       "interface, or only checks its \"expect\"");
        }
        if (s.contains("note")) {
            step.note = text(s["note"], path + "/note");
        }
        if (s.contains("device")) {
            std::string name = text(s["device"], path + "/device");
            auto it = std::find_if(devices_->begin(), devices_->end(), [&](auto& d) { return d.name == name; });
            if (it == devices_->end()) {
                fail(path + "/device", "no device is called '" + name + "'");
            }
            step.device = size_t(it - devices_->begin());
            step.device_given = true;
        }
        const DeviceSetup& device = (*devices_)[step.device];
        if (kind_key == nullptr) {
            only(s, path, {"device", "expect", "note"});
        } else {
            step.action = action(kind, s, path, kind_key, device);
        }
        if (s.contains("expect")) {
            step.expect = expect(s["expect"], path + "/expect", device);
        }
        return step;
    }

    Action action(Kind kind, const json& s, const std::string& path, const std::string& key,
                  const DeviceSetup& device) const
    {
        std::string kp = path + "/" + key;
        if (kind != Kind::Call && kind != Kind::Fault) {
            only(s, path, {key.c_str(), "device", "expect", "note"});
        }
        switch (kind) {
        case Kind::Call: {
            CallAction call{text(s[key], kp), s};
            for (auto* own : {"call", "device", "expect", "note"}) {
                call.args.erase(own);
            }
            ArgumentError error;
            call.call = prepare_call(call.name, call.args, error);
            if (!call.call) {
                fail(error.field.empty() ? kp : path + "/" + error.field, error.message);
            }
            call.record = call_record(call.name);
            return call;
        }
        case Kind::Actuator: {
            if (!device.actuator) {
                fail(kp, "device '" + device.name + "' has no \"actuator\"");
            }
            std::string error;
            auto op = parse_actuator_op(text(s[key], kp), error);
            if (!op) {
                fail(kp, error);
            }
            return ActuatorAction{*op};
        }
        case Kind::Memory: {
            if (!device.memory) {
                fail(kp, "device '" + device.name + "' has no \"memory\"");
            }
            std::string written = text(s[key], kp);
            auto fields = split(written, ':');
            std::string resolved = written;
            if (fields.size() == 3 && fields[0] == "writefile") {
                resolved = fields[0] + ":" + fields[1] + ":" + beside(fields[2]);
            }
            std::vector<MemoryOp> ops;
            if (auto error = parse_memory_ops(resolved, device.memory_size, ops)) {
                fail(kp, *error);
            }
            if (ops.size() != 1) {
                fail(kp, "one memory operation a step: load, read:ADDR:LEN, write:ADDR:HEXBYTES or "
                         "writefile:ADDR:FILE");
            }
            return MemoryAction{ops[0], written};
        }
        case Kind::Advance: {
            if (!s[key].is_number() || s[key].get<double>() < 0 || s[key].get<double>() > 86400000.0) {
                fail(kp, "takes milliseconds, a number from 0 to 86400000");
            }
            return AdvanceAction{int64_t(std::llround(s[key].get<double>() * 10000.0)), json_text(s[key])};
        }
        case Kind::BusSpeed:
            return BusSpeedAction{bus_speed(s[key], kp), json_text(s[key])};
        case Kind::Fault:
            return fault(s, path, key);
        case Kind::Pnp: {
            std::string word = text(s[key], kp);
            if (word != "query_remove" && word != "query_stop") {
                fail(kp, "takes query_remove or query_stop");
            }
            return word == "query_remove" ? PnpAction::QueryRemove : PnpAction::QueryStop;
        }
        case Kind::Interface: {
            std::string word = text(s[key], kp);
            if (word != "take" && word != "release") {
                fail(kp, "takes take or release");
            }
            return word == "take" ? InterfaceAction::Take : InterfaceAction::Release;
        }
        }
        return CheckAction{};
    }

    FaultAction fault(const json& s, const std::string& path, const std::string& key) const
    {
        FaultAction f{FaultAction::What::Bus};
        for (auto* arg : {"transfer", "match", "status", "skip", "times"}) {
            if (s.contains(arg)) {
                f.shown[arg] = s[arg];
            }
        }
        std::string kp = path + "/" + key;
        std::string what = text(s[key], kp);
        if (key == "fail_routine") {
            only(s, path, {"fail_routine", "status", "skip", "times", "device", "expect", "note"});
            f.what = FaultAction::What::Routine;
            f.routine = what;
            if (!s.contains("status")) {
                fail(kp, "a routine fails with a \"status\"");
            }
            f.status = status(s["status"], path + "/status");
        } else {
            only(s, path, {"fault", "transfer", "match", "status", "skip", "times", "device", "expect", "note"});
            bool with_status = what == "fail" || what == "complete";
            if (what == "clear") {
                f.what = FaultAction::What::Clear;
                only(s, path, {"fault", "device", "expect", "note"});
                return f;
            }
            if (what != "nack" && what != "timeout" && !with_status) {
                fail(kp, "takes nack, timeout, fail, complete or clear");
            }
            if (with_status != s.contains("status")) {
                fail(with_status ? kp : path + "/status",
                     with_status ? "'" + what + "' needs the \"status\" the request completes with"
                                 : "'" + what + "' takes no status");
            }
            NTSTATUS st = with_status ? status(s["status"], path + "/status") : STATUS_SUCCESS;
            f.fault = what == "nack"      ? host::BusFault::nack()
                      : what == "timeout" ? host::BusFault::timeout()
                      : what == "fail"    ? host::BusFault::fail(st)
                                          : host::BusFault::complete_with(st);
            if (s.contains("transfer") && s.contains("match")) {
                fail(path + "/match", "a fault takes \"transfer\" or \"match\", not both");
            }
            if (s.contains("transfer")) {
                f.transfer = uint64_t(integer(s["transfer"], path + "/transfer", 1, INT32_MAX));
                if (s.contains("skip") || s.contains("times")) {
                    fail(path + "/transfer", "\"skip\" and \"times\" go with \"match\"");
                }
            }
            if (s.contains("match")) {
                const json& m = s["match"];
                std::string mp = path + "/match";
                if (!m.is_object()) {
                    fail(mp, "\"match\" holds connection, direction and prefix");
                }
                only(m, mp, {"connection", "direction", "prefix"});
                if (m.contains("connection")) {
                    f.match.connection = uint64_t(integer(m["connection"], mp + "/connection", 0, INT64_MAX));
                }
                if (m.contains("direction")) {
                    std::string d = text(m["direction"], mp + "/direction");
                    if (d != "write" && d != "read") {
                        fail(mp + "/direction", "takes write or read");
                    }
                    f.match.direction = d == "write" ? host::Direction::Write : host::Direction::Read;
                }
                if (m.contains("prefix")) {
                    f.match.prefix = hex(m["prefix"], mp + "/prefix");
                }
            }
        }
        if (s.contains("skip")) {
            f.skip = unsigned(integer(s["skip"], path + "/skip", 0, INT32_MAX));
        }
        if (s.contains("times")) {
            f.times = unsigned(integer(s["times"], path + "/times", 0, INT32_MAX));
        }
        return f;
    }

    Expect expect(const json& e, const std::string& path, const DeviceSetup& device) const
    {
        if (!e.is_object()) {
            fail(path, "\"expect\" holds what the step expects, by name");
        }
        only(e, path, {"status", "values", "bus", "transfers", "memory", "lens", "power", "clock_ms", "trace"});
        Expect x;
        x.count = e.size();
        if (e.contains("status")) {
            x.status = status(e["status"], path + "/status");
        }
        if (e.contains("values")) {
            if (!e["values"].is_object()) {
                fail(path + "/values", "\"values\" holds returned values by name");
            }
            x.values = e["values"];
        }
        if (e.contains("bus")) {
            const json& b = e["bus"];
            if (!b.is_array()) {
                fail(path + "/bus", "\"bus\" lists the step's transfers, as \"W 04 01 2C\" or \"R F1\"");
            }
            x.bus.emplace();
            for (size_t i = 0; i < b.size(); i++) {
                std::string p = path + "/bus/" + std::to_string(i);
                auto wire = normal_wire(text(b[i], p));
                if (!wire) {
                    fail(p, "a transfer reads [CONNECTION] W|R [hex bytes] [STATUS], as \"W 04 01 2C\", \"0x51 R "
                            "FF\" or \"W 00 10 STATUS_NO_SUCH_DEVICE\"; not " + b[i].dump());
                }
                x.bus->push_back(*wire);
            }
        }
        if (e.contains("transfers")) {
            x.transfers = integer(e["transfers"], path + "/transfers", 0, INT32_MAX);
        }
        if (e.contains("memory")) {
            if (!device.memory) {
                fail(path + "/memory", "device '" + device.name + "' has no \"memory\"");
            }
            const json& m = e["memory"];
            std::vector<std::pair<json, std::string>> items;
            if (m.is_array()) {
                for (size_t i = 0; i < m.size(); i++) {
                    items.emplace_back(m[i], path + "/memory/" + std::to_string(i));
                }
            } else {
                items.emplace_back(m, path + "/memory");
            }
            for (auto& [item, p] : items) {
                if (!item.is_object() || !item.contains("address") || item.contains("data") == item.contains("file")) {
                    fail(p, "a memory expectation is {\"address\", \"data\": hex bytes} or {\"address\", \"file\"}");
                }
                only(item, p, {"address", "data", "file"});
                MemoryExpect me{uint32_t(integer(item["address"], p + "/address", 0, (long long)device.memory_size - 1)),
                                item.contains("data") ? hex(item["data"], p + "/data") : file(item["file"], p + "/file")};
                if (me.address + me.data.size() > device.memory_size) {
                    fail(p, "the range runs past the memory's " + std::to_string(device.memory_size) + " bytes");
                }
                x.memory.push_back(std::move(me));
            }
        }
        if (e.contains("lens")) {
            if (!device.actuator) {
                fail(path + "/lens", "device '" + device.name + "' has no \"actuator\"");
            }
            x.lens = integer(e["lens"], path + "/lens", 0, 65535);
        }
        if (e.contains("power")) {
            const json& p = e["power"];
            json state = p.is_object() ? p.value("state", json()) : p;
            if (p.is_object()) {
                only(p, path + "/power", {"state", "references"});
                if (p.contains("references")) {
                    x.references = integer(p["references"], path + "/power/references", 0, INT32_MAX);
                }
            }
            if (!state.is_null()) {
                std::string st = json_text(state);
                if (st != "D0" && st != "D3") {
                    fail(path + "/power", "the power state is D0 or D3, not " + state.dump());
                }
                x.power = st;
            }
        }
        if (e.contains("clock_ms")) {
            if (!e["clock_ms"].is_number()) {
                fail(path + "/clock_ms", "takes the bench's time in ms since the run began");
            }
            x.clock_ms = e["clock_ms"].get<double>();
        }
        if (e.contains("trace")) {
            const json& t = e["trace"];
            if (!t.is_array()) {
                fail(path + "/trace", "\"trace\" lists texts the step's trace events contain");
            }
            for (size_t i = 0; i < t.size(); i++) {
                x.trace.push_back(text(t[i], path + "/trace/" + std::to_string(i)));
            }
        }
        return x;
    }

public:
    // "0x51 w 00 07" as the bench prints transfers: "0x51 W 00 07".
    static std::optional<std::string> normal_wire(const std::string& written)
    {
        std::istringstream in(written);
        std::vector<std::string> tokens;
        for (std::string t; in >> t;) {
            tokens.push_back(t);
        }
        size_t i = 0;
        std::string out;
        if (i < tokens.size() && tokens[i].rfind("0x", 0) == 0) {
            auto id = parse_unsigned(tokens[i++]);
            if (!id) {
                return std::nullopt;
            }
            out = connection_text(*id) + " ";
        }
        if (i >= tokens.size() || (tokens[i] != "W" && tokens[i] != "R" && tokens[i] != "w" && tokens[i] != "r")) {
            return std::nullopt;
        }
        out += char(toupper(uint8_t(tokens[i++][0])));
        for (; i < tokens.size(); i++) {
            if (auto status = tokens[i].size() > 2 ? parse_status(tokens[i]) : std::nullopt;
                status && i + 1 == tokens.size()) {
                out += "  " + host::status_name(*status);
                break;
            }
            auto byte = parse_hex_bytes(tokens[i]);
            if (!byte) {
                return std::nullopt;
            }
            out += " " + hex_bytes(byte->data(), byte->size());
        }
        return out;
    }
};

}  // namespace

std::optional<Scenario> read_scenario(const std::string& text, const std::string& name, const std::string& base_dir,
                                      std::string& error)
{
    json doc;
    try {
        doc = json::parse(text, nullptr, true, /*ignore_comments=*/true);
    } catch (const json::parse_error& e) {
        std::string what = e.what();
        error = name + ":" + std::to_string(line_at(text, e.byte > 0 ? e.byte - 1 : 0)) +
                ": not valid JSON: " + what.substr(what.find(']') + 2);
        return std::nullopt;
    }
    auto lines = field_lines(text);
    try {
        Scenario scenario = ScenarioReader(base_dir).read(doc);
        for (auto& step : scenario.steps) {
            step.line = lines["/steps/" + std::to_string(step.index)];
        }
        return scenario;
    } catch (const ScenarioError& e) {
        // The field's own line, or its nearest enclosing one.
        error = name + ":" + std::to_string(line_of(lines, e.path)) + ": " + field_name(e.path) + e.message;
        return std::nullopt;
    }
}

}  // namespace korvanel::tool
