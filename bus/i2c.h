/*
 * i2c.h - the device's I2C connections to module peripherals (lens actuator,
 * module memory), each opened on demand as a framework I/O target through the
 * platform's resource hub. The connection slots are the device context's
 * (device_context.h), which every part of the driver includes alike.
 */
#pragma once

#include "../wdk/wdk.h"
#include "../sensor/device_context.h"

/* Pageable: C linkage for the Windows build's section pragmas. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS InitI2c(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID DeinitI2c(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS OpenI2cTarget(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot, _In_ WDFDEVICE Device);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS CloseI2cTarget(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot);

/* One IOCTL_SPB_EXECUTE_SEQUENCE request carrying one transfer (a write to
 * the peripheral or a read from it, in the caller's buffer) on the slot's
 * open target, sent synchronously with a relative time-out in 100 ns units.
 * The bus is released after it: a register read is two of these. A slot
 * without a target gives STATUS_INVALID_DEVICE_STATE. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS I2cTransfer(_In_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Slot, _In_ SPB_TRANSFER_DIRECTION Direction,
                     _Inout_updates_bytes_(Length) PVOID Buffer, _In_ ULONG Length, _In_ LONGLONG Timeout);
EXTERN_C_END
