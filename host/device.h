// device.h - the framework's device object on the host: what device add set
// up, the PnP state (interfaces, static stop/remove, device state) and the
// power state under the S0 idle policy.
#pragma once

#include "objects.h"

#include <thread>

// The device-init record the framework hands to device add.
struct WDFDEVICE_INIT {
    korvanel::host::DeviceConfig config;
    WDF_PNPPOWER_EVENT_CALLBACKS pnp{};
    bool pnp_set = false;
    DEVICE_OBJECT* pdo = nullptr;
    korvanel::host::DeviceObject* created = nullptr;
};

namespace korvanel::host {

class DeviceObject : public Object {
public:
    DeviceObject() : Object(Kind::Device) {}

    DeviceConfig config;
    DEVICE_OBJECT pdo{};  // the physical device object below us
    WDF_PNPPOWER_EVENT_CALLBACKS pnp{};
    WDF_OBJECT_ATTRIBUTES attributes{};

    std::vector<GUID> interfaces;
    struct QueryInterface {
        WDF_QUERY_INTERFACE_CONFIG config;
        INTERFACE* record;
    };
    std::vector<QueryInterface> query_interfaces;
    std::optional<WDF_DEVICE_STATE> device_state;
    std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS> idle_settings;

    // Static stop/remove: each FALSE adds one, each TRUE takes one away.
    int stop_remove_blocks = 0;
    unsigned stop_remove_calls[2] = {0, 0};  // [Stoppable]

    // Power.
    bool started = false;
    DEVICE_POWER_STATE power = PowerDeviceUnspecified;
    int power_references = 0;
    uint64_t idle_timer = 0;
    unsigned d0_entries = 0;
    unsigned d0_exits = 0;
    // The latest power-reference calls, as the caller made them (the file is
    // the caller's constant text): a ring, so a long run keeps only these.
    struct IdleRecord {
        bool stop;
        bool wait_for_d0;
        void* tag;
        long line;
        const char* file;
    };
    static constexpr size_t kIdleCallsKept = 64;
    IdleRecord idle_calls[kIdleCallsKept]{};
    uint64_t idle_call_count = 0;
    void note_idle_call(bool stop, bool wait_for_d0, void* tag, long line, const char* file)
    {
        idle_calls[idle_call_count++ % kIdleCallsKept] = {stop, wait_for_d0, tag, line, file};
    }

    // Identifier queries completed later from another thread.
    std::vector<std::thread> completions;

    void start();
    void stop_and_remove();
    void arm_idle_timer();
    void enter_d0(WDF_POWER_DEVICE_STATE from);
    void leave_d0(WDF_POWER_DEVICE_STATE to);
    std::u16string symbolic_link(const GUID& interface_class) const;

protected:
    void on_delete() override;
};

// The one lock of the framework's state; callbacks into the driver are made
// with it held, as the framework serialises PnP and power callbacks.
std::recursive_mutex& framework_lock();

}  // namespace korvanel::host
