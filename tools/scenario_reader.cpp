// scenario_reader.cpp - reading a scenario file: JSON with comments, every
// field checked before anything runs, each problem reported with its line.
#include "scenario_reader.h"

#include "known_names.h"
#include "scenario_fields.h"
#include "scenario_json.h"
#include "scenario_steps.h"

#include "bench/spb_controller.h"
#include "bench/text.h"
#include "nvm/nvm.h"
#include "models/actuator.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <map>

namespace korvanel::tool {

namespace {

// Reads the document and its devices into a Scenario; the first problem
// throws with the field's path.
class ScenarioReader : FieldReader {
public:
    using FieldReader::FieldReader;

    Scenario read(const json& doc)
    {
        Scenario s;
        if (!doc.is_object()) {
            fail("", "a scenario is an object with \"device\" and \"steps\"");
        }
        only(doc, "", {"description", "bus_speed", "trace", "vcd", "overwrite", "device", "devices", "steps"});
        if (doc.contains("description")) {
            s.description = text(doc["description"], "/description", true);
        }
        if (doc.contains("bus_speed")) {
            s.speed = bus_speed(doc["bus_speed"], "/bus_speed");
        }
        if (doc.contains("vcd")) {
            s.vcd = text(doc["vcd"], "/vcd");
        }
        if (doc.contains("trace")) {
            if (!doc["trace"].is_boolean()) {
                fail("/trace", "\"trace\" is true or false");
            }
            s.trace = doc["trace"].get<bool>();
        }
        if (doc.contains("overwrite")) {
            if (!doc["overwrite"].is_boolean()) {
                fail("/overwrite", "\"overwrite\" is true or false");
            }
            s.overwrite = doc["overwrite"].get<bool>();
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
                        fail(path + "/name", "two devices are called '" + excerpt(s.devices[i].name) + "'");
                    }
                }
            }
        }
        if (auto clash = part_clash(s.devices)) {
            fail((doc.contains("device") ? "/device" : "/devices/" + std::to_string(clash->device)) + "/" + clash->field,
                 clash->message);
        }
        if (!doc.contains("steps") || !doc["steps"].is_array()) {
            fail(doc.contains("steps") ? "/steps" : "", "\"steps\" is the list of steps");
        }
        for (size_t i = 0; i < doc["steps"].size(); i++) {
            s.steps.push_back(read_step(doc["steps"][i], i, s.devices, base_dir_));
            if (s.steps.back().expect.count > 0 && s.steps.back().expect.trace.size() > 0) {
                s.trace = true;
            }
        }
        if (auto problem = s.vcd.empty() ? std::nullopt : waveform_problem(s)) {
            fail("/vcd", *problem);
        }
        return s;
    }

private:
    RegistryValue registry_value(const std::string& name, const json& v, const std::string& path) const
    {
        RegistryValue r{name};
        auto utf16 = [](const std::string& s) {
            std::u16string w = bench::to_utf16(s);
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
                r.data = utf16(text(value, p, true));
            } else if (form == "multi_sz") {
                r.type = REG_MULTI_SZ;
                if (!value.is_array()) {
                    fail(p, "takes a list of texts");
                }
                for (size_t i = 0; i < value.size(); i++) {
                    auto part = utf16(text(value[i], p + "/" + std::to_string(i), true));
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

    DeviceSetup device(const json& d, const std::string& path, const std::string& default_name) const
    {
        if (!d.is_object()) {
            fail(path, "a device is an object");
        }
        renamed(d, path, {{"actuator", "vcm"}, {"memory", "nvm"}});
        only(d, path, {"name", "hwid", "registry", "vcm", "nvm"});
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
        if (d.contains("vcm")) {
            const json& a = d["vcm"];
            std::string p = path + "/vcm";
            if (!a.is_object() || !a.contains("chip")) {
                fail(p, "an actuator names its \"chip\"");
            }
            only(a, p, {"chip", "connection", "address", "low", "high", "module", "plot"});
            platform::ActuatorSelection options;
            // A name, or the chip's table row as a number.
            options.chip = a["chip"].is_string() ? text(a["chip"], p + "/chip") : json_text(a["chip"]);
            if (models::find_actuator_chip(options.chip) == nullptr) {
                fail(p + "/chip", "unknown actuator chip " + shown(a["chip"]) + " (" + actuator_chip_names() + ")");
            }
            if (a.contains("connection")) {
                options.connection = uint64_t(integer(a["connection"], p + "/connection", 0, INT64_MAX));
            }
            if (a.contains("address")) {
                options.address = uint8_t(integer(a["address"], p + "/address", 0, 0x7F));
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
        if (d.contains("nvm")) {
            const json& m = d["nvm"];
            std::string p = path + "/nvm";
            if (!m.is_object() || !m.contains("type")) {
                fail(p, "a memory names its NVM \"type\"");
            }
            only(m, p, {"type", "connection", "address", "contents", "cache_length", "save"});
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
            if (m.contains("address")) {
                // Block b answers on address + b, all of them 7-bit.
                selection.address = uint8_t(integer(m["address"], p + "/address", 0,
                                                    0x80 - (long long)geometry->connections));
            }
            if (m.contains("cache_length")) {
                selection.cache_length = uint32_t(integer(m["cache_length"], p + "/cache_length", 0, 0xFFFFFFFFll));
            }
            if (m.contains("contents")) {
                setup.contents = file(m["contents"], p + "/contents", "a memory image of type " + std::to_string(type),
                                      setup.memory_size);
            }
            if (m.contains("save")) {
                setup.save = text(m["save"], p + "/save");
            }
            setup.memory = selection;
        }
        return setup;
    }

};

}  // namespace

std::optional<Scenario> read_scenario(const std::string& text, const std::string& name, const std::string& base_dir,
                                      std::string& error)
{
    // The scan comes first: it bounds what the parser is given.
    std::vector<DuplicateKey> duplicates;
    TextProblem problem;
    auto lines = field_lines(text, &duplicates, &problem);
    if (!problem.message.empty()) {
        error = name + ":" + std::to_string(problem.line) + ": " + field_name(problem.pointer) + problem.message;
        return std::nullopt;
    }
    nlohmann::ordered_json doc;
    try {
        doc = nlohmann::ordered_json::parse(text, nullptr, true, /*ignore_comments=*/true);
    } catch (const nlohmann::ordered_json::exception& e) {
        auto* at = dynamic_cast<const nlohmann::ordered_json::parse_error*>(&e);
        std::string what = e.what();
        what = what.substr(what.find(']') + 2);
        // The parser quotes the token it stopped at, which may be a whole string.
        if (size_t quote = what.find("last read: '"); quote != std::string::npos && what.back() == '\'') {
            quote += 12;
            what = what.substr(0, quote) + excerpt(what.substr(quote, what.size() - 1 - quote)) + "'";
        }
        error = name + ":" + std::to_string(line_at(text, at && at->byte > 0 ? at->byte - 1 : 0)) +
                ": not valid JSON: " + what;
        return std::nullopt;
    }
    if (!duplicates.empty()) {
        auto& d = duplicates.front();
        error = name + ":" + std::to_string(d.second_line) + ": " + field_name(d.pointer) + "given twice, on lines " +
                std::to_string(d.first_line) + " and " + std::to_string(d.second_line);
        return std::nullopt;
    }
    try {
        Scenario scenario = ScenarioReader(base_dir).read(doc);
        for (auto& step : scenario.steps) {
            step.line = lines["/steps/" + std::to_string(step.index)];
        }
        return scenario;
    } catch (const FieldError& e) {
        // The field's own line, or its nearest enclosing one.
        error = name + ":" + std::to_string(line_of(lines, e.path)) + ": " + field_name(e.path) + e.message;
        return std::nullopt;
    }
}

std::optional<PartClash> part_clash(const std::vector<DeviceSetup>& devices)
{
    // One part a connection: a second one attached there would replace the first.
    std::map<uint64_t, size_t> used;
    for (size_t i = 0; i < devices.size(); i++) {
        auto& d = devices[i];
        std::vector<std::pair<uint64_t, const char*>> ids;
        if (d.actuator) {
            ids.emplace_back(d.actuator->connection, "vcm/connection");
        }
        for (size_t b = 0; d.memory && b < d.memory_connections; b++) {
            ids.emplace_back(d.memory->first_connection + b, "nvm/connection");
        }
        for (auto& [id, field] : ids) {
            auto [at, added] = used.emplace(id, i);
            if (!added) {
                const std::string& owner = devices[at->second].name;
                return PartClash{i, field, "connection " + connection_text(id) + " already has a part" +
                                               (owner.empty() ? "" : " (of device '" + excerpt(owner) + "')") +
                                               "; a memory of " + std::to_string(d.memory_connections) +
                                               " blocks takes that many connections from its first"};
            }
        }
        // The parts of one module share its bus: two on one address would
        // both answer every transfer.
        if (d.actuator && d.memory) {
            const auto* chip = models::find_actuator_chip(d.actuator->chip);
            unsigned lens = d.actuator->address.value_or(chip ? platform::usual_actuator_address(*chip) : 0);
            unsigned first = d.memory->address.value_or(platform::kUsualMemoryAddress);
            if (lens >= first && lens < first + d.memory_connections) {
                char text[128];
                snprintf(text, sizeof text, "bus address 0x%02X is the actuator's; the memory answers on 0x%02X",
                         lens, first);
                return PartClash{i, "nvm/address",
                                 text + std::string(d.memory_connections > 1 ? " and the addresses after it, one a block"
                                                                             : "")};
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> waveform_problem(const Scenario& scenario)
{
    if (scenario.speed == bench::BusSpeed::Instant) {
        return "a waveform needs wire time: give \"bus_speed\" 100k, 400k or 1m";
    }
    for (auto& step : scenario.steps) {
        if (std::holds_alternative<BusSpeedAction>(step.action)) {
            return "a waveform is drawn at the scenario's one bus speed; step " + std::to_string(step.index + 1) +
                   " (line " + std::to_string(step.line) + ") changes it";
        }
    }
    return std::nullopt;
}

}  // namespace korvanel::tool
