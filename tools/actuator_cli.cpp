// actuator_cli.cpp - korvanel-sim's lens-actuator options, the operation
// runner, and its text, JSON and SVG output.
#include "actuator_cli.h"

#include "platform/checked.h"

#include "bus_report.h"
#include "files/files.h"
#include "known_names.h"
#include "parse.h"
#include "bench/spb_controller.h"
#include "models/actuator.h"
#include "vcm/vcm.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace korvanel::tool {

using namespace files;

using nlohmann::ordered_json;

void add_actuator_options(CLI::App& app, ActuatorOptions& options)
{
    app.add_option("--vcm", options.selection.chip, "attach a lens actuator: " + actuator_chip_names() + ", or its table row 1-8");
    app.add_option("--vcm-connection", options.connection, "its resource-hub connection id (default 0x1C)");
    // Numbers as the tool reads them everywhere (a leading zero is decimal),
    // not as the option parser would (as octal).
    auto number = [&app](const char* name, long long high, auto store, auto refusal, const char* help) {
        app.add_option_function<std::string>(
            name,
            [=](const std::string& text) {
                auto value = parse_integer(text, 0, high);
                if (!value) {
                    throw CLI::ValidationError(name, refusal(excerpt(text)));
                }
                store(*value);
            },
            help);
    };
    number("--vcm-address", 0x7F, [&options](long long v) { options.selection.address = uint8_t(v); },
           [](const std::string& text) { return "'" + text + "' is not a 7-bit bus address"; },
           "its 7-bit bus address (default the chip's usual one)");
    auto position = [](const std::string& text) { return "Value " + text + " not in range 0 to 65535"; };
    number("--vcm-low", 65535, [&options](long long v) { options.selection.low = unsigned(v); }, position,
           "VcmLowPosition of the module");
    number("--vcm-high", 65535, [&options](long long v) { options.selection.high = unsigned(v); }, position,
           "VcmHighPosition of the module");
    app.add_option("--module", options.selection.module, "module name put into SensorName (DW9806B ramps by it)");
    app.add_option("--vcm-ops", options.ops,
                   "actuator operations, in order: init,setpos:N,getpos,status,hpstatus,setconfig:COUNT:REG:DATA:...,"
                   "resetpos,advance:MS")
        ->each([&options](const std::string&) { options.ops_given = true; });
    app.add_option("--svg", options.svg, "write the lens trajectory as an SVG chart to this file");
}

std::optional<std::vector<ActuatorOp>> check_actuator_options(ActuatorOptions& options, std::string& error)
{
    if (options.selection.chip.empty()) {
        if (options.ops_given || !options.svg.empty()) {
            error = "no actuator is connected: --vcm CHIP attaches one (on --vcm-connection)";
            return std::nullopt;
        }
        return std::vector<ActuatorOp>{};
    }
    if (models::find_actuator_chip(options.selection.chip) == nullptr) {
        error = "unknown actuator chip '" + excerpt(options.selection.chip) + "' (" + actuator_chip_names() + ", or 1-8)";
        return std::nullopt;
    }
    auto connection = parse_unsigned(options.connection);
    if (!connection) {
        error = "--vcm-connection: '" + excerpt(options.connection) + "' is not a connection id (0 to 0xFFFFFFFFFFFFFFFF)";
        return std::nullopt;
    }
    options.selection.connection = *connection;
    if (!options.svg.empty()) {
        if (auto problem = check_output(options.svg, {options.force, "--force", {}})) {
            error = "--svg " + *problem;
            return std::nullopt;
        }
    }
    std::vector<ActuatorOp> ops;
    if (OpError problem; !parse_actuator_ops(options.ops, "--vcm-ops", ops, problem)) {
        error = problem.what();
        return std::nullopt;
    }
    return ops;
}

void print_actuator(const ordered_json& a)
{
    if (a.contains("error")) {
        printf("Actuator: %s\n", a["error"].get<std::string>().c_str());
        return;
    }
    printf("Actuator %s (row %d) on connection %s, low %u, high %u, module \"%s\", bus %s\n",
           a["chip"].get<std::string>().c_str(), a["row"].get<int>(),
           connection_text(a["connection"].get<uint64_t>()).c_str(),
           a["low"].get<unsigned>(), a["high"].get<unsigned>(), printable(a["module"].get<std::string>()).c_str(),
           a["bus_speed"].get<std::string>().c_str());
    for (auto& r : a["operations"]) {
        std::string extra;
        for (const char* key : {"position", "moving", "settled"}) {
            if (r.contains(key)) {
                extra += std::string("  ") + key + " " + std::to_string(r[key].get<unsigned>());
            }
        }
        printf("  %10.4f ms  %-24s %-22s recorded %d%s\n", r["time_ms"].get<double>(),
               r["op"].get<std::string>().c_str(), r["status"].get<std::string>().c_str(),
               r["recorded_position"].get<int>(), extra.c_str());
    }
    printf("Bus transcript (%zu transfers):\n", a["transcript"].size());
    for (auto& line : a["transcript_lines"]) {
        printf("  %s\n", line.get<std::string>().c_str());
    }
    printf("Lens trajectory (%zu moves, run ends at %.4f ms):\n", a["trajectory"].size(),
           a["end_ms"].get<double>());
    for (auto& p : a["trajectory"]) {
        printf("  %10.4f ms  code %u\n", p["time_ms"].get<double>(), p["code"].get<unsigned>());
    }
    if (a.contains("chart")) {
        printf("Chart: %s\n", printable(a["chart"].get<std::string>()).c_str());
    }
}

}  // namespace korvanel::tool
