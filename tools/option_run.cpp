// option_run.cpp - korvanel-sim's options made a scenario of one device,
// run through the scenario executor and reported as the options report.
#include "option_run.h"

#include "bus_report.h"
#include "calls.h"
#include "files/files.h"
#include "known_names.h"
#include "lens_chart.h"
#include "parse.h"
#include "records.h"
#include "scenario.h"
#include "scenario_exec.h"
#include "scenario_reader.h"

#include "platform/checked.h"
#include "platform/memory.h"
#include "models/actuator.h"
#include "models/eeprom.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <strings.h>

namespace korvanel::tool {

using namespace files;

using nlohmann::ordered_json;

namespace {

const char* const kSlotNames[SENSOR_INTERFACE_SLOTS] = {
    "AcceptRecord", "GetSensorCaps", "GetMipiConfig", "GetSensorParameters", "GetModeTables", "GetPdafTable",
    "SelectMode", "AcceptEntry", "AcceptPointer", "AcceptValue", "AcceptPair", "AcceptNotice", nullptr, nullptr,
    nullptr, nullptr, nullptr, "GetModeInfo", "PowerUp", "PowerDown", nullptr, nullptr, nullptr, nullptr,
    "GetAuxFlag", "GetParameterWord", "GetModuleInfo", nullptr, nullptr, nullptr, "QueryProperty", nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, "GetPdafInfo", nullptr, nullptr, nullptr, "AcceptEntryList",
    nullptr};

// The image sizes the report asks PDAF information for.
const std::pair<ULONG, ULONG> kPdafSizes[] = {{4208, 3120}, {4032, 3024}, {1920, 1120}};

const void* slot(const SENSOR_INTERFACE& si, int k)
{
    const void* p;
    memcpy(&p, reinterpret_cast<const uint8_t*>(&si) + SENSOR_SLOT_OFFSET(k), sizeof p);
    return p;
}

bool provided(const SENSOR_INTERFACE& si, const char* name)
{
    for (int k = 0; k < SENSOR_INTERFACE_SLOTS; k++) {
        if (kSlotNames[k] != nullptr && strcmp(kSlotNames[k], name) == 0) {
            return slot(si, k) != nullptr;
        }
    }
    return false;
}

unsigned number(const ordered_json& value) { return value.get<unsigned>(); }

// A record under its type name and the call that filled it, field by field;
// with --raw, its bytes after them.
void print_record(const char* call_name, const ordered_json& result)
{
    const auto* layout = call_record(call_name);
    ordered_json fields = result;
    fields.erase("status");
    printf("%s (%s: %s):\n", layout->name, call_name, result.value("status", std::string("no status")).c_str());
    for (auto& line : record_lines(*layout, {fields})) {
        printf("%s\n", line.c_str());
    }
}

void print_text(const ordered_json& d, const std::string& hwid)
{
    printf("korvanel-sim: device with hardware identifier %s\n", printable(hwid).c_str());
    if (!d["variant"]["matched"].get<bool>()) {
        std::string chosen = d.contains("module") ? d["module"].value("SensorName", std::string("?")) : "?";
        printf("Note: '%s' matches no variant; the driver chose its default identity, SensorName \"%s\"\n",
               excerpt(hwid).c_str(), printable(chosen).c_str());
    }
    for (auto& note : d.value("notes", ordered_json::array())) {
        printf("Note: %s\n", note.get<std::string>().c_str());
    }
    printf("SENSOR_INTERFACE: Size %d, Version %d, %zu of %d slots provided\n", d["interface"]["size"].get<int>(),
           d["interface"]["version"].get<int>(), d["slots"].size(), SENSOR_INTERFACE_SLOTS);
    for (auto& s : d["slots"]) {
        printf("  slot %2d  %s\n", s["slot"].get<int>(), s["name"].get<std::string>().c_str());
    }
    if (d.contains("module")) {
        print_record("GetModuleInfo", d["module"]);
    }
    if (d.contains("caps")) {
        print_record("GetSensorCaps", d["caps"]);
    }
    if (d.contains("parameter_word")) {
        printf("Parameter word (GetParameterWord): 0x%08X\n", number(d["parameter_word"]["Value"]));
    }
    if (d.contains("parameters") && d["parameters"].contains("Values")) {
        print_record("GetSensorParameters", d["parameters"]);
    }
    if (d.contains("mipi")) {
        auto& m = d["mipi"];
        printf("MIPI link: port %u, %u lanes, data format %u", number(m["Port"]), number(m["Lanes"]),
               number(m["Format"]));
        if (d.contains("link_rate")) {
            printf(", link rate %u bit/s", number(d["link_rate"]["Value"]));
        }
        printf("\n");
    }
    if (d.contains("aux_flag")) {
        printf("Aux flag: %u\n", number(d["aux_flag"]["Value"]));
    }
    if (d.contains("mode_lists")) {
        for (auto* name : mode_table_names()) {
            if (!d["mode_lists"].contains(name)) {
                continue;
            }
            auto& rows = d["mode_lists"][name]["Entries"];
            printf("Mode list %s (%zu):", name, rows.size());
            int i = 0;
            for (auto& r : rows) {
                printf("%s %ux%u@%u", i++ % 6 ? "," : "\n ", number(r["Width"]), number(r["Height"]),
                       number(r["FrameRate"]));
            }
            printf("\n");
        }
    }
    if (d.contains("pdaf_list") && d["pdaf_list"].contains("List")) {
        auto& rows = d["pdaf_list"]["List"]["Entries"];
        printf("PDAF list (%zu):", rows.size());
        for (auto& r : rows) {
            printf(" %ux%u@%u", number(r["Width"]), number(r["Height"]), number(r["FrameRate"]));
        }
        printf("\n");
    }
    if (d.contains("pdaf_info")) {
        std::vector<ordered_json> answers;
        std::vector<std::string> images;
        for (auto& a : d["pdaf_info"]) {
            ordered_json fields = a;
            fields.erase("image");
            answers.push_back(fields);
            images.push_back(a["image"].get<std::string>());
        }
        const auto* layout = call_record("GetPdafInfo");
        printf("%s (GetPdafInfo for each image size):\n", layout->name);
        for (auto& line : record_lines(*layout, answers, images)) {
            printf("%s\n", line.c_str());
        }
    }
    if (d.contains("select")) {
        printf("SelectMode %s: %s\n", d["select"]["request"].dump().c_str(),
               d["select"]["status"].get<std::string>().c_str());
    }
    if (d.contains("mode_info")) {
        print_record("GetModeInfo", d["mode_info"]);
    }
}


// --select TABLE:WIDTH:HEIGHT:FPS, each part checked on its own.
std::optional<std::string> parse_select(const std::string& text, std::vector<LONG>& select)
{
    auto parts = split(text, ':');
    if (parts.size() != 4) {
        return "--select takes TABLE:WIDTH:HEIGHT:FPS, four parts, not " + std::to_string(parts.size()) + " in '" +
               excerpt(text) + "'";
    }
    const char* names[] = {"TABLE", "WIDTH", "HEIGHT", "FPS"};
    for (size_t i = 0; i < 4; i++) {
        if (parts[i].empty()) {
            return std::string("--select: ") + names[i] + " is empty in '" + excerpt(text) + "'";
        }
        auto number = i == 0 ? table_index(parts[i])
                             : parse_integer(parts[i], INT32_MIN, INT32_MAX);
        if (!number) {
            return std::string("--select: ") + names[i] + " '" + excerpt(parts[i]) + "' is not " +
                   (i == 0 ? table_index_forms() : "a number from -2147483648 to 2147483647");
        }
        select.push_back(LONG(*number));
    }
    return std::nullopt;
}

// The calls that describe the device, in the report's order, each under
// its report key; only provided slots are asked.
std::vector<std::pair<std::string, Step>> description_steps(const SENSOR_INTERFACE& si,
                                                             const std::vector<LONG>& select)
{
    std::vector<std::pair<std::string, Step>> steps;
    auto add = [&](const char* key, const char* name, ordered_json args) {
        if (!provided(si, name)) {
            return;
        }
        ArgumentError error;
        Step step;
        step.action = CallAction{name, args, prepare_call(name, args, error), call_record(name)};
        steps.emplace_back(key, std::move(step));
    };
    const std::pair<const char*, const char*> simple[] = {
        {"module", "GetModuleInfo"},        {"caps", "GetSensorCaps"},       {"parameter_word", "GetParameterWord"},
        {"parameters", "GetSensorParameters"}, {"mipi", "GetMipiConfig"},   {"aux_flag", "GetAuxFlag"},
        {"mode_lists", "GetModeTables"},    {"pdaf_list", "GetPdafTable"},
    };
    for (auto [key, name] : simple) {
        add(key, name, ordered_json::object());
    }
    add("link_rate", "QueryProperty", {{"Id", SensorPropertyLinkRate}});
    for (auto [w, h] : kPdafSizes) {
        add("pdaf_info", "GetPdafInfo", {{"Width", w}, {"Height", h}});
    }
    if (select.size() == 4) {
        add("select", "SelectMode",
            {{"TableIndex", select[0]}, {"MinWidth", select[1]}, {"MinHeight", select[2]}, {"FrameRate", select[3]}});
    }
    add("mode_info", "GetModeInfo", ordered_json::object());
    return steps;
}

// The interface's header and slots, then what each call told, as the
// report keys them: the PDAF answers a list by image size, the selection
// with its request.
ordered_json describe_interface(const SENSOR_INTERFACE& si)
{
    ordered_json out;
    out["interface"] = {{"size", si.InterfaceHeader.Size}, {"version", si.InterfaceHeader.Version}};
    ordered_json slots = ordered_json::array();
    for (int k = 0; k < SENSOR_INTERFACE_SLOTS; k++) {
        if (slot(si, k) != nullptr) {
            slots.push_back({{"slot", k}, {"name", kSlotNames[k] ? kSlotNames[k] : "?"}});
        }
    }
    out["slots"] = slots;
    return out;
}

void describe_answer(ordered_json& out, const std::string& key, const Step& step, const ordered_json& result)
{
    const auto& call = std::get<CallAction>(step.action);
    if (key == "pdaf_info") {
        ordered_json a = {{"image", std::to_string(call.args["Width"].get<ULONG>()) + "x" +
                                        std::to_string(call.args["Height"].get<ULONG>())}};
        a.update(result);
        out[key].push_back(a);
    } else if (key == "select") {
        ordered_json s = {{"request", {call.args["TableIndex"], call.args["MinWidth"], call.args["MinHeight"],
                                       call.args["FrameRate"]}}};
        s.update(result);
        out[key] = s;
    } else {
        out[key] = result;
    }
}

// The parts' reports as the options print them: each part's header from
// the device as selected, its operations with times from the part's first
// operation, its bus transcript from there, and the memory's contents or
// the lens trajectory when its operations are done.
struct PartReport {
    ordered_json json;
    int64_t origin;  // clock time when the part's first operation began
    std::vector<bench::BusTransfer> transfers = {};

    void add(const Observation& seen) { transfers.insert(transfers.end(), seen.transfers.begin(), seen.transfers.end()); }
    void finish()
    {
        json["transcript"] = transcript_json(transfers, origin);
        json["transcript_lines"] = transcript_lines(transfers, origin);
    }
};

ordered_json memory_header(const Executor::DeviceView& d)
{
    const NVM_DRIVER& row = platform::memory_table()[d.context->NvmType];
    ordered_json report;
    report["type"] = d.context->NvmType;
    report["size"] = row.Size;
    report["page_size"] = row.PageSize;
    report["cache_length"] = d.context->NvmCacheLength;
    ordered_json slots = ordered_json::array();
    for (ULONG s = I2C_SLOT_NVM; s < I2C_CONNECTION_COUNT; s++) {
        if (d.context->I2cConnections[s].Present) {
            slots.push_back({{"slot", s}, {"connection", d.context->I2cConnections[s].ConnectionId}});
        }
    }
    report["connections"] = slots;
    return report;
}

ordered_json actuator_header(const Executor::DeviceView& d, bench::BusSpeed speed)
{
    ordered_json out;
    out["chip"] = platform::actuator_table()[d.context->VcmType].Name;
    out["row"] = d.context->VcmType;
    out["connection"] = d.context->I2cConnections[I2C_SLOT_VCM].ConnectionId;
    out["low"] = d.context->VcmLowPosition;
    out["high"] = d.context->VcmHighPosition;
    out["module"] = std::string(d.context->SensorName, strnlen(d.context->SensorName, sizeof d.context->SensorName));
    out["bus_speed"] = bus_speed_text(speed);
    return out;
}


}  // namespace

void add_sim_options(CLI::App& app, SimOptions& o)
{
    app.add_option("--hwid", o.hwid, "hardware identifier of the device (default root\\KORVANEL)");
    app.add_option("--reg", o.registry, "REG_DWORD value under the service key, NAME=VALUE (repeatable)")
        ->allow_extra_args(false);
    app.add_option("--select", o.select,
                   "SelectMode before reading the mode info: TABLE:WIDTH:HEIGHT:FPS, TABLE Still, Video, Preview, Raw "
                   "or 0-3");
    add_trace_options(app, o.trace);
    app.add_flag("--json", o.json, "print machine-readable JSON");
    app.add_flag("--raw", o.raw, "show each record's bytes beside its fields");
    app.add_flag("--real-time", o.real_time, "run on the real clock: waits sleep and stalls spin");
    app.add_option("--bus-speed", o.bus_speed, "I2C clock for wire time: 100k, 400k or 1m (default: no wire time)");
    add_memory_options(app, o.memory);
    add_actuator_options(app, o.actuator);
    app.add_option("--vcd", o.vcd, wire::waveform_option_help());
    app.add_option("--bus-capture", o.bus_capture,
                   "compare the run's bus with a logic-analyzer capture: sigrok-cli -A i2c annotation text, a VCD "
                   "or a sigrok session file");
    app.add_option("--capture-channels", o.capture_channels,
                   "the capture's SCL and SDA channel names: SCL,SDA (default scl,sda)");
    app.add_flag("--force", o.force, "--svg, --nvm-save and --vcd may replace an existing file");
}

std::optional<std::string> read_options(SimOptions& o, OptionRun& run)
{
    o.memory.force = o.actuator.force = o.force;
    if (!o.select.empty()) {
        if (auto problem = parse_select(o.select, run.select)) {
            return problem;
        }
    }
    std::string error;
    auto vcm_ops = check_actuator_options(o.actuator, error);
    auto speed = o.bus_speed.empty() ? bench::BusSpeed::Instant : parse_bus_speed(o.bus_speed);
    if (!speed) {
        return "--bus-speed takes 100k, 400k or 1m, not '" + excerpt(o.bus_speed) + "'";
    }
    if (!vcm_ops) {
        return error;
    }
    if (auto problem = prepare_memory(o.memory)) {
        return problem;
    }
    run.actuator_ops = std::move(*vcm_ops);

    Scenario& s = run.scenario;
    s.speed = *speed;
    s.real_time = o.real_time;
    s.overwrite = o.force;
    DeviceSetup device;
    device.hwid = o.hwid;
    if (!o.actuator.selection.chip.empty()) {
        device.actuator = o.actuator.selection;
    }
    if (o.memory.requested()) {
        auto geometry = platform::memory_geometry(o.memory.selection.type);
        device.memory = o.memory.selection;
        device.memory_size = geometry->size;
        device.memory_connections = geometry->connections;
        device.contents = o.memory.initial;
        device.save = o.memory.save;
    }
    // The scenario reader's check of a device's parts.
    if (auto clash = part_clash({device})) {
        const char* option = clash->field == "vcm/connection" ? "--vcm-connection"
                             : clash->field == "nvm/connection" ? "--nvm-connection"
                                                                   : "--nvm-address";
        return std::string(option) + ": " + clash->message;
    }
    // No two outputs on one file.
    const std::pair<const char*, const std::string*> outputs[] = {
        {"--svg", &o.actuator.svg}, {"--nvm-save", &o.memory.save}, {"--vcd", &o.vcd}};
    for (auto [a, b] : {std::pair{0, 1}, {2, 0}, {2, 1}}) {
        auto [option, file] = outputs[a];
        if (!file->empty() && !outputs[b].second->empty() && same_file(*file, *outputs[b].second)) {
            return std::string(option) + " and " + outputs[b].first + " both name " + *file;
        }
    }
    if (!o.vcd.empty() && s.speed == bench::BusSpeed::Instant) {
        return "--vcd: a waveform needs wire time: give --bus-speed 100k, 400k or 1m";
    }
    s.vcd = o.vcd;
    run.outputs = {o.force, "--force", {o.memory.file}};

    // A capture that cannot be read stops the run before it starts.
    if (!o.bus_capture.empty()) {
        wire::CaptureChannels channels;
        auto names = split(o.capture_channels, ',');
        if (!o.capture_channels.empty() && (names.size() != 2 || names[0].empty() || names[1].empty())) {
            return "--capture-channels takes SCL,SDA, not '" + excerpt(o.capture_channels) + "'";
        }
        if (names.size() == 2) {
            channels = {names[0], names[1]};
        }
        run.capture = wire::read_capture(o.bus_capture, channels, error);
        if (!run.capture) {
            return "--bus-capture " + error;
        }
    }
    // Every output once more, now that every input has been read: none is one of them.
    for (auto [option, file] : outputs) {
        if (auto problem = file->empty() ? std::nullopt : check_output(*file, run.outputs)) {
            return option + (" " + *problem);
        }
    }
    for (auto& assignment : o.registry) {
        auto eq = assignment.find('=');
        auto value =
            eq == std::string::npos || eq == 0 ? std::nullopt : parse_integer(assignment.substr(eq + 1), 0, 0xFFFFFFFFll);
        if (!value) {
            return "--reg takes NAME=VALUE with a number from 0 to 4294967295, not '" + excerpt(assignment) + "'";
        }
        std::string name = assignment.substr(0, eq);
        if (std::any_of(run.registry_names.begin(), run.registry_names.end(),
                        [&](auto& n) { return strcasecmp(n.c_str(), name.c_str()) == 0; })) {
            return "--reg " + excerpt(name) + " is given twice; give each value once";
        }
        run.registry_names.push_back(name);
        device.registry.push_back({name, false, REG_DWORD, bench::Registry::dword_data(uint32_t(*value))});
    }
    s.devices.push_back(std::move(device));
    return std::nullopt;
}

int run_options(const SimOptions& o, const OptionRun& run)
{
    const Scenario& scenario = run.scenario;
    Executor executor(scenario, o.raw, o.trace);
    if (!executor.set_up(run.outputs)) {
        if (executor.waveform_refused()) {
            std::cerr << "korvanel-sim: --vcd: " << *executor.waveform_refused() << "\n";
            return 2;
        }
        std::cerr << "korvanel-sim: " << executor.finish().failures.front() << "\n";
        return 1;
    }
    Executor::DeviceView device = executor.device(0);
    // Each step as the scenario runner performs it; a broken kernel rule
    // stops the run with the bugcheck's report.
    auto perform = [&](const Step& step) {
        Observation seen = executor.perform(step);
        if (seen.violation) {
            fprintf(stderr, "%s\n", seen.violation->text().c_str());
            throw bench::Bugcheck(*seen.violation);
        }
        return seen;
    };
    std::vector<bench::BusTransfer> bus;  // the whole run's, for the capture
    auto keep = [&](const Observation& seen) { bus.insert(bus.end(), seen.transfers.begin(), seen.transfers.end()); };

    ordered_json description = describe_interface(*device.si);
    for (auto& [key, step] : description_steps(*device.si, run.select)) {
        Observation seen = perform(step);
        keep(seen);
        describe_answer(description, key, step, seen.result);
    }
    auto variant = variant_name(o.hwid);
    description["variant"] = {{"hardware_id", o.hwid}, {"matched", variant.has_value()}};
    // Values the driver never read were most likely meant as others.
    if (auto notes = unread_registry_notes(run.registry_names, executor.registry_read()); !notes.empty()) {
        description["notes"] = notes;
    }
    if (device.memory != nullptr) {
        PartReport memory{memory_header(device), executor.now()};
        ordered_json results = ordered_json::array();
        for (auto& op : o.memory.parsed) {
            Step step;
            step.action = MemoryAction{op, {}};
            Observation seen = perform(step);
            keep(seen);
            memory.add(seen);
            results.push_back(seen.result);
        }
        int64_t end = executor.now();
        memory.json["operations"] = results;
        memory.json["bus_time_ms"] = ms(end - memory.origin);
        memory.finish();
        memory.json["contents"] = hex_dump(device.memory->contents());
        if (!o.memory.notes.empty()) {
            memory.json["notes"] = o.memory.notes;
        }
        description["nvm"] = memory.json;
    }
    if (device.lens != nullptr) {
        PartReport lens{actuator_header(device, scenario.speed), executor.now()};
        ordered_json results = ordered_json::array();
        for (auto& op : run.actuator_ops) {
            Step step;
            step.action = ActuatorAction{op};
            ordered_json r = {{"op", op.text}, {"time_ms", ms(executor.now() - lens.origin)}};
            Observation seen = perform(step);
            keep(seen);
            lens.add(seen);
            r.update(seen.result);
            results.push_back(r);
        }
        int64_t end = executor.now();
        lens.json["operations"] = results;
        lens.finish();
        lens.json.update(lens_trajectory(device.lens, lens.origin, end));
        description["vcm"] = lens.json;
    }
    RunEnd end = executor.finish();
    bus.insert(bus.end(), end.transfers.begin(), end.transfers.end());
    // The chart shows the actuator's operations as the report times them,
    // from the first; it is written with the run's other files, when the
    // driver unloaded clean. The waveform is written whatever the run
    // found, to look at it.
    if (!o.actuator.svg.empty()) {
        end.outputs.push_back({o.actuator.svg, "lens chart", trajectory_svg(description["vcm"])});
    }
    std::string write_error;
    for (auto& output : end.outputs) {
        bool write = output.waveform || end.failures.empty();
        auto problem = !write ? std::nullopt
                       : output.waveform ? executor.write_waveform()
                                         : write_output(output.file, output.bytes, run.outputs);
        if (problem && write_error.empty()) {
            write_error = *problem;
        } else if (write && !problem && !output.waveform) {
            bool chart = output.file == o.actuator.svg;
            (chart ? description["vcm"]["chart"] : description["nvm"]["saved"]) = output.file;
        }
    }
    if (o.trace.requested()) {
        description["trace"] = trace_json(end.trace, executor.origin());
    }
    description["unload"] = end.unload;

    if (o.json) {
        std::cout << json_dump(description, 2) << "\n";
    } else {
        print_text(description, o.hwid);
        if (description.contains("nvm")) {
            print_memory(description["nvm"]);
        }
        if (description.contains("vcm")) {
            print_actuator(description["vcm"]);
        }
        if (o.trace.requested()) {
            printf("Trace:\n");
            for (auto& e : end.trace) {
                printf("  %s\n", trace_line(e, executor.origin()).c_str());
            }
        }
        printf("Unload: %s\n", end.unload.c_str());
    }
    fflush(stdout);
    if (!write_error.empty()) {
        std::cerr << "korvanel-sim: cannot write " << write_error << "\n";
        return 2;
    }
    if (run.capture) {
        auto bench = wire::wire_transcript(bus, scenario.speed);
        if (auto difference = wire::compare_wire(bench, run.capture->transfers)) {
            std::cerr << "korvanel-sim: the bus differs from " << o.bus_capture << ": " << *difference << "\n";
            return 1;
        }
        std::cerr << "korvanel-sim: the bus matches " << o.bus_capture << " ("
                  << bench.size() << (bench.size() == 1 ? " transfer" : " transfers") << ")\n";
    }
    return end.unload == "clean" ? 0 : 1;
}

}  // namespace korvanel::tool
