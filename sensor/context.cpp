/*
 * context.cpp - the starting values of the device context, set once during
 * device add after the registry configuration has been read.
 */
#include "device_context.h"
#include "mode_tables.h"
#include "sensor.h"
#include "../trace/trace.h"

// {8D41E0C7-2B96-4A53-B1F8-07C6E95A3D12}
static const GUID ContextTraceGuid = {0x8d41e0c7, 0x2b96, 0x4a53, {0xb1, 0xf8, 0x07, 0xc6, 0xe9, 0x5a, 0x3d, 0x12}};
TRACE_MODULE(ContextTraceGuid);

#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, InitSensorContext)
#endif

// {A255DEF4-F9B7-41E0-BF1E-D273ED0FEDBF}: the sensor no identifier names.
const GUID DefaultSensorGuid = {0xa255def4, 0xf9b7, 0x41e0, {0xbf, 0x1e, 0xd2, 0x73, 0xed, 0x0f, 0xed, 0xbf}};

// MIPI link defaults, used unless the registry configures a lane count.
static const struct {
    ULONG PortNumber;
    ULONG LaneCount;
    ULONG DataFormat;
    UCHAR VariantCode;
} DefaultMipiSettings = {0, 2, 12, 0};

#define MBPS_TO_BITS_PER_SECOND 1000000u

_Use_decl_annotations_
VOID InitSensorContext(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return;
    }
    TraceEvents(TRACE_INFO, "InitSensorContext entry");

    DeviceContext->SensorGuid = DefaultSensorGuid;
    WriteNoFence(&DeviceContext->ModeTableIndex, 2);  // the "Preview" table
    DeviceContext->NvmAvailable = 0;
    DeviceContext->NvmLoaded = 0;
    WriteNoFence(&DeviceContext->ModeIndex, 0);
    DeviceContext->AuxFlag = 0;
    DeviceContext->LinkRate = 0;

    DeviceContext->MipiLaneCount = DefaultMipiSettings.LaneCount;
    DeviceContext->MipiPortNumber = DefaultMipiSettings.PortNumber;
    DeviceContext->MipiFormat = DefaultMipiSettings.DataFormat;
    DeviceContext->VariantCode = DefaultMipiSettings.VariantCode;

    // The lane count is the switch: the four link values apply together or
    // not at all. The rate is computed in 32 bits, as the camera driver reads it.
    if (DeviceContext->RegMipiLanes != 0) {
        DeviceContext->MipiLaneCount = DeviceContext->RegMipiLanes;
        DeviceContext->MipiPortNumber = DeviceContext->RegMipiPort;
        DeviceContext->MipiFormat = DeviceContext->RegMipiDataFormat;
        DeviceContext->LinkRate = DeviceContext->RegMipiMBps * MBPS_TO_BITS_PER_SECOND;
    }

    DeviceContext->NvmEnabled = 1;

    // Free until an actuator or memory sequence takes it.
    KeInitializeEvent(&DeviceContext->BusLock, SynchronizationEvent, TRUE);

    // Every connection starts closed; the connection ids are the provider's.
    for (ULONG slot = 0; slot < I2C_CONNECTION_COUNT; slot++) {
        PI2C_CONNECTION connection = &DeviceContext->I2cConnections[slot];
        connection->Target = NULL;
        connection->Opened = 0;
        connection->InfoA = 0;
        connection->Present = 0;
    }

    NTSTATUS status = GetSensorCaps(DeviceContext, &DeviceContext->SensorCaps);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "InitSensorContext: GetSensorCaps failed %!STATUS!", status);
        return;
    }

    (VOID) BuildModeLists(DeviceContext);
    (VOID) BuildPdafList(DeviceContext);
}
