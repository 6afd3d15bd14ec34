// iotarget.cpp - framework I/O targets on the bench: created under a device,
// opened by name through the resource hub, closed, deleted with their parent,
// and the SPB execute-sequence request sent to them synchronously.
//
// What Windows answers, as modelled here:
// - a name that is not "\DosDevices\RESOURCE_HUB\" and 16 hex digits, or a
//   connection id with no part attached: STATUS_OBJECT_NAME_NOT_FOUND, as the
//   object manager answers for a name nothing is registered under;
// - a request to a target that is not open: STATUS_INVALID_DEVICE_STATE;
// - a control code other than IOCTL_SPB_EXECUTE_SEQUENCE:
//   STATUS_INVALID_DEVICE_REQUEST;
// - a malformed transfer list: STATUS_INVALID_PARAMETER, as the SPB framework
//   validates it before the controller sees it;
// - a request that outlasts its time-out: STATUS_IO_TIMEOUT.
#include "spb_controller.h"
#include "irql_rules.h"
#include "device_object.h"
#include "../wdk/spb.h"

#include <cstdio>

namespace korvanel::bench {

namespace {

class IoTargetObject : public Object {
public:
    IoTargetObject() : Object(Kind::IoTarget) {}
    size_t record = 0;
    bool open = false;
    uint64_t connection = 0;

protected:
    // The framework closes a target it deletes.
    void on_delete() override
    {
        open = false;
        Bench::current().bus().update_target(record, [](TargetRecord& r) { r.state = TargetRecord::State::Deleted; });
    }
};

IoTargetObject* target_from(WDFIOTARGET handle, const char* routine, const void* caller)
{
    return checked_as<IoTargetObject>(handle, Object::Kind::IoTarget, routine, caller);
}

// "\DosDevices\RESOURCE_HUB\" and exactly 16 hex digits; the object manager
// compares names without regard to case.
std::optional<uint64_t> resource_hub_connection(const std::u16string& name)
{
    static const std::u16string prefix = u"\\DosDevices\\RESOURCE_HUB\\";
    constexpr size_t kDigits = 16;
    auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c - u'A' + u'a') : c; };
    if (name.size() != prefix.size() + kDigits) {
        return std::nullopt;
    }
    for (size_t i = 0; i < prefix.size(); i++) {
        if (lower(name[i]) != lower(prefix[i])) {
            return std::nullopt;
        }
    }
    uint64_t id = 0;
    for (size_t i = prefix.size(); i < name.size(); i++) {
        char16_t c = lower(name[i]);
        int digit = c >= u'0' && c <= u'9' ? c - u'0' : c >= u'a' && c <= u'f' ? c - u'a' + 10 : -1;
        if (digit < 0) {
            return std::nullopt;
        }
        id = id << 4 | uint64_t(digit);
    }
    return id;
}

NTSTATUS refuse(NTSTATUS status, const char* format, unsigned long long value = 0)
{
    char reason[160];
    std::snprintf(reason, sizeof(reason), format, value);
    Bench::current().bus().reject(reason);
    return status;
}

// The one-transfer sequence the SPB framework would hand the controller, or
// a refusal.
NTSTATUS check_sequence(ULONG code, PWDF_MEMORY_DESCRIPTOR input, SPB_TRANSFER_LIST_ENTRY** entry)
{
    if (code != IOCTL_SPB_EXECUTE_SEQUENCE) {
        return refuse(STATUS_INVALID_DEVICE_REQUEST, "control code 0x%llx is not IOCTL_SPB_EXECUTE_SEQUENCE", code);
    }
    if (input == nullptr || input->Type != WdfMemoryDescriptorTypeBuffer) {
        return refuse(STATUS_INVALID_PARAMETER, "the transfer list is not described as a buffer");
    }
    auto* list = static_cast<SPB_TRANSFER_LIST*>(input->u.BufferType.Buffer);
    if (list == nullptr || input->u.BufferType.Length < sizeof(SPB_TRANSFER_LIST)) {
        return refuse(STATUS_INVALID_PARAMETER, "input buffer of %llu bytes holds no transfer list",
                      list == nullptr ? 0 : input->u.BufferType.Length);
    }
    if (list->Size != sizeof(SPB_TRANSFER_LIST)) {
        return refuse(STATUS_INVALID_PARAMETER, "transfer list Size %llu", list->Size);
    }
    if (list->TransferCount != 1) {
        return refuse(STATUS_INVALID_PARAMETER, "transfer list of %llu transfers, not one", list->TransferCount);
    }
    SPB_TRANSFER_LIST_ENTRY& e = list->Transfers[0];
    if (e.Direction != SpbTransferDirectionFromDevice && e.Direction != SpbTransferDirectionToDevice) {
        return refuse(STATUS_INVALID_PARAMETER, "transfer direction %llu", e.Direction);
    }
    if (e.Buffer.Format != SpbTransferBufferFormatSimple) {
        return refuse(STATUS_INVALID_PARAMETER, "transfer buffer format %llu, not simple", e.Buffer.Format);
    }
    if (e.Buffer.Simple.Buffer == nullptr || e.Buffer.Simple.BufferCb == 0) {
        return refuse(STATUS_INVALID_PARAMETER, "empty transfer buffer of %llu bytes", e.Buffer.Simple.BufferCb);
    }
    *entry = &e;
    return STATUS_SUCCESS;
}

}  // namespace

}  // namespace korvanel::bench

using korvanel::bench::IoTargetObject;
using korvanel::bench::Bench;
using korvanel::bench::TargetRecord;

NTSTATUS WdfIoTargetCreate(WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES IoTargetAttributes, WDFIOTARGET* IoTarget)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfIoTargetCreate"));
    auto& sys = Bench::current();
    if (IoTarget != nullptr) {
        *IoTarget = nullptr;
    }
    auto* device = korvanel::bench::checked_as<korvanel::bench::DeviceObject>(
        Device, korvanel::bench::Object::Kind::Device, "WdfIoTargetCreate", __builtin_return_address(0));
    if (device == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (IoTarget == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }

    auto* target = new IoTargetObject();
    {
        std::lock_guard lock(korvanel::bench::framework_lock());
        // The device is the parent unless the attributes name another.
        status = target->attach(IoTargetAttributes, device);
    }
    if (!NT_SUCCESS(status)) {
        delete target;
        return status;
    }
    auto handle = reinterpret_cast<WDFIOTARGET>(target->handle());
    TargetRecord record{handle, Device, std::nullopt, {}, 0, TargetRecord::State::Created};
    if (IoTargetAttributes != nullptr) {
        record.attributes = *IoTargetAttributes;
    }
    target->record = sys.bus().add_target(std::move(record));
    *IoTarget = handle;
    return STATUS_SUCCESS;
}

NTSTATUS WdfIoTargetOpen(WDFIOTARGET IoTarget, PWDF_IO_TARGET_OPEN_PARAMS OpenParams)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfIoTargetOpen"));
    auto& sys = Bench::current();
    auto* target = korvanel::bench::target_from(IoTarget, "WdfIoTargetOpen", __builtin_return_address(0));
    if (target == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (OpenParams == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (OpenParams->Size != sizeof(WDF_IO_TARGET_OPEN_PARAMS)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }

    TargetRecord::Open open{*OpenParams, {}, STATUS_SUCCESS, std::nullopt};
    const UNICODE_STRING& name = OpenParams->TargetDeviceName;
    if (name.Buffer != nullptr) {
        open.name.assign(name.Buffer, name.Length / sizeof(WCHAR));
    }

    NTSTATUS status = injected;
    if (NT_SUCCESS(status)) {
        if (target->open) {
            sys.faults().note_error("WdfIoTargetOpen on a target that is already open");
            status = STATUS_INVALID_DEVICE_STATE;
        } else if (OpenParams->Type != WdfIoTargetOpenByName) {
            sys.faults().note_error("WdfIoTargetOpen: only opening by name is modelled");
            status = STATUS_NOT_SUPPORTED;
        } else {
            open.connection = korvanel::bench::resource_hub_connection(open.name);
            if (!open.connection || sys.bus().peripheral(*open.connection) == nullptr) {
                status = STATUS_OBJECT_NAME_NOT_FOUND;
            }
        }
    }
    if (NT_SUCCESS(status)) {
        target->open = true;
        target->connection = *open.connection;
    }
    open.status = status;
    sys.bus().update_target(target->record, [&](TargetRecord& r) {
        r.opens.push_back(open);
        if (NT_SUCCESS(status)) {
            r.state = TargetRecord::State::Open;
        }
    });
    return status;
}

VOID WdfIoTargetClose(WDFIOTARGET IoTarget)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfIoTargetClose"));
    auto* target = korvanel::bench::target_from(IoTarget, "WdfIoTargetClose", __builtin_return_address(0));
    if (target == nullptr) {
        return;
    }
    bool was_open = target->open;
    target->open = false;
    Bench::current().bus().update_target(target->record, [&](TargetRecord& r) {
        r.closes++;
        if (was_open) {
            r.state = TargetRecord::State::Closed;
        }
    });
}

NTSTATUS WdfIoTargetSendIoctlSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoctlCode,
                                           PWDF_MEMORY_DESCRIPTOR InputBuffer, PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                           PWDF_REQUEST_SEND_OPTIONS RequestOptions, PULONG_PTR BytesReturned)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("WdfIoTargetSendIoctlSynchronously"));
    (void)OutputBuffer;  // an execute-sequence request returns its read data through the list's buffers
    auto& sys = Bench::current();
    if (BytesReturned != nullptr) {
        *BytesReturned = 0;
    }
    auto* target = korvanel::bench::target_from(IoTarget, "WdfIoTargetSendIoctlSynchronously", __builtin_return_address(0));
    if (target == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (Request != nullptr) {
        sys.faults().note_error("WdfIoTargetSendIoctlSynchronously: request objects are not modelled");
        return STATUS_INVALID_PARAMETER;
    }
    if (RequestOptions != nullptr && RequestOptions->Size != sizeof(WDF_REQUEST_SEND_OPTIONS)) {
        return korvanel::bench::refuse(STATUS_INFO_LENGTH_MISMATCH, "send options Size %llu", RequestOptions->Size);
    }
    NTSTATUS status = injected;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!target->open) {
        return korvanel::bench::refuse(STATUS_INVALID_DEVICE_STATE, "the target is not open");
    }
    SPB_TRANSFER_LIST_ENTRY* entry = nullptr;
    status = korvanel::bench::check_sequence(IoctlCode, InputBuffer, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    korvanel::bench::Bus::Request transfer{
        target->connection,
        entry->Direction == SpbTransferDirectionToDevice ? korvanel::bench::Direction::Write
                                                         : korvanel::bench::Direction::Read,
        static_cast<uint8_t*>(entry->Buffer.Simple.Buffer),
        entry->Buffer.Simple.BufferCb,
        entry->DelayInUs,
        std::nullopt};
    if (RequestOptions != nullptr && (RequestOptions->Flags & WDF_REQUEST_SEND_OPTION_TIMEOUT)) {
        transfer.timeout = RequestOptions->Timeout;
    }
    return sys.bus().transfer(transfer, BytesReturned);
}
