// The cost of a trace event on the camera driver's hot paths: with no
// consumer an event must cost one load and one branch, so taking and
// releasing the interface costs the same as the bare interlocked operations.
#include <benchmark/benchmark.h>

#include "driver/driver.h"
#include "bench/bench.h"
#include "platform/device.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

namespace {

void ReferencePair(benchmark::State& state, bool tracing)
{
    korvanel::bench::Bench sys;
    if (tracing) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    korvanel::platform::load_driver(sys);
    auto& dev = sys.add_device();
    void* context = dev.context();
    for (auto _ : state) {
        SensorInterfaceReference(context);
        SensorInterfaceDereference(context);
        if (tracing) {
            state.PauseTiming();
            sys.traces().clear();
            state.ResumeTiming();
        }
    }
    sys.unload_driver();
}

void BM_ReferencePairTracingOff(benchmark::State& state) { ReferencePair(state, false); }
void BM_ReferencePairTracingOn(benchmark::State& state) { ReferencePair(state, true); }

BENCHMARK(BM_ReferencePairTracingOff);
BENCHMARK(BM_ReferencePairTracingOn)->Iterations(20000);

}  // namespace

BENCHMARK_MAIN();
