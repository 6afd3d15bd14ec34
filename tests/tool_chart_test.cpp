// The lens chart: what a reader of it relies on being there.
#include <gtest/gtest.h>

#include "tools/actuator_cli.h"

#include <string>

namespace {

using nlohmann::ordered_json;

ordered_json run_of(double end_ms, std::initializer_list<std::pair<double, int>> moves)
{
    ordered_json a = {{"chip", "DW9719"}, {"bus_speed", "400 kHz"}, {"low", 200}, {"high", 700},
                      {"module", "M<1>"},  {"end_ms", end_ms}};
    a["trajectory"] = ordered_json::array();
    for (auto [t, code] : moves) {
        a["trajectory"].push_back({{"time_ms", t}, {"code", code}});
    }
    a["operations"] = {{{"time_ms", 0.0}, {"op", "init"}}, {{"time_ms", 0.5}, {"op", "setpos:300"}}};
    return a;
}

TEST(ToolChartTest, AxesMarksAndLabels)
{
    struct Case {
        const char* what;
        ordered_json run;
        std::vector<std::string> contains;
        std::vector<std::string> lacks;
    } cases[] = {
        {"a short run: milliseconds, the code axis from 0 to the high position in round steps",
         run_of(62.4, {{0.5, 0}, {0.8, 300}, {52.4, 200}}),
         {"time (ms)", ">100</text>", ">700</text>", ">70</text>", "high 700</text>", "low 200</text>",
          "DW9719 lens position, module M&lt;1&gt;, low 200, high 700", ">init</text>", ">setpos:300</text>"},
         {"no moves", ">800</text>", ">80</text>"}},
        {"a long run: seconds", run_of(2661, {{10, 500}, {1530, 350}}), {"time (s)", ">2.5</text>", "run of 2.661 s"},
         {"time (ms)"}},
        {"moves below the low position widen the axis", run_of(10, {{1, 40}}), {">100</text>"}, {}},
        {"without them it starts at the low position", run_of(10, {{1, 300}}), {">200</text>"}, {">100</text>"}},
        {"an empty run says so", run_of(5, {}), {"no moves", "0 moves"}, {"<polyline", "<circle"}},
    };
    for (auto& c : cases) {
        std::string svg = korvanel::tool::trajectory_svg(c.run);
        for (auto& text : c.contains) {
            EXPECT_NE(svg.find(text), std::string::npos) << c.what << ": " << text;
        }
        for (auto& text : c.lacks) {
            EXPECT_EQ(svg.find(text), std::string::npos) << c.what << ": " << text;
        }
    }
}

}  // namespace
