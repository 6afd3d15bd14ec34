// Writing the bus as a waveform: 4-byte transfers drawn bit by bit into a
// VCD (the bar: a million a minute), with the file's bytes per transfer and
// the process's peak memory before and after, which must not grow with the
// run; and an 8 KB M24c64 write through the driver with its waveform beside
// the same write without one (the bar: under a second).
// Run by hand: wall times depend on the machine's load.
#include <benchmark/benchmark.h>

#include "platform/checked.h"
#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "wire/vcd.h"
#include "nvm/nvm.h"
#include "platform/device.h"
#include "platform/memory.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

using korvanel::bench::Bus;
using korvanel::bench::BusSpeed;
using korvanel::bench::BusTransfer;
using korvanel::bench::Bench;
using korvanel::wire::VcdWriter;
using korvanel::files::OutputFile;

// The process's peak resident memory, kB.
long peak_kb()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

void BM_VcdTransfers(benchmark::State& state)
{
    const auto count = size_t(state.range(0));
    std::string path = "/tmp/korvanel_vcd_benchmark.vcd";
    BusTransfer t{};
    t.address = 0x50;
    t.direction = korvanel::models::Direction::Write;
    t.length = 4;
    t.bytes = {0x00, 0x20, 0x5A, 0xA5};
    t.status = STATUS_SUCCESS;
    t.duration = Bus::wire_time(BusSpeed::Fast, 4);
    uint64_t bytes = 0;
    long before = peak_kb();
    double seconds = 0;
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        OutputFile file;
        VcdWriter vcd;
        file.open(path, {true, "", {}});
        vcd.start(file, BusSpeed::Fast);
        int busy = vcd.add_signal("nvm_busy", 1, 0);
        for (size_t i = 0; i < count; i++) {
            t.index = i;
            t.sequence = i;
            t.time = int64_t(i) * (t.duration + 50);  // 5 us apart
            t.bytes[3] = uint8_t(i);
            vcd.transfer(t);
            if (i % 64 == 0) {
                vcd.change(busy, t.time + t.duration, i / 64 % 2);
            }
        }
        vcd.finish(t.time + t.duration);
        file.commit();
        bytes = vcd.bytes_written();
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    state.SetItemsProcessed(int64_t(state.iterations() * count));
    state.counters["million_transfers_a_minute"] = double(state.iterations() * count) * 60 / seconds / 1e6;
    state.counters["file_bytes_per_transfer"] = double(bytes) / double(count);
    state.counters["peak_kB_growth"] = double(peak_kb() - before);
    std::remove(path.c_str());
}
BENCHMARK(BM_VcdTransfers)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);

// An 8 KB M24c64 write at 400 kHz: 256 page writes and their write cycles.
void BM_MemoryWriteWaveform(benchmark::State& state)
{
    bool waveform = state.range(0) != 0;
    std::vector<uint8_t> data(8192);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = uint8_t(i * 7);
    }
    std::string path = "/tmp/korvanel_vcd_benchmark_8k.vcd";
    uint64_t written = 0;
    for (auto _ : state) {
        Bench sys;
        sys.bus().set_speed(BusSpeed::Fast);
        OutputFile file;
        VcdWriter vcd;
        if (waveform) {
            file.open(path, {true, "", {}});
            vcd.start(file, BusSpeed::Fast, sys.clock().now());
            sys.bus().observe([&vcd](const BusTransfer& t) { vcd.transfer(t); });
        }
        korvanel::platform::load_driver(sys);
        auto dev = korvanel::platform::open_device(sys);
        korvanel::platform::select_memory(sys, dev.context, {.type = 10});
        NTSTATUS status = korvanel::platform::memory_table()[10].Write(dev.context, 0, data.data(), LONG(data.size()));
        if (!NT_SUCCESS(status)) {
            state.SkipWithError("the write failed");
        }
        dev.si.InterfaceHeader.InterfaceDereference(dev.si.InterfaceHeader.Context);
        sys.bus().observe(nullptr);
        sys.unload_driver();
        if (waveform) {
            vcd.finish(sys.clock().now());
            file.commit();
            written = vcd.bytes_written();
        }
    }
    state.counters["file_kB"] = double(written) / 1024;
    std::remove(path.c_str());
}
BENCHMARK(BM_MemoryWriteWaveform)->ArgName("waveform")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
