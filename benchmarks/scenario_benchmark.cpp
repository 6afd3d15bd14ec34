// A long scenario through the tool: ten thousand steps (mode selections, mode
// information, lens moves, clock advances), each with an expectation. The bar:
// well under a second. Run by hand: wall times depend on the machine's load.
#include <benchmark/benchmark.h>

#include "tools/scenario.h"

#include <sstream>
#include <string>

namespace {

std::string ten_thousand_steps()
{
    std::string text = "{\"device\": {\"actuator\": {\"chip\": \"DW9719\"}}, \"steps\": [\n";
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

void BM_TenThousandScenarioSteps(benchmark::State& state)
{
    std::string text = ten_thousand_steps();
    for (auto _ : state) {
        std::ostringstream out, err;
        if (korvanel::tool::run_scenario_text(text, "bench.jsonc", "", {}, out, err) != 0) {
            state.SkipWithError("the scenario failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * 10000);
}
BENCHMARK(BM_TenThousandScenarioSteps)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
