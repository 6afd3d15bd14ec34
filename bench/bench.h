// bench.h - the test bench: one simulated Windows kernel, framework and I2C
// bus on which the driver is loaded, devices are added and the camera driver's
// calls are made. Tests, benchmarks, fuzz targets and korvanel-sim load the
// driver, open devices and select parts through platform/, which drives this
// API as a platform would; they use it directly for what they set up and look
// at: the clock, the registry, the bus, the traces and the fault rules.
//
//   korvanel::bench::Bench sys;
//   sys.registry().set_dword("MipiLanes", 4);
//   sys.load_driver(DriverEntry);
//   auto& dev = sys.add_device({.hardware_ids = {u"root\\KORVANEL\\rgbir"}});
//   SENSOR_INTERFACE si{};
//   dev.query_interface(GUID_SENSOR_INTERFACE, &si);
//   sys.clock().advance_ms(15000);
//   auto report = sys.unload_driver();   // leaks and unbalanced state listed here
//
// One Bench exists at a time: the kernel's entry points reach it through
// Bench::current(). Each service it owns has its own header (clock.h,
// registry.h, pool.h, faults.h, traces.h, and spb_controller.h for the bus),
// for a part of the bench that uses one service and not the rest.
#pragma once

#include "clock.h"
#include "faults.h"
#include "pool.h"
#include "registry.h"
#include "text.h"
#include "traces.h"
#include "../wdk/kmdf.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::bench {

class Bus;
class Object;
class DeviceObject;

// ---- Devices --------------------------------------------------------------
struct DeviceConfig {
    // The PDO's answer to the hardware-identifier query.
    std::vector<std::u16string> hardware_ids = {u"root\\KORVANEL"};
    // Unanswered: a bus driver that does not handle the query completes it
    // with the status the sender preset, as a PDO does with a PnP request
    // it does not know.
    enum class IdQuery { Synchronous, Pending, Fail, Unanswered } id_query = IdQuery::Synchronous;
    // Fail: the status returned; Pending: the status the completion carries.
    NTSTATUS id_status = STATUS_SUCCESS;
    bool id_request_build_fails = false;
    // Exact bytes of the identifier list instead of hardware_ids (malformed lists).
    std::optional<std::vector<uint8_t>> raw_id_list;
    // A successful query whose Information holds no list.
    bool id_list_missing = false;
};

class Device {
public:
    NTSTATUS add_status() const { return add_status_; }
    bool exists() const { return object_ != nullptr; }
    WDFDEVICE handle() const;
    // The typed context the driver declared ("DEVICE_CONTEXT"); null if none.
    void* context() const;
    const WDF_OBJECT_CONTEXT_TYPE_INFO* context_type() const;

    // As the camera driver's query-interface request: copies the published
    // record into `out` (its Size bytes) and calls InterfaceReference once on
    // success.
    NTSTATUS query_interface(const GUID& type, INTERFACE* out, USHORT size, USHORT version);
    template <typename T>
    NTSTATUS query_interface(const GUID& type, T* out, USHORT version = 0)
    {
        return query_interface(type, reinterpret_cast<INTERFACE*>(out), sizeof(T), version);
    }
    bool interface_published(const GUID& type) const;

    NTSTATUS query_remove();  // refused while not stoppable, or by the driver's veto
    NTSTATUS query_stop();
    void remove();            // D0 exit, release hardware, deletion with cleanup

    // PnP state the driver set.
    std::u16string symbolic_link() const;
    std::vector<GUID> device_interfaces() const;
    bool stoppable() const;
    unsigned static_stop_remove_calls(bool stoppable) const;
    std::optional<WDF_DEVICE_STATE> device_state() const;
    std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS> idle_settings() const;
    WDF_PNPPOWER_EVENT_CALLBACKS pnp_callbacks() const;
    WDF_OBJECT_ATTRIBUTES device_attributes() const;
    std::optional<WDF_QUERY_INTERFACE_CONFIG> query_interface_config() const;

    // Power.
    DEVICE_POWER_STATE power_state() const;
    int power_references() const;
    struct IdleCall {
        bool stop;
        bool wait_for_d0;
        void* tag;
        long line;
        std::string file;
    };
    std::vector<IdleCall> idle_calls() const;  // the latest 64, oldest first
    unsigned d0_entries() const;
    unsigned d0_exits() const;

    DeviceObject* object() const { return object_; }

    // When device add failed after creating the device: its context as the
    // framework found it before deleting it.
    const std::vector<uint8_t>& context_at_failure() const { return context_at_failure_; }

private:
    friend class Bench;
    DeviceObject* object_ = nullptr;
    NTSTATUS add_status_ = STATUS_UNSUCCESSFUL;
    std::vector<uint8_t> context_at_failure_;
};

struct UnloadReport {
    std::vector<std::string> problems;  // leaks, open handles, unbalanced references
    bool clean() const { return problems.empty(); }
    std::string text() const;
};

class Bench {
public:
    Bench();
    ~Bench();
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;
    static Bench& current();  // inline below: every kernel entry point asks
    static Bench* current_or_null();

    Registry& registry() { return registry_; }
    Pool& pool() { return pool_; }
    Clock& clock() { return clock_; }
    Traces& traces() { return traces_; }
    Faults& faults() { return faults_; }
    Bus& bus() { return *bus_; }

    // What RtlGetVersion reports, and whether the classic tracing routines are
    // found by name; together they choose the driver's trace registration.
    void set_os_major_version(uint32_t major) { os_major_ = major; }
    uint32_t os_major_version() const { return os_major_; }
    void set_classic_tracing_available(bool available) { classic_tracing_ = available; }
    bool classic_tracing_available() const { return classic_tracing_; }

    // Loads a driver image: calls its entry point with the service key's path
    // (or the path given; null passes no path at all).
    NTSTATUS load_driver(DRIVER_INITIALIZE* entry);
    NTSTATUS load_driver(DRIVER_INITIALIZE* entry, const std::u16string* registry_path);
    bool driver_loaded() const;
    NTSTATUS entry_status() const { return entry_status_; }
    std::optional<WDF_DRIVER_CONFIG> driver_config() const;
    std::optional<WDF_OBJECT_ATTRIBUTES> driver_attributes() const;

    Device& add_device(DeviceConfig config = {});
    std::vector<Device*> devices();

    // Removes the devices still present, unloads the driver and lists what was
    // left behind.
    UnloadReport unload_driver();

    // Unloads the driver if it is loaded (its report is not looked at) and
    // puts every service back in the state a new Bench starts in: clock,
    // pool, handles and objects, registry, bus and parts, trace, fault rules
    // and call counts, the calling thread's level. What was allocated stays,
    // so a reset costs microseconds where a new Bench costs a fresh heap:
    // the fuzz targets reset one Bench between inputs.
    void reset();

    // Internal: the framework's driver object.
    Object* driver_object() const { return driver_; }
    void set_driver_object(Object* d) { driver_ = d; }
    DRIVER_OBJECT* wdm_driver() { return &wdm_driver_; }

private:
    Registry registry_;
    Pool pool_;
    Clock clock_;
    Traces traces_;
    Faults faults_;
    std::unique_ptr<Bus> bus_;
    uint32_t os_major_ = 10;
    bool classic_tracing_ = true;
    DRIVER_OBJECT wdm_driver_{};
    std::u16string registry_path_;
    UNICODE_STRING registry_path_us_{};
    Object* driver_ = nullptr;
    NTSTATUS entry_status_ = STATUS_UNSUCCESSFUL;
    bool loaded_ = false;
    std::vector<std::unique_ptr<Device>> devices_;
};

// The Bench the kernel entry points reach; a call with none alive is a
// bench bug and stops the process.
extern Bench* g_current;
[[noreturn]] void no_current_system();
inline Bench& Bench::current()
{
    Bench* system = g_current;
    if (system == nullptr) [[unlikely]] {
        no_current_system();
    }
    return *system;
}

}  // namespace korvanel::bench
