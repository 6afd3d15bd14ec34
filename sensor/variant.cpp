/*
 * variant.cpp - which sensor this device is.
 *
 * One driver serves several sensor variants, told apart only by the hardware
 * identifier under which the device was enumerated. Device add asks the bus
 * driver for the hardware identifiers and gives the context the identity of
 * the variant the first one names: GUID, name, capability mode and, for the
 * RGB-IR sensor, its variant code. Nothing else in the driver depends on the
 * variant. A failed query leaves the default identity and never fails device
 * add.
 */
#include "sensor.h"
#include "description.h"
#include "../trace/trace.h"

// {66A5D7F4-AC5C-4E41-BD1E-AC8ACA50D67A}
static const GUID VariantTraceGuid = {0x66a5d7f4, 0xac5c, 0x4e41, {0xbd, 0x1e, 0xac, 0x8a, 0xca, 0x50, 0xd6, 0x7a}};
TRACE_MODULE(VariantTraceGuid);

// Runs once per device add at passive level and waits for the bus driver.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, IdentifySensorVariant)
#endif

typedef struct _SENSOR_VARIANT {
    PCWSTR HardwareId;
    GUID SensorGuid;
    const CHAR* Name;
    ULONG CapsMode;
    UCHAR VariantCode;  // 0: the context keeps its own
} SENSOR_VARIANT;

// Tested in this order; the first identifier equal without regard to case
// wins. Whole identifiers are compared, so "dpc_T3" never takes the row of
// "dpc", nor "md_T3" that of "md".
static const SENSOR_VARIANT SensorVariants[] = {
    {WIDE("root\\KORVANEL\\sve"),
     {0xfabf11e3, 0x3ee0, 0x4e43, {0x8f, 0x42, 0x84, 0x56, 0x20, 0x02, 0xd4, 0x24}}, "SVE", SENSOR_CAPS_MODE_RGB, 0},
    {WIDE("root\\KORVANEL\\rgbir"),
     {0xb343f07d, 0xbf90, 0x4407, {0xa1, 0xca, 0x4e, 0x4a, 0x56, 0x49, 0xf5, 0xd4}}, "RGBIR", SENSOR_CAPS_MODE_RGBIR, 9},
    {WIDE("root\\KORVANEL\\mdsve"),
     {0xe3c4b9d6, 0xa09e, 0x489d, {0x90, 0xf8, 0x82, 0x0c, 0x04, 0x5a, 0xd8, 0x5a}}, "MDSVE", SENSOR_CAPS_MODE_RGB, 0},
    {WIDE("root\\KORVANEL\\md_T3"),
     {0xe774ecb4, 0x18a2, 0x4044, {0xb7, 0x3e, 0xb5, 0x14, 0x3f, 0x8c, 0x51, 0x53}}, "MD", SENSOR_CAPS_MODE_RGB, 0},
    {WIDE("root\\KORVANEL\\md"),
     {0x72fbc71e, 0x4363, 0x469f, {0xa0, 0xbb, 0x98, 0x48, 0x9d, 0x57, 0xa7, 0x6c}}, "MD", SENSOR_CAPS_MODE_RGB, 0},
    {WIDE("root\\KORVANEL\\dpc"),
     {0x4f62caa7, 0x949e, 0x4c50, {0x80, 0x12, 0xb3, 0x40, 0xe3, 0x5d, 0x78, 0xe5}}, "DPC", SENSOR_CAPS_MODE_RGB, 0},
    {WIDE("root\\KORVANEL\\dpc_T3"),
     {0x9819c8fa, 0xc5bf, 0x4c0a, {0x88, 0xde, 0x93, 0x36, 0x1c, 0x21, 0x19, 0xf1}}, "DPC", SENSOR_CAPS_MODE_RGB, 0},
};

// The sensor that no identifier names.
static const CHAR DefaultSensorName[] = "HAPS";

_Use_decl_annotations_
NTSTATUS IdentifySensorVariant(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "IdentifySensorVariant entry");

    NTSTATUS status;
    PDEVICE_OBJECT physicalDevice = NULL;
    if (DeviceContext->Device != NULL) {
        physicalDevice = WdfDeviceWdmGetPhysicalDevice(DeviceContext->Device);
    }
    if (physicalDevice == NULL) {
        status = STATUS_INVALID_PARAMETER;
        goto DefaultIdentity;
    }

    // Ask the bus driver for the hardware identifiers; it may complete later.
    {
        KEVENT event;
        IO_STATUS_BLOCK ioStatus;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        RtlZeroMemory(&ioStatus, sizeof(ioStatus));

        PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, physicalDevice, NULL, 0, NULL, &event, &ioStatus);
        if (irp == NULL) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            // A PnP request starts as not supported until a driver handles it.
            irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
            PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
            stack->MinorFunction = IRP_MN_QUERY_ID;
            stack->Parameters.QueryId.IdType = BusQueryHardwareIDs;

            status = IoCallDriver(physicalDevice, irp);
            if (status == STATUS_PENDING) {
                // The bus driver completes the request into this frame (the
                // event and the status block), so the routine must not return
                // before it has. A kernel-mode wait that is not alertable and
                // has no time-out returns only once the event is set.
                NTSTATUS waitStatus;
                do {
                    waitStatus = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
                    NT_ASSERT(waitStatus == STATUS_SUCCESS);
                } while (waitStatus != STATUS_SUCCESS);
                status = ioStatus.Status;
            }
        }

        if (!NT_SUCCESS(status)) {
            TraceEvents(TRACE_ERROR, "IdentifySensorVariant: hardware identifier query failed %!STATUS!", status);
            goto DefaultIdentity;
        }

        // Only the first identifier of the list counts; the bus driver's list
        // is terminated, and the comparison stops at the first NUL.
        PWCHAR identifiers = (PWCHAR)ioStatus.Information;
        const SENSOR_VARIANT* variant = NULL;
        if (identifiers != NULL) {
            TraceEvents(TRACE_INFO, "IdentifySensorVariant hardware identifier %ws", (PCWSTR)identifiers);
            for (ULONG row = 0; row < RTL_NUMBER_OF(SensorVariants); row++) {
                if (_wcsicmp(identifiers, SensorVariants[row].HardwareId) == 0) {
                    variant = &SensorVariants[row];
                    break;
                }
            }
            // The bus driver allocated the list.
            ExFreePoolWithTag(identifiers, 0);
        }

        if (variant != NULL) {
            DeviceContext->SensorGuid = variant->SensorGuid;
            SetCapsMode(&DeviceContext->SensorCaps, variant->CapsMode);
            if (variant->VariantCode != 0) {
                DeviceContext->VariantCode = variant->VariantCode;
            }
            (VOID) RtlStringCbCopyA(DeviceContext->SensorName, sizeof(DeviceContext->SensorName), variant->Name);
        } else {
            DeviceContext->SensorGuid = DefaultSensorGuid;
            (VOID) RtlStringCbCopyA(DeviceContext->SensorName, sizeof(DeviceContext->SensorName), DefaultSensorName);
        }
        status = STATUS_SUCCESS;
        goto Exit;
    }

DefaultIdentity:
    // GUID, capability mode and variant code keep the defaults of device add.
    (VOID) RtlStringCbCopyA(DeviceContext->SensorName, sizeof(DeviceContext->SensorName), DefaultSensorName);

Exit:
    TraceEvents(TRACE_INFO, "IdentifySensorVariant exit %!STATUS!", status);
    return status;
}
