// actuator_cli.cpp - korvanel-sim's lens-actuator options, the operation
// runner, and its text, JSON and SVG output.
#include "actuator_cli.h"

#include "platform/checked.h"

#include "bus_report.h"
#include "files.h"
#include "parse.h"
#include "host/bus.h"
#include "sim/actuator.h"
#include "vcm/vcm.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace korvanel::tool {

using nlohmann::ordered_json;

namespace {

double ms(int64_t units) { return double(units) / 10000.0; }

}  // namespace

std::string actuator_chip_names()
{
    std::string names;
    for (auto& chip : sim::actuator_chips()) {
        names += (names.empty() ? "" : ", ") + chip.name;
    }
    return names;
}

std::optional<ActuatorOp> parse_actuator_op(const std::string& token, std::string& error)
{
    static const struct {
        const char* name;
        ActuatorOp::Kind kind;
        const char* argument;  // what the argument is, or none
    } names[] = {
        {"init", ActuatorOp::Kind::Init, nullptr},         {"setpos", ActuatorOp::Kind::SetPos, "a position"},
        {"getpos", ActuatorOp::Kind::GetPos, nullptr},     {"status", ActuatorOp::Kind::Status, nullptr},
        {"hpstatus", ActuatorOp::Kind::HpStatus, nullptr}, {"setconfig", ActuatorOp::Kind::SetConfig, "values"},
        {"resetpos", ActuatorOp::Kind::ResetPos, nullptr}, {"advance", ActuatorOp::Kind::Advance, "milliseconds"},
    };
    auto fields = split(token, ':');
    auto* known = std::find_if(std::begin(names), std::end(names),
                               [&](auto& n) { return !fields.empty() && fields[0] == n.name; });
    if (token.empty()) {
        error = "an empty operation";
        return std::nullopt;
    }
    if (known == std::end(names)) {
        error = "unknown operation '" + excerpt(token) +
                "' (init, setpos:N, getpos, status, hpstatus, setconfig:COUNT:REG:DATA:..., resetpos, advance:MS)";
        return std::nullopt;
    }
    ActuatorOp op{known->kind, 0, {}, token};
    size_t arguments = fields.size() - 1;
    if ((known->argument == nullptr) != (arguments == 0)) {
        error = "'" + excerpt(token) + "' " +
                (known->argument ? std::string("needs ") + known->argument + ", as " + known->name + ":300"
                                 : std::string("takes no argument"));
        return std::nullopt;
    }
    switch (op.kind) {
    case ActuatorOp::Kind::SetPos:
    case ActuatorOp::Kind::Advance: {
        bool position = op.kind == ActuatorOp::Kind::SetPos;
        auto v = arguments == 1 ? parse_integer(fields[1], position ? -32768 : 0, position ? 65535 : 3600000)
                                : std::nullopt;
        if (!v) {
            error = "'" + excerpt(token) + "' takes one " +
                    (position ? "16-bit position (-32768 to 65535)" : "count of milliseconds");
            return std::nullopt;
        }
        op.value = long(*v);
        break;
    }
    case ActuatorOp::Kind::SetConfig:
        for (size_t i = 1; i < fields.size(); i++) {
            auto v = parse_integer(fields[i], 0, 0xFFFFFFFFll);
            if (!v) {
                error = "'" + excerpt(token) + "': '" + excerpt(fields[i]) + "' is not a 32-bit number";
                return std::nullopt;
            }
            op.config.push_back(ULONG(*v));
        }
        // The driver reads as many pairs as the count says.
        if (op.config.size() != 1 + 2 * size_t(op.config[0])) {
            error = "'" + excerpt(token) + "' gives a count of " + std::to_string(op.config[0]) + ", which needs " +
                    std::to_string(2 * size_t(op.config[0])) + " values after it, not " +
                    std::to_string(op.config.size() - 1);
            return std::nullopt;
        }
        break;
    default:
        break;
    }
    return op;
}

std::optional<std::vector<ActuatorOp>> parse_actuator_ops(const std::string& list, std::string& error)
{
    std::vector<ActuatorOp> ops;
    for (auto& token : split(list, ',')) {
        auto op = parse_actuator_op(token, error);
        if (!op) {
            error = "--vcm-ops: " + error + (token.empty() ? " in '" + excerpt(list) + "'" : "");
            return std::nullopt;
        }
        ops.push_back(std::move(*op));
    }
    return ops;
}

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
    if (sim::find_actuator_chip(options.selection.chip) == nullptr) {
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
    return parse_actuator_ops(options.ops, error);
}

ordered_json run_actuator_op(host::System& sys, PDEVICE_CONTEXT context, const ActuatorOp& op)
{
    const VCM_DRIVER& row = platform::actuator_table()[context->VcmType];
    ordered_json r = ordered_json::object();
    NTSTATUS status = STATUS_SUCCESS;
    USHORT position = 0;
    ULONG flag = 0;
    switch (op.kind) {
    case ActuatorOp::Kind::Init:
        status = row.Init(context);
        break;
    case ActuatorOp::Kind::SetPos:
        status = row.SetPos(context, SHORT(op.value));
        break;
    case ActuatorOp::Kind::GetPos:
        status = row.GetPos(context, &position);
        r["position"] = position;
        break;
    case ActuatorOp::Kind::Status:
        status = row.GetStatus(context, &flag);
        r["moving"] = flag;
        break;
    case ActuatorOp::Kind::HpStatus:
        status = row.GetHPStatus(context, &flag);
        r["settled"] = flag;
        break;
    case ActuatorOp::Kind::SetConfig:
        status = row.SetConfig(context, op.config.data());
        break;
    case ActuatorOp::Kind::ResetPos:
        status = row.ResetPos(context);
        break;
    case ActuatorOp::Kind::Advance:
        sys.clock().advance_ms(op.value);
        break;
    }
    r["status"] = host::status_name(status);
    r["recorded_position"] = context->VcmPosition;
    return r;
}

ordered_json lens_trajectory(const sim::ActuatorModel* model, int64_t origin, int64_t end)
{
    ordered_json out;
    out["max_code"] = model ? model->chip().max_code : 1023;
    ordered_json trajectory = ordered_json::array();
    if (model) {
        for (auto& p : model->trajectory()) {
            trajectory.push_back({{"time_ms", ms(p.time - origin)}, {"code", p.code}});
        }
    }
    out["trajectory"] = trajectory;
    out["end_ms"] = ms(end - origin);
    return out;
}

ordered_json run_actuator(host::System& sys, PDEVICE_CONTEXT context, const std::vector<ActuatorOp>& ops)
{
    ordered_json out;
    if (context == nullptr || ULONG(context->VcmType) >= VCM_TYPE_COUNT || context->VcmType == 0) {
        out["error"] = "the device has no actuator selected";
        return out;
    }
    const I2C_CONNECTION& slot = context->I2cConnections[I2C_SLOT_VCM];
    auto model = std::dynamic_pointer_cast<sim::ActuatorModel>(sys.bus().peripheral(slot.ConnectionId));

    int64_t origin = sys.clock().now();
    uint64_t first = sys.bus().transfer_count();
    out["chip"] = platform::actuator_table()[context->VcmType].Name;
    out["row"] = context->VcmType;
    out["connection"] = slot.ConnectionId;
    out["low"] = context->VcmLowPosition;
    out["high"] = context->VcmHighPosition;
    out["module"] = std::string(context->SensorName, strnlen(context->SensorName, sizeof context->SensorName));
    out["bus_speed"] = bus_speed_text(sys.bus().speed());

    ordered_json results = ordered_json::array();
    for (auto& op : ops) {
        ordered_json r = {{"op", op.text}, {"time_ms", ms(sys.clock().now() - origin)}};
        r.update(run_actuator_op(sys, context, op));
        results.push_back(std::move(r));
    }
    out["operations"] = results;

    auto transcript = sys.bus().transcript();
    transcript.erase(std::remove_if(transcript.begin(), transcript.end(),
                                    [first](const host::BusTransfer& t) { return t.index < first; }),
                     transcript.end());
    out["transcript"] = transcript_json(transcript, origin);
    out["transcript_lines"] = transcript_lines(transcript, origin);
    out.update(lens_trajectory(model.get(), origin, sys.clock().now()));
    return out;
}

bool run_actuator_options(host::System& sys, PDEVICE_CONTEXT context, const ActuatorOptions& options,
                          const std::vector<ActuatorOp>& ops, ordered_json& result, std::string& error,
                          wire::Waveform* waveform)
{
    auto model = platform::select_actuator(sys, context, options.selection);
    if (waveform != nullptr) {
        waveform->watch(model);
    }
    result = run_actuator(sys, context, ops);
    if (!options.svg.empty()) {
        if (auto problem = write_output(options.svg, trajectory_svg(result), {options.force, "--force", {}})) {
            error = "--svg " + *problem;
            return false;
        }
        result["chart"] = options.svg;
    }
    return true;
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

namespace {

// Round tick values over [low, high]: a step of 1, 2 or 5 times a power of
// ten giving four to eight ticks, and the range widened to whole steps.
struct Ticks {
    double first, last, step;
};

Ticks round_ticks(double low, double high)
{
    if (high <= low) {
        high = low + 1;
    }
    double raw = (high - low) / 8;
    double power = std::pow(10.0, std::floor(std::log10(raw)));
    double step = power;
    for (double m : {1.0, 2.0, 5.0, 10.0}) {
        if (m * power >= raw) {
            step = m * power;
            break;
        }
    }
    return {std::floor(low / step) * step, std::ceil(high / step) * step, step};
}

std::string number_text(double v)
{
    char text[32];
    snprintf(text, sizeof text, "%g", std::fabs(v) < 1e-9 ? 0.0 : v);
    return text;
}

// Text in the chart: what printable() shows, so that a control byte or a
// byte that is no UTF-8 (XML allows neither) is \xNN, with XML's own
// characters escaped.
std::string xml_text(const std::string& text)
{
    std::string out;
    for (char c : printable(text)) {
        out += c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : c == '"' ? "&quot;" : std::string(1, c);
    }
    return out;
}

}  // namespace

std::string trajectory_svg(const ordered_json& a)
{
    const auto& points = a.contains("trajectory") ? a["trajectory"] : ordered_json::array();
    const auto& operations = a.contains("operations") ? a["operations"] : ordered_json::array();
    // Operation labels sit in lanes above the plot, each in the first lane
    // where it clears the label before it: their x is known once the time
    // axis is, their lane count sets the top margin.
    const double width = 760, left = 70, right = 80, bottom = 50, lane_height = 13, char_width = 6;
    double low = a.value("low", 0.0), high = a.value("high", double(a.value("max_code", 1023)));

    // The code axis covers every move and the module's low and high positions.
    double c_min = std::min(low, high), c_max = std::max(low, high);
    for (auto& p : points) {
        c_min = std::min(c_min, p["code"].get<double>());
        c_max = std::max(c_max, p["code"].get<double>());
    }
    Ticks codes = round_ticks(c_min, c_max);
    // Time from 0 to the run's end, in seconds once it lasts two or more.
    double end_ms = std::max(a.value("end_ms", 0.0), 0.001);
    bool seconds = end_ms >= 2000;
    double unit = seconds ? 1000.0 : 1.0;
    Ticks times = round_ticks(0, end_ms / unit);
    auto x = [&](double ms) {
        return left + (width - left - right) * (ms / unit - times.first) / (times.last - times.first);
    };
    std::vector<double> lane_ends;
    std::vector<size_t> lanes;
    for (auto& op : operations) {
        double from = x(op["time_ms"].get<double>()) - 2;
        double to = from + char_width * double(op["op"].get<std::string>().size()) + 8;
        size_t lane = 0;
        while (lane < lane_ends.size() && lane_ends[lane] > from) {
            lane++;
        }
        if (lane == lane_ends.size()) {
            lane_ends.push_back(to);
        } else {
            lane_ends[lane] = to;
        }
        lanes.push_back(lane);
    }
    const double top = 56 + lane_height * double(lane_ends.size()) + (lane_ends.empty() ? 0 : 8);
    const double height = top + 334 + bottom;
    auto y_lane = [&](size_t lane) { return 56 + lane_height * double(lane + 1); };

    auto y = [&](double c) {
        return height - bottom - (height - top - bottom) * (c - codes.first) / (codes.last - codes.first);
    };

    std::ostringstream svg;
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << width << " " << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    svg << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    std::string module = a.value("module", std::string());
    svg << "<text x=\"" << left << "\" y=\"22\" font-size=\"15\">" << xml_text(a.value("chip", std::string("actuator")))
        << " lens position" << (module.empty() ? "" : ", module " + xml_text(module)) << ", low "
        << number_text(low) << ", high " << number_text(high) << "</text>\n";
    svg << "<text x=\"" << left << "\" y=\"40\" fill=\"#555\">bus " << xml_text(a.value("bus_speed", std::string("?")))
        << ", " << points.size() << (points.size() == 1 ? " move" : " moves") << ", run of "
        << number_text(std::round(end_ms / unit * 1000) / 1000) << (seconds ? " s" : " ms") << "</text>\n";

    // Grid and tick labels.
    for (double c = codes.first; c <= codes.last + codes.step / 2; c += codes.step) {
        svg << "<line x1=\"" << left - 5 << "\" y1=\"" << y(c) << "\" x2=\"" << width - right << "\" y2=\"" << y(c)
            << "\" stroke=\"#e4e4e4\"/><text x=\"" << left - 8 << "\" y=\"" << y(c) + 4
            << "\" text-anchor=\"end\">" << number_text(c) << "</text>\n";
    }
    for (double t = times.first; t <= times.last + times.step / 2; t += times.step) {
        svg << "<line x1=\"" << x(t * unit) << "\" y1=\"" << y(codes.first) << "\" x2=\"" << x(t * unit)
            << "\" y2=\"" << y(codes.first) + 5 << "\" stroke=\"#444\"/><text x=\"" << x(t * unit) << "\" y=\""
            << y(codes.first) + 18 << "\" text-anchor=\"middle\">" << number_text(t) << "</text>\n";
    }
    svg << "<g stroke=\"#444\">\n<line x1=\"" << left << "\" y1=\"" << y(codes.first) << "\" x2=\"" << width - right
        << "\" y2=\"" << y(codes.first) << "\"/>\n<line x1=\"" << left << "\" y1=\"" << y(codes.first)
        << "\" x2=\"" << left << "\" y2=\"" << y(codes.last) << "\"/>\n</g>\n";
    svg << "<text x=\"" << (left + width - right) / 2 << "\" y=\"" << height - 12 << "\" text-anchor=\"middle\">time ("
        << (seconds ? "s" : "ms") << ")</text>\n";
    svg << "<text transform=\"translate(18," << (top + height - bottom) / 2
        << ") rotate(-90)\" text-anchor=\"middle\">code</text>\n";

    // The module's low and high positions.
    for (auto [value, name] : {std::pair{low, "low"}, std::pair{high, "high"}}) {
        svg << "<line x1=\"" << left << "\" y1=\"" << y(value) << "\" x2=\"" << width - right << "\" y2=\""
            << y(value) << "\" stroke=\"#2ca02c\" stroke-dasharray=\"6,4\"/><text x=\"" << width - right + 6
            << "\" y=\"" << y(value) + 4 << "\" fill=\"#2ca02c\">" << name << " " << number_text(value)
            << "</text>\n";
    }

    // Each operation where it happened: a faint line from the time axis up
    // to its name in its lane.
    for (size_t i = 0; i < operations.size(); i++) {
        double t = operations[i]["time_ms"].get<double>();
        svg << "<line x1=\"" << x(t) << "\" y1=\"" << y(codes.first) << "\" x2=\"" << x(t) << "\" y2=\""
            << y_lane(lanes[i]) + 2 << "\" stroke=\"#c7c7c7\" stroke-dasharray=\"2,3\"/><text x=\"" << x(t) + 2
            << "\" y=\"" << y_lane(lanes[i]) << "\" font-size=\"10\" fill=\"#555\">"
            << xml_text(operations[i]["op"].get<std::string>()) << "</text>\n";
    }

    if (points.empty()) {
        svg << "<text x=\"" << (left + width - right) / 2 << "\" y=\"" << (top + height - bottom) / 2
            << "\" text-anchor=\"middle\" font-size=\"16\" fill=\"#888\">no moves</text>\n";
        svg << "</svg>\n";
        return svg.str();
    }
    // The lens holds each code until the next move: a step line, a dot per move.
    std::ostringstream path;
    for (size_t i = 0; i < points.size(); i++) {
        double t = points[i]["time_ms"].get<double>(), c = points[i]["code"].get<double>();
        if (i > 0) {
            path << " " << x(t) << "," << y(points[i - 1]["code"].get<double>());
        }
        path << " " << x(t) << "," << y(c);
    }
    path << " " << x(end_ms) << "," << y(points.back()["code"].get<double>());
    svg << "<polyline fill=\"none\" stroke=\"#1f77b4\" stroke-width=\"1.5\" points=\"" << path.str() << "\"/>\n";
    for (auto& p : points) {
        svg << "<circle cx=\"" << x(p["time_ms"].get<double>()) << "\" cy=\"" << y(p["code"].get<double>())
            << "\" r=\"2.5\" fill=\"#d62728\"><title>" << p["time_ms"].get<double>() << " ms: "
            << p["code"].get<unsigned>() << "</title></circle>\n";
    }
    svg << "</svg>\n";
    return svg.str();
}

}  // namespace korvanel::tool
