/*
 * interface.cpp - fills the operation slots of SENSOR_INTERFACE during device
 * add, before the record is published. Slots left null are operations this
 * sensor does not provide.
 */
#include "sensor.h"
#include "../trace/trace.h"

// {51C9A6E2-0D7B-4E38-9F14-6A2B8C3E7D05}
static const GUID InterfaceTraceGuid = {0x51c9a6e2, 0x0d7b, 0x4e38, {0x9f, 0x14, 0x6a, 0x2b, 0x8c, 0x3e, 0x7d, 0x05}};
TRACE_MODULE(InterfaceTraceGuid);

#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, InitSensorInterface)
#endif

_Use_decl_annotations_
NTSTATUS InitSensorInterface(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "InitSensorInterface entry");

    PSENSOR_INTERFACE sensorInterface = &DeviceContext->SensorInterface;
    sensorInterface->AcceptRecord = AcceptRecord;
    sensorInterface->GetSensorCaps = GetSensorCaps;
    sensorInterface->GetMipiConfig = GetMipiConfig;
    sensorInterface->GetSensorParameters = GetSensorParameters;
    sensorInterface->GetModeTables = GetModeTables;
    sensorInterface->GetPdafTable = GetPdafTable;
    sensorInterface->SelectMode = SelectMode;
    sensorInterface->AcceptEntry = AcceptEntry;
    sensorInterface->AcceptPointer = AcceptPointer;
    sensorInterface->AcceptValue = AcceptValue;
    sensorInterface->AcceptPair = AcceptPair;
    sensorInterface->AcceptNotice = AcceptNotice;
    sensorInterface->GetModeInfo = GetModeInfo;
    sensorInterface->PowerUp = PowerUp;
    sensorInterface->PowerDown = PowerDown;
    sensorInterface->Reserved20 = NULL;
    sensorInterface->Reserved21 = NULL;
    sensorInterface->GetAuxFlag = GetAuxFlag;
    sensorInterface->GetParameterWord = GetParameterWord;
    sensorInterface->GetModuleInfo = GetModuleInfo;
    sensorInterface->Reserved27 = NULL;
    sensorInterface->Reserved29 = NULL;
    sensorInterface->QueryProperty = QueryProperty;
    sensorInterface->GetPdafInfo = GetPdafInfo;
    sensorInterface->AcceptEntryList = AcceptEntryList;

    DeviceContext->SensorGuid = DefaultSensorGuid;

    // Last: the variant may replace the identity written above.
    return IdentifySensorVariant(DeviceContext);
}
