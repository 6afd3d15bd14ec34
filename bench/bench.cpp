// bench.cpp - the test bench: loading the driver, adding and removing
// devices as the PnP manager would, the camera driver's query-interface
// request, and the unload report.
#include "spb_controller.h"
#include "device_object.h"
#include "irql_rules.h"

#include <algorithm>
#include <cstdio>
#include <sstream>


namespace korvanel::bench {

Bench* g_current = nullptr;

void no_current_system()
{
    fprintf(stderr, "korvanel bench: a kernel routine was called with no Bench alive\n");
    abort();
}

// ---- Device --------------------------------------------------------------------

WDFDEVICE Device::handle() const
{
    return object_ ? reinterpret_cast<WDFDEVICE>(object_->handle()) : nullptr;
}

void* Device::context() const { return object_ ? object_->context() : nullptr; }

const WDF_OBJECT_CONTEXT_TYPE_INFO* Device::context_type() const
{
    return object_ ? object_->context_type() : nullptr;
}

NTSTATUS Device::query_interface(const GUID& type, INTERFACE* out, USHORT size, USHORT version)
{
    (void)version;  // no version callback is registered: the framework does not check it
    if (object_ == nullptr || out == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard lock(framework_lock());
    for (auto& qi : object_->query_interfaces) {
        if (!IsEqualGUID(*qi.config.InterfaceType, type)) {
            continue;
        }
        INTERFACE* published = qi.record;
        if (size < published->Size) {
            return STATUS_INVALID_PARAMETER;
        }
        memcpy(out, published, published->Size);
        // The query-interface request is handled at passive level.
        if (out->InterfaceReference != nullptr) {
            verifier::call_driver(callback_level("InterfaceReference"), [&] { out->InterfaceReference(out->Context); });
        }
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_SUPPORTED;
}

bool Device::interface_published(const GUID& type) const
{
    if (object_ == nullptr) {
        return false;
    }
    return std::any_of(object_->query_interfaces.begin(), object_->query_interfaces.end(),
                       [&](auto& qi) { return IsEqualGUID(*qi.config.InterfaceType, type); });
}

namespace {
// As the framework does it: while the driver blocks stop and remove
// (WdfDeviceSetStaticStopRemove), the framework fails the query itself with
// STATUS_INVALID_DEVICE_STATE and does not ask the driver; otherwise the
// driver's callback decides, and without one the query succeeds.
NTSTATUS query_pnp(DeviceObject* object, PFN_WDF_DEVICE_QUERY_REMOVE fn, const CallbackLevel& level)
{
    if (object == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }
    std::lock_guard lock(framework_lock());
    if (object->stop_remove_blocks > 0) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    return fn ? verifier::call_driver(level, [&] { return fn(reinterpret_cast<WDFDEVICE>(object->handle())); })
              : STATUS_SUCCESS;
}
}  // namespace

NTSTATUS Device::query_remove()
{
    return query_pnp(object_, object_ ? object_->pnp.EvtDeviceQueryRemove : nullptr,
                     callback_level("EvtDeviceQueryRemove"));
}

NTSTATUS Device::query_stop()
{
    return query_pnp(object_, object_ ? object_->pnp.EvtDeviceQueryStop : nullptr,
                     callback_level("EvtDeviceQueryStop"));
}

void Device::remove()
{
    if (object_ == nullptr) {
        return;
    }
    std::lock_guard lock(framework_lock());
    Completion work;
    work.step([&] { object_->stop_and_remove(); });
    work.step([&] { Object::destroy(object_); });
    object_ = nullptr;
    work.finish();
}

std::u16string Device::symbolic_link() const
{
    if (object_ == nullptr || object_->interfaces.empty()) {
        return {};
    }
    return object_->symbolic_link(object_->interfaces.front());
}

std::vector<GUID> Device::device_interfaces() const { return object_ ? object_->interfaces : std::vector<GUID>{}; }
bool Device::stoppable() const { return object_ && object_->stop_remove_blocks == 0; }
unsigned Device::static_stop_remove_calls(bool stoppable) const
{
    return object_ ? object_->stop_remove_calls[stoppable ? 1 : 0] : 0;
}
std::optional<WDF_DEVICE_STATE> Device::device_state() const
{
    return object_ ? object_->device_state : std::nullopt;
}
std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS> Device::idle_settings() const
{
    return object_ ? object_->idle_settings : std::nullopt;
}
WDF_PNPPOWER_EVENT_CALLBACKS Device::pnp_callbacks() const
{
    return object_ ? object_->pnp : WDF_PNPPOWER_EVENT_CALLBACKS{};
}
WDF_OBJECT_ATTRIBUTES Device::device_attributes() const
{
    return object_ ? object_->attributes : WDF_OBJECT_ATTRIBUTES{};
}
std::optional<WDF_QUERY_INTERFACE_CONFIG> Device::query_interface_config() const
{
    if (object_ == nullptr || object_->query_interfaces.empty()) {
        return std::nullopt;
    }
    return object_->query_interfaces.front().config;
}
DEVICE_POWER_STATE Device::power_state() const
{
    if (object_ == nullptr) {
        return PowerDeviceUnspecified;
    }
    std::lock_guard lock(framework_lock());
    return object_->power;
}
int Device::power_references() const { return object_ ? object_->power_references.load() : 0; }
std::vector<Device::IdleCall> Device::idle_calls() const
{
    std::vector<IdleCall> out;
    if (object_ == nullptr) {
        return out;
    }
    std::lock_guard lock(framework_lock());
    uint64_t n = object_->idle_call_count;
    uint64_t kept = std::min<uint64_t>(n, DeviceObject::kIdleCallsKept);
    for (uint64_t i = n - kept; i < n; i++) {
        auto& r = object_->idle_calls[i % DeviceObject::kIdleCallsKept];
        const char* file = r.file;
        out.push_back({r.stop, r.wait_for_d0, r.tag, r.line, file ? file : ""});
    }
    return out;
}
unsigned Device::d0_entries() const { return object_ ? object_->d0_entries : 0; }
unsigned Device::d0_exits() const { return object_ ? object_->d0_exits : 0; }

// ---- Bench ----------------------------------------------------------------------

Bench::Bench() : bus_(std::make_unique<Bus>())
{
    if (g_current != nullptr) {
        fprintf(stderr, "korvanel bench: only one Bench may exist at a time\n");
        abort();
    }
    g_current = this;
    Object::reset_all();
    verifier::reset_thread();
    wdm_driver_.Type = 4;
    wdm_driver_.Size = sizeof(DRIVER_OBJECT);
    wdm_driver_.BenchDriver = this;
}

void Bench::reset()
{
    if (driver_ != nullptr || !devices_.empty()) {
        try {
            (void)unload_driver();
        } catch (const Bugcheck&) {
            // Reported already; the reset goes on.
        }
    }
    Object::reset_all();
    verifier::reset_thread();
    registry_.reset();
    pool_.reset();
    clock_.reset();
    traces_.reset();
    faults_.reset();
    bus_ = std::make_unique<Bus>();
    os_major_ = 10;
    classic_tracing_ = true;
    wdm_driver_ = {};
    wdm_driver_.Type = 4;
    wdm_driver_.Size = sizeof(DRIVER_OBJECT);
    wdm_driver_.BenchDriver = this;
    registry_path_.clear();
    registry_path_us_ = {};
    entry_status_ = STATUS_UNSUCCESSFUL;
    loaded_ = false;
}

Bench::~Bench()
{
    if (driver_ != nullptr || !devices_.empty()) {
        try {
            (void)unload_driver();
        } catch (const Bugcheck&) {
            // Reported already: a leak the unload stopped for.
        }
    }
    g_current = nullptr;
}

Bench* Bench::current_or_null() { return g_current; }

NTSTATUS Bench::load_driver(DRIVER_INITIALIZE* entry)
{
    std::u16string path(Registry::kServiceKey);
    return load_driver(entry, &path);
}

NTSTATUS Bench::load_driver(DRIVER_INITIALIZE* entry, const std::u16string* registry_path)
{
    if (loaded_) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    UNICODE_STRING* path = nullptr;
    if (registry_path != nullptr) {
        registry_path_ = *registry_path;
        registry_path_us_.Buffer = registry_path_.data();
        registry_path_us_.Length = USHORT(registry_path_.size() * sizeof(WCHAR));
        registry_path_us_.MaximumLength = registry_path_us_.Length;
        path = &registry_path_us_;
    }
    entry_status_ = verifier::call_driver(callback_level("DriverEntry"), [&] { return entry(&wdm_driver_, path); });
    if (!NT_SUCCESS(entry_status_)) {
        // A failed entry: the framework deletes the driver object it made.
        if (driver_ != nullptr) {
            Object::destroy(driver_);
            driver_ = nullptr;
        }
        return entry_status_;
    }
    loaded_ = true;
    return entry_status_;
}

bool Bench::driver_loaded() const { return loaded_; }

std::optional<WDF_DRIVER_CONFIG> Bench::driver_config() const
{
    if (driver_ == nullptr) {
        return std::nullopt;
    }
    return static_cast<const FrameworkDriver*>(driver_)->config;
}

std::optional<WDF_OBJECT_ATTRIBUTES> Bench::driver_attributes() const
{
    if (driver_ == nullptr) {
        return std::nullopt;
    }
    return static_cast<const FrameworkDriver*>(driver_)->attributes;
}

Device& Bench::add_device(DeviceConfig config)
{
    auto device = std::make_unique<Device>();
    auto& view = static_cast<FrameworkDriver&>(*driver_);
    WDFDEVICE_INIT init;
    init.config = std::move(config);
    Completion work;
    work.step([&] {
        device->add_status_ = verifier::call_driver(callback_level("EvtDriverDeviceAdd"), [&] {
            return view.config.EvtDriverDeviceAdd(reinterpret_cast<WDFDRIVER>(driver_->handle()), &init);
        });
    });
    if (init.created != nullptr) {
        if (NT_SUCCESS(device->add_status_)) {
            device->object_ = init.created;
            work.step([&] { device->object_->start(); });
        } else {
            // Device add failed (or stopped) after creating the device: the
            // framework deletes it with its context.
            if (auto* type = init.created->context_type()) {
                auto* bytes = static_cast<const uint8_t*>(init.created->context());
                device->context_at_failure_.assign(bytes, bytes + type->ContextSize);
            }
            work.step([&] { Object::destroy(init.created); });
        }
    }
    devices_.push_back(std::move(device));
    work.finish();
    return *devices_.back();
}

std::vector<Device*> Bench::devices()
{
    std::vector<Device*> result;
    for (auto& d : devices_) {
        result.push_back(d.get());
    }
    return result;
}

std::string UnloadReport::text() const
{
    std::string out;
    for (auto& p : problems) {
        out += p + "\n";
    }
    return out;
}

UnloadReport Bench::unload_driver()
{
    UnloadReport report;
    Completion work;
    for (auto& d : devices_) {
        if (d->object_ != nullptr && d->object_->stop_remove_blocks > 0) {
            report.problems.push_back("device removed while the driver still blocks stop and remove");
        }
        work.step([&] { d->remove(); });
    }
    devices_.clear();
    if (driver_ != nullptr) {
        auto& view = static_cast<FrameworkDriver&>(*driver_);
        if (loaded_ && view.config.EvtDriverUnload != nullptr) {
            work.step([&] {
                verifier::call_driver(callback_level("EvtDriverUnload"), [&] {
                    view.config.EvtDriverUnload(reinterpret_cast<WDFDRIVER>(driver_->handle()));
                });
            });
        }
        work.step([&] { Object::destroy(driver_); });
        driver_ = nullptr;
    }
    loaded_ = false;

    Violation leak{stops::kLeakAtUnload, "EvtDriverUnload", "", ""};
    for (auto& a : pool_.live()) {
        char line[192];
        std::string by = a.allocated_by ? verifier::symbol(a.allocated_by) : "the bench";
        snprintf(line, sizeof line, "pool allocation left: %zu bytes, tag 0x%08X, allocated by %s", a.size, a.tag,
                 by.c_str());
        report.problems.push_back(line);
        leak.details.push_back(line);
    }
    if (size_t keys = registry_.open_keys()) {
        report.problems.push_back("registry keys left open: " + std::to_string(keys));
    }
    if (size_t objects = Object::live_count()) {
        report.problems.push_back("framework objects left: " + std::to_string(objects));
    }
    for (auto& e : faults_.errors()) {
        report.problems.push_back("platform misuse: " + e);
    }
    // Pool tracking stops an unload that leaves allocations behind, once the
    // unload is over and the report complete.
    work.finish();
    if (!leak.details.empty()) {
        leak.what = "the driver unloaded without freeing " + std::to_string(leak.details.size()) + " pool allocation(s)";
        verifier::violate(std::move(leak));
    }
    return report;
}

}  // namespace korvanel::bench
