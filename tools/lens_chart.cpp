// lens_chart.cpp - the lens trajectory as an SVG step chart.
#include "lens_chart.h"

#include "parse.h"

#include "models/actuator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace korvanel::tool {

using nlohmann::ordered_json;

ordered_json lens_trajectory(const models::ActuatorModel* model, int64_t origin, int64_t end)
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
