/*
 * driver.cpp - driver entry, device add and the framework callbacks.
 *
 * The device does no hardware work in any framework callback: the PnP and
 * power callbacks only trace. Everything the camera driver sees goes through
 * SENSOR_INTERFACE, which device add publishes as a query interface; the
 * reference counting here keeps the device from being stopped or removed
 * while the camera driver holds it.
 */
#define INITGUID
#include "driver.h"
#include "../sensor/registry.h"
#include "../sensor/sensor.h"
#include "../trace/trace.h"

// {3E0B7C52-9A41-4F6D-8C23-5D7E1A9B0F64}
static const GUID DriverTraceGuid = {0x3e0b7c52, 0x9a41, 0x4f6d, {0x8c, 0x23, 0x5d, 0x7e, 0x1a, 0x9b, 0x0f, 0x64}};
TRACE_MODULE(DriverTraceGuid);

// Power-up and interface routines stay resident: the camera driver calls them
// on its streaming paths and D0 entry runs on the way back from idle.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(INIT, DriverEntry)
#pragma alloc_text(PAGE, SensorEvtDeviceAdd)
#pragma alloc_text(PAGE, SensorEvtDriverUnload)
#pragma alloc_text(PAGE, SensorEvtDriverCleanup)
#pragma alloc_text(PAGE, SensorEvtD0Exit)
#pragma alloc_text(PAGE, SensorEvtPrepareHardware)
#pragma alloc_text(PAGE, SensorEvtReleaseHardware)
#endif

#define IDLE_TIMEOUT_MS 15000

NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_OBJECT_ATTRIBUTES attributes;

    WDF_DRIVER_CONFIG_INIT(&config, SensorEvtDeviceAdd);
    config.EvtDriverUnload = SensorEvtDriverUnload;

    // The cleanup callback runs on every path after the driver object exists,
    // so it is where tracing stops.
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = SensorEvtDriverCleanup;

    NTSTATUS status = WdfDriverCreate(DriverObject, RegistryPath, &attributes, &config, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    TraceInitialize(DriverObject, RegistryPath);

    // Device add reads the configuration values from this copy.
    if (RegistryPath != NULL) {
        (VOID) SaveRegistryPath(RegistryPath);
    }

    TraceEvents(TRACE_INFO, "DriverEntry exit %!STATUS!", status);
    return status;
}

NTSTATUS SensorEvtDeviceAdd(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit)
{
    PAGED_CODE();

    NTSTATUS status;
    WDFDEVICE device;
    PDEVICE_CONTEXT deviceContext;

    UNREFERENCED_PARAMETER(Driver);

    TraceEvents(TRACE_INFO, "SensorEvtDeviceAdd entry");

    // PnP and power callbacks: tracing, and the query-remove veto.
    WDF_PNPPOWER_EVENT_CALLBACKS pnpPowerCallbacks;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnpPowerCallbacks);
    pnpPowerCallbacks.EvtDeviceD0Entry = SensorEvtD0Entry;
    pnpPowerCallbacks.EvtDeviceD0Exit = SensorEvtD0Exit;
    pnpPowerCallbacks.EvtDevicePrepareHardware = SensorEvtPrepareHardware;
    pnpPowerCallbacks.EvtDeviceReleaseHardware = SensorEvtReleaseHardware;
    pnpPowerCallbacks.EvtDeviceQueryRemove = SensorEvtQueryRemove;
    WdfDeviceInitSetPnpPowerEventCallbacks(DeviceInit, &pnpPowerCallbacks);

    // The device object, with the per-device context attached.
    WDF_OBJECT_ATTRIBUTES deviceAttributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&deviceAttributes, DEVICE_CONTEXT);
    status = WdfDeviceCreate(&DeviceInit, &deviceAttributes, &device);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "WdfDeviceCreate failed %!STATUS!", status);
        goto Exit;
    }

    deviceContext = GetDeviceContext(device);

    // The interface class camera stacks look for.
    status = WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_CAMERA_SENSOR, NULL);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "WdfDeviceCreateDeviceInterface failed %!STATUS!", status);
        goto Exit;
    }

    // For the trace only: the symbolic link of that interface. The string is
    // parented to the driver and goes with it.
    {
        WDFSTRING linkString;
        UNICODE_STRING linkName;
        if (NT_SUCCESS(WdfStringCreate(NULL, WDF_NO_OBJECT_ATTRIBUTES, &linkString)) &&
            NT_SUCCESS(WdfDeviceRetrieveDeviceInterfaceString(device, &GUID_DEVINTERFACE_CAMERA_SENSOR, NULL,
                                                              linkString))) {
            WdfStringGetUnicodeString(linkString, &linkName);
            TraceEvents(TRACE_INFO, "Symbolic link %wZ", linkName);
        }
    }

    // The context and the interface header; the rest of the record is filled
    // by the initialisation steps below.
    RtlZeroMemory(deviceContext, sizeof(DEVICE_CONTEXT));
    deviceContext->Device = device;
    deviceContext->SensorInterface.InterfaceHeader.Size = SENSOR_INTERFACE_SIZE;
    deviceContext->SensorInterface.InterfaceHeader.Version = SENSOR_INTERFACE_VERSION;
    deviceContext->SensorInterface.InterfaceHeader.Context = deviceContext;
    deviceContext->SensorInterface.InterfaceHeader.InterfaceReference = SensorInterfaceReference;
    deviceContext->SensorInterface.InterfaceHeader.InterfaceDereference = SensorInterfaceDereference;

    // None of these can fail device add: a missing value or identifier leaves
    // the defaults in place.
    ReadRegistryConfiguration(deviceContext);
    InitSensorContext(deviceContext);
    (VOID) InitSensorInterface(deviceContext);

    // Publish the record; it does not change after this point.
    {
        WDF_QUERY_INTERFACE_CONFIG queryInterfaceConfig;
        WDF_QUERY_INTERFACE_CONFIG_INIT(&queryInterfaceConfig,
                                        (PINTERFACE)&deviceContext->SensorInterface,
                                        &GUID_SENSOR_INTERFACE, NULL);
        status = WdfDeviceAddQueryInterface(device, &queryInterfaceConfig);
        if (!NT_SUCCESS(status)) {
            TraceEvents(TRACE_ERROR, "WdfDeviceAddQueryInterface failed %!STATUS!", status);
            goto Exit;
        }
    }

    // The user may disable the device.
    {
        WDF_DEVICE_STATE deviceState;
        WDF_DEVICE_STATE_INIT(&deviceState);
        deviceState.NotDisableable = WdfFalse;
        WdfDeviceSetDeviceState(device, &deviceState);
    }

    // Idle to D3 when the camera driver holds no power reference.
    {
        WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS idleSettings;
        WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(&idleSettings, IdleCannotWakeFromS0);
        idleSettings.DxState = PowerDeviceD3;
        idleSettings.IdleTimeout = IDLE_TIMEOUT_MS;
        idleSettings.UserControlOfIdleSettings = IdleDoNotAllowUserControl;
        idleSettings.Enabled = WdfTrue;
        idleSettings.PowerUpIdleDeviceOnSystemWake = WdfUseDefault;
        idleSettings.IdleTimeoutType = SystemManagedIdleTimeout;
        idleSettings.ExcludeD3Cold = WdfUseDefault;
        status = WdfDeviceAssignS0IdleSettings(device, &idleSettings);
        if (!NT_SUCCESS(status)) {
            TraceEvents(TRACE_ERROR, "WdfDeviceAssignS0IdleSettings failed %!STATUS!", status);
        }
    }

Exit:
    TraceEvents(TRACE_INFO, "SensorEvtDeviceAdd exit %!STATUS!", status);
    return status;
}

VOID SensorEvtDriverUnload(WDFDRIVER Driver)
{
    PAGED_CODE();

    UNREFERENCED_PARAMETER(Driver);

    FreeRegistryPath();
    TraceEvents(TRACE_INFO, "SensorEvtDriverUnload");
}

VOID SensorEvtDriverCleanup(WDFOBJECT DriverObject)
{
    PAGED_CODE();

    TraceEvents(TRACE_INFO, "SensorEvtDriverCleanup");
    TraceCleanup(WdfDriverWdmGetDriverObject((WDFDRIVER)DriverObject));
}

NTSTATUS SensorEvtD0Entry(WDFDEVICE Device, WDF_POWER_DEVICE_STATE PreviousState)
{
    UNREFERENCED_PARAMETER(Device);
    TraceEvents(TRACE_INFO, "SensorEvtD0Entry from framework power state %d", (ULONG)PreviousState);
    return STATUS_SUCCESS;
}

NTSTATUS SensorEvtD0Exit(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState)
{
    PAGED_CODE();

    UNREFERENCED_PARAMETER(Device);

    TraceEvents(TRACE_INFO, "SensorEvtD0Exit to framework power state %d", (ULONG)TargetState);
    return STATUS_SUCCESS;
}

NTSTATUS SensorEvtPrepareHardware(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw, WDFCMRESLIST ResourcesTranslated)
{
    PAGED_CODE();

    UNREFERENCED_PARAMETER(ResourcesRaw);
    UNREFERENCED_PARAMETER(ResourcesTranslated);

    PDEVICE_CONTEXT deviceContext = GetDeviceContext(Device);
    UNREFERENCED_PARAMETER(deviceContext);
    TraceEvents(TRACE_INFO, "SensorEvtPrepareHardware");
    return STATUS_SUCCESS;
}

NTSTATUS SensorEvtReleaseHardware(WDFDEVICE Device, WDFCMRESLIST ResourcesTranslated)
{
    PAGED_CODE();

    UNREFERENCED_PARAMETER(Device);
    UNREFERENCED_PARAMETER(ResourcesTranslated);

    TraceEvents(TRACE_INFO, "SensorEvtReleaseHardware");
    return STATUS_SUCCESS;
}

NTSTATUS SensorEvtQueryRemove(WDFDEVICE Device)
{
    PDEVICE_CONTEXT deviceContext = GetDeviceContext(Device);

    // An interlocked read: the camera driver may be taking or dropping a
    // reference on another thread right now.
    LONG references = InterlockedCompareExchange(&deviceContext->InterfaceRefCount, 0, 0);
    TraceEvents(TRACE_INFO, "SensorEvtQueryRemove references %d", references);
    return references > 0 ? STATUS_DEVICE_BUSY : STATUS_SUCCESS;
}

_Use_decl_annotations_
VOID SensorInterfaceReference(PVOID Context)
{
    PDEVICE_CONTEXT deviceContext = (PDEVICE_CONTEXT)Context;

    LONG references = InterlockedIncrement(&deviceContext->InterfaceRefCount);
    if (references == 1) {
        // The first holder blocks stop and remove; one call per transition
        // keeps the framework's count balanced.
        WdfDeviceSetStaticStopRemove(deviceContext->Device, FALSE);
    }
    TraceEvents(TRACE_INFO, "SensorInterfaceReference references %d", references);
}

_Use_decl_annotations_
VOID SensorInterfaceDereference(PVOID Context)
{
    PDEVICE_CONTEXT deviceContext = (PDEVICE_CONTEXT)Context;

    LONG references = InterlockedDecrement(&deviceContext->InterfaceRefCount);
    TraceEvents(TRACE_INFO, "SensorInterfaceDereference references %d", references);
    if (references == 0) {
        WdfDeviceSetStaticStopRemove(deviceContext->Device, TRUE);
    }
}
