/*
 * sensor.h - the operations of SENSOR_INTERFACE and the step that fills its
 * slots. Every operation takes the interface Context (the DEVICE_CONTEXT)
 * first; the records they hand out are described in sensor_interface.h.
 */
#pragma once

#include "device_context.h"

/* Fills the operation slots, then identifies the sensor variant; returns the
 * identification status. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS InitSensorInterface(_Inout_ PDEVICE_CONTEXT DeviceContext);

/* Asks the bus driver for the hardware identifiers and gives the context the
 * identity of the variant the first one names (variant.cpp). */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS IdentifySensorVariant(_Inout_ PDEVICE_CONTEXT DeviceContext);
EXTERN_C_END

/* Mode selection and mode information */
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetModeTables(_In_ PDEVICE_CONTEXT DeviceContext, _Outptr_ const MODE_LIST** Still,
                       _Outptr_ const MODE_LIST** Video, _Outptr_ const MODE_LIST** Preview,
                       _Outptr_ const MODE_LIST** Raw);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetPdafTable(_In_ PDEVICE_CONTEXT DeviceContext, _Outptr_ const MODE_LIST** List);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS SelectMode(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ LONG TableIndex, _In_ LONG MinWidth,
                    _In_ LONG MinHeight, _In_ LONG FrameRate);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetModeInfo(_In_ PDEVICE_CONTEXT DeviceContext, _Inout_ PULONG Size,
                     _Out_writes_bytes_to_(*Size, *Size) PSENSOR_MODE_INFO Info);

/* Sensor description */
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetSensorCaps(_Inout_ PDEVICE_CONTEXT DeviceContext, _Inout_ PSENSOR_CAPS Caps);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetSensorParameters(_In_ PDEVICE_CONTEXT DeviceContext, _Outptr_ const SENSOR_PARAMETERS** Parameters);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetParameterWord(_In_ PDEVICE_CONTEXT DeviceContext, _Out_ PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetPdafInfo(_In_ PDEVICE_CONTEXT DeviceContext, _In_ _At_(*Info, _Inout_) PPDAF_INFO* Info);

/* Module information and link */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS GetModuleInfo(_In_ PDEVICE_CONTEXT DeviceContext, _Out_ PSENSOR_MODULE_INFO Info);
_IRQL_requires_max_(DISPATCH_LEVEL)
VOID GetMipiConfig(_In_ PDEVICE_CONTEXT DeviceContext, _Out_ PULONG Port, _Out_ PULONG Lanes, _Out_ PULONG Format);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS QueryProperty(_In_ PDEVICE_CONTEXT DeviceContext, _In_ LONG Id, _Out_ PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetAuxFlag(_In_ PDEVICE_CONTEXT DeviceContext, _Out_ PULONG Value);

/* Power reference and accepted requests */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS PowerUp(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS PowerDown(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptRecord(_In_ PDEVICE_CONTEXT DeviceContext, _In_reads_(4) PULONG Record);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptEntry(_In_ PDEVICE_CONTEXT DeviceContext, _In_opt_ PSENSOR_ENTRY Entry);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptPointer(_In_ PDEVICE_CONTEXT DeviceContext, _In_ PVOID Pointer);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptValue(_In_ PDEVICE_CONTEXT DeviceContext, _In_ PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptPair(_In_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG First, _In_ ULONG Second);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptNotice(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptEntryList(_In_ PDEVICE_CONTEXT DeviceContext, _In_reads_(Count) PSENSOR_ENTRY Entries,
                         _In_ USHORT Count);
