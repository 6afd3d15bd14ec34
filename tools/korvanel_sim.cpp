// korvanel-sim - runs the driver on the simulated platform as a user would:
// loads it, adds a device, takes SENSOR_INTERFACE as the camera driver does
// and prints what every provided slot tells, then releases the interface and
// unloads cleanly.
//
//   korvanel-sim                                 the default device
//   korvanel-sim --hwid 'root\KORVANEL\rgbir'    another variant
//   korvanel-sim --reg MipiLanes=4 --reg MipiMBps=1500
//   korvanel-sim --select 2:1920:1080:0 --trace --json
//   korvanel-sim --raw                             records with their bytes
//   korvanel-sim --trace-level error --trace-module sensor
//   korvanel-sim --real-time                       waits take real time
//   korvanel-sim --nvm 10 --nvm-ops load,load --bus-speed 400k   a module memory
//   korvanel-sim --vcm DW9719 --vcm-ops init,setpos:300,resetpos --svg lens.svg
//   korvanel-sim --vcm AD5823 --bus-speed 400k --vcd lens.vcd   the run as a waveform
//   korvanel-sim run examples/preview_mode.jsonc    a scenario file
#include "actuator_cli.h"
#include "bus_report.h"
#include "calls.h"
#include "wire/capture.h"
#include "files.h"
#include "known_names.h"
#include "memory_cli.h"
#include "parse.h"
#include "records.h"
#include "scenario.h"
#include "scenario_reader.h"
#include "trace_view.h"
#include "wire/waveform.h"
#include "host/bus.h"
#include "host/system.h"
#include "host/verifier.h"
#include "platform/device.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <strings.h>
#include <sys/stat.h>

using korvanel::host::DeviceConfig;
using korvanel::host::System;
using korvanel::host::status_name;
using korvanel::tool::excerpt;
using korvanel::tool::printable;
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

// One call as the camera driver makes it; the report's own arguments are
// always right.
ordered_json call(const SENSOR_INTERFACE& si, const char* name, const ordered_json& args, bool raw)
{
    korvanel::tool::ArgumentError error;
    return korvanel::tool::prepare_call(name, args, error)(si, raw);
}

// Asks every provided slot what it tells the camera driver.
ordered_json describe(SENSOR_INTERFACE& si, const std::vector<LONG>& select, bool raw)
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

    const std::pair<const char*, const char*> simple[] = {
        {"module", "GetModuleInfo"},        {"caps", "GetSensorCaps"},       {"parameter_word", "GetParameterWord"},
        {"parameters", "GetSensorParameters"}, {"mipi", "GetMipiConfig"},   {"aux_flag", "GetAuxFlag"},
        {"mode_lists", "GetModeTables"},    {"pdaf_list", "GetPdafTable"},
    };
    for (auto [key, name] : simple) {
        if (provided(si, name)) {
            out[key] = call(si, name, ordered_json::object(), raw);
        }
    }
    if (provided(si, "QueryProperty")) {
        out["link_rate"] = call(si, "QueryProperty", {{"Id", SensorPropertyLinkRate}}, raw);
    }
    if (provided(si, "GetPdafInfo")) {
        ordered_json answers = ordered_json::array();
        for (auto [w, h] : kPdafSizes) {
            ordered_json a = {{"image", std::to_string(w) + "x" + std::to_string(h)}};
            a.update(call(si, "GetPdafInfo", {{"Width", w}, {"Height", h}}, raw));
            answers.push_back(a);
        }
        out["pdaf_info"] = answers;
    }
    if (provided(si, "SelectMode") && select.size() == 4) {
        ordered_json s = {{"request", select}};
        s.update(call(si, "SelectMode",
                      {{"TableIndex", select[0]}, {"MinWidth", select[1]}, {"MinHeight", select[2]},
                       {"FrameRate", select[3]}},
                      raw));
        out["select"] = s;
    }
    if (provided(si, "GetModeInfo")) {
        out["mode_info"] = call(si, "GetModeInfo", ordered_json::object(), raw);
    }
    return out;
}

unsigned number(const ordered_json& value) { return value.get<unsigned>(); }

// A record under its type name and the call that filled it, field by field;
// with --raw, its bytes after them.
void print_record(const char* call_name, const ordered_json& result)
{
    const auto* layout = korvanel::tool::call_record(call_name);
    ordered_json fields = result;
    fields.erase("status");
    printf("%s (%s: %s):\n", layout->name, call_name, result.value("status", std::string("no status")).c_str());
    for (auto& line : korvanel::tool::record_lines(*layout, {fields})) {
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
        for (auto* name : korvanel::tool::mode_table_names()) {
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
        const auto* layout = korvanel::tool::call_record("GetPdafInfo");
        printf("%s (GetPdafInfo for each image size):\n", layout->name);
        for (auto& line : korvanel::tool::record_lines(*layout, answers, images)) {
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


// The arguments longer than a message quotes whole.
std::vector<std::string> long_arguments;

// A command-line mistake: the message and a one-line hint, exit status 2.
// An argument the message quotes whole (as the option parser's own messages
// do) is cut to its excerpt, whatever its size.
int usage_error(std::string message, bool run)
{
    for (auto& argument : long_arguments) {
        std::string shown = excerpt(argument);
        for (size_t at = message.find(argument); at != std::string::npos; at = message.find(argument, at)) {
            message.replace(at, argument.size(), shown);
            at += shown.size();
        }
    }
    std::cerr << "korvanel-sim: " << message << "\n"
              << "Run 'korvanel-sim " << (run ? "run " : "") << "--help' for the options.\n";
    return 2;
}

// Every option given with an empty value names nothing: refused.
std::optional<std::string> empty_value(const CLI::App& app)
{
    for (const CLI::Option* option : app.get_options()) {
        for (auto& value : option->results()) {
            if (value.empty() && option->get_expected_min() > 0) {
                return option->get_name() + ": an empty value";
            }
        }
    }
    return std::nullopt;
}

// An option given twice would keep one of its values silently, a flag
// would mean nothing more: refused. --reg and --trace-module are lists.
std::optional<std::string> given_twice(const CLI::App& app)
{
    for (const CLI::Option* option : app.get_options()) {
        std::string name = option->get_name();
        if (option->count() > 1 && name != "--reg" && name != "--trace-module") {
            return name + " is given " + std::to_string(option->count()) + " times; give it once";
        }
    }
    return std::nullopt;
}

// Options that have no effect without another are refused, not ignored.
std::optional<std::string> without_effect(const CLI::App& app)
{
    auto given = [&](const char* name) { return app.get_option(name)->count() > 0; };
    static const struct {
        std::vector<const char*> options;
        std::vector<const char*> needs;  // any one of these
    } rules[] = {
        {{"--vcm-connection", "--vcm-address", "--vcm-low", "--vcm-high", "--module", "--vcm-ops", "--svg"}, {"--vcm"}},
        {{"--nvm-connection", "--nvm-address", "--nvm-file", "--nvm-cache-length", "--nvm-ops", "--nvm-save"}, {"--nvm"}},
        {{"--bus-speed", "--vcd", "--bus-capture"}, {"--vcm", "--nvm"}},
        {{"--capture-channels"}, {"--bus-capture"}},
        {{"--force"}, {"--svg", "--nvm-save", "--vcd"}},
    };
    for (auto& rule : rules) {
        if (std::any_of(rule.needs.begin(), rule.needs.end(), given)) {
            continue;
        }
        for (auto* option : rule.options) {
            if (given(option)) {
                std::string needs;
                for (auto* n : rule.needs) {
                    needs += std::string(needs.empty() ? "" : " or ") + n;
                }
                return std::string(option) + " has no effect without " + needs;
            }
        }
    }
    return std::nullopt;
}

// --select TABLE:WIDTH:HEIGHT:FPS, each part checked on its own.
std::optional<std::string> parse_select(const std::string& text, std::vector<LONG>& select)
{
    auto parts = korvanel::tool::split(text, ':');
    if (parts.size() != 4) {
        return "--select takes TABLE:WIDTH:HEIGHT:FPS, four parts, not " + std::to_string(parts.size()) + " in '" +
               excerpt(text) + "'";
    }
    const char* names[] = {"TABLE", "WIDTH", "HEIGHT", "FPS"};
    for (size_t i = 0; i < 4; i++) {
        if (parts[i].empty()) {
            return std::string("--select: ") + names[i] + " is empty in '" + excerpt(text) + "'";
        }
        auto number = i == 0 ? korvanel::tool::table_index(parts[i])
                             : korvanel::tool::parse_integer(parts[i], INT32_MIN, INT32_MAX);
        if (!number) {
            return std::string("--select: ") + names[i] + " '" + excerpt(parts[i]) + "' is not " +
                   (i == 0 ? korvanel::tool::table_index_forms() : "a number from -2147483648 to 2147483647");
        }
        select.push_back(LONG(*number));
    }
    return std::nullopt;
}

}  // namespace

static int run(int argc, char** argv);

// A rule of the Windows kernel broken on the bench stops the run with the
// report a bugcheck would give, and an exit status of its own.
int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const korvanel::host::Bugcheck&) {
        // The verifier's hook has printed the report.
        return korvanel::tool::kVerifierStop;
    }
}

static int run(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        if (strlen(argv[i]) > 80) {
            long_arguments.emplace_back(argv[i]);
        }
    }
    CLI::App app{"korvanel-sim: run the korvanel camera sensor driver on the simulated platform"};
    std::string hwid = "root\\KORVANEL";
    std::vector<std::string> registry_values;
    std::string select_spec;
    bool json = false;
    bool raw = false;
    bool real_time = false;
    bool force = false;
    app.add_option("--hwid", hwid, "hardware identifier of the device (default root\\KORVANEL)");
    app.add_option("--reg", registry_values, "REG_DWORD value under the service key, NAME=VALUE (repeatable)")
        ->allow_extra_args(false);
    app.add_option("--select", select_spec,
                   "SelectMode before reading the mode info: TABLE:WIDTH:HEIGHT:FPS, TABLE Still, Video, Preview, Raw "
                   "or 0-3");
    korvanel::tool::TraceOptions trace;
    korvanel::tool::add_trace_options(app, trace);
    app.add_flag("--json", json, "print machine-readable JSON");
    app.add_flag("--raw", raw, "show each record's bytes beside its fields");
    app.add_flag("--real-time", real_time, "run on the real clock: waits sleep and stalls spin");
    std::string bus_speed;
    app.add_option("--bus-speed", bus_speed, "I2C clock for wire time: 100k, 400k or 1m (default: no wire time)");
    korvanel::tool::MemoryOptions memory;
    korvanel::tool::add_memory_options(app, memory);
    korvanel::tool::ActuatorOptions actuator;
    korvanel::tool::add_actuator_options(app, actuator);
    std::string vcd;
    app.add_option("--vcd", vcd, korvanel::wire::waveform_option_help());
    std::string bus_capture, capture_channels;
    app.add_option("--bus-capture", bus_capture,
                   "compare the run's bus with a logic-analyzer capture: sigrok-cli -A i2c annotation text, a VCD "
                   "or a sigrok session file");
    app.add_option("--capture-channels", capture_channels, "the capture's SCL and SDA channel names: SCL,SDA (default scl,sda)");
    app.add_flag("--force", force, "--svg, --nvm-save and --vcd may replace an existing file");

    auto* run = app.add_subcommand("run", "run a scenario file: its devices, its steps and what each step expects");
    std::string scenario_file;
    korvanel::tool::ScenarioOptions scenario;
    run->add_option("FILE", scenario_file, "the scenario (JSON, comments allowed), or - for standard input")
        ->required();
    run->add_flag("-v,--verbose", scenario.verbose, "print each step's values, bus transfers and trace events");
    run->add_flag("--json", scenario.json, "print the run as JSON");
    run->add_option("--vcd", scenario.vcd, korvanel::wire::waveform_option_help());
    run->add_option("--output-dir", scenario.output_dir,
                    "write the scenario's charts, saved memories and waveform here (default: beside the scenario)");
    run->add_flag("--force", scenario.force, "charts, saved memories and waveforms may replace existing files");
    korvanel::tool::add_trace_options(*run, scenario.trace);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << (run->parsed() ? run->help() : app.help());
        return 0;
    } catch (const CLI::ParseError& e) {
        return usage_error(e.what(), run->parsed());
    }
    if (auto problem = given_twice(run->parsed() ? *run : app)) {
        return usage_error(*problem, run->parsed());
    }
    if (auto problem = empty_value(run->parsed() ? *run : app)) {
        return usage_error(*problem, run->parsed());
    }
    if (run->parsed()) {
        // The scenario says what the device is: options before "run" would be ignored.
        for (const CLI::Option* option : app.get_options()) {
            if (option->count() > 0) {
                return usage_error(option->get_name() + " has no effect before run: the scenario describes the " +
                                       "devices, and run's own options (-v, --json, --trace...) go after it",
                                   true);
            }
        }
        if (auto problem = korvanel::tool::check_trace_options(scenario.trace)) {
            return usage_error(*problem, true);
        }
        struct stat st;
        if (!scenario.output_dir.empty() && (stat(scenario.output_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
            return usage_error("--output-dir " + scenario.output_dir + ": not a folder", true);
        }
        return korvanel::tool::run_scenario_file(scenario_file, scenario, std::cout, std::cerr);
    }
    if (auto problem = without_effect(app)) {
        return usage_error(*problem, false);
    }
    if (auto problem = korvanel::tool::check_trace_options(trace)) {
        return usage_error(*problem, false);
    }
    memory.force = actuator.force = force;

    std::vector<LONG> select;
    if (!select_spec.empty()) {
        if (auto problem = parse_select(select_spec, select)) {
            return usage_error(*problem, false);
        }
    }

    std::string error;
    auto vcm_ops = korvanel::tool::check_actuator_options(actuator, error);
    auto speed = bus_speed.empty() ? korvanel::host::BusSpeed::Instant : korvanel::tool::parse_bus_speed(bus_speed);
    auto memory_error = korvanel::tool::prepare_memory(memory);
    if (!speed || !vcm_ops || memory_error) {
        return usage_error(!speed ? "--bus-speed takes 100k, 400k or 1m, not '" + excerpt(bus_speed) + "'"
                           : !vcm_ops ? error
                                      : *memory_error,
                           false);
    }
    // The scenario reader's check of the one module's parts.
    korvanel::tool::DeviceSetup module;
    if (!actuator.selection.chip.empty()) {
        module.actuator = actuator.selection;
    }
    if (memory.requested()) {
        module.memory = memory.selection;
        module.memory_connections = korvanel::platform::memory_geometry(memory.selection.type)->connections;
    }
    if (auto clash = korvanel::tool::part_clash({module})) {
        const char* option = clash->field == "actuator/connection" ? "--vcm-connection"
                             : clash->field == "memory/connection" ? "--nvm-connection"
                                                                   : "--nvm-address";
        return usage_error(std::string(option) + ": " + clash->message, false);
    }
    using korvanel::tool::same_file;
    if (!actuator.svg.empty() && !memory.save.empty() && same_file(actuator.svg, memory.save)) {
        return usage_error("--svg and --nvm-save both name " + actuator.svg, false);
    }
    bool vcd_is_svg = !actuator.svg.empty() && same_file(vcd, actuator.svg);
    if (!vcd.empty() && (vcd_is_svg || (!memory.save.empty() && same_file(vcd, memory.save)))) {
        return usage_error("--vcd and " + std::string(vcd_is_svg ? "--svg" : "--nvm-save") + " both name " + vcd, false);
    }
    if (!vcd.empty()) {
        if (speed == korvanel::host::BusSpeed::Instant) {
            return usage_error("--vcd: a waveform needs wire time: give --bus-speed 100k, 400k or 1m", false);
        }
        if (auto problem = korvanel::tool::check_output(vcd, {force, "--force", {}})) {
            return usage_error("--vcd " + *problem, false);
        }
    }

    // A capture that cannot be read stops the run before it starts.
    std::optional<korvanel::wire::Capture> capture;
    if (!bus_capture.empty()) {
        korvanel::wire::CaptureChannels channels;
        auto names = korvanel::tool::split(capture_channels, ',');
        if (!capture_channels.empty() && (names.size() != 2 || names[0].empty() || names[1].empty())) {
            return usage_error("--capture-channels takes SCL,SDA, not '" + excerpt(capture_channels) + "'", false);
        }
        if (names.size() == 2) {
            channels = {names[0], names[1]};
        }
        std::string error;
        capture = korvanel::wire::read_capture(bus_capture, channels, error);
        if (!capture) {
            return usage_error("--bus-capture " + error, false);
        }
    }
    // Every output once more, now that every input has been read: none is one of them.
    for (auto [option, file] : {std::pair{"--svg", &actuator.svg}, {"--nvm-save", &memory.save}, {"--vcd", &vcd}}) {
        auto problem = file->empty() ? std::nullopt : korvanel::tool::check_output(*file, {force, "--force", {}});
        if (problem) {
            return usage_error(option + (" " + *problem), false);
        }
    }
    std::vector<std::pair<std::string, uint32_t>> dwords;
    for (auto& assignment : registry_values) {
        auto eq = assignment.find('=');
        auto value = eq == std::string::npos || eq == 0
                         ? std::nullopt
                         : korvanel::tool::parse_integer(assignment.substr(eq + 1), 0, 0xFFFFFFFFll);
        if (!value) {
            return usage_error("--reg takes NAME=VALUE with a number from 0 to 4294967295, not '" + excerpt(assignment) + "'",
                               false);
        }
        std::string name = assignment.substr(0, eq);
        if (std::any_of(dwords.begin(), dwords.end(), [&](auto& d) { return strcasecmp(d.first.c_str(), name.c_str()) == 0; })) {
            return usage_error("--reg " + excerpt(name) + " is given twice; give each value once", false);
        }
        dwords.emplace_back(assignment.substr(0, eq), uint32_t(*value));
    }
    System sys;
    sys.bus().set_speed(*speed);
    if (real_time) {
        sys.clock().set_mode(korvanel::host::Clock::Mode::Real);
    }
    for (auto& [name, value] : dwords) {
        sys.registry().set_dword(name, value);
    }
    if (trace.requested()) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    int64_t origin = sys.clock().now();
    korvanel::wire::Waveform waveform;
    if (!vcd.empty()) {
        const auto* chip = korvanel::sim::find_actuator_chip(actuator.selection.chip);
        unsigned lens_bits = chip == nullptr ? 0 : chip->max_code > 1023 ? 11 : 10;
        if (auto error = waveform.open(sys, vcd, {force, "--force", {}}, {lens_bits, memory.requested()})) {
            std::cerr << "korvanel-sim: --vcd: " << *error << "\n";
            return 2;
        }
    }

    NTSTATUS status = korvanel::platform::load_driver(sys);
    if (!NT_SUCCESS(status)) {
        std::cerr << "korvanel-sim: DriverEntry failed: " << status_name(status) << "\n";
        return 1;
    }
    DeviceConfig config;
    config.hardware_ids = {korvanel::host::to_utf16(hwid)};
    auto dev = korvanel::platform::open_device(sys, config);
    if (!NT_SUCCESS(dev.status)) {
        std::cerr << "korvanel-sim: " << (dev.context == nullptr ? "device add" : "query interface")
                  << " failed: " << status_name(dev.status) << "\n";
        return 1;
    }
    SENSOR_INTERFACE& si = dev.si;
    waveform.watch(dev.device);
    ordered_json description = describe(si, select, raw);
    auto variant = korvanel::tool::variant_name(hwid);
    description["variant"] = {{"hardware_id", hwid}, {"matched", variant.has_value()}};
    // Values the driver never read were most likely meant as others.
    std::vector<std::string> given;
    for (auto& d : dwords) {
        given.push_back(d.first);
    }
    if (auto notes = korvanel::tool::unread_registry_notes(given, sys.registry().asked_names()); !notes.empty()) {
        description["notes"] = notes;
    }
    auto* context = dev.context;
    // A file the run could not write is the user's error, as a bad option is.
    std::string write_error;
    if (memory.requested()) {
        description["memory"] = korvanel::tool::run_memory_options(sys, context, memory, &waveform);
        write_error = description["memory"].value("save_error", "");
    }
    if (!actuator.selection.chip.empty() &&
        !korvanel::tool::run_actuator_options(sys, context, actuator, *vcm_ops, description["actuator"], error,
                                              &waveform)) {
        write_error = error;
    }
    si.InterfaceHeader.InterfaceDereference(si.InterfaceHeader.Context);

    waveform.watch(nullptr);
    auto report = sys.unload_driver();
    // Moved into place under the one rule; the waveform is written whatever
    // the run found, to look at it.
    if (auto error = waveform.finish()) {
        std::cerr << "korvanel-sim: --vcd " << *error << "\n";
        return 2;
    }
    auto entries = korvanel::tool::trace_entries(sys.traces(), sys.traces().events(), trace);
    if (trace.requested()) {
        description["trace"] = korvanel::tool::trace_json(entries, origin);
    }
    description["unload"] = report.clean() ? "clean" : report.text();

    if (json) {
        std::cout << korvanel::tool::json_dump(description, 2) << "\n";
    } else {
        print_text(description, hwid);
        if (description.contains("memory")) {
            korvanel::tool::print_memory(description["memory"]);
        }
        if (description.contains("actuator")) {
            korvanel::tool::print_actuator(description["actuator"]);
        }
        if (trace.requested()) {
            printf("Trace:\n");
            for (auto& e : entries) {
                printf("  %s\n", korvanel::tool::trace_line(e, origin).c_str());
            }
        }
        printf("Unload: %s\n", report.clean() ? "clean" : report.text().c_str());
    }
    if (!write_error.empty()) {
        std::cerr << "korvanel-sim: cannot write " << write_error << "\n";
        return 2;
    }
    if (capture) {
        auto bench = korvanel::wire::wire_transcript(sys.bus().transcript(), *speed);
        if (auto difference = korvanel::wire::compare_wire(bench, capture->transfers)) {
            std::cerr << "korvanel-sim: the bus differs from " << bus_capture << ": " << *difference << "\n";
            return 1;
        }
        std::cerr << "korvanel-sim: the bus matches " << bus_capture << " (" << bench.size() << (bench.size() == 1 ? " transfer" : " transfers") << ")\n";
    }
    return report.clean() ? 0 : 1;
}
