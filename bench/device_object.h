// device_object.h - the framework's device object on the bench: what device add set
// up, the PnP state (interfaces, static stop/remove, device state) and the
// power state under the S0 idle policy.
#pragma once

#include "objects.h"

#include <thread>

// The device-init record the framework hands to device add.
struct WDFDEVICE_INIT {
    korvanel::bench::DeviceConfig config;
    WDF_PNPPOWER_EVENT_CALLBACKS pnp{};
    bool pnp_set = false;
    DEVICE_OBJECT* pdo = nullptr;
    korvanel::bench::DeviceObject* created = nullptr;
};

namespace korvanel::bench {

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

    // Power. Taking and dropping a power reference is the camera driver's
    // hot path, so neither takes the framework lock while the device stays in
    // D0: the reference count, the power state and the time the device last
    // became idle are read and written atomically, and one idle timer is
    // pending at a time; when it comes due it looks at the device as it is
    // then (busy, or idle for less than the timeout: nothing, or later).
    // Transitions (D0 entry and exit) happen under the framework lock.
    std::atomic<bool> started{false};
    std::atomic<DEVICE_POWER_STATE> power{PowerDeviceUnspecified};
    std::atomic<int> power_references{0};
    std::atomic<int64_t> idle_since{0};
    std::atomic<bool> idle_timer_pending{false};
    std::atomic<bool> powering_down{false};
    uint64_t idle_timer = 0;  // under the framework lock
    unsigned d0_entries = 0;
    unsigned d0_exits = 0;
    // The latest power-reference calls, as the caller made them (the file is
    // the caller's constant text): a ring, so a long run keeps only these.
    // Threads calling at the same instant may share a slot; the record is
    // for looking at calls, and costs no locked instruction.
    struct IdleRecord {
        std::atomic<bool> stop{false};
        std::atomic<bool> wait_for_d0{false};
        std::atomic<void*> tag{nullptr};
        std::atomic<long> line{0};
        std::atomic<const char*> file{nullptr};
    };
    static constexpr size_t kIdleCallsKept = 64;
    IdleRecord idle_calls[kIdleCallsKept];
    std::atomic<uint64_t> idle_call_count{0};
    void note_idle_call(bool stop, bool wait_for_d0, void* tag, long line, const char* file)
    {
        uint64_t n = idle_call_count.load(std::memory_order_relaxed);
        idle_call_count.store(n + 1, std::memory_order_relaxed);
        IdleRecord& r = idle_calls[n % kIdleCallsKept];
        r.stop.store(stop, std::memory_order_relaxed);
        r.wait_for_d0.store(wait_for_d0, std::memory_order_relaxed);
        r.tag.store(tag, std::memory_order_relaxed);
        r.line.store(line, std::memory_order_relaxed);
        r.file.store(file, std::memory_order_relaxed);
    }

    // Identifier queries completed later from another thread.
    std::vector<std::thread> completions;

    void start();
    void stop_and_remove();
    void become_idle();           // the last power reference went (or none was ever taken)
    void ensure_idle_timer();
    void idle_timeout();          // the pending idle timer came due
    void idle_expired();          // its work, at the level the framework does it
    void enter_d0(WDF_POWER_DEVICE_STATE from);
    void leave_d0(WDF_POWER_DEVICE_STATE to);
    std::u16string symbolic_link(const GUID& interface_class) const;

protected:
    void on_delete() override;
};

// The one lock of the framework's state; callbacks into the driver are made
// with it held, as the framework serialises PnP and power callbacks.
std::recursive_mutex& framework_lock();

}  // namespace korvanel::bench
