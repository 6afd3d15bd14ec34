// korvanel-sim - runs the driver on the simulated platform as a user would:
// loads it, adds a device, takes SENSOR_INTERFACE as the camera driver does
// and prints what every provided slot tells, then releases the interface and
// unloads cleanly.
//
//   korvanel-sim                                 the default device
//   korvanel-sim --hwid 'root\KORVANEL\rgbir'    another variant
//   korvanel-sim --reg MipiLanes=4 --reg MipiMBps=1500
//   korvanel-sim --select 2:1920:1080:0 --trace --json
//   korvanel-sim --real-time                       waits take real time
//   korvanel-sim --nvm 10 --nvm-ops load,load --bus-speed 400k   a module memory
//   korvanel-sim --vcm DW9719 --vcm-ops init,setpos:300,resetpos --svg lens.svg
#include "actuator_cli.h"
#include "bus_report.h"
#include "memory_cli.h"
#include "host/bus.h"
#include "host/system.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <sstream>

using korvanel::host::DeviceConfig;
using korvanel::host::System;
using korvanel::host::status_name;
using nlohmann::ordered_json;

namespace {

const char* const kSlotNames[SENSOR_INTERFACE_SLOTS] = {
    "AcceptRecord", "GetSensorCaps", "GetMipiConfig", "GetSensorParameters", "GetModeTables", "GetPdafTable",
    "SelectMode", "AcceptEntry", "AcceptPointer", "AcceptValue", "AcceptPair", "AcceptNotice", nullptr, nullptr,
    nullptr, nullptr, nullptr, "GetModeInfo", "PowerUp", "PowerDown", nullptr, nullptr, nullptr, nullptr,
    "GetAuxFlag", "GetParameterWord", "GetModuleInfo", nullptr, nullptr, nullptr, "QueryProperty", nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, "GetPdafInfo", nullptr, nullptr, nullptr, "AcceptEntryList",
    nullptr};

const char* const kTableNames[] = {"Still", "Video", "Preview", "Raw"};

const void* slot(const SENSOR_INTERFACE& si, int k)
{
    const void* p;
    memcpy(&p, reinterpret_cast<const uint8_t*>(&si) + SENSOR_SLOT_OFFSET(k), sizeof p);
    return p;
}

std::string hex_bytes(const void* data, size_t n)
{
    return korvanel::tool::hex_bytes(static_cast<const uint8_t*>(data), n);
}

std::string text_field(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

ordered_json mode_list(const MODE_LIST* list)
{
    ordered_json rows = ordered_json::array();
    if (list == nullptr) {
        return rows;
    }
    auto* entries = static_cast<const MODE_ENTRY*>(list->Entries);
    for (ULONG i = 0; i < list->Count && entries; i++) {
        rows.push_back({{"width", entries[i].Width},
                        {"height", entries[i].Height},
                        {"fps", entries[i].FrameRate},
                        {"words", {entries[i].Fixed0, entries[i].Fixed1, entries[i].Word5, entries[i].Word7}}});
    }
    return rows;
}

// Asks every provided slot what it tells the camera driver.
ordered_json describe(SENSOR_INTERFACE& si, const std::vector<LONG>& select)
{
    auto* ctx = static_cast<PSENSOR_CONTEXT>(si.InterfaceHeader.Context);
    ordered_json out;
    out["interface"] = {{"size", si.InterfaceHeader.Size}, {"version", si.InterfaceHeader.Version}};
    ordered_json slots = ordered_json::array();
    for (int k = 0; k < SENSOR_INTERFACE_SLOTS; k++) {
        if (slot(si, k) != nullptr) {
            slots.push_back({{"slot", k}, {"name", kSlotNames[k] ? kSlotNames[k] : "?"}});
        }
    }
    out["slots"] = slots;

    if (si.GetModuleInfo) {
        SENSOR_MODULE_INFO info{};
        NTSTATUS status = si.GetModuleInfo(ctx, &info);
        out["module"] = {{"status", status_name(status)},
                         {"guid", korvanel::host::guid_text(info.SensorGuid)},
                         {"variant_code", info.VariantCode},
                         {"mipi_format", info.MipiFormat},
                         {"driver", text_field(info.DriverName, sizeof info.DriverName)},
                         {"sensor", text_field(info.SensorName, sizeof info.SensorName)},
                         {"module", text_field(info.ModuleName, sizeof info.ModuleName)},
                         {"base_sensor", text_field(info.BaseSensorName, sizeof info.BaseSensorName)},
                         {"revision", text_field(info.ModuleRevision, sizeof info.ModuleRevision)},
                         {"vendor", text_field(info.VendorName, sizeof info.VendorName)}};
    }
    if (si.GetSensorCaps) {
        SENSOR_CAPS caps{};
        NTSTATUS status = si.GetSensorCaps(ctx, &caps);
        out["caps"] = {{"status", status_name(status)},
                       {"bytes", hex_bytes(&caps, sizeof caps)},
                       {"caps_mode", (caps.ModeFlags & SENSOR_CAPS_MODE_MASK) >> SENSOR_CAPS_MODE_SHIFT}};
    }
    if (si.GetParameterWord) {
        ULONG word = 0;
        NTSTATUS status = si.GetParameterWord(ctx, &word);
        char hex[16];
        snprintf(hex, sizeof hex, "0x%08X", word);
        out["parameter_word"] = {{"status", status_name(status)}, {"value", hex}};
    }
    if (si.GetSensorParameters) {
        const SENSOR_PARAMETERS* parameters = nullptr;
        NTSTATUS status = si.GetSensorParameters(ctx, &parameters);
        ordered_json p = {{"status", status_name(status)}};
        if (parameters) {
            p["first_words"] = std::vector<ULONG>(parameters->Values, parameters->Values + 15);
            p["pdaf_type"] = parameters->PdafType;
        }
        out["parameters"] = p;
    }
    if (si.GetMipiConfig) {
        ULONG port = 0, lanes = 0, format = 0;
        si.GetMipiConfig(ctx, &port, &lanes, &format);
        out["mipi"] = {{"port", port}, {"lanes", lanes}, {"format", format}};
    }
    if (si.QueryProperty) {
        ULONG rate = 0;
        NTSTATUS status = si.QueryProperty(ctx, SensorPropertyLinkRate, &rate);
        out["link_rate"] = {{"status", status_name(status)}, {"bits_per_second", rate}};
    }
    if (si.GetAuxFlag) {
        ULONG flag = 0;
        NTSTATUS status = si.GetAuxFlag(ctx, &flag);
        out["aux_flag"] = {{"status", status_name(status)}, {"value", flag}};
    }
    if (si.GetModeTables) {
        const MODE_LIST* lists[4] = {};
        NTSTATUS status = si.GetModeTables(ctx, &lists[0], &lists[1], &lists[2], &lists[3]);
        ordered_json tables = {{"status", status_name(status)}};
        for (int t = 0; t < 4; t++) {
            tables[kTableNames[t]] = mode_list(lists[t]);
        }
        out["mode_lists"] = tables;
    }
    if (si.GetPdafTable) {
        const MODE_LIST* list = nullptr;
        NTSTATUS status = si.GetPdafTable(ctx, &list);
        ordered_json rows = ordered_json::array();
        if (list) {
            auto* modes = static_cast<const PDAF_MODE*>(list->Entries);
            for (ULONG i = 0; i < list->Count && modes; i++) {
                rows.push_back({{"width", modes[i].Width}, {"height", modes[i].Height}, {"fps", modes[i].FrameRate}});
            }
        }
        out["pdaf_list"] = {{"status", status_name(status)}, {"rows", rows}};
    }
    if (si.GetPdafInfo) {
        ordered_json answers = ordered_json::array();
        for (auto [w, h] : {std::pair<ULONG, ULONG>{4208, 3120}, {4032, 3024}, {1920, 1120}}) {
            PDAF_INFO info{};
            info.Width = w;
            info.Height = h;
            PPDAF_INFO p = &info;
            NTSTATUS status = si.GetPdafInfo(ctx, &p);
            answers.push_back({{"image", std::to_string(w) + "x" + std::to_string(h)},
                               {"status", status_name(status)},
                               {"pdaf", std::to_string(info.PdafWidth) + "x" + std::to_string(info.PdafHeight)},
                               {"interleave", info.InterleaveMode},
                               {"flags", {info.FormatFlagA, info.FormatFlagB}},
                               {"word36", info.Word36}});
        }
        out["pdaf_info"] = answers;
    }
    if (si.SelectMode && select.size() == 4) {
        NTSTATUS status = si.SelectMode(ctx, select[0], select[1], select[2], select[3]);
        out["select"] = {{"request", select}, {"status", status_name(status)}};
    }
    if (si.GetModeInfo) {
        SENSOR_MODE_INFO info{};
        ULONG size = sizeof info;
        NTSTATUS status = si.GetModeInfo(ctx, &size, &info);
        out["mode_info"] = {{"status", status_name(status)},
                            {"width", info.Width},
                            {"height", info.Height},
                            {"bytes", hex_bytes(&info, sizeof info)}};
    }
    return out;
}

void print_text(const ordered_json& d, const std::string& hwid)
{
    printf("korvanel-sim: device with hardware identifier %s\n", hwid.c_str());
    printf("SENSOR_INTERFACE: Size %d, Version %d, %zu of %d slots provided\n", d["interface"]["size"].get<int>(),
           d["interface"]["version"].get<int>(), d["slots"].size(), SENSOR_INTERFACE_SLOTS);
    for (auto& s : d["slots"]) {
        printf("  slot %2d  %s\n", s["slot"].get<int>(), s["name"].get<std::string>().c_str());
    }
    if (d.contains("module")) {
        auto& m = d["module"];
        printf("Identity: %s \"%s\", variant code %d, MIPI format %d\n", m["guid"].get<std::string>().c_str(),
               m["sensor"].get<std::string>().c_str(), m["variant_code"].get<int>(), m["mipi_format"].get<int>());
        printf("  driver \"%s\", module \"%s\", base sensor \"%s\", revision \"%s\", vendor \"%s\"\n",
               m["driver"].get<std::string>().c_str(), m["module"].get<std::string>().c_str(),
               m["base_sensor"].get<std::string>().c_str(), m["revision"].get<std::string>().c_str(),
               m["vendor"].get<std::string>().c_str());
    }
    if (d.contains("caps")) {
        printf("Capabilities: %s (capability mode %d)\n", d["caps"]["bytes"].get<std::string>().c_str(),
               d["caps"]["caps_mode"].get<int>());
    }
    if (d.contains("parameter_word")) {
        printf("Parameter word: %s\n", d["parameter_word"]["value"].get<std::string>().c_str());
    }
    if (d.contains("parameters") && d["parameters"].contains("first_words")) {
        printf("Parameters: %s ..., PDAF type %u\n", d["parameters"]["first_words"].dump().c_str(),
               d["parameters"]["pdaf_type"].get<unsigned>());
    }
    if (d.contains("mipi")) {
        printf("MIPI link: port %u, %u lanes, data format %u", d["mipi"]["port"].get<unsigned>(),
               d["mipi"]["lanes"].get<unsigned>(), d["mipi"]["format"].get<unsigned>());
        if (d.contains("link_rate")) {
            printf(", link rate %u bit/s", d["link_rate"]["bits_per_second"].get<unsigned>());
        }
        printf("\n");
    }
    if (d.contains("aux_flag")) {
        printf("Aux flag: %u\n", d["aux_flag"]["value"].get<unsigned>());
    }
    if (d.contains("mode_lists")) {
        for (auto* name : kTableNames) {
            auto& rows = d["mode_lists"][name];
            printf("Mode list %s (%zu):", name, rows.size());
            int i = 0;
            for (auto& r : rows) {
                printf("%s %ux%u@%u", i++ % 6 ? "," : "\n ", r["width"].get<unsigned>(), r["height"].get<unsigned>(),
                       r["fps"].get<unsigned>());
            }
            printf("\n");
        }
    }
    if (d.contains("pdaf_list")) {
        printf("PDAF list (%zu):", d["pdaf_list"]["rows"].size());
        for (auto& r : d["pdaf_list"]["rows"]) {
            printf(" %ux%u@%u", r["width"].get<unsigned>(), r["height"].get<unsigned>(), r["fps"].get<unsigned>());
        }
        printf("\n");
    }
    if (d.contains("pdaf_info")) {
        for (auto& a : d["pdaf_info"]) {
            printf("PDAF info for %s: %s, PDAF %s, interleave %u, flags %s, word 36 = %u\n",
                   a["image"].get<std::string>().c_str(), a["status"].get<std::string>().c_str(),
                   a["pdaf"].get<std::string>().c_str(), a["interleave"].get<unsigned>(), a["flags"].dump().c_str(),
                   a["word36"].get<unsigned>());
        }
    }
    if (d.contains("select")) {
        printf("SelectMode %s: %s\n", d["select"]["request"].dump().c_str(),
               d["select"]["status"].get<std::string>().c_str());
    }
    if (d.contains("mode_info")) {
        auto& m = d["mode_info"];
        printf("Mode info (%s): %ux%u\n  %s\n", m["status"].get<std::string>().c_str(), m["width"].get<unsigned>(),
               m["height"].get<unsigned>(), m["bytes"].get<std::string>().c_str());
    }
}

bool parse_registry_value(const std::string& assignment, std::string& name, uint32_t& value)
{
    auto eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0) {
        return false;
    }
    name = assignment.substr(0, eq);
    try {
        size_t used = 0;
        unsigned long v = std::stoul(assignment.substr(eq + 1), &used, 0);
        if (used != assignment.size() - eq - 1 || v > 0xFFFFFFFFul) {
            return false;
        }
        value = uint32_t(v);
    } catch (...) {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"korvanel-sim: run the korvanel camera sensor driver on the simulated platform"};
    std::string hwid = "root\\KORVANEL";
    std::vector<std::string> registry_values;
    std::string select_spec;
    bool show_trace = false;
    bool json = false;
    bool real_time = false;
    app.add_option("--hwid", hwid, "hardware identifier of the device (default root\\KORVANEL)");
    app.add_option("--reg", registry_values, "REG_DWORD value under the service key, NAME=VALUE (repeatable)");
    app.add_option("--select", select_spec, "SelectMode before reading the mode info: TABLE:WIDTH:HEIGHT:FPS");
    app.add_flag("--trace", show_trace, "print the driver's decoded trace");
    app.add_flag("--json", json, "print machine-readable JSON");
    app.add_flag("--real-time", real_time, "run on the real clock: waits sleep and stalls spin");
    std::string bus_speed;
    app.add_option("--bus-speed", bus_speed, "I2C clock for wire time: 100k, 400k or 1m (default: no wire time)");
    korvanel::tool::MemoryOptions memory;
    korvanel::tool::add_memory_options(app, memory);
    korvanel::tool::ActuatorOptions actuator;
    korvanel::tool::add_actuator_options(app, actuator);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::ParseError& e) {
        std::cerr << "korvanel-sim: " << e.what() << "\n\n" << app.help();
        return 2;
    }

    std::vector<LONG> select;
    if (!select_spec.empty()) {
        std::stringstream ss(select_spec);
        std::string part;
        while (std::getline(ss, part, ':')) {
            try {
                select.push_back(std::stol(part, nullptr, 0));
            } catch (...) {
                select.clear();
                break;
            }
        }
        if (select.size() != 4) {
            std::cerr << "korvanel-sim: --select takes TABLE:WIDTH:HEIGHT:FPS\n\n" << app.help();
            return 2;
        }
    }

    std::string error;
    auto vcm_ops = korvanel::tool::check_actuator_options(actuator, error);
    auto speed = bus_speed.empty() ? korvanel::host::BusSpeed::Instant : korvanel::tool::parse_bus_speed(bus_speed);
    auto memory_error = korvanel::tool::prepare_memory(memory);
    if (!speed || !vcm_ops || memory_error) {
        std::cerr << "korvanel-sim: "
                  << (!speed ? "--bus-speed takes 100k, 400k or 1m" : !vcm_ops ? error : *memory_error) << "\n";
        return 2;
    }

    System sys;
    sys.bus().set_speed(*speed);
    if (real_time) {
        sys.clock().set_mode(korvanel::host::Clock::Mode::Real);
    }
    for (auto& assignment : registry_values) {
        std::string name;
        uint32_t value;
        if (!parse_registry_value(assignment, name, value)) {
            std::cerr << "korvanel-sim: --reg takes NAME=VALUE with a 32-bit number, not '" << assignment << "'\n";
            return 2;
        }
        sys.registry().set_dword(name, value);
    }
    if (show_trace) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }

    NTSTATUS status = sys.load_driver();
    if (!NT_SUCCESS(status)) {
        std::cerr << "korvanel-sim: DriverEntry failed: " << status_name(status) << "\n";
        return 1;
    }
    DeviceConfig config;
    config.hardware_ids = {korvanel::host::to_utf16(hwid)};
    auto& dev = sys.add_device(config);
    if (!NT_SUCCESS(dev.add_status())) {
        std::cerr << "korvanel-sim: device add failed: " << status_name(dev.add_status()) << "\n";
        return 1;
    }

    SENSOR_INTERFACE si{};
    status = dev.query_interface(GUID_SENSOR_INTERFACE, &si, SENSOR_INTERFACE_VERSION);
    if (!NT_SUCCESS(status)) {
        std::cerr << "korvanel-sim: query interface failed: " << status_name(status) << "\n";
        return 1;
    }
    ordered_json description = describe(si, select);
    auto* context = static_cast<PDEVICE_CONTEXT>(dev.context());
    if (memory.requested()) {
        description["memory"] = korvanel::tool::run_memory_options(sys, context, memory);
    }
    if (!actuator.chip.empty() &&
        !korvanel::tool::run_actuator_options(sys, context, actuator, *vcm_ops, description["actuator"], error)) {
        std::cerr << "korvanel-sim: " << error << "\n";
        return 1;
    }
    si.InterfaceHeader.InterfaceDereference(si.InterfaceHeader.Context);

    auto report = sys.unload_driver();
    if (show_trace) {
        description["trace"] = sys.traces().lines();
    }
    description["unload"] = report.clean() ? "clean" : report.text();

    if (json) {
        std::cout << description.dump(2) << "\n";
    } else {
        print_text(description, hwid);
        if (description.contains("memory")) {
            korvanel::tool::print_memory(description["memory"]);
        }
        if (description.contains("actuator")) {
            korvanel::tool::print_actuator(description["actuator"]);
        }
        if (show_trace) {
            printf("Trace:\n");
            for (auto& line : sys.traces().lines()) {
                printf("  %s\n", line.c_str());
            }
        }
        printf("Unload: %s\n", report.clean() ? "clean" : report.text().c_str());
    }
    return report.clean() ? 0 : 1;
}
