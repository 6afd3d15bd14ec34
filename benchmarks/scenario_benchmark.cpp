// A long scenario through the tool: ten thousand steps (mode selections, mode
// information, lens moves, clock advances), each with an expectation. The bar:
// well under a second. Run by hand: wall times depend on the machine's load.
#include <benchmark/benchmark.h>

#include "tests/long_scenario.h"
#include "tools/scenario.h"

#include <sstream>
#include <string>

namespace {

void BM_TenThousandScenarioSteps(benchmark::State& state)
{
    std::string text = korvanel::test::ten_thousand_steps();
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
