// What each operation of SENSOR_INTERFACE costs the camera driver, beside a
// hand-written baseline that does the same memory work and nothing else (the
// loads, stores and copies the answer needs), timed in alternating batches so
// that both see the same machine; with tracing off and on. Then power
// references beside an uncontended lock pair, the module query while another
// thread takes interface references, and the virtual clock's speed.
//
//   build/interface_benchmark --benchmark_counters_tabular=true
//
// Counters: op_ns and baseline_ns per call, ratio = op_ns / baseline_ns.
//
// The verifier is on, as everywhere: the operations are called through the
// stand-ins of platform/checked.h that check each call on return.
// KORVANEL_VERIFIER=off turns it off (the driver's own record, no checks) to
// measure what the checks cost; KORVANEL_VERIFIER=sweep measures the sweep.
#include <benchmark/benchmark.h>

#include "bus/delay.h"
#include "bench/bench.h"
#include "bench/verifier.h"
#include "platform/checked.h"
#include "platform/device.h"
#include "sensor/description.h"
#include "sensor/device_context.h"
#include "sensor/mode_tables.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

namespace {

using korvanel::bench::Bench;

// A loaded driver with one device whose interface the camera driver holds.
struct Camera {
    Bench sys;
    SENSOR_INTERFACE si{};
    PSENSOR_CONTEXT ctx = nullptr;

    explicit Camera(bool traced)
    {
        if (traced) {
            sys.traces().enable(TRACE_INFO | TRACE_ERROR);
        }
        korvanel::platform::load_driver(sys);
        si = korvanel::platform::open_device(sys).si;
        ctx = static_cast<PSENSOR_CONTEXT>(si.InterfaceHeader.Context);
    }
    ~Camera() { si.InterfaceHeader.InterfaceDereference(ctx); }
};

using Clock = std::chrono::steady_clock;

// Op and baseline in alternating batches. The baselines are reached through
// a function pointer, as the camera driver reaches every operation, so the
// ratio is the operation's own work against the bare work.
template <typename Op, typename Base>
void Compare(benchmark::State& state, Op op, Base base)
{
    constexpr int kBatch = 256;
    double op_ns = 0, base_ns = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kBatch; i++) {
            op();
            benchmark::ClobberMemory();
        }
        auto t1 = Clock::now();
        for (int i = 0; i < kBatch; i++) {
            base();
            benchmark::ClobberMemory();
        }
        auto t2 = Clock::now();
        op_ns += std::chrono::duration<double, std::nano>(t1 - t0).count();
        base_ns += std::chrono::duration<double, std::nano>(t2 - t1).count();
    }
    double calls = double(state.iterations()) * kBatch;
    state.counters["op_ns"] = op_ns / calls;
    state.counters["baseline_ns"] = base_ns / calls;
    state.counters["ratio"] = op_ns / base_ns;
}

#define NOINLINE __attribute__((noinline))

// A routine as the camera driver reaches an operation: through an address
// loaded at the call.
template <typename F>
F* Indirect(F* f)
{
    F* volatile p = f;
    return p;
}

// ---- Baselines: the memory work of each answer, written plainly --------------

NOINLINE NTSTATUS PlainNullCheck(void* a, const void* b) { return a && b ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER; }

NOINLINE NTSTATUS PlainStorePointer(void* ctx, const void** out, const void* record)
{
    if (!ctx || !out) {
        return STATUS_INVALID_PARAMETER;
    }
    *out = record;
    return STATUS_SUCCESS;
}

NOINLINE NTSTATUS PlainCaps(PDEVICE_CONTEXT ctx, PSENSOR_CAPS caps)
{
    if (!ctx || !caps) {
        return STATUS_INVALID_PARAMETER;
    }
    SENSOR_CAPS c = SensorCapsTemplate;
    if (GetCapsMode(caps) == SENSOR_CAPS_MODE_RGBIR || GetCapsMode(&ctx->SensorCaps) == SENSOR_CAPS_MODE_RGBIR) {
        SetCapsMode(&c, SENSOR_CAPS_MODE_RGBIR);
    }
    *caps = c;
    ctx->SensorCaps = c;
    return STATUS_SUCCESS;
}

NOINLINE void PlainMipi(PDEVICE_CONTEXT ctx, PULONG port, PULONG lanes, PULONG format)
{
    if (!ctx || !port || !lanes || !format) {
        return;
    }
    *port = ctx->MipiPortNumber;
    *lanes = ctx->MipiLaneCount;
    *format = ctx->MipiFormat;
}

NOINLINE NTSTATUS PlainLoadStore(const ULONG* from, PULONG to)
{
    if (!from || !to) {
        return STATUS_INVALID_PARAMETER;
    }
    *to = *from;
    return STATUS_SUCCESS;
}

NOINLINE NTSTATUS PlainSelect(PDEVICE_CONTEXT ctx, LONG table, LONG w, LONG h, LONG fps)
{
    if (!ctx) {
        return STATUS_INVALID_PARAMETER;
    }
    ctx->ModeIndex = 0;
    ctx->ModeTableIndex = table;
    if (table < 0 || table >= MODE_TABLE_COUNT) {
        return STATUS_INVALID_PARAMETER;
    }
    const SENSOR_MODE* rows = ModeTables[table];
    LONG best = -1, bestExcess = 65535;
    for (LONG r = 0; r < LONG(ModeLists[table].Count); r++) {
        if (rows[r].Width < w || rows[r].Height < h || (fps > 0 && rows[r].FrameRate != fps)) {
            continue;
        }
        LONG excess = (rows[r].Width - w) + (rows[r].Height - h);
        if (excess < bestExcess) {
            best = r;
            bestExcess = excess;
        }
    }
    if (best < 0) {
        return STATUS_UNSUCCESSFUL;
    }
    ctx->ModeIndex = best;
    return STATUS_SUCCESS;
}

NOINLINE NTSTATUS PlainModeInfo(PDEVICE_CONTEXT ctx, PULONG size, PSENSOR_MODE_INFO info)
{
    if (!ctx || !size || !info) {
        return STATUS_INVALID_PARAMETER;
    }
    if (*size < sizeof(SENSOR_MODE_INFO)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    LONG table = ctx->ModeTableIndex, row = ctx->ModeIndex;
    if (table < 0 || table >= MODE_TABLE_COUNT || row < 0 || ULONG(row) >= ModeLists[table].Count) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    *size = sizeof(SENSOR_MODE_INFO);
    USHORT w = USHORT(ModeTables[table][row].Width), h = USHORT(ModeTables[table][row].Height);
    *info = {0x09FCD140, w, h, 0, h, 1, 4, 0, w, h, w, h, 1, 1, w, h, 0, {info->Untouched[0], info->Untouched[1]}};
    return STATUS_SUCCESS;
}

NOINLINE void PlainCopyText(char* to, size_t size, const char* from)
{
    size_t i = 0;
    for (; i + 1 < size && from[i]; i++) {
        to[i] = from[i];
    }
    to[i] = 0;
}

NOINLINE NTSTATUS PlainModuleInfo(PDEVICE_CONTEXT ctx, PSENSOR_MODULE_INFO info)
{
    if (!ctx || !info) {
        return STATUS_INVALID_PARAMETER;
    }
    info->SensorGuid = ctx->SensorGuid;
    info->VariantCode = ctx->VariantCode;
    info->MipiFormat = UCHAR(ctx->MipiFormat);
    PlainCopyText(info->DriverName, sizeof info->DriverName, "KORVANEL");
    PlainCopyText(info->SensorName, sizeof info->SensorName, ctx->SensorName);
    PlainCopyText(info->BaseSensorName, sizeof info->BaseSensorName, "HAPS");
    PlainCopyText(info->ModuleName, sizeof info->ModuleName, "DEFAULT");
    PlainCopyText(info->ModuleRevision, sizeof info->ModuleRevision, "DEFAULT");
    PlainCopyText(info->VendorName, sizeof info->VendorName, "ORVEX");
    return STATUS_SUCCESS;
}

NOINLINE NTSTATUS PlainPdafInfo(PDEVICE_CONTEXT ctx, PPDAF_INFO* pinfo)
{
    if (!ctx || !pinfo || !*pinfo) {
        return STATUS_INVALID_PARAMETER;
    }
    PPDAF_INFO info = *pinfo;
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    info->PdafWidth = info->PdafHeight = 0;
    for (ULONG r = 0; r < PDAF_SIZE_ROWS; r++) {
        if (PdafSizeTable[r].ImageHeight == info->Height && PdafSizeTable[r].ImageWidth == info->Width) {
            info->PdafWidth = PdafSizeTable[r].PdafWidth;
            info->PdafHeight = PdafSizeTable[r].PdafHeight;
            info->Word28 = PdafSizeTable[r].Word4;
            status = STATUS_SUCCESS;
            break;
        }
    }
    info->Byte0 = PdafInfoTemplate.Byte0;
    info->InterleaveMode = PdafInfoTemplate.InterleaveMode;
    info->FormatFlagA = PdafInfoTemplate.FormatFlagA;
    info->FormatFlagB = PdafInfoTemplate.FormatFlagB;
    info->Word36 = PdafInfoTemplate.Word36;
    return status;
}

// ---- The operations ---------------------------------------------------------------

// What the operations and baselines write into and read from.
struct Locals {
    ULONG v = 0, aux = 0, size = sizeof(SENSOR_MODE_INFO), port = 0, lanes = 0, format = 0;
    ULONG record[8] = {};
    SENSOR_CAPS caps{};
    SENSOR_MODE_INFO mode{};
    SENSOR_MODULE_INFO info{};
    SENSOR_ENTRY entries[16] = {};
    PDAF_INFO pdaf{};
    PPDAF_INFO pp = &pdaf;
    const SENSOR_PARAMETERS* parameters = nullptr;
    const MODE_LIST* lists[4] = {};
};

#define OFF_AND_ON(bm) BENCHMARK(bm)->ArgName("traced")->Arg(0)->Arg(1)

// One row: the operation beside its baseline, after Setup; tracing off and on.
#define VERSUS(Name, Setup, Call, Base)                          \
    void BM_##Name(benchmark::State& state)                      \
    {                                                            \
        Camera cam(state.range(0));                              \
        Locals my;                                               \
        Setup;                                                   \
        Compare(state, [&] { Call; }, [&] { Base; });            \
    }                                                            \
    OFF_AND_ON(BM_##Name)

VERSUS(GetSensorCaps, , cam.si.GetSensorCaps(cam.ctx, &my.caps), Indirect(PlainCaps)(cam.ctx, &my.caps));
VERSUS(GetMipiConfig, , cam.si.GetMipiConfig(cam.ctx, &my.port, &my.lanes, &my.format),
       Indirect(PlainMipi)(cam.ctx, &my.port, &my.lanes, &my.format));
VERSUS(GetSensorParameters, , cam.si.GetSensorParameters(cam.ctx, &my.parameters),
       Indirect(PlainStorePointer)(cam.ctx, (const void**)&my.parameters, &SensorParameters));
VERSUS(GetModeTables, , cam.si.GetModeTables(cam.ctx, &my.lists[0], &my.lists[1], &my.lists[2], &my.lists[3]),
       for (int t = 0; t < 4; t++) { Indirect(PlainStorePointer)(cam.ctx, (const void**)&my.lists[t], &ModeLists[t]); });
VERSUS(GetPdafTable, , cam.si.GetPdafTable(cam.ctx, &my.lists[0]),
       Indirect(PlainStorePointer)(cam.ctx, (const void**)&my.lists[0], &PdafList));
VERSUS(SelectMode, , cam.si.SelectMode(cam.ctx, 2, 1920, 1080, 0), Indirect(PlainSelect)(cam.ctx, 2, 1920, 1080, 0));
// The failure paths, each beside the same check failing in the baseline.
VERSUS(SelectModeTableOutOfRange, , cam.si.SelectMode(cam.ctx, MODE_TABLE_COUNT, 1920, 1080, 0),
       Indirect(PlainSelect)(cam.ctx, MODE_TABLE_COUNT, 1920, 1080, 0));
VERSUS(SelectModeNoneFits, , cam.si.SelectMode(cam.ctx, 2, 20000, 20000, 0),
       Indirect(PlainSelect)(cam.ctx, 2, 20000, 20000, 0));
VERSUS(QueryPropertyUnknown, , cam.si.QueryProperty(cam.ctx, 0xFFFF, &my.v), Indirect(PlainLoadStore)(nullptr, &my.v));
VERSUS(GetModeInfo, cam.si.SelectMode(cam.ctx, 2, 1920, 1080, 0), cam.si.GetModeInfo(cam.ctx, &my.size, &my.mode),
       Indirect(PlainModeInfo)(cam.ctx, &my.size, &my.mode));
VERSUS(GetAuxFlag, my.aux = cam.ctx->AuxFlag, cam.si.GetAuxFlag(cam.ctx, &my.v),
       Indirect(PlainLoadStore)(&my.aux, &my.v));
VERSUS(GetParameterWord, , cam.si.GetParameterWord(cam.ctx, &my.v),
       Indirect(PlainLoadStore)(&SensorParameters.HdrWord, &my.v));
VERSUS(GetModuleInfo, , cam.si.GetModuleInfo(cam.ctx, &my.info), Indirect(PlainModuleInfo)(cam.ctx, &my.info));
VERSUS(QueryProperty, , cam.si.QueryProperty(cam.ctx, SensorPropertyLinkRate, &my.v),
       Indirect(PlainLoadStore)(&cam.ctx->LinkRate, &my.v));
VERSUS(GetPdafInfo, (my.pdaf.Width = 4032, my.pdaf.Height = 3024), cam.si.GetPdafInfo(cam.ctx, &my.pp),
       Indirect(PlainPdafInfo)(cam.ctx, &my.pp));
VERSUS(AcceptRecord, , cam.si.AcceptRecord(cam.ctx, my.record), Indirect(PlainNullCheck)(cam.ctx, my.record));
VERSUS(AcceptEntry, , cam.si.AcceptEntry(cam.ctx, my.entries), Indirect(PlainNullCheck)(cam.ctx, my.entries));
VERSUS(AcceptPointer, , cam.si.AcceptPointer(cam.ctx, &my.v), Indirect(PlainNullCheck)(cam.ctx, &my.v));
VERSUS(AcceptValue, my.v = 7, cam.si.AcceptValue(cam.ctx, &my.v), Indirect(PlainNullCheck)(cam.ctx, &my.v));
VERSUS(AcceptPair, , cam.si.AcceptPair(cam.ctx, 1, 2), Indirect(PlainNullCheck)(cam.ctx, cam.ctx));
VERSUS(AcceptNotice, , cam.si.AcceptNotice(cam.ctx), Indirect(PlainNullCheck)(cam.ctx, cam.ctx));
VERSUS(AcceptEntryList16, , cam.si.AcceptEntryList(cam.ctx, my.entries, 16),
       Indirect(PlainNullCheck)(cam.ctx, my.entries));

// Every operation's refusal of a missing context, beside the baseline's
// null check failing; then the refusals that need a context.
NOINLINE void PlainVoidNullCheck(void* a, const void* b) { (void)PlainNullCheck(a, b); }

#define REFUSED_NULL(Op, ...) \
    VERSUS(Op##NullContext, , cam.si.Op(nullptr __VA_OPT__(, ) __VA_ARGS__), Indirect(PlainNullCheck)(nullptr, &my.v))

REFUSED_NULL(AcceptRecord, my.record);
REFUSED_NULL(GetSensorCaps, nullptr);
VERSUS(GetMipiConfigNullContext, , cam.si.GetMipiConfig(nullptr, &my.port, &my.lanes, &my.format),
       Indirect(PlainVoidNullCheck)(nullptr, &my.v));
REFUSED_NULL(GetSensorParameters, &my.parameters);
REFUSED_NULL(GetModeTables, &my.lists[0], &my.lists[1], &my.lists[2], &my.lists[3]);
REFUSED_NULL(GetPdafTable, &my.lists[0]);
REFUSED_NULL(SelectMode, 2, 1920, 1080, 0);
REFUSED_NULL(AcceptEntry, nullptr);
REFUSED_NULL(AcceptPointer, &my.v);
REFUSED_NULL(AcceptValue, &my.v);
REFUSED_NULL(AcceptPair, 1, 2);
REFUSED_NULL(AcceptNotice);
REFUSED_NULL(GetModeInfo, &my.size, &my.mode);
REFUSED_NULL(PowerUp);
REFUSED_NULL(PowerDown);
REFUSED_NULL(GetAuxFlag, &my.v);
REFUSED_NULL(GetParameterWord, &my.v);
REFUSED_NULL(GetModuleInfo, nullptr);
REFUSED_NULL(QueryProperty, SensorPropertyLinkRate, &my.v);
REFUSED_NULL(GetPdafInfo, &my.pp);
REFUSED_NULL(AcceptEntryList, nullptr, 16);
VERSUS(GetModeInfoBufferTooSmall, my.size = 0, cam.si.GetModeInfo(cam.ctx, &my.size, &my.mode),
       Indirect(PlainModeInfo)(cam.ctx, &my.size, &my.mode));
VERSUS(GetPdafInfoNoSuchSize, , cam.si.GetPdafInfo(cam.ctx, &my.pp), Indirect(PlainPdafInfo)(cam.ctx, &my.pp));

// ---- Power and references --------------------------------------------------------

// PowerUp + PowerDown through the framework's idle references, beside one
// uncontended lock pair; run long enough to show it stays flat. The pair is
// timed as in the camera driver's process, which has many threads: glibc
// takes and gives back a mutex without a locked instruction for as long as
// a process has never started a second thread, which would make the pair a
// pair of plain stores.
void BM_PowerUpPowerDown(benchmark::State& state)
{
    Camera cam(state.range(0));
    std::thread([] {}).join();
    std::mutex m;
    Compare(state,
            [&] {
                cam.si.PowerUp(cam.ctx);
                cam.si.PowerDown(cam.ctx);
            },
            [&] {
                m.lock();
                m.unlock();
            });
}
OFF_AND_ON(BM_PowerUpPowerDown);

void BM_ReferenceDereference(benchmark::State& state)
{
    Camera cam(state.range(0));
    volatile LONG count = 1;
    Compare(state,
            [&] {
                cam.si.InterfaceHeader.InterfaceReference(cam.ctx);
                cam.si.InterfaceHeader.InterfaceDereference(cam.ctx);
            },
            [&] {
                InterlockedIncrement(&count);
                InterlockedDecrement(&count);
            });
}
OFF_AND_ON(BM_ReferenceDereference);

// The module query while another camera-driver thread takes and drops
// interface references, beside the same query on a quiet device.
void BM_GetModuleInfoBesideReferences(benchmark::State& state)
{
    Camera cam(false);
    SENSOR_MODULE_INFO info{};
    std::atomic<bool> stop{false}, busy{false};
    std::thread other([&] {
        while (!stop) {
            if (busy) {
                cam.si.InterfaceHeader.InterfaceReference(cam.ctx);
                cam.si.InterfaceHeader.InterfaceDereference(cam.ctx);
            }
        }
    });
    constexpr int kBatch = 256;
    double quiet_ns = 0, busy_ns = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kBatch; i++) {
            cam.si.GetModuleInfo(cam.ctx, &info);
        }
        busy = true;
        auto t1 = Clock::now();
        for (int i = 0; i < kBatch; i++) {
            cam.si.GetModuleInfo(cam.ctx, &info);
        }
        auto t2 = Clock::now();
        busy = false;
        quiet_ns += std::chrono::duration<double, std::nano>(t1 - t0).count();
        busy_ns += std::chrono::duration<double, std::nano>(t2 - t1).count();
    }
    stop = true;
    other.join();
    double calls = double(state.iterations()) * kBatch;
    state.counters["op_ns"] = busy_ns / calls;
    state.counters["baseline_ns"] = quiet_ns / calls;
    state.counters["ratio"] = busy_ns / quiet_ns;
}
BENCHMARK(BM_GetModuleInfoBesideReferences);

// ---- Unload ------------------------------------------------------------------------

// Unloading the driver with many devices: the time per device stays the
// same however many there are.
void BM_UnloadPerDevice(benchmark::State& state)
{
    auto devices = int(state.range(0));
    double unload_ns = 0;
    for (auto _ : state) {
        state.PauseTiming();
        {
            Bench sys;
            korvanel::platform::load_driver(sys);
            for (int i = 0; i < devices; i++) {
                sys.add_device();
            }
            auto start = Clock::now();
            sys.unload_driver();
            unload_ns += std::chrono::duration<double, std::nano>(Clock::now() - start).count();
        }
        state.ResumeTiming();
    }
    state.counters["us_per_device"] = unload_ns / 1000.0 / double(state.iterations()) / devices;
}
BENCHMARK(BM_UnloadPerDevice)->ArgName("devices")->Arg(64)->Arg(4096)->Iterations(3);

// ---- A fresh bench ------------------------------------------------------------------

// A bench for the next piece of work, as the fuzz targets take one for every
// input: a new Bench, or the same one reset; then the driver loaded and a
// device added. Counters: us per bench, and the reset alone.
void BM_FreshBench(benchmark::State& state)
{
    bool reset = state.range(0) != 0;
    std::optional<Bench> kept;
    if (reset) {
        kept.emplace();
    }
    double reset_ns = 0;
    for (auto _ : state) {
        std::optional<Bench> made;
        Bench* sys;
        if (reset) {
            auto start = Clock::now();
            kept->reset();
            reset_ns += std::chrono::duration<double, std::nano>(Clock::now() - start).count();
            sys = &*kept;
        } else {
            sys = &made.emplace();
        }
        korvanel::platform::load_driver(*sys);
        sys->add_device();
        benchmark::DoNotOptimize(sys->unload_driver());
    }
    state.counters["reset_us"] = reset_ns / 1000.0 / double(state.iterations());
}
BENCHMARK(BM_FreshBench)->ArgName("reset")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// ---- The virtual clock --------------------------------------------------------------

// Simulated time over wall time for the driver's own waits: 1 ms is twenty
// 50 us processor stalls, 10 ms one thread sleep.
void BM_VirtualClock(benchmark::State& state)
{
    Bench sys;
    auto ms = LONG(state.range(0));
    int64_t start = sys.clock().now();
    auto wall = Clock::now();
    for (auto _ : state) {
        DelayMilliseconds(ms);
    }
    double wall_ns = std::chrono::duration<double, std::nano>(Clock::now() - wall).count();
    double simulated_ns = double(sys.clock().now() - start) * 100.0;
    state.counters["wall_ns_per_wait"] = wall_ns / double(state.iterations());
    state.counters["times_real_time"] = simulated_ns / wall_ns;
    state.counters["records_kept"] = double(sys.clock().delays().size());
}
BENCHMARK(BM_VirtualClock)->ArgName("ms")->Arg(1)->Arg(10);

}  // namespace

int main(int argc, char** argv)
{
    // KORVANEL_VERIFIER (on, sweep, off) sets the mode, as for every run.
    static const char* const kModes[] = {"off", "on", "sweep"};
    benchmark::AddCustomContext("verifier", kModes[int(korvanel::bench::verifier::mode())]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
