// What DelayMilliseconds really costs on the real clock, for the counts the
// actuator and memory code use on either side of the 6 ms threshold: a spin
// of 50 us stalls below it, one thread sleep from it on. A wait must never be
// shorter than asked; the "over_us" counter is how much longer it was.
// Run by hand: the figures depend on the machine's load and timer slack.
#include <benchmark/benchmark.h>

#include "bus/delay.h"
#include "bench/bench.h"

#include <chrono>

namespace {

void BM_DelayMilliseconds(benchmark::State& state)
{
    korvanel::bench::Bench sys;
    sys.clock().set_mode(korvanel::bench::Clock::Mode::Real);
    auto ms = static_cast<LONG>(state.range(0));

    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        DelayMilliseconds(ms);
    }
    std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
    state.counters["over_us"] = elapsed.count() / double(state.iterations()) - ms * 1000.0;
}

BENCHMARK(BM_DelayMilliseconds)->Arg(1)->Arg(5)->Arg(6)->Arg(20)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
