// io.cpp - the I/O manager and the bus driver below the device, as far as the
// driver uses them: a synchronous PnP request built for the physical device
// object, and that device's answer to the hardware-identifier query
// (synchronously, pending then completed from another thread, or failing).
#include "device_object.h"
#include "irql_rules.h"


using namespace korvanel::bench;

namespace {

constexpr ULONG kBusDriverTag = 0x44497542;  // "BuID": the bus driver's identifier lists
constexpr int kStackCount = 2;

// An IRP as the I/O manager allocates it: the packet and its stack locations.
struct BenchIrp {
    IRP irp{};
    IO_STACK_LOCATION stack[kStackCount]{};
};

// The identifier list the bus driver hands back: UTF-16 strings, each
// terminated, the whole list ended by an empty string. Allocated from pool;
// the caller frees it.
PVOID build_id_list(const DeviceConfig& config)
{
    std::vector<uint8_t> bytes;
    if (config.raw_id_list) {
        // Malformed lists still end in a terminator, as every list the PnP
        // manager passes on does; only their contents are odd.
        bytes = *config.raw_id_list;
        bytes.insert(bytes.end(), {0, 0, 0, 0});
    } else {
        for (const auto& id : config.hardware_ids) {
            auto* p = reinterpret_cast<const uint8_t*>(id.data());
            bytes.insert(bytes.end(), p, p + id.size() * sizeof(char16_t));
            bytes.insert(bytes.end(), {0, 0});
        }
        bytes.insert(bytes.end(), {0, 0});
    }
    auto* list = static_cast<uint8_t*>(Bench::current().pool().allocate(PagedPool, bytes.size(), kBusDriverTag));
    memcpy(list, bytes.data(), bytes.size());
    return list;
}

void complete(BenchIrp* request, NTSTATUS status, ULONG_PTR information)
{
    IRP* irp = &request->irp;
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    if (irp->UserIosb != nullptr) {
        *irp->UserIosb = irp->IoStatus;
    }
    PKEVENT event = irp->UserEvent;
    delete request;
    if (event != nullptr) {
        KeSetEvent(event, 0, FALSE);
    }
}

}  // namespace

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("IoBuildSynchronousFsdRequest"));
    (void)Buffer;
    (void)Length;
    (void)StartingOffset;
    auto* device = DeviceObject ? static_cast<korvanel::bench::DeviceObject*>(DeviceObject->BenchDevice) : nullptr;
    if (!NT_SUCCESS(injected) ||
        (device != nullptr && device->config.id_request_build_fails)) {
        return nullptr;
    }
    auto* request = new BenchIrp();
    request->irp.StackCount = CHAR(kStackCount);
    request->irp.CurrentLocation = CHAR(kStackCount + 1);
    request->irp.UserEvent = Event;
    request->irp.UserIosb = IoStatusBlock;
    // The current location starts one past the last; the caller fills the next.
    request->irp.Tail.Overlay.CurrentStackLocation = &request->stack[kStackCount];
    request->stack[kStackCount - 1].MajorFunction = UCHAR(MajorFunction);
    request->stack[kStackCount - 1].DeviceObject = DeviceObject;
    return &request->irp;
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("IofCallDriver"));
    auto* request = reinterpret_cast<BenchIrp*>(Irp);
    auto* device = DeviceObject ? static_cast<class DeviceObject*>(DeviceObject->BenchDevice) : nullptr;
    Irp->Tail.Overlay.CurrentStackLocation--;
    Irp->CurrentLocation--;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);

    // The bus driver answers only the hardware-identifier query; anything
    // else completes with the status the sender preset.
    if (device == nullptr || stack->MajorFunction != IRP_MJ_PNP || stack->MinorFunction != IRP_MN_QUERY_ID ||
        stack->Parameters.QueryId.IdType != BusQueryHardwareIDs ||
        device->config.id_query == DeviceConfig::IdQuery::Unanswered) {
        NTSTATUS status = Irp->IoStatus.Status;
        complete(request, status, 0);
        return status;
    }

    const DeviceConfig& config = device->config;
    switch (config.id_query) {
    case DeviceConfig::IdQuery::Fail:
        complete(request, config.id_status, 0);
        return config.id_status;

    case DeviceConfig::IdQuery::Pending: {
        // Completed by the bus driver's own thread, while the sender goes on
        // to wait for it (or finds it done); no real time passes.
        device->completions.emplace_back([request, config] {
            ULONG_PTR list = 0;
            if (NT_SUCCESS(config.id_status) && !config.id_list_missing) {
                list = reinterpret_cast<ULONG_PTR>(build_id_list(config));
            }
            complete(request, config.id_status, list);
        });
        return STATUS_PENDING;
    }

    case DeviceConfig::IdQuery::Synchronous:
    default: {
        ULONG_PTR list = config.id_list_missing ? 0 : reinterpret_cast<ULONG_PTR>(build_id_list(config));
        complete(request, STATUS_SUCCESS, list);
        return STATUS_SUCCESS;
    }
    }
}
