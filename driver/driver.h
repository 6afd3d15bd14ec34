/*
 * driver.h - driver entry, device add and the framework callbacks of the
 * driver and its device, and interface reference counting.
 */
#pragma once

#include "../wdk/wdk.h"
#include "../sensor/device_context.h"

/* C linkage: a Windows build places most of these in code sections, and the
 * compiler accepts #pragma alloc_text only for routines with C linkage. */
EXTERN_C_START

DRIVER_INITIALIZE DriverEntry;

EVT_WDF_DRIVER_DEVICE_ADD SensorEvtDeviceAdd;
EVT_WDF_DRIVER_UNLOAD SensorEvtDriverUnload;
EVT_WDF_OBJECT_CONTEXT_CLEANUP SensorEvtDriverCleanup;
EVT_WDF_DEVICE_D0_ENTRY SensorEvtD0Entry;
EVT_WDF_DEVICE_D0_EXIT SensorEvtD0Exit;
EVT_WDF_DEVICE_PREPARE_HARDWARE SensorEvtPrepareHardware;
EVT_WDF_DEVICE_RELEASE_HARDWARE SensorEvtReleaseHardware;
EVT_WDF_DEVICE_QUERY_REMOVE SensorEvtQueryRemove;

/* InterfaceReference and InterfaceDereference of SENSOR_INTERFACE. */
_IRQL_requires_max_(DISPATCH_LEVEL)
VOID SensorInterfaceReference(_Inout_ PVOID Context);
_IRQL_requires_max_(DISPATCH_LEVEL)
VOID SensorInterfaceDereference(_Inout_ PVOID Context);

EXTERN_C_END
