/*
 * i2c.cpp - the device's I2C connections. Each slot names a resource-hub
 * connection by its 64-bit id; InitI2c opens it on first use as a framework
 * I/O target by name and keeps it open, DeinitI2c closes and deletes it. The
 * SPB transfers on the open target belong to the actuator and memory code.
 *
 * No lock here: callers keep two operations on one slot from overlapping (the
 * memory commands hold BusLock around the whole open-transfer-close bracket).
 */
#include "i2c.h"
#include "../trace/trace.h"

// {2F7B1240-BB82-4CA7-B363-1D3E21D5F641}
static const GUID I2cTraceGuid = {0x2f7b1240, 0xbb82, 0x4ca7, {0xb3, 0x63, 0x1d, 0x3e, 0x21, 0xd5, 0xf6, 0x41}};
TRACE_MODULE(I2cTraceGuid);

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS GetI2cSlot(_In_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot,
                           _Outptr_ PI2C_CONNECTION* Connection);
EXTERN_C_END

// Creating, opening and closing a target need passive level, so none of this
// is ever on a path that runs higher.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, GetI2cSlot)
#pragma alloc_text(PAGE, InitI2c)
#pragma alloc_text(PAGE, DeinitI2c)
#pragma alloc_text(PAGE, OpenI2cTarget)
#pragma alloc_text(PAGE, CloseI2cTarget)
#pragma alloc_text(PAGE, I2cTransfer)
#endif

/* 100 UTF-16 characters with the terminator: the prefix and 16 digits fit
 * with room to spare. */
#define I2C_PATH_BYTES 200
#define I2C_CONNECTION_ID_DIGITS 16

/* The slot's record; a missing context or a slot number past the table is
 * the caller's error. */
_Use_decl_annotations_
static NTSTATUS GetI2cSlot(PDEVICE_CONTEXT DeviceContext, ULONG Slot, PI2C_CONNECTION* Connection)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Connection == NULL || Slot >= I2C_CONNECTION_COUNT) {
        return STATUS_INVALID_PARAMETER;
    }
    *Connection = &DeviceContext->I2cConnections[Slot];
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS InitI2c(PDEVICE_CONTEXT DeviceContext, ULONG Slot)
{
    PAGED_CODE();

    PI2C_CONNECTION connection;
    NTSTATUS status = GetI2cSlot(DeviceContext, Slot, &connection);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    if (!connection->Present) {
        TraceEvents(TRACE_ERROR, "InitI2c: no connection in slot %u", Slot);
        return STATUS_NOT_SUPPORTED;
    }

    // Already open: the actuator keeps its connection for the device's life.
    if (connection->Opened && connection->Target != NULL) {
        return STATUS_SUCCESS;
    }

    status = OpenI2cTarget(DeviceContext, Slot, DeviceContext->Device);
    if (!NT_SUCCESS(status)) {
        // A target that was created but not opened stays in the slot; the
        // framework deletes it with the device.
        TraceEvents(TRACE_ERROR, "InitI2c: opening slot %u failed %!STATUS!", Slot, status);
        return status;
    }

    connection->Opened = 1;
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
VOID DeinitI2c(PDEVICE_CONTEXT DeviceContext, ULONG Slot)
{
    PAGED_CODE();

    PI2C_CONNECTION connection;
    if (!NT_SUCCESS(GetI2cSlot(DeviceContext, Slot, &connection)) || !connection->Opened) {
        return;
    }

    NTSTATUS status = CloseI2cTarget(DeviceContext, Slot);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "DeinitI2c: closing slot %u failed %!STATUS!", Slot, status);
    }
    connection->Opened = 0;
}

_Use_decl_annotations_
NTSTATUS OpenI2cTarget(PDEVICE_CONTEXT DeviceContext, ULONG Slot, WDFDEVICE Device)
{
    PAGED_CODE();

    PI2C_CONNECTION connection;
    NTSTATUS status = GetI2cSlot(DeviceContext, Slot, &connection);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    if (!connection->Present) {
        return STATUS_SUCCESS;
    }
    // The target's parent; without one there is nothing to create it under.
    if (Device == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    TraceEvents(TRACE_INFO, "OpenI2cTarget InfoB %u InfoA %u", connection->InfoB, connection->InfoA);

    // The resource hub resolves its path to the SPB controller and the
    // peripheral's address on it: the id as exactly 16 lowercase hex digits.
    WCHAR pathBuffer[I2C_PATH_BYTES / sizeof(WCHAR)];
    UNICODE_STRING path;
    (VOID) RtlStringCbPrintfW(pathBuffer, sizeof(pathBuffer), WIDE("\\DosDevices\\RESOURCE_HUB\\%0*I64x"),
                              I2C_CONNECTION_ID_DIGITS, connection->ConnectionId);
    RtlInitUnicodeString(&path, pathBuffer);

    // Parented to the device, so the framework deletes a target we leave
    // behind when the device goes away.
    WDF_OBJECT_ATTRIBUTES targetAttributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&targetAttributes);
    targetAttributes.ParentObject = Device;

    status = WdfIoTargetCreate(Device, &targetAttributes, &connection->Target);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // Read and write access to an existing connection, not shared; no
    // query-remove callbacks.
    WDF_IO_TARGET_OPEN_PARAMS openParams;
    RtlZeroMemory(&openParams, sizeof(openParams));
    openParams.Size = sizeof(openParams);
    openParams.Type = WdfIoTargetOpenByName;
    openParams.TargetDeviceName = path;
    openParams.DesiredAccess = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
    openParams.ShareAccess = 0;
    openParams.FileAttributes = 0;
    openParams.CreateDisposition = FILE_OPEN;
    openParams.CreateOptions = FILE_NON_DIRECTORY_FILE;

    return WdfIoTargetOpen(connection->Target, &openParams);
}

_Use_decl_annotations_
NTSTATUS CloseI2cTarget(PDEVICE_CONTEXT DeviceContext, ULONG Slot)
{
    PAGED_CODE();

    PI2C_CONNECTION connection;
    NTSTATUS status = GetI2cSlot(DeviceContext, Slot, &connection);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    if (!connection->Present) {
        return STATUS_SUCCESS;
    }

    TraceEvents(TRACE_INFO, "CloseI2cTarget InfoB %u InfoA %u", connection->InfoB, connection->InfoA);

    if (connection->Target == NULL) {
        return STATUS_SUCCESS;
    }

    // Deleted, not just closed: the next InitI2c creates a fresh target.
    WdfIoTargetClose(connection->Target);
    WdfObjectDelete(connection->Target);
    connection->Target = NULL;
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS I2cTransfer(PDEVICE_CONTEXT DeviceContext, ULONG Slot, SPB_TRANSFER_DIRECTION Direction,
                     PVOID Buffer, ULONG Length, LONGLONG Timeout)
{
    PAGED_CODE();

    PI2C_CONNECTION connection;
    NTSTATUS status = GetI2cSlot(DeviceContext, Slot, &connection);
    if (!NT_SUCCESS(status) || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (connection->Target == NULL) {
        return STATUS_INVALID_DEVICE_STATE;
    }

    // A list of exactly one transfer; the data of a read arrives in the
    // transfer's own buffer, so the request has no output buffer.
    SPB_TRANSFER_LIST list;
    RtlZeroMemory(&list, sizeof(list));
    list.Size = sizeof(list);
    list.TransferCount = 1;
    list.Transfers[0].Direction = Direction;
    list.Transfers[0].DelayInUs = 0;
    list.Transfers[0].Buffer.Format = SpbTransferBufferFormatSimple;
    list.Transfers[0].Buffer.Simple.Buffer = Buffer;
    list.Transfers[0].Buffer.Simple.BufferCb = Length;

    WDF_MEMORY_DESCRIPTOR input;
    WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&input, &list, sizeof(list));
    WDF_REQUEST_SEND_OPTIONS options;
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_TIMEOUT);
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, Timeout);

    // The byte count a request returns is of no use to its callers.
    ULONG_PTR transferred = 0;
    return WdfIoTargetSendIoctlSynchronously(connection->Target, NULL, IOCTL_SPB_EXECUTE_SEQUENCE, &input, NULL,
                                             &options, &transferred);
}
