/*
 * i2c.h - the device's I2C connections to module peripherals (lens actuator,
 * module memory), each opened on demand as a framework I/O target through the
 * platform's resource hub.
 */
#pragma once

#include "../wdk/wdk.h"

struct _DEVICE_CONTEXT;

#define I2C_CONNECTION_COUNT 14

/* Slot numbers the callers use. */
#define I2C_SLOT_VCM       1
#define I2C_SLOT_NVM       2 /* and 2 + block for block-addressed memories */

/* One connection slot. ConnectionId and Present are set by whoever provides
 * the connection; InitI2c and DeinitI2c manage Target and Opened. */
typedef struct _I2C_CONNECTION {
    ULONGLONG ConnectionId; /* resource-hub id: low part in bits 0-31, high part in 32-63 */
    WDFIOTARGET Target;     /* null when no target exists */
    UCHAR Opened;           /* 1 after InitI2c opened the target */
    UCHAR InfoA;            /* reported second in the open and close traces */
    UCHAR Present;          /* 0: the slot describes no connection */
    UCHAR InfoB;            /* reported first in the open and close traces */
} I2C_CONNECTION, *PI2C_CONNECTION;

static_assert(sizeof(I2C_CONNECTION) == 24, "I2C_CONNECTION layout");

/* All that the connections read of a device context: the framework device
 * that parents every target, and the table of I2C_CONNECTION_COUNT slots.
 * The context's owner defines the two, so that nothing here depends on the
 * rest of the context or on where these members sit in it. Resident: two
 * address computations, callable at any level. */
EXTERN_C_START
_IRQL_requires_max_(HIGH_LEVEL)
WDFDEVICE I2cParentDevice(_In_ struct _DEVICE_CONTEXT* DeviceContext);
_IRQL_requires_max_(HIGH_LEVEL)
PI2C_CONNECTION I2cConnectionSlots(_In_ struct _DEVICE_CONTEXT* DeviceContext);
EXTERN_C_END

/* Pageable: C linkage for the Windows build's section pragmas. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS InitI2c(_Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ ULONG Slot);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID DeinitI2c(_Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ ULONG Slot);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS OpenI2cTarget(_Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ ULONG Slot, _In_ WDFDEVICE Device);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS CloseI2cTarget(_Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ ULONG Slot);

/* One IOCTL_SPB_EXECUTE_SEQUENCE request carrying one transfer (a write to
 * the peripheral or a read from it, in the caller's buffer) on the slot's
 * open target, sent synchronously with a relative time-out in 100 ns units.
 * The bus is released after it: a register read is two of these. A slot
 * without a target gives STATUS_INVALID_DEVICE_STATE. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS I2cTransfer(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ ULONG Slot, _In_ SPB_TRANSFER_DIRECTION Direction,
                     _Inout_updates_bytes_(Length) PVOID Buffer, _In_ ULONG Length, _In_ LONGLONG Timeout);
EXTERN_C_END
