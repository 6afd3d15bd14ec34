// The module-memory commands of a chosen type with fuzzed addresses and
// lengths (negative and past the end included), a context whose geometry,
// cache length and availability a careless platform might have set, and a
// bus that fails, NACKs, times out or completes chosen transfers with
// STATUS_NOTIFY_CLEANUP, with connections that fail to open and lock waits
// that fail. After every command BusLock is free and every memory slot is
// closed; nothing is read or written outside the caller's buffer or the
// cache; the driver unloads clean.
#include "fuzz_input.h"

#include "platform/checked.h"

#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "platform/memory.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"
#include "trace/trace.h"

using korvanel::fuzz::Input;
using korvanel::bench::Bench;

namespace {

// Mostly lengths a camera module's data has; one in sixteen 0 or negative;
// one in sixty-four up to past any memory. Those are rare because a long
// write to one of the larger parts waits 5 ms after each of its many chunks,
// a hundred 50 us stalls each: at one in sixteen they took half the target's
// time.
LONG Length(Input& in)
{
    unsigned kind = in.pick(64);
    if (kind < 4) {
        return -LONG(in.pick(3));  // 0, -1, -2
    }
    if (kind == 4) {
        return LONG(in.pick(9000));
    }
    return 1 + LONG(in.pick(300));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    Bench& sys = korvanel::fuzz::bench();
    PDEVICE_CONTEXT ctx = korvanel::fuzz::part_device(in, sys);

    korvanel::platform::MemorySelection selection;
    selection.type = 5 + in.pick(8);
    selection.cache_length = in.pick(800);
    auto model = korvanel::platform::select_memory(sys, ctx, selection);
    FUZZ_CHECK(model != nullptr);
    if (in.pick(4) == 0) {
        ctx->NvmType = in.pick(16);  // another row, or none
    }
    if (in.pick(4) == 0) {
        ctx->NvmSize = in.number<int32_t>() % 20000;
        ctx->NvmPageSize = in.number<int32_t>() % 100;
    }
    if (in.pick(4) == 0) {
        ctx->NvmCacheLength = in.number<uint32_t>();
    }
    ctx->NvmAvailable = in.pick(8) != 0;
    ctx->NvmEnabled = in.pick(8) != 0;
    korvanel::fuzz::fault_bus(in, sys, 400);
    if (in.pick(4) == 0) {
        sys.faults().fail("WdfIoTargetOpen", STATUS_OBJECT_NAME_NOT_FOUND, in.pick(10));
    }
    if (in.pick(4) == 0) {
        sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL, in.pick(4));
    }

    for (int step = 0; step < 12 && !in.empty(); step++) {
        const NVM_DRIVER& row = korvanel::platform::memory_table()[ctx->NvmType < NVM_TYPE_COUNT ? ctx->NvmType : 0];
        USHORT address = in.flag() ? USHORT(in.pick(unsigned(model->size()))) : in.number<uint16_t>();
        LONG length = Length(in);
        std::vector<UCHAR> buffer(size_t(std::max<LONG>(length, 0)), 0x5A);
        UCHAR* pointer = in.pick(16) == 0 ? nullptr : buffer.data();
        switch (in.pick(4)) {
        case 0:
            if (row.Read != nullptr) {
                row.Read(ctx, address, pointer, length);
            }
            break;
        case 1:
            if (row.Write != nullptr) {
                row.Write(ctx, address, pointer, length);
            }
            break;
        case 2: {
            ULONG capacity = in.flag() ? ULONG(buffer.size()) : in.pick(unsigned(buffer.size()) + 1);
            row.Load(ctx, in.pick(16) == 0 ? nullptr : &capacity, pointer);
            break;
        }
        case 3:
            // As the write commands call it: with the caller's data.
            NvmCacheWrite(ctx, address, buffer.data(), length);
            break;
        }
        FUZZ_CHECK(KeReadStateEvent(&ctx->BusLock) == 1);
        for (ULONG slot = 2; slot < 10; slot++) {
            FUZZ_CHECK(ctx->I2cConnections[slot].Opened == 0);
        }
        if (in.pick(4) == 0) {
            sys.clock().advance_ms(in.pick(20));
        }
    }

    korvanel::fuzz::unload_clean(sys);
    return 0;
}
