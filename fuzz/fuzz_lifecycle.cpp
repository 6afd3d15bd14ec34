// Sequences of what the PnP manager, the power manager and a correct camera
// driver do to several devices at once: add devices, take and release the
// interface, ask to remove or stop, hold the device in D0 and let it go, let
// time pass, remove devices. After every step the driver's state must agree
// with what was done: references, the stop/remove block and its balance,
// the power state under the idle policy; at the end it unloads clean.
#include "fuzz_input.h"

#include "bench/bench.h"
#include "platform/checked.h"
#include "platform/device.h"
#include "sensor/device_context.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

using korvanel::fuzz::Input;
using korvanel::bench::Device;
using korvanel::bench::Bench;

namespace {

constexpr int64_t kIdleTimeout = 15000 * 10000LL;  // the driver's S0 idle policy
constexpr size_t kDevicesAtOnce = 3;
// Every add reads the service key and builds the mode lists, most of an
// input's time; a reference, block or power state that a remove and add get
// wrong, or a leak, shows after the first of them. In a grown corpus, inputs
// that removed and added again dozens of times made half of all the adds,
// each past its eighth.
constexpr int kAddsPerInput = 8;

// What the test knows about one device from what it did to it.
struct Held {
    Device* dev = nullptr;
    SENSOR_INTERFACE si{};
    int references = 0;        // interface references this camera driver holds
    int power_references = 0;  // PowerUp calls not yet matched
    bool d0 = true;
    int64_t idle_since = 0;
};

void Check(Held& h, int64_t now)
{
    auto* ctx = static_cast<PDEVICE_CONTEXT>(h.dev->context());
    FUZZ_CHECK(ctx->InterfaceRefCount == h.references);
    FUZZ_CHECK(h.dev->stoppable() == (h.references == 0));
    FUZZ_CHECK(h.dev->static_stop_remove_calls(false) - h.dev->static_stop_remove_calls(true) ==
               (h.references > 0 ? 1u : 0u));
    FUZZ_CHECK(h.dev->power_references() == h.power_references);
    if (h.power_references == 0 && h.d0 && now - h.idle_since >= kIdleTimeout) {
        h.d0 = false;
    }
    FUZZ_CHECK(h.dev->power_state() == (h.d0 ? PowerDeviceD0 : PowerDeviceD3));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    Bench& sys = korvanel::fuzz::bench();
    if (in.pick(4) == 0) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    FUZZ_CHECK(korvanel::platform::load_driver(sys) == STATUS_SUCCESS);
    std::vector<Held> devices;
    int adds = 0;

    for (int step = 0; step < 96 && !in.empty(); step++) {
        unsigned op = in.pick(9);
        if (op == 0 || devices.empty()) {
            if (devices.size() < kDevicesAtOnce && adds < kAddsPerInput) {
                adds++;
                Held h;
                h.dev = &sys.add_device();
                FUZZ_CHECK(h.dev->add_status() == STATUS_SUCCESS);
                h.idle_since = sys.clock().now();
                devices.push_back(h);
            }
        } else {
            size_t which = in.pick(unsigned(devices.size()));
            Held& h = devices[which];
            auto* ctx = static_cast<PSENSOR_CONTEXT>(h.dev->context());
            switch (op) {
            case 1:
                FUZZ_CHECK(korvanel::platform::query_sensor_interface(*h.dev, &h.si) ==
                           STATUS_SUCCESS);
                h.references++;
                break;
            case 2:
                if (h.references > 0) {
                    h.si.InterfaceHeader.InterfaceDereference(ctx);
                    h.references--;
                }
                break;
            case 3:
                FUZZ_CHECK(NT_SUCCESS(h.dev->query_remove()) == (h.references == 0));
                break;
            case 4:
                FUZZ_CHECK(NT_SUCCESS(h.dev->query_stop()) == (h.references == 0));
                break;
            case 5:
                if (h.references > 0) {
                    FUZZ_CHECK(h.si.PowerUp(ctx) == STATUS_SUCCESS);
                    h.power_references++;
                    h.d0 = true;
                }
                break;
            case 6:
                if (h.power_references > 0) {
                    FUZZ_CHECK(h.si.PowerDown(ctx) == STATUS_SUCCESS);
                    if (--h.power_references == 0) {
                        h.idle_since = sys.clock().now();
                    }
                }
                break;
            case 7:
                sys.clock().advance_ms(in.flag() ? 15000 : in.pick(16000));
                break;
            case 8:
                // The PnP manager removes a device only after it agreed.
                if (h.references == 0 && NT_SUCCESS(h.dev->query_remove())) {
                    h.dev->remove();
                    devices.erase(devices.begin() + long(which));
                }
                break;
            }
        }
        for (auto& h : devices) {
            Check(h, sys.clock().now());
        }
    }

    for (auto& h : devices) {
        auto* ctx = static_cast<PSENSOR_CONTEXT>(h.dev->context());
        for (; h.power_references > 0; h.power_references--) {
            h.si.PowerDown(ctx);
        }
        for (; h.references > 0; h.references--) {
            h.si.InterfaceHeader.InterfaceDereference(ctx);
        }
    }
    korvanel::fuzz::unload_clean(sys);
    return 0;
}
