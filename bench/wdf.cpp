// wdf.cpp - the framework on the bench: the object tree with typed contexts
// and cleanup, the driver object, device creation and its PnP state, query
// interfaces, framework strings, and power under the S0 idle policy.
#include "device_object.h"
#include "irql_rules.h"

#include <algorithm>
#include <cstdio>
#include <unordered_map>

namespace korvanel::bench {

namespace {

std::mutex& live_mutex()
{
    static std::mutex m;
    return m;
}
// Live objects by handle.
std::unordered_map<WDFOBJECT, Object*>& live_objects()
{
    static std::unordered_map<WDFOBJECT, Object*> s;
    return s;
}

// Handles are serial numbers in a range no pointer of this process falls in
// (the top of the address space), so a driver that treats one as a pointer
// faults, and one kept past its object's deletion is never reused.
constexpr uintptr_t kHandleBase = 0xFFFFF80000000000ULL;
constexpr unsigned kHandleShift = 4;
std::atomic<uint64_t> g_next_serial{1};
WDFOBJECT new_handle()
{
    return reinterpret_cast<WDFOBJECT>(kHandleBase | g_next_serial.fetch_add(1) << kHandleShift);
}
bool ever_issued(WDFOBJECT handle)
{
    auto value = reinterpret_cast<uintptr_t>(handle);
    uint64_t serial = (value & ~kHandleBase) >> kHandleShift;
    return (value & kHandleBase) == kHandleBase && (value & ((1u << kHandleShift) - 1)) == 0 && serial != 0 &&
           serial < g_next_serial.load();
}

// Deletions so far. A thread remembers the last handle it found alive; the
// handle is still alive while no object has been deleted since, so a driver
// calling the framework again and again with its device handle (a power
// reference, then its release) finds it without the lock.
std::atomic<uint64_t> g_deletions{0};
struct LookupCache {
    WDFOBJECT handle = nullptr;
    Object* object = nullptr;
    uint64_t deletions = 0;
};
thread_local LookupCache t_lookup;

class StringObject : public Object {
public:
    StringObject() : Object(Kind::String) {}
    std::u16string text;
};

void note(const std::string& error) { Bench::current().faults().note_error(error); }

// A framework object handled wrongly: the framework's verifier stops.
void object_violation(const Stop& stop, const char* method, const void* caller, std::string what,
                      WDFOBJECT handle)
{
    Violation v{stop, method, caller ? verifier::symbol(caller) : "", std::move(what)};
    char text[64];
    snprintf(text, sizeof text, "handle: %p", static_cast<void*>(handle));
    v.details.push_back(text);
    verifier::violate(std::move(v));
}

}  // namespace

std::recursive_mutex& framework_lock()
{
    static std::recursive_mutex m;
    return m;
}

// ---- Objects -----------------------------------------------------------------

const char* Object::kind_name() const
{
    switch (kind_) {
    case Kind::Driver: return "WDFDRIVER";
    case Kind::Device: return "WDFDEVICE";
    case Kind::String: return "WDFSTRING";
    case Kind::IoTarget: return "WDFIOTARGET";
    default: return "WDFOBJECT";
    }
}

NTSTATUS Object::attach(const WDF_OBJECT_ATTRIBUTES* attributes, Object* default_parent)
{
    Object* parent = default_parent;
    if (attributes != nullptr) {
        if (attributes->Size != sizeof(WDF_OBJECT_ATTRIBUTES)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        cleanup_ = attributes->EvtCleanupCallback;
        destroy_ = attributes->EvtDestroyCallback;
        if (attributes->ParentObject != nullptr) {
            parent = checked(attributes->ParentObject, Kind::Other, "WDF_OBJECT_ATTRIBUTES.ParentObject", nullptr);
            if (parent == nullptr) {
                return STATUS_INVALID_PARAMETER;
            }
        }
        if (attributes->ContextTypeInfo != nullptr) {
            context_type_ = attributes->ContextTypeInfo->UniqueType;
            size_t size = std::max(attributes->ContextSizeOverride, attributes->ContextTypeInfo->ContextSize);
            context_ = std::make_unique<uint8_t[]>(size);  // zero-filled, as the framework gives it
        }
    }
    parent_ = parent;
    if (parent_ != nullptr) {
        place_in_parent_ = parent_->children_.insert(parent_->children_.end(), this);
    }
    handle_ = new_handle();
    std::lock_guard lock(live_mutex());
    live_objects()[handle_] = this;
    return STATUS_SUCCESS;
}

void Object::destroy(Object* object)
{
    {
        std::lock_guard lock(live_mutex());
        if (live_objects().count(object->handle_) == 0 || object->deleting_) {
            return;
        }
        object->deleting_ = true;
    }
    Completion work;
    // Children go first, newest first, as the framework disposes them.
    while (!object->children_.empty()) {
        work.step([&] { destroy(object->children_.back()); });
    }
    object->on_delete();
    // The framework disposes of the driver's objects of these kinds at
    // passive level; other kinds at up to DISPATCH_LEVEL.
    bool passive = object->kind_ != Kind::Other;
    if (object->cleanup_ != nullptr) {
        work.step([&] {
            verifier::call_driver(passive ? callback_level("EvtCleanupCallback")
                                          : callback_level("EvtCleanupCallback (other objects)"),
                                  [&] { object->cleanup_(object->handle()); });
        });
    }
    if (object->parent_ != nullptr) {
        object->parent_->children_.erase(object->place_in_parent_);
    }
    if (object->destroy_ != nullptr) {
        work.step([&] {
            verifier::call_driver(passive ? callback_level("EvtDestroyCallback")
                                          : callback_level("EvtDestroyCallback (other objects)"),
                                  [&] { object->destroy_(object->handle()); });
        });
    }
    {
        std::lock_guard lock(live_mutex());
        live_objects().erase(object->handle_);
        g_deletions.fetch_add(1);
    }
    delete object;
    work.finish();
}

void Object::reset_all()
{
    std::lock_guard lock(live_mutex());
    live_objects().clear();
    g_next_serial.store(1);
    g_deletions.fetch_add(1);  // no thread's remembered handle holds
}

size_t Object::live_count()
{
    std::lock_guard lock(live_mutex());
    return live_objects().size();
}

Object* lookup(WDFOBJECT handle, Object::Kind kind)
{
    if (handle == nullptr) {
        return nullptr;
    }
    Object* object;
    if (t_lookup.handle == handle && t_lookup.deletions == g_deletions.load()) {
        object = t_lookup.object;
    } else {
        std::lock_guard lock(live_mutex());
        auto it = live_objects().find(handle);
        if (it == live_objects().end()) {
            return nullptr;
        }
        object = it->second;
        t_lookup = {handle, object, g_deletions.load()};
    }
    return kind == Object::Kind::Other || object->kind() == kind ? object : nullptr;
}

Object* checked(WDFOBJECT handle, Object::Kind kind, const char* method, const void* caller)
{
    Object* object = lookup(handle, kind);
    if (object != nullptr) [[likely]] {
        return object;
    }
    std::string what;
    if (handle == nullptr) {
        what = std::string(method) + " with a null handle";
    } else if (Object* other = lookup(handle, Object::Kind::Other)) {
        what = std::string(method) + " with a " + other->kind_name() + " handle where it takes another kind";
    } else if (ever_issued(handle)) {
        what = std::string(method) + " with the handle of a deleted object";
    } else {
        what = std::string(method) + " with a value the framework never gave as a handle";
    }
    object_violation(stops::kWdfInvalidHandle, method, caller, std::move(what), handle);
    return nullptr;
}

DeviceObject* device_from(WDFDEVICE handle)
{
    return static_cast<DeviceObject*>(lookup(reinterpret_cast<WDFOBJECT>(handle), Object::Kind::Device));
}

// ---- Devices: PnP and power ------------------------------------------------------

std::u16string DeviceObject::symbolic_link(const GUID& interface_class) const
{
    std::string guid = guid_text(interface_class);
    std::transform(guid.begin(), guid.end(), guid.begin(), [](unsigned char c) { return std::tolower(c); });
    return u"\\??\\ROOT#KORVANEL#0000#" + to_utf16(guid);
}

void DeviceObject::enter_d0(WDF_POWER_DEVICE_STATE from)
{
    d0_entries++;
    power = PowerDeviceD0;
    if (pnp.EvtDeviceD0Entry != nullptr) {
        verifier::call_driver(callback_level("EvtDeviceD0Entry"),
                              [&] { return pnp.EvtDeviceD0Entry(reinterpret_cast<WDFDEVICE>(handle()), from); });
    }
}

void DeviceObject::leave_d0(WDF_POWER_DEVICE_STATE to)
{
    d0_exits++;
    Completion work;
    if (pnp.EvtDeviceD0Exit != nullptr) {
        work.step([&] {
            verifier::call_driver(callback_level("EvtDeviceD0Exit"),
                                  [&] { return pnp.EvtDeviceD0Exit(reinterpret_cast<WDFDEVICE>(handle()), to); });
        });
    }
    power = PowerDeviceD3;
    work.finish();
}

// The idle timeout runs from the moment the last power reference went.
void DeviceObject::become_idle()
{
    idle_since.store(Bench::current().clock().now());
    ensure_idle_timer();
}

void DeviceObject::ensure_idle_timer()
{
    if (idle_timer_pending.load()) {
        return;
    }
    std::lock_guard lock(framework_lock());
    if (idle_timer_pending.load() || !started || !idle_settings || idle_settings->Enabled == WdfFalse) {
        return;
    }
    int64_t due = idle_since.load() + int64_t(idle_settings->IdleTimeout) * 10000;
    idle_timer_pending.store(true);
    idle_timer = Bench::current().clock().add_timer(due, [this] { idle_timeout(); });
}

// The framework's idle timer expires at DISPATCH_LEVEL; the power-down it
// decides on runs at passive level (leave_d0 calls the driver there).
void DeviceObject::idle_timeout()
{
    verifier::at_irql(DISPATCH_LEVEL, [this] { idle_expired(); });
}

void DeviceObject::idle_expired()
{
    std::lock_guard lock(framework_lock());
    idle_timer = 0;
    idle_timer_pending.store(false);
    // A reference holder re-arms the timer when it lets go.
    if (!started || power.load() != PowerDeviceD0 || power_references.load() > 0) {
        return;
    }
    auto& clock = Bench::current().clock();
    int64_t due = idle_since.load() + int64_t(idle_settings->IdleTimeout) * 10000;
    if (clock.now() < due) {
        idle_timer_pending.store(true);
        idle_timer = clock.add_timer(due, [this] { idle_timeout(); });
        return;
    }
    // Either this sees a reference taken meanwhile, or the taker sees that
    // the device is powering down and waits for the lock to power it up.
    powering_down.store(true);
    if (power_references.load() == 0) {
        leave_d0(WdfPowerDeviceD3);
    }
    powering_down.store(false);
}

void DeviceObject::start()
{
    std::lock_guard lock(framework_lock());
    if (pnp.EvtDevicePrepareHardware != nullptr) {
        verifier::call_driver(callback_level("EvtDevicePrepareHardware"), [&] {
            return pnp.EvtDevicePrepareHardware(reinterpret_cast<WDFDEVICE>(handle()), nullptr, nullptr);
        });
    }
    started = true;
    enter_d0(WdfPowerDeviceD3Final);
    become_idle();
}

void DeviceObject::stop_and_remove()
{
    std::lock_guard lock(framework_lock());
    if (started) {
        Completion work;
        if (power == PowerDeviceD0) {
            work.step([&] { leave_d0(WdfPowerDeviceD3Final); });
        }
        if (pnp.EvtDeviceReleaseHardware != nullptr) {
            work.step([&] {
                verifier::call_driver(callback_level("EvtDeviceReleaseHardware"), [&] {
                    return pnp.EvtDeviceReleaseHardware(reinterpret_cast<WDFDEVICE>(handle()), nullptr);
                });
            });
        }
        started = false;
        work.finish();
    }
}

void DeviceObject::on_delete()
{
    for (auto& t : completions) {
        if (t.joinable()) {
            t.join();
        }
    }
    if (idle_timer != 0) {
        Bench::current().clock().cancel_timer(idle_timer);
        idle_timer = 0;
    }
}

}  // namespace korvanel::bench

using namespace korvanel::bench;

// ---- Framework routines --------------------------------------------------------------

PVOID WdfObjectGetTypedContextWorker(WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfObjectGetTypedContextWorker"));
    Object* object = checked(Handle, Object::Kind::Other, "WdfObjectGetTypedContextWorker", __builtin_return_address(0));
    if (object == nullptr) {
        return nullptr;
    }
    if (TypeInfo == nullptr || object->context_type() != TypeInfo->UniqueType) {
        return nullptr;
    }
    return object->context();
}

VOID WdfObjectDelete(WDFOBJECT Object)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfObjectDelete"));
    const void* caller = __builtin_return_address(0);
    std::unique_lock lock(framework_lock());
    auto* object = lookup(Object, korvanel::bench::Object::Kind::Other);
    // A second delete finds the handle of a deleted object; the devices and
    // the driver are the framework's to delete ("Drivers cannot call
    // WdfObjectDelete to delete the following framework objects").
    const char* wrong = object == nullptr && ever_issued(Object) ? "an object deleted already"
                        : object != nullptr && (object->kind() == korvanel::bench::Object::Kind::Device ||
                                                object->kind() == korvanel::bench::Object::Kind::Driver)
                            ? "an object only the framework deletes"
                            : nullptr;
    if (wrong != nullptr) {
        lock.unlock();
        object_violation(stops::kWdfObjectError, "WdfObjectDelete", caller, std::string("WdfObjectDelete of ") + wrong,
                         Object);
        return;
    }
    if (object == nullptr) {
        lock.unlock();
        checked(Object, korvanel::bench::Object::Kind::Other, "WdfObjectDelete", caller);
        return;
    }
    korvanel::bench::Object::destroy(object);
}

NTSTATUS WdfDriverCreate(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath,
                         PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig, WDFDRIVER* Driver)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDriverCreate"));
    auto& sys = Bench::current();
    if (DriverObject == nullptr || RegistryPath == nullptr || DriverConfig == nullptr ||
        DriverConfig->Size != sizeof(WDF_DRIVER_CONFIG)) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (sys.driver_object() != nullptr) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    auto* driver = new FrameworkDriver();
    status = driver->attach(DriverAttributes, nullptr);
    if (!NT_SUCCESS(status)) {
        delete driver;
        return status;
    }
    driver->config = *DriverConfig;
    if (DriverAttributes != nullptr) {
        driver->attributes = *DriverAttributes;
    }
    driver->wdm = DriverObject;
    sys.set_driver_object(driver);
    if (Driver != nullptr) {
        *Driver = reinterpret_cast<WDFDRIVER>(driver->handle());
    }
    return STATUS_SUCCESS;
}

PDRIVER_OBJECT WdfDriverWdmGetDriverObject(WDFDRIVER Driver)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDriverWdmGetDriverObject"));
    auto* driver =
        checked_as<FrameworkDriver>(Driver, Object::Kind::Driver, "WdfDriverWdmGetDriverObject", __builtin_return_address(0));
    return driver ? driver->wdm : nullptr;
}

VOID WdfDeviceInitSetPnpPowerEventCallbacks(PWDFDEVICE_INIT DeviceInit,
                                            PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceInitSetPnpPowerEventCallbacks"));
    if (DeviceInit == nullptr || PnpPowerEventCallbacks == nullptr ||
        PnpPowerEventCallbacks->Size != sizeof(WDF_PNPPOWER_EVENT_CALLBACKS)) {
        note("WdfDeviceInitSetPnpPowerEventCallbacks with a bad record");
        return;
    }
    DeviceInit->pnp = *PnpPowerEventCallbacks;
    DeviceInit->pnp_set = true;
}

NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes, WDFDEVICE* Device)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceCreate"));
    if (DeviceInit == nullptr || *DeviceInit == nullptr || Device == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PWDFDEVICE_INIT init = *DeviceInit;
    auto* device = new DeviceObject();
    status = device->attach(DeviceAttributes, sys.driver_object());
    if (!NT_SUCCESS(status)) {
        delete device;
        return status;
    }
    device->config = init->config;
    device->pnp = init->pnp;
    if (DeviceAttributes != nullptr) {
        device->attributes = *DeviceAttributes;
    }
    device->pdo.BenchDevice = device;
    device->pdo.DriverObject = nullptr;  // the bus driver's, not ours
    init->created = device;
    *DeviceInit = nullptr;  // the framework owns the init record now
    *Device = reinterpret_cast<WDFDEVICE>(device->handle());
    return STATUS_SUCCESS;
}

NTSTATUS WdfDeviceCreateDeviceInterface(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                        PCUNICODE_STRING ReferenceString)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceCreateDeviceInterface"));
    auto* device = checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceCreateDeviceInterface",
                                            __builtin_return_address(0));
    if (device == nullptr || InterfaceClassGUID == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (ReferenceString != nullptr) {
        note("device interface registered with a reference string");
    }
    device->interfaces.push_back(*InterfaceClassGUID);
    return STATUS_SUCCESS;
}

NTSTATUS WdfStringCreate(PCUNICODE_STRING UnicodeString, PWDF_OBJECT_ATTRIBUTES StringAttributes, WDFSTRING* String)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfStringCreate"));
    if (String == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* string = new StringObject();
    status = string->attach(StringAttributes, sys.driver_object());
    if (!NT_SUCCESS(status)) {
        delete string;
        return status;
    }
    if (UnicodeString != nullptr && UnicodeString->Buffer != nullptr) {
        string->text.assign(UnicodeString->Buffer, UnicodeString->Length / sizeof(WCHAR));
    }
    *String = reinterpret_cast<WDFSTRING>(string->handle());
    return STATUS_SUCCESS;
}

NTSTATUS WdfDeviceRetrieveDeviceInterfaceString(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                                PCUNICODE_STRING ReferenceString, WDFSTRING String)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceRetrieveDeviceInterfaceString"));
    const void* caller = __builtin_return_address(0);
    auto* device = checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceRetrieveDeviceInterfaceString", caller);
    auto* string = checked_as<StringObject>(String, Object::Kind::String, "WdfDeviceRetrieveDeviceInterfaceString", caller);
    if (device == nullptr || string == nullptr || InterfaceClassGUID == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    (void)ReferenceString;
    auto it = std::find_if(device->interfaces.begin(), device->interfaces.end(),
                           [&](const GUID& g) { return IsEqualGUID(g, *InterfaceClassGUID); });
    if (it == device->interfaces.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    string->text = device->symbolic_link(*InterfaceClassGUID);
    return STATUS_SUCCESS;
}

VOID WdfStringGetUnicodeString(WDFSTRING String, PUNICODE_STRING UnicodeString)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfStringGetUnicodeString"));
    auto* string =
        checked_as<StringObject>(String, Object::Kind::String, "WdfStringGetUnicodeString", __builtin_return_address(0));
    if (string == nullptr || UnicodeString == nullptr) {
        note("WdfStringGetUnicodeString without a string to fill");
        return;
    }
    UnicodeString->Buffer = string->text.data();
    UnicodeString->Length = USHORT(string->text.size() * sizeof(WCHAR));
    UnicodeString->MaximumLength = UnicodeString->Length;
}

PDEVICE_OBJECT WdfDeviceWdmGetPhysicalDevice(WDFDEVICE Device)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceWdmGetPhysicalDevice"));
    auto* device = checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceWdmGetPhysicalDevice",
                                            __builtin_return_address(0));
    return device ? &device->pdo : nullptr;
}

NTSTATUS WdfDeviceAddQueryInterface(WDFDEVICE Device, PWDF_QUERY_INTERFACE_CONFIG InterfaceConfig)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceAddQueryInterface"));
    auto* device =
        checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceAddQueryInterface", __builtin_return_address(0));
    if (device == nullptr || InterfaceConfig == nullptr || InterfaceConfig->Size != sizeof(WDF_QUERY_INTERFACE_CONFIG) ||
        InterfaceConfig->Interface == nullptr || InterfaceConfig->InterfaceType == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::lock_guard lock(framework_lock());
    device->query_interfaces.push_back({*InterfaceConfig, InterfaceConfig->Interface});
    return STATUS_SUCCESS;
}

VOID WdfDeviceSetDeviceState(WDFDEVICE Device, PWDF_DEVICE_STATE DeviceState)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceSetDeviceState"));
    auto* device =
        checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceSetDeviceState", __builtin_return_address(0));
    if (device == nullptr || DeviceState == nullptr || DeviceState->Size != sizeof(WDF_DEVICE_STATE)) {
        note("WdfDeviceSetDeviceState with a bad record");
        return;
    }
    device->device_state = *DeviceState;
}

NTSTATUS WdfDeviceAssignS0IdleSettings(WDFDEVICE Device, PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceAssignS0IdleSettings"));
    auto* device = checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceAssignS0IdleSettings",
                                            __builtin_return_address(0));
    if (device == nullptr || Settings == nullptr ||
        Settings->Size != sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS)) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    {
        std::lock_guard lock(framework_lock());
        device->idle_settings = *Settings;
    }
    if (device->power_references.load() == 0) {
        device->become_idle();
    }
    return STATUS_SUCCESS;
}

VOID WdfDeviceSetStaticStopRemove(WDFDEVICE Device, BOOLEAN Stoppable)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceSetStaticStopRemove"));
    auto* device = checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceSetStaticStopRemove",
                                            __builtin_return_address(0));
    if (device == nullptr) {
        return;
    }
    std::lock_guard lock(framework_lock());
    device->stop_remove_calls[Stoppable ? 1 : 0]++;
    device->stop_remove_blocks += Stoppable ? -1 : 1;
    if (device->stop_remove_blocks < 0) {
        note("WdfDeviceSetStaticStopRemove(TRUE) without a matching FALSE");
        device->stop_remove_blocks = 0;
    }
}

NTSTATUS WdfDeviceStopIdleActual(WDFDEVICE Device, BOOLEAN WaitForD0, PVOID Tag, LONG Line, PCHAR File)
{
    // Waiting for D0 blocks: passive level only.
    NTSTATUS injected = WaitForD0
                            ? KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceStopIdle", korvanel::bench::Condition::WaitForD0))
                            : KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceStopIdle", korvanel::bench::Condition::NoWait));
    auto* device =
        checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceStopIdle", __builtin_return_address(0));
    if (device == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // The call is recorded after the reference is taken: a locked
    // instruction waits for every store before it, so the record's stores
    // go after it.
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        device->note_idle_call(true, WaitForD0 != FALSE, Tag, Line, File);
        return status;
    }
    device->power_references.fetch_add(1);
    device->note_idle_call(true, WaitForD0 != FALSE, Tag, Line, File);
    // In D0 and not on the way out: the reference is all there is to it.
    // (Powering-down first: the timer sets it before it looks at the count.)
    if (!device->powering_down.load() && device->power.load() == PowerDeviceD0) {
        return STATUS_SUCCESS;
    }
    std::lock_guard lock(framework_lock());
    bool was_idle = device->power.load() != PowerDeviceD0;
    if (was_idle && device->started) {
        device->enter_d0(WdfPowerDeviceD3);
    }
    // The framework powers up asynchronously unless asked to wait.
    return was_idle && !WaitForD0 ? STATUS_PENDING : STATUS_SUCCESS;
}

VOID WdfDeviceResumeIdleActual(WDFDEVICE Device, PVOID Tag, LONG Line, PCHAR File)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfDeviceResumeIdle"));
    auto* device =
        checked_as<DeviceObject>(Device, Object::Kind::Device, "WdfDeviceResumeIdle", __builtin_return_address(0));
    if (device == nullptr) {
        return;
    }
    // The idle time is set before the count drops, so a timer that finds no
    // reference also finds when the last one went. The call is recorded
    // after the exchange, as in WdfDeviceStopIdle.
    int64_t now = Bench::current().clock().now();
    int references = device->power_references.load();
    do {
        if (references <= 0) {
            device->note_idle_call(false, false, Tag, Line, File);
            note("WdfDeviceResumeIdle without a matching WdfDeviceStopIdle");
            return;
        }
        if (references == 1) {
            device->idle_since.store(now, std::memory_order_relaxed);  // published by the exchange below
        }
    } while (!device->power_references.compare_exchange_weak(references, references - 1));
    device->note_idle_call(false, false, Tag, Line, File);
    if (references == 1) {
        device->ensure_idle_timer();
    }
}
