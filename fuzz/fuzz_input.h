// fuzz_input.h - reads a fuzzer's bytes as the choices of one run: numbers
// of a given width, a pick among n, a run of bytes. An exhausted input reads
// as zeros, so every input is a complete run.
#pragma once

#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "platform/device.h"
#include "sensor/device_context.h"
#include "trace/trace.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace korvanel::fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return at_ >= size_; }

    template <typename T>
    T number()
    {
        T v{};
        size_t n = std::min(sizeof(T), size_ - std::min(at_, size_));
        if (n > 0) {
            memcpy(&v, data_ + at_, n);
        }
        at_ += sizeof(T);
        return v;
    }
    uint8_t byte() { return number<uint8_t>(); }
    bool flag() { return byte() & 1; }
    // 0 .. n-1.
    unsigned pick(unsigned n) { return n == 0 ? 0 : number<uint16_t>() % n; }

    std::vector<uint8_t> bytes(size_t n)
    {
        std::vector<uint8_t> out(n);
        for (auto& b : out) {
            b = byte();
        }
        return out;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

// The bench every input runs on: one Bench for the whole run, reset at the
// end of each input (unload_clean) to the state a new one starts in. A new
// Bench would set up a fresh heap of tables and rings for every input; a
// reset clears them. The reset frees what the input allocated within the
// input, so that libFuzzer's count of allocations and frees stays balanced
// and it does not look for a leak in every input.
inline bench::Bench& bench()
{
    static bench::Bench* const system = new bench::Bench();  // lives as long as the run
    system->bus().keep_transfers(0);  // no input reads the transcript
    return *system;
}

// A broken invariant is a finding: say which, and stop the run.
#define FUZZ_CHECK(condition)                                                                   \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                            \
        }                                                                                       \
    } while (0)

// One of the ways a transfer goes wrong on the bus.
inline bench::BusFault bus_fault(Input& in)
{
    switch (in.pick(4)) {
    case 0:
        return bench::BusFault::fail(STATUS_UNSUCCESSFUL);
    case 1:
        return bench::BusFault::nack();
    case 2:
        return bench::BusFault::timeout();
    default:
        return bench::BusFault::complete_with(STATUS_NOTIFY_CLEANUP);
    }
}

// The bus at either speed, with up to three of the transfers numbered below
// `transfers` (counted from the bench's start) going wrong.
inline void fault_bus(Input& in, bench::Bench& sys, unsigned transfers)
{
    if (in.flag()) {
        sys.bus().set_speed(bench::BusSpeed::Fast);
    }
    for (unsigned faults = in.pick(4); faults > 0; faults--) {
        sys.bus().fail_transfer(in.pick(transfers), bus_fault(in));
    }
}

// Where the part targets start: the bench's trace on when the input says so,
// the driver loaded and one device added, whose context a part is then
// selected on.
inline PDEVICE_CONTEXT part_device(Input& in, bench::Bench& sys)
{
    if (in.flag()) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    FUZZ_CHECK(platform::load_driver(sys) == STATUS_SUCCESS);
    auto& dev = sys.add_device();
    FUZZ_CHECK(dev.add_status() == STATUS_SUCCESS);
    return static_cast<PDEVICE_CONTEXT>(dev.context());
}

// The end of every run: whatever happened, the driver unloads clean; then the
// bench is reset for the next input.
inline void unload_clean(bench::Bench& sys)
{
    auto report = sys.unload_driver();
    if (!report.clean()) {
        fprintf(stderr, "unload: %s\n", report.text().c_str());
        abort();
    }
    sys.reset();
}

}  // namespace korvanel::fuzz
