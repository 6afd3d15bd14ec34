/*
 * vcm_access.cpp - the actuator's registers on I2C connection slot 1.
 *
 * Every request carries one transfer, so a register read is two requests:
 * the address write ends with a stop condition and the data read starts
 * afresh; the actuator chips keep their address pointer across the stop.
 * Each request waits at most 8 seconds; a controller that loses the part
 * mid-transfer must not hang the caller, who may hold BusLock.
 *
 * The primitives take no lock and keep no state; the chip drivers hold
 * BusLock where their sequence needs it. The connection is opened on first
 * use and stays open for the device's life.
 */
#include "vcm_shared.h"

// {6163FDE2-535B-43E5-AF04-BDED49E3476E}
static const GUID VcmAccessTraceGuid = {0x6163fde2, 0x535b, 0x43e5, {0xaf, 0x04, 0xbd, 0xed, 0x49, 0xe3, 0x47, 0x6e}};
TRACE_MODULE(VcmAccessTraceGuid);

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmTransfer(_In_ PDEVICE_CONTEXT DeviceContext, _In_ SPB_TRANSFER_DIRECTION Direction,
                            _Inout_updates_bytes_(Length) PUCHAR Buffer, _In_ ULONG Length, _In_z_ const CHAR* Marker);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmWrite(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_reads_bytes_(Length) PUCHAR Bytes,
                         _In_ ULONG Length, _In_z_ const CHAR* Marker, _In_ ULONG Register, _In_ ULONG Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmReadAddressed(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_reads_bytes_(AddressLength) PUCHAR Address,
                                 _In_ ULONG AddressLength, _In_ ULONG Register, _Inout_ PUCHAR Value,
                                 _In_z_ const CHAR* Marker);
EXTERN_C_END

// Synchronous requests wait: passive level only.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, VcmTransfer)
#pragma alloc_text(PAGE, VcmWrite)
#pragma alloc_text(PAGE, VcmReadAddressed)
#pragma alloc_text(PAGE, VcmReadReg8)
#pragma alloc_text(PAGE, VcmReadReg16)
#pragma alloc_text(PAGE, VcmReadWord)
#pragma alloc_text(PAGE, VcmWriteReg8)
#pragma alloc_text(PAGE, VcmWriteReg16)
#pragma alloc_text(PAGE, VcmWriteWord)
#endif

#define VCM_TRANSFER_TIMEOUT_SECONDS 8

/* A VcmType past the table selects no chip: the primitives then succeed
 * without touching anything. */
#define VCM_NO_CHIP(DeviceContext) ((ULONG)(DeviceContext)->VcmType >= VCM_TYPE_COUNT)

/* One SPB execute-sequence request with one transfer on the actuator's open
 * connection; a failed request is traced as an error. */
_Use_decl_annotations_
static NTSTATUS VcmTransfer(PDEVICE_CONTEXT DeviceContext, SPB_TRANSFER_DIRECTION Direction, PUCHAR Buffer,
                            ULONG Length, const CHAR* Marker)
{
    PAGED_CODE();

    NTSTATUS status = I2cTransfer(DeviceContext, I2C_SLOT_VCM, Direction, Buffer, Length,
                                  WDF_REL_TIMEOUT_IN_SEC(VCM_TRANSFER_TIMEOUT_SECONDS));
    if (!NT_SUCCESS(status)) {
        VcmTrace(TRACE_ERROR, DeviceContext, " failed %!STATUS!", Marker, status);
    }
    return status;
}

/* One write request, traced with its register and data once it went to the
 * bus, whatever the outcome. */
_Use_decl_annotations_
static NTSTATUS VcmWrite(PDEVICE_CONTEXT DeviceContext, PUCHAR Bytes, ULONG Length, const CHAR* Marker,
                         ULONG Register, ULONG Value)
{
    PAGED_CODE();

    NTSTATUS status = InitI2c(DeviceContext, I2C_SLOT_VCM);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VcmTransfer(DeviceContext, SpbTransferDirectionToDevice, Bytes, Length, Marker);
    VcmTrace(TRACE_INFO, DeviceContext, " reg 0x%x data 0x%x", Marker, Register, Value);
    return status;
}

/* Address phase, then a one-byte data phase into a local byte; the caller's
 * byte changes only when both succeeded. Traced at the end with what the
 * caller's byte then holds. */
_Use_decl_annotations_
static NTSTATUS VcmReadAddressed(PDEVICE_CONTEXT DeviceContext, PUCHAR Address, ULONG AddressLength,
                                 ULONG Register, PUCHAR Value, const CHAR* Marker)
{
    PAGED_CODE();

    NTSTATUS status = InitI2c(DeviceContext, I2C_SLOT_VCM);
    if (NT_SUCCESS(status)) {
        status = VcmTransfer(DeviceContext, SpbTransferDirectionToDevice, Address, AddressLength, Marker);
    }
    if (NT_SUCCESS(status)) {
        UCHAR data = 0;
        status = VcmTransfer(DeviceContext, SpbTransferDirectionFromDevice, &data, sizeof(data), Marker);
        if (NT_SUCCESS(status)) {
            *Value = data;
        }
    }
    VcmTrace(TRACE_INFO, DeviceContext, " reg 0x%x value 0x%02x", Marker, Register, *Value);
    return status;
}

_Use_decl_annotations_
NTSTATUS VcmReadReg8(PDEVICE_CONTEXT DeviceContext, UCHAR Register, PUCHAR Value)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Value == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    UCHAR address[1] = {Register};
    return VcmReadAddressed(DeviceContext, address, sizeof(address), Register, Value, "VcmReadReg8");
}

_Use_decl_annotations_
NTSTATUS VcmReadReg16(PDEVICE_CONTEXT DeviceContext, USHORT Register, PUCHAR Value)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Value == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    // The address goes out high byte first.
    UCHAR address[2] = {(UCHAR)(Register >> 8), (UCHAR)(Register & 0xFF)};
    return VcmReadAddressed(DeviceContext, address, sizeof(address), Register, Value, "VcmReadReg16");
}

_Use_decl_annotations_
NTSTATUS VcmReadWord(PDEVICE_CONTEXT DeviceContext, PUSHORT Value)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Value == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    // A bare read returns the chip's 16-bit word; its top 12 bits are the
    // value: the first byte whole, then the high nibble of the second.
    NTSTATUS status = InitI2c(DeviceContext, I2C_SLOT_VCM);
    if (NT_SUCCESS(status)) {
        UCHAR bytes[2] = {0, 0};
        status = VcmTransfer(DeviceContext, SpbTransferDirectionFromDevice, bytes, sizeof(bytes), "VcmReadWord");
        if (NT_SUCCESS(status)) {
            *Value = (USHORT)((bytes[0] << 4) | (bytes[1] >> 4));
        }
    }
    VcmTrace(TRACE_INFO, DeviceContext, " value 0x%03x", "VcmReadWord", *Value);
    return status;
}

_Use_decl_annotations_
NTSTATUS VcmWriteReg8(PDEVICE_CONTEXT DeviceContext, UCHAR Register, UCHAR Value)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    // Register 0xFF in a settings table is a pause between two writes; it
    // needs no connection.
    if (Register == VCM_PAUSE_REG) {
        DelayMilliseconds(Value);
        VcmTrace(TRACE_INFO, DeviceContext, " pause %u ms", "VcmWriteReg8", Value);
        return STATUS_SUCCESS;
    }
    UCHAR bytes[2] = {Register, Value};
    return VcmWrite(DeviceContext, bytes, sizeof(bytes), "VcmWriteReg8", Register, Value);
}

_Use_decl_annotations_
NTSTATUS VcmWriteReg16(PDEVICE_CONTEXT DeviceContext, USHORT Register, UCHAR Value)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    UCHAR bytes[3] = {(UCHAR)(Register >> 8), (UCHAR)(Register & 0xFF), Value};
    return VcmWrite(DeviceContext, bytes, sizeof(bytes), "VcmWriteReg16", Register, Value);
}

_Use_decl_annotations_
NTSTATUS VcmWriteWord(PDEVICE_CONTEXT DeviceContext, UCHAR Byte0, UCHAR Byte1)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (VCM_NO_CHIP(DeviceContext)) {
        return STATUS_SUCCESS;
    }
    UCHAR bytes[2] = {Byte0, Byte1};
    return VcmWrite(DeviceContext, bytes, sizeof(bytes), "VcmWriteWord", Byte0, Byte1);
}
