// The module-memory commands at 400 kHz, one memory type of each family
// (16-bit linear, M24c64, 256-byte blocks, the DW9806B's paged memory): the
// virtual time of a full-cache load and of a full-memory write, beside what
// the bus sequence needs by itself, the wire time of every transfer in the
// transcript (Bus::wire_time of its length) plus the fixed waits of the
// engines (one per chunk, and the erase), and whether the two agree. The
// benchmark's own time is the wall time the simulation took.
// Run by hand: wall times depend on the machine's load.
#include <benchmark/benchmark.h>

#include "platform/checked.h"
#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"
#include "platform/device.h"
#include "platform/memory.h"

#include <vector>

namespace {

using korvanel::bench::Bus;
using korvanel::bench::BusSpeed;
using korvanel::bench::Bench;

// How the family's write is cut and what it waits: the chunk each engine
// call carries, the wait after each call, the erase before the write.
struct Family {
    unsigned type;
    uint32_t chunk;
    int64_t wait_ms;
    int64_t erase_ms;
};
const Family kFamilies[] = {{5, 64, 20, 0}, {10, 32, 5, 0}, {6, 16, 5, 0}, {11, 32, 5, 50}};

enum class Work { Load, Write };

void BM_Memory(benchmark::State& state, Work work)
{
    const Family& family = kFamilies[state.range(0)];
    const NVM_DRIVER& row = korvanel::platform::memory_table()[family.type];
    std::vector<uint8_t> data(row.Size);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = uint8_t(i * 13);
    }
    int64_t virtual_time = 0, wire = 0, waits = 0;
    for (auto _ : state) {
        state.PauseTiming();
        {
            Bench sys;
            korvanel::platform::load_driver(sys);
            auto* ctx = static_cast<PDEVICE_CONTEXT>(sys.add_device().context());
            uint32_t cache = std::min<uint32_t>(row.Size, NVM_CACHE_SIZE);
            korvanel::platform::select_memory(sys, ctx, {family.type, 0x50, cache});
            sys.bus().set_speed(BusSpeed::Fast);
            std::vector<uint8_t> buffer(NVM_CACHE_SIZE);
            ULONG size = NVM_CACHE_SIZE;
            int64_t start = sys.clock().now();
            state.ResumeTiming();

            NTSTATUS status = work == Work::Load ? row.Load(ctx, &size, buffer.data())
                                                 : row.Write(ctx, 0, data.data(), LONG(data.size()));

            state.PauseTiming();
            if (status != STATUS_SUCCESS) {
                state.SkipWithError("the memory command failed");
            }
            virtual_time = sys.clock().now() - start;
            wire = 0;
            for (auto& t : sys.bus().transcript()) {
                wire += Bus::wire_time(BusSpeed::Fast, t.length);
            }
            // A load waits for nothing; a write once per chunk, and for its erase.
            int64_t chunks = (row.Size + family.chunk - 1) / family.chunk;
            waits = work == Work::Load ? 0 : (family.erase_ms + chunks * family.wait_ms) * 10000;
            sys.unload_driver();
        }
        state.ResumeTiming();
    }
    state.counters["virtual_ms"] = double(virtual_time) / 10000.0;
    state.counters["wire_ms"] = double(wire) / 10000.0;
    state.counters["waits_ms"] = double(waits) / 10000.0;
    state.counters["agree"] = virtual_time == wire + waits ? 1 : 0;
    state.SetLabel("type " + std::to_string(family.type));
}

BENCHMARK_CAPTURE(BM_Memory, full_cache_load, Work::Load)
    ->DenseRange(0, 3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Memory, full_memory_write, Work::Write)
    ->DenseRange(0, 3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
