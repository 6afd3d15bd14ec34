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
NTSTATUS InitSensorInterface(PDEVICE_CONTEXT DeviceContext);
EXTERN_C_END

/* Mode selection and mode information */
NTSTATUS GetModeTables(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** Still, const MODE_LIST** Video,
                       const MODE_LIST** Preview, const MODE_LIST** Raw);
NTSTATUS GetPdafTable(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** List);
NTSTATUS SelectMode(PDEVICE_CONTEXT DeviceContext, LONG TableIndex, LONG MinWidth, LONG MinHeight, LONG FrameRate);
NTSTATUS GetModeInfo(PDEVICE_CONTEXT DeviceContext, PULONG Size, PSENSOR_MODE_INFO Info);

/* Sensor description */
NTSTATUS GetSensorCaps(PDEVICE_CONTEXT DeviceContext, PSENSOR_CAPS Caps);
NTSTATUS GetSensorParameters(PDEVICE_CONTEXT DeviceContext, const SENSOR_PARAMETERS** Parameters);
NTSTATUS GetParameterWord(PDEVICE_CONTEXT DeviceContext, PULONG Value);
NTSTATUS GetPdafInfo(PDEVICE_CONTEXT DeviceContext, PPDAF_INFO* Info);

/* Module information and link */
NTSTATUS GetModuleInfo(PDEVICE_CONTEXT DeviceContext, PSENSOR_MODULE_INFO Info);
VOID GetMipiConfig(PDEVICE_CONTEXT DeviceContext, PULONG Port, PULONG Lanes, PULONG Format);
NTSTATUS QueryProperty(PDEVICE_CONTEXT DeviceContext, LONG Id, PULONG Value);
NTSTATUS GetAuxFlag(PDEVICE_CONTEXT DeviceContext, PULONG Value);

/* Power reference and accepted requests */
NTSTATUS PowerUp(PDEVICE_CONTEXT DeviceContext);
NTSTATUS PowerDown(PDEVICE_CONTEXT DeviceContext);
NTSTATUS AcceptRecord(PDEVICE_CONTEXT DeviceContext, PULONG Record);
NTSTATUS AcceptEntry(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entry);
NTSTATUS AcceptPointer(PDEVICE_CONTEXT DeviceContext, PVOID Pointer);
NTSTATUS AcceptValue(PDEVICE_CONTEXT DeviceContext, PULONG Value);
NTSTATUS AcceptPair(PDEVICE_CONTEXT DeviceContext, ULONG First, ULONG Second);
NTSTATUS AcceptNotice(PDEVICE_CONTEXT DeviceContext);
NTSTATUS AcceptEntryList(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entries, USHORT Count);
