// scenario_steps.cpp - reading a scenario's steps: what each does, on which
// device, and what it expects.
#include "scenario_steps.h"

#include "known_names.h"

#include <climits>
#include <cmath>
#include <sstream>

namespace korvanel::tool {

using namespace files;

namespace {

class StepReader : FieldReader {
public:
    StepReader(const std::string& base_dir, const std::vector<DeviceSetup>& devices)
        : FieldReader(base_dir), devices_(&devices)
    {
    }

    // The step keys: each names what the step does. A part's step takes the
    // part's name, as the device and the options do.
    enum class Kind { Call, Actuator, Memory, Advance, BusSpeed, Fault, Pnp, Interface };
    static constexpr std::pair<const char*, Kind> step_keys[] = {
        {"call", Kind::Call},           {"vcm", Kind::Actuator},        {"nvm", Kind::Memory},
        {"advance_ms", Kind::Advance},  {"bus_speed", Kind::BusSpeed},  {"fault", Kind::Fault},
        {"fail_routine", Kind::Fault},  {"pnp", Kind::Pnp},             {"interface", Kind::Interface},
    };

    Step read(const json& s, size_t index) const
    {
        std::string path = "/steps/" + std::to_string(index);
        if (!s.is_object()) {
            fail(path, "a step is an object");
        }
        renamed(s, path, {{"actuator", "vcm"}, {"memory", "nvm"}});
        Step step{index, 0};
        const char* kind_key = nullptr;
        Kind kind{};
        for (auto& [key, k] : step_keys) {
            if (s.contains(key)) {
                if (kind_key != nullptr) {
                    fail(path + "/" + key, std::string("a step does one thing: '") + kind_key + "' and '" + excerpt(key) +
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
            step.note = text(s["note"], path + "/note", true);
        }
        if (s.contains("device")) {
            std::string name = text(s["device"], path + "/device");
            auto it = std::find_if(devices_->begin(), devices_->end(), [&](auto& d) { return d.name == name; });
            if (it == devices_->end()) {
                fail(path + "/device", "no device is called '" + excerpt(name) + "'");
            }
            step.device = size_t(it - devices_->begin());
            step.device_given = true;
        }
        if (s.contains("irql")) {
            // The level the camera driver's thread is at when it makes the
            // call, as when it holds a spin lock or runs in a DPC.
            std::string level = text(s["irql"], path + "/irql");
            const std::pair<const char*, KIRQL> levels[] = {
                {"PASSIVE_LEVEL", PASSIVE_LEVEL}, {"APC_LEVEL", APC_LEVEL}, {"DISPATCH_LEVEL", DISPATCH_LEVEL}};
            auto it = std::find_if(std::begin(levels), std::end(levels), [&](auto& l) { return level == l.first; });
            if (it == std::end(levels)) {
                fail(path + "/irql", "'" + excerpt(level) + "' is not PASSIVE_LEVEL, APC_LEVEL or DISPATCH_LEVEL");
            }
            step.irql = it->second;
        }
        const DeviceSetup& device = (*devices_)[step.device];
        if (kind_key == nullptr) {
            only(s, path, {"device", "expect", "note", "irql"});
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
            only(s, path, {key.c_str(), "device", "expect", "note", "irql"});
        }
        switch (kind) {
        case Kind::Call: {
            CallAction call{text(s[key], kp), s};
            for (auto* own : {"call", "device", "expect", "note", "irql"}) {
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
                fail(kp, "device '" + excerpt(device.name) + "' has no \"vcm\"");
            }
            std::vector<ActuatorOp> ops;
            if (OpError error; !parse_actuator_ops(text(s[key], kp), "", ops, error)) {
                fail(kp, error.what());
            }
            if (ops.size() != 1) {
                fail(kp, "one actuator operation a step: init, setpos:N, getpos, status, hpstatus, "
                         "setconfig:COUNT:REG:DATA:..., resetpos or advance:MS");
            }
            return ActuatorAction{ops[0]};
        }
        case Kind::Memory: {
            if (!device.memory) {
                fail(kp, "device '" + excerpt(device.name) + "' has no \"nvm\"");
            }
            std::string written = text(s[key], kp);
            auto fields = split(written, ':');
            std::string resolved = written;
            if (fields.size() == 3 && fields[0] == "writefile") {
                resolved = fields[0] + ":" + fields[1] + ":" + beside(fields[2]);
            }
            std::vector<MemoryOp> ops;
            if (OpError error; !parse_memory_ops(resolved, "", device.memory_size, ops, error)) {
                fail(kp, error.what());
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
            only(s, path, {"fail_routine", "status", "skip", "times", "device", "expect", "note", "irql"});
            f.what = FaultAction::What::Routine;
            f.routine = what;
            auto& known = fault_routines();
            if (std::find(known.begin(), known.end(), what) == known.end()) {
                fail(kp, "the bench has no routine '" + excerpt(what) + "' to fail (" + fault_routine_names() + ")");
            }
            if (!s.contains("status")) {
                fail(kp, "a routine fails with a \"status\"");
            }
            f.status = status(s["status"], path + "/status");
        } else {
            only(s, path, {"fault", "transfer", "match", "status", "skip", "times", "device", "expect", "note", "irql"});
            bool with_status = what == "fail" || what == "complete";
            if (what == "clear") {
                f.what = FaultAction::What::Clear;
                only(s, path, {"fault", "device", "expect", "note", "irql"});
                return f;
            }
            if (what != "nack" && what != "timeout" && !with_status) {
                fail(kp, "takes nack, timeout, fail, complete or clear");
            }
            if (with_status != s.contains("status")) {
                fail(with_status ? kp : path + "/status",
                     with_status ? "'" + excerpt(what) + "' needs the \"status\" the request completes with"
                                 : "'" + excerpt(what) + "' takes no status");
            }
            NTSTATUS st = with_status ? status(s["status"], path + "/status") : STATUS_SUCCESS;
            f.fault = what == "nack"      ? bench::BusFault::nack()
                      : what == "timeout" ? bench::BusFault::timeout()
                      : what == "fail"    ? bench::BusFault::fail(st)
                                          : bench::BusFault::complete_with(st);
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
                    f.match.direction = d == "write" ? bench::Direction::Write : bench::Direction::Read;
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

    // "bus_capture": FILE, beside the scenario; "capture_channels" names its
    // SCL and SDA, "capture_timing" true (a 10 us tolerance) or the tolerance
    // in microseconds.
    void capture(const json& e, const std::string& path, Expect& x) const
    {
        if (!e.contains("bus_capture")) {
            for (const char* key : {"capture_timing", "capture_channels"}) {
                if (e.contains(key)) {
                    fail(path + "/" + key, std::string("\"") + key + "\" goes with a \"bus_capture\"");
                }
            }
            return;
        }
        wire::CaptureChannels channels;
        if (e.contains("capture_channels")) {
            const json& c = e["capture_channels"];
            std::string p = path + "/capture_channels";
            if (!c.is_object() || !c.contains("scl") || !c.contains("sda")) {
                fail(p, "\"capture_channels\" names the capture's channels: {\"scl\": \"D0\", \"sda\": \"D1\"}");
            }
            only(c, p, {"scl", "sda"});
            channels = {text(c["scl"], p + "/scl"), text(c["sda"], p + "/sda")};
        }
        x.bus_capture = text(e["bus_capture"], path + "/bus_capture");
        std::string error;
        x.capture = wire::read_capture(beside(x.bus_capture), channels, error);
        if (!x.capture) {
            fail(path + "/bus_capture", error);
        }
        if (e.contains("capture_timing")) {
            const json& t = e["capture_timing"];
            std::string p = path + "/capture_timing";
            double tolerance = 10;
            if (t.is_number() && t.get<double>() >= 0) {
                tolerance = t.get<double>();
            } else if (!t.is_boolean()) {
                fail(p, "\"capture_timing\" is true (a 10 us tolerance) or the tolerance in microseconds; not " + shown(t));
            }
            if (t != false) {
                if (x.capture->samplerate <= 0 || (!x.capture->samples.empty() && x.capture->samples[0].first < 0)) {
                    fail(p, x.bus_capture + " has no sample times: timing needs a VCD or session file");
                }
                x.capture_tolerance_us = tolerance;
            }
        }
    }

    Expect expect(const json& e, const std::string& path, const DeviceSetup& device) const
    {
        if (!e.is_object()) {
            fail(path, "\"expect\" holds what the step expects, by name");
        }
        only(e, path, {"status", "values", "bus", "transfers", "memory", "lens", "power", "clock_ms", "trace",
                       "violation", "bus_capture", "capture_timing", "capture_channels"});
        Expect x;
        x.count = e.size() - e.contains("capture_timing") - e.contains("capture_channels");
        capture(e, path, x);
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
                            "FF\" or \"W 00 10 STATUS_NO_SUCH_DEVICE\"; not " + shown(b[i]));
                }
                x.bus->push_back(*wire);
            }
        }
        if (e.contains("transfers")) {
            x.transfers = integer(e["transfers"], path + "/transfers", 0, INT32_MAX);
        }
        if (e.contains("memory")) {
            if (!device.memory) {
                fail(path + "/memory", "device '" + excerpt(device.name) + "' has no \"nvm\"");
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
                                item.contains("data") ? hex(item["data"], p + "/data")
                                                      : file(item["file"], p + "/file", "the memory", device.memory_size)};
                if (me.address + me.data.size() > device.memory_size) {
                    fail(p, "the range runs past the memory's " + std::to_string(device.memory_size) + " bytes");
                }
                x.memory.push_back(std::move(me));
            }
        }
        if (e.contains("lens")) {
            if (!device.actuator) {
                fail(path + "/lens", "device '" + excerpt(device.name) + "' has no \"vcm\"");
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
                    fail(path + "/power", "the power state is D0 or D3, not " + shown(state));
                }
                x.power = st;
            }
        }
        if (e.contains("violation")) {
            // The bugcheck the verifier stops the step with.
            x.violation = text(e["violation"], path + "/violation");
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
                out += "  " + bench::status_name(*status);
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
private:
    const std::vector<DeviceSetup>* devices_;
};

}  // namespace

Step read_step(const nlohmann::ordered_json& step, size_t index, const std::vector<DeviceSetup>& devices,
               const std::string& base_dir)
{
    return StepReader(base_dir, devices).read(step, index);
}

}  // namespace korvanel::tool
