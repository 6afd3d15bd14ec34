// long_scenario.h - ten thousand scenario steps for the suite and the
// benchmarks alike: mode selections, mode information, lens moves and clock
// advances, each with an expectation the run must meet, on one DW9719.
#pragma once

#include <string>

namespace korvanel::test {

inline std::string ten_thousand_steps()
{
    std::string text = "{\"device\": {\"vcm\": {\"chip\": \"DW9719\"}}, \"steps\": [\n";
    for (int i = 0; i < 2500; i++) {
        int code = i % 1024;
        text += std::string(i ? ",\n" : "") + "{\"call\": \"SelectMode\", \"MinWidth\": 1920, \"MinHeight\": " +
                std::to_string(1000 + i % 100) +
                ", \"expect\": {\"status\": \"STATUS_SUCCESS\"}},\n"
                "{\"call\": \"GetModeInfo\", \"expect\": {\"values\": {\"Width\": 1920, \"Height\": 1120}}},\n"
                "{\"vcm\": \"setpos:" + std::to_string(code) + "\", \"expect\": {\"lens\": " + std::to_string(code) +
                "}},\n{\"advance_ms\": 1}";
    }
    return text + "]}";
}

}  // namespace korvanel::test
