// What the actuator sequences cost on a 400 kHz bus: per chip, the virtual
// time of Init and of a ResetPos from the top of the chip's range, beside
// the time its bus sequence needs (each transfer's wire time from its
// length, plus every recorded pause). The two must agree: the driver adds no
// waits of its own and loses none. The benchmark's own time is the wall time
// the simulation took for the sequence.
//
// DW9806B ramps as in a CM500RF05SW700 module (low 300, high 600), the other
// chips have no module-dependent ramp; DW9719 ramps to a low position of 0.
// Run by hand: the wall times depend on the machine.
#include <benchmark/benchmark.h>

#include "platform/checked.h"
#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "sensor/device_context.h"
#include "platform/actuator.h"
#include "platform/device.h"
#include "vcm/vcm.h"

#include <cstdio>
#include <memory>

namespace {

using korvanel::bench::Bus;
using korvanel::bench::BusSpeed;
using korvanel::bench::Clock;
using korvanel::bench::Bench;

constexpr uint64_t kConnection = 0x1C;

// The wire time of every transfer and every pause, 100 ns units.
int64_t bus_and_pauses(Bench& sys)
{
    int64_t total = 0;
    for (auto& t : sys.bus().transcript()) {
        total += Bus::wire_time(sys.bus().speed(), t.length);
    }
    for (auto& d : sys.clock().delays()) {
        total += d.kind == Clock::Delay::Kind::Stall ? d.amount * 10 : -d.amount;
    }
    return total;
}

void BM_Actuator(benchmark::State& state, const korvanel::models::ActuatorChip* chip, bool reset)
{
    Bench sys;
    korvanel::platform::load_driver(sys);
    auto* ctx = static_cast<PDEVICE_CONTEXT>(sys.add_device().context());
    korvanel::platform::ActuatorSelection selection{chip->name, kConnection};
    if (chip->name == "DW9806B") {
        selection = {chip->name, kConnection, 300, 600, "CM500RF05SW700"};
    }
    korvanel::platform::select_actuator(sys, ctx, selection);
    sys.bus().set_speed(BusSpeed::Fast);
    const VCM_DRIVER& row = korvanel::platform::actuator_table()[ctx->VcmType];
    row.Init(ctx);  // the connection is open from here on, as on a running device

    int64_t virtual_time = 0;
    int64_t needed = 0;
    size_t transfers = 0;
    bool agree = true;
    for (auto _ : state) {
        state.PauseTiming();
        ctx->VcmPosition = SHORT(chip->max_code);
        sys.bus().clear_transcript();
        sys.clock().clear_delays();
        int64_t start = sys.clock().now();
        state.ResumeTiming();

        NTSTATUS status = reset ? row.ResetPos(ctx) : row.Init(ctx);

        state.PauseTiming();
        virtual_time = sys.clock().now() - start;
        needed = bus_and_pauses(sys);
        transfers = sys.bus().transcript().size();
        agree = agree && virtual_time == needed && NT_SUCCESS(status);
        state.ResumeTiming();
    }
    state.counters["virtual_ms"] = double(virtual_time) / 10000.0;
    state.counters["wire_plus_pauses_ms"] = double(needed) / 10000.0;
    state.counters["agree"] = agree ? 1 : 0;
    state.counters["transfers"] = double(transfers);
    sys.unload_driver();
}

}  // namespace

int main(int argc, char** argv)
{
    for (auto& chip : korvanel::models::actuator_chips()) {
        benchmark::RegisterBenchmark((chip.name + "/Init").c_str(), BM_Actuator, &chip, false)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark((chip.name + "/ResetPosFromTop").c_str(), BM_Actuator, &chip, true)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
