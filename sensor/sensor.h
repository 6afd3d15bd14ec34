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
NTSTATUS InitSensorInterface(PDEVICE_CONTEXT DeviceContext);
EXTERN_C_END

/* Mode selection and mode information */
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetModeTables(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** Still, const MODE_LIST** Video,
                       const MODE_LIST** Preview, const MODE_LIST** Raw);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetPdafTable(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** List);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS SelectMode(PDEVICE_CONTEXT DeviceContext, LONG TableIndex, LONG MinWidth, LONG MinHeight, LONG FrameRate);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetModeInfo(PDEVICE_CONTEXT DeviceContext, PULONG Size, PSENSOR_MODE_INFO Info);

/* Sensor description */
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetSensorCaps(PDEVICE_CONTEXT DeviceContext, PSENSOR_CAPS Caps);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetSensorParameters(PDEVICE_CONTEXT DeviceContext, const SENSOR_PARAMETERS** Parameters);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetParameterWord(PDEVICE_CONTEXT DeviceContext, PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetPdafInfo(PDEVICE_CONTEXT DeviceContext, PPDAF_INFO* Info);

/* Module information and link */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS GetModuleInfo(PDEVICE_CONTEXT DeviceContext, PSENSOR_MODULE_INFO Info);
_IRQL_requires_max_(DISPATCH_LEVEL)
VOID GetMipiConfig(PDEVICE_CONTEXT DeviceContext, PULONG Port, PULONG Lanes, PULONG Format);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS QueryProperty(PDEVICE_CONTEXT DeviceContext, LONG Id, PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS GetAuxFlag(PDEVICE_CONTEXT DeviceContext, PULONG Value);

/* Power reference and accepted requests */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS PowerUp(PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS PowerDown(PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptRecord(PDEVICE_CONTEXT DeviceContext, PULONG Record);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptEntry(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entry);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptPointer(PDEVICE_CONTEXT DeviceContext, PVOID Pointer);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptValue(PDEVICE_CONTEXT DeviceContext, PULONG Value);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptPair(PDEVICE_CONTEXT DeviceContext, ULONG First, ULONG Second);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptNotice(PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(DISPATCH_LEVEL)
NTSTATUS AcceptEntryList(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entries, USHORT Count);
