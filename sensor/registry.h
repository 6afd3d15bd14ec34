/*
 * registry.h - the driver's configuration under its service key: the saved
 * registry path, one typed value read, and the per-device configuration read.
 */
#pragma once

#include "device_context.h"

#define KORVANEL_POOL_TAG 0x3732564F /* "OV27" in memory order */

/* The saved copy of the service key path, from driver entry to unload. */
extern UNICODE_STRING DriverRegistryPath;

/* C linkage: placed in code sections by a Windows build. */
EXTERN_C_START

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS SaveRegistryPath(_In_ PCUNICODE_STRING RegistryPath);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID FreeRegistryPath(VOID);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS ReadRegistryValue(_In_ PCUNICODE_STRING KeyPath, _In_z_ PCSTR ValueName, _In_ ULONG ExpectedType,
                           _Out_writes_bytes_to_(*Length, *Length) PVOID Buffer, _Inout_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID ReadRegistryConfiguration(_Inout_ PDEVICE_CONTEXT DeviceContext);

EXTERN_C_END
