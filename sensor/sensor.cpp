/*
 * sensor.cpp - the operations of SENSOR_INTERFACE.
 *
 * The camera driver calls these directly from its own threads, concurrently
 * with each other and with the framework callbacks; none of them takes a lock
 * and all stay resident. They answer from the device context and from the
 * driver-wide mode tables and description records, which are constant once
 * device add has finished. The sensor is programmed by no operation here:
 * the configuration requests (the Accept* operations) are validated and
 * traced only.
 *
 * Mode selection is kept in ModeTableIndex and ModeIndex, read and written
 * without a lock through ReadNoFence/WriteNoFence; a caller that selects and
 * reads modes from several threads serialises those calls itself. Neither
 * operation ever indexes past a table or writes past the caller's record:
 *
 *  - SelectMode stores the requested table index and row 0 before anything
 *    else, as for any selection. An index outside 0..3 names no table: the
 *    call fails with STATUS_INVALID_PARAMETER without touching a table.
 *  - GetModeInfo refuses a stored selection that names no row (a table index
 *    outside 0..3, or a row the table does not have) with
 *    STATUS_INVALID_DEVICE_STATE, and a *Size below the 40-byte record with
 *    STATUS_BUFFER_TOO_SMALL; in both cases neither *Size nor the record is
 *    written.
 *
 * GetPdafInfo refuses a null record pointer (*Info == NULL) with
 * STATUS_INVALID_PARAMETER, after its trace event, and writes nothing.
 */
#include "sensor.h"
#include "description.h"
#include "mode_tables.h"
#include "../trace/trace.h"

// {2C21E3FE-CE79-4D51-8E89-0F5A334F0193}
static const GUID SensorTraceGuid = {0x2c21e3fe, 0xce79, 0x4d51, {0x8e, 0x89, 0x0f, 0x5a, 0x33, 0x4f, 0x01, 0x93}};
TRACE_MODULE(SensorTraceGuid);

// Hands out the address of a driver-wide record the caller only reads.
template <typename T>
_IRQL_requires_max_(DISPATCH_LEVEL)
static NTSTATUS HandOutRecord(_In_ PDEVICE_CONTEXT DeviceContext, _Outptr_ const T** Result, _In_ const T* Record)
{
    if (DeviceContext == NULL || Result == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Result = Record;
    return STATUS_SUCCESS;
}

/* ---- Mode selection and mode information ---- */

_Use_decl_annotations_
NTSTATUS GetModeTables(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** Still, const MODE_LIST** Video,
                       const MODE_LIST** Preview, const MODE_LIST** Raw)
{
    NTSTATUS status = STATUS_INVALID_PARAMETER;

    if (DeviceContext != NULL && Still != NULL && Video != NULL && Preview != NULL && Raw != NULL) {
        *Still = &ModeLists[MODE_TABLE_STILL];
        *Video = &ModeLists[MODE_TABLE_VIDEO];
        *Preview = &ModeLists[MODE_TABLE_PREVIEW];
        *Raw = &ModeLists[MODE_TABLE_RAW];
        status = STATUS_SUCCESS;
    }
    TraceEvents(TRACE_INFO, "GetModeTables %p %p %p %p %!STATUS!", Still, Video, Preview, Raw, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS GetPdafTable(PDEVICE_CONTEXT DeviceContext, const MODE_LIST** List)
{
    NTSTATUS status = HandOutRecord(DeviceContext, List, (const MODE_LIST*)&PdafList);
    TraceEvents(TRACE_INFO, "GetPdafTable %p %!STATUS!", List, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS SelectMode(PDEVICE_CONTEXT DeviceContext, LONG TableIndex, LONG MinWidth, LONG MinHeight, LONG FrameRate)
{
    TraceEvents(TRACE_INFO, "SelectMode %d x %d at %d", MinWidth, MinHeight, FrameRate);

    if (DeviceContext == NULL) {
        TraceEvents(TRACE_INFO, "SelectMode exit %!STATUS!", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }

    // The request is the selection even when nothing fits: GetModeInfo then
    // describes row 0 of the table asked for.
    WriteNoFence(&DeviceContext->ModeIndex, 0);
    WriteNoFence(&DeviceContext->ModeTableIndex, TableIndex);

    if (TableIndex < 0 || TableIndex >= MODE_TABLE_COUNT) {
        TraceEvents(TRACE_ERROR, "SelectMode: no mode table %d %!STATUS!", TableIndex, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }

    // Smallest surplus of width plus height among the rows that cover the
    // request (and run at the requested rate); the earliest of equals wins.
    // The list's count stops before the row that ends the table, so every
    // row scanned is in use.
    const SENSOR_MODE* rows = ModeTables[TableIndex];
    LONG count = rows != NULL ? (LONG)ModeLists[TableIndex].Count : 0;
    LONG best = -1;
    LONG bestExcess = 65535;
    for (LONG row = 0; row < count; row++) {
        const SENSOR_MODE* mode = &rows[row];
        if (mode->Width < MinWidth || mode->Height < MinHeight) {
            continue;
        }
        // Computed as the camera driver's 32-bit arithmetic would; only
        // negative minima can wrap it.
        LONG excess = (LONG)(((ULONG)mode->Width - (ULONG)MinWidth) + ((ULONG)mode->Height - (ULONG)MinHeight));
        if (excess == -1) {
            continue;
        }
        if (FrameRate > 0 && mode->FrameRate != FrameRate) {
            continue;
        }
        if (excess < bestExcess) {
            best = row;
            bestExcess = excess;
        }
    }

    if (best < 0) {
        TraceEvents(TRACE_ERROR, "SelectMode: no mode in table %d fits %!STATUS!", TableIndex, STATUS_UNSUCCESSFUL);
        return STATUS_UNSUCCESSFUL;
    }

    WriteNoFence(&DeviceContext->ModeIndex, best);
    TraceEvents(TRACE_INFO, "SelectMode exit %d x %d %!STATUS!", MinWidth, MinHeight, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

#define MODE_INFO_SIGNATURE 0x09FCD140

_Use_decl_annotations_
NTSTATUS GetModeInfo(PDEVICE_CONTEXT DeviceContext, PULONG Size, PSENSOR_MODE_INFO Info)
{
    if (DeviceContext == NULL || Size == NULL || Info == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // The record is written whole; a shorter buffer is not written at all.
    if (*Size < sizeof(SENSOR_MODE_INFO)) {
        TraceEvents(TRACE_ERROR, "GetModeInfo: %u bytes is too small %!STATUS!", *Size, STATUS_BUFFER_TOO_SMALL);
        return STATUS_BUFFER_TOO_SMALL;
    }

    // A row of the list published for the table; the lists are counted once,
    // at device add, not on every call.
    LONG table = ReadNoFence(&DeviceContext->ModeTableIndex);
    LONG row = ReadNoFence(&DeviceContext->ModeIndex);
    if (table < 0 || table >= MODE_TABLE_COUNT || row < 0 || (ULONG)row >= ModeLists[table].Count) {
        TraceEvents(TRACE_ERROR, "GetModeInfo: table %d row %d is no mode %!STATUS!", table, row,
                    STATUS_INVALID_DEVICE_STATE);
        return STATUS_INVALID_DEVICE_STATE;
    }

    *Size = sizeof(SENSOR_MODE_INFO);

    const SENSOR_MODE* mode = &ModeTables[table][row];
    USHORT width = (USHORT)mode->Width;
    USHORT height = (USHORT)mode->Height;
    Info->Signature = MODE_INFO_SIGNATURE;
    Info->Width = width;
    Info->Height = height;
    Info->Zero8 = 0;
    Info->Height10 = height;
    Info->One12 = 1;
    Info->Four14 = 4;
    Info->Zero16 = 0;
    Info->Width20 = width;
    Info->Height22 = height;
    Info->Width24 = width;
    Info->Height26 = height;
    Info->One28 = 1;
    Info->One29 = 1;
    Info->Width30 = width;
    Info->Height32 = height;
    Info->Zero34 = 0;

    TraceEvents(TRACE_INFO, "GetModeInfo table %d row %d: %u x %u", table, row, (ULONG)width, (ULONG)height);
    return STATUS_SUCCESS;
}

/* ---- Sensor description ---- */

/* Two consecutive words of a record as one 64-bit value, the first word in
 * the low half (both targets are little-endian). */
_IRQL_requires_max_(DISPATCH_LEVEL)
static inline LONG64 CapsPair(_In_ ULONG First, _In_ ULONG Second)
{
    return (LONG64)(((ULONG64)Second << 32) | First);
}

_Use_decl_annotations_
NTSTATUS GetSensorCaps(PDEVICE_CONTEXT DeviceContext, PSENSOR_CAPS Caps)
{
    if (DeviceContext == NULL || Caps == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // RGB-IR, once either the caller or the device has it, survives the
    // refresh from the template. The answer is decided from both copies
    // before either is written: other threads read the device's copy while
    // this one refreshes it, and must never find the template's mode in it
    // on a device that has RGB-IR.
    ULONG volatile* deviceWords = (ULONG volatile*)&DeviceContext->SensorCaps;
    SENSOR_CAPS deviceCaps = {};
    deviceCaps.ModeFlags = ReadULongNoFence(&deviceWords[FIELD_OFFSET(SENSOR_CAPS, ModeFlags) / sizeof(ULONG)]);
    SENSOR_CAPS caps = SensorCapsTemplate;
    if (GetCapsMode(Caps) == SENSOR_CAPS_MODE_RGBIR || GetCapsMode(&deviceCaps) == SENSOR_CAPS_MODE_RGBIR) {
        SetCapsMode(&caps, SENSOR_CAPS_MODE_RGBIR);
    }

    // The final record goes to both places. The device's copy is stored in
    // whole aligned words, so a concurrent reader sees each word whole: its
    // five words as two aligned 64-bit stores and one 32-bit store, the single
    // word first or last as the record's alignment in the context asks. Word
    // by word it was five volatile stores from a copy on the stack.
    *Caps = caps;
    static_assert(sizeof(SENSOR_CAPS) == 5 * sizeof(ULONG), "five words: one single, two pairs");
    const ULONG* w = (const ULONG*)&caps;
    if (((ULONG_PTR)deviceWords & 7) == 0) {
        WriteNoFence64((LONG64 volatile*)&deviceWords[0], CapsPair(w[0], w[1]));
        WriteNoFence64((LONG64 volatile*)&deviceWords[2], CapsPair(w[2], w[3]));
        WriteULongNoFence(&deviceWords[4], w[4]);
    } else {
        WriteULongNoFence(&deviceWords[0], w[0]);
        WriteNoFence64((LONG64 volatile*)&deviceWords[1], CapsPair(w[1], w[2]));
        WriteNoFence64((LONG64 volatile*)&deviceWords[3], CapsPair(w[3], w[4]));
    }

    TraceEvents(TRACE_INFO, "GetSensorCaps mode %u", GetCapsMode(&caps));
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS GetSensorParameters(PDEVICE_CONTEXT DeviceContext, const SENSOR_PARAMETERS** Parameters)
{
    NTSTATUS status = HandOutRecord(DeviceContext, Parameters, (const SENSOR_PARAMETERS*)&SensorParameters);
    TraceEvents(TRACE_INFO, "GetSensorParameters %p %!STATUS!", Parameters, status);
    return status;
}

#define PARAMETER_WORD_LOW 30000

_Use_decl_annotations_
NTSTATUS GetParameterWord(PDEVICE_CONTEXT DeviceContext, PULONG Value)
{
    if (DeviceContext == NULL || Value == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    ULONG v = SensorParameters.HdrWord == 4 ? 4 : 3;
    *Value = (v << 16) | PARAMETER_WORD_LOW;
    TraceEvents(TRACE_INFO, "GetParameterWord %u", v);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS GetPdafInfo(PDEVICE_CONTEXT DeviceContext, PPDAF_INFO* Info)
{
    NTSTATUS status;

    if (DeviceContext == NULL || Info == NULL || *Info == NULL) {
        status = STATUS_INVALID_PARAMETER;
        TraceEvents(TRACE_INFO, "GetPdafInfo %p %!STATUS!", Info, status);
        return status;
    }

    PPDAF_INFO info = *Info;
    const PDAF_SIZE* match = NULL;
    for (ULONG row = 0; row < PDAF_SIZE_ROWS; row++) {
        if (PdafSizeTable[row].ImageHeight == info->Height && PdafSizeTable[row].ImageWidth == info->Width) {
            match = &PdafSizeTable[row];
            break;
        }
    }

    if (match != NULL) {
        info->Width = match->ImageWidth;
        info->Height = match->ImageHeight;
        info->PdafWidth = match->PdafWidth;
        info->PdafHeight = match->PdafHeight;
        info->Word28 = match->Word4;
        status = STATUS_SUCCESS;
    } else {
        info->PdafWidth = 0;
        info->PdafHeight = 0;
        status = STATUS_NOT_SUPPORTED;
    }

    // The link settings go into every answer, matched or not.
    info->Byte0 = PdafInfoTemplate.Byte0;
    info->InterleaveMode = PdafInfoTemplate.InterleaveMode;
    info->FormatFlagA = PdafInfoTemplate.FormatFlagA;
    info->FormatFlagB = PdafInfoTemplate.FormatFlagB;
    info->Word36 = PdafInfoTemplate.Word36;

    TraceEvents(TRACE_INFO, "GetPdafInfo %p %!STATUS!", Info, status);
    return status;
}

/* ---- Module information and link ---- */

// The module's fixed texts; a null text stands for the context's SensorName.
// Written in this order, each bounded by its field.
static const struct {
    ULONG Offset;
    ULONG Size;
    const CHAR* Text;
} ModuleInfoTexts[] = {
    {FIELD_OFFSET(SENSOR_MODULE_INFO, DriverName), sizeof(SENSOR_MODULE_INFO::DriverName), "KORVANEL"},
    {FIELD_OFFSET(SENSOR_MODULE_INFO, SensorName), sizeof(SENSOR_MODULE_INFO::SensorName), NULL},
    {FIELD_OFFSET(SENSOR_MODULE_INFO, BaseSensorName), sizeof(SENSOR_MODULE_INFO::BaseSensorName), "HAPS"},
    {FIELD_OFFSET(SENSOR_MODULE_INFO, ModuleName), sizeof(SENSOR_MODULE_INFO::ModuleName), "DEFAULT"},
    {FIELD_OFFSET(SENSOR_MODULE_INFO, ModuleRevision), sizeof(SENSOR_MODULE_INFO::ModuleRevision), "DEFAULT"},
    {FIELD_OFFSET(SENSOR_MODULE_INFO, VendorName), sizeof(SENSOR_MODULE_INFO::VendorName), "ORVEX"},
};

_Use_decl_annotations_
NTSTATUS GetModuleInfo(PDEVICE_CONTEXT DeviceContext, PSENSOR_MODULE_INFO Info)
{
    if (DeviceContext == NULL || Info == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "GetModuleInfo entry");

    Info->SensorGuid = DeviceContext->SensorGuid;
    Info->VariantCode = DeviceContext->VariantCode;
    Info->MipiFormat = (UCHAR)DeviceContext->MipiFormat;

    // Bounded copies: a cut text is still terminated, and the bytes after each
    // terminator stay as the caller had them.
    for (ULONG i = 0; i < RTL_NUMBER_OF(ModuleInfoTexts); i++) {
        const CHAR* text = ModuleInfoTexts[i].Text != NULL ? ModuleInfoTexts[i].Text : DeviceContext->SensorName;
        (VOID) RtlStringCbCopyA((PCHAR)Info + ModuleInfoTexts[i].Offset, ModuleInfoTexts[i].Size, text);
    }

    TraceEvents(TRACE_INFO, "GetModuleInfo %s %s", Info->SensorName, Info->ModuleName);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
VOID GetMipiConfig(PDEVICE_CONTEXT DeviceContext, PULONG Port, PULONG Lanes, PULONG Format)
{
    if (DeviceContext == NULL) {
        return;
    }
    if (Port == NULL || Lanes == NULL || Format == NULL) {
        TraceEvents(TRACE_INFO, "GetMipiConfig: missing result %p %p %p", Port, Lanes, Format);
        return;
    }

    *Port = DeviceContext->MipiPortNumber;
    *Lanes = DeviceContext->MipiLaneCount;
    *Format = DeviceContext->MipiFormat;
    TraceEvents(TRACE_INFO, "GetMipiConfig port %u lanes %u format %u", *Port, *Lanes, *Format);
}

_Use_decl_annotations_
NTSTATUS QueryProperty(PDEVICE_CONTEXT DeviceContext, LONG Id, PULONG Value)
{
    NTSTATUS status;

    if (DeviceContext == NULL || Value == NULL) {
        status = STATUS_INVALID_PARAMETER;
    } else if (Id == SensorPropertyLinkRate) {
        *Value = DeviceContext->LinkRate;
        TraceEvents(TRACE_INFO, "QueryProperty link rate %u", *Value);
        status = STATUS_SUCCESS;
    } else {
        status = STATUS_NOT_SUPPORTED;
    }
    TraceEvents(TRACE_INFO, "QueryProperty %d %!STATUS!", Id, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS GetAuxFlag(PDEVICE_CONTEXT DeviceContext, PULONG Value)
{
    if (DeviceContext == NULL || Value == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    *Value = DeviceContext->AuxFlag;
    TraceEvents(TRACE_INFO, "GetAuxFlag %u %!STATUS!", *Value, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

/* ---- Power reference ---- */

// The framework's reference tracking records the caller as this module.
#define POWER_REFERENCE_MODULE ((PCHAR) "sensor")

_Use_decl_annotations_
NTSTATUS PowerUp(PDEVICE_CONTEXT DeviceContext)
{
    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "PowerUp entry");

    // Returns once the device is in D0; the reference keeps it there until
    // PowerDown.
    NTSTATUS status = WdfDeviceStopIdleActual(DeviceContext->Device, TRUE, NULL, __LINE__, POWER_REFERENCE_MODULE);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "PowerUp: WdfDeviceStopIdle failed %!STATUS!, interface references %d", status,
                    ReadNoFence(&DeviceContext->InterfaceRefCount));
    }

    TraceEvents(TRACE_INFO, "PowerUp exit %!STATUS!", status);
    return status;
}

_Use_decl_annotations_
NTSTATUS PowerDown(PDEVICE_CONTEXT DeviceContext)
{
    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "PowerDown entry");

    WdfDeviceResumeIdleActual(DeviceContext->Device, NULL, __LINE__, POWER_REFERENCE_MODULE);

    TraceEvents(TRACE_INFO, "PowerDown exit %!STATUS!", STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

/* ---- Accepted requests: validated and traced, the sensor is not touched ---- */

_Use_decl_annotations_
NTSTATUS AcceptRecord(PDEVICE_CONTEXT DeviceContext, PULONG Record)
{
    if (DeviceContext == NULL || Record == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "AcceptRecord word 3 %u %!STATUS!", Record[3], STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS AcceptEntry(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entry)
{
    NTSTATUS status = DeviceContext != NULL ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;

    if (Entry != NULL) {
        TraceEvents(TRACE_INFO, "AcceptEntry %u %u %u %!STATUS!", (ULONG)Entry->Word1, (ULONG)Entry->Word2,
                    (ULONG)Entry->Word3, status);
    } else {
        TraceEvents(TRACE_INFO, "AcceptEntry no entry %!STATUS!", status);
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS AcceptPointer(PDEVICE_CONTEXT DeviceContext, PVOID Pointer)
{
    NTSTATUS status = (DeviceContext != NULL && Pointer != NULL) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;

    TraceEvents(TRACE_INFO, "AcceptPointer %!STATUS!", status);
    return status;
}

_Use_decl_annotations_
NTSTATUS AcceptValue(PDEVICE_CONTEXT DeviceContext, PULONG Value)
{
    NTSTATUS status = (DeviceContext != NULL && Value != NULL) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;

    TraceEvents(TRACE_INFO, "AcceptValue %u %!STATUS!", Value != NULL ? *Value : 0, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS AcceptPair(PDEVICE_CONTEXT DeviceContext, ULONG First, ULONG Second)
{
    NTSTATUS status = STATUS_INVALID_PARAMETER;

    if (DeviceContext != NULL) {
        TraceEvents(TRACE_INFO, "AcceptPair entry");
        status = STATUS_SUCCESS;
    }
    TraceEvents(TRACE_INFO, "AcceptPair %u %u %!STATUS!", First, Second, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS AcceptNotice(PDEVICE_CONTEXT DeviceContext)
{
    NTSTATUS status = STATUS_INVALID_PARAMETER;

    if (DeviceContext != NULL) {
        TraceEvents(TRACE_INFO, "AcceptNotice entry");
        status = STATUS_SUCCESS;
    }
    TraceEvents(TRACE_INFO, "AcceptNotice %!STATUS!", status);
    return status;
}

_Use_decl_annotations_
NTSTATUS AcceptEntryList(PDEVICE_CONTEXT DeviceContext, PSENSOR_ENTRY Entries, USHORT Count)
{
    if (Entries == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = DeviceContext != NULL ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;

    // The list does nothing but trace: with tracing off, one test decides it.
    if (!(TraceFlags() & TRACE_INFO)) {
        return status;
    }
    for (ULONG i = 0; i < Count; i++) {
        TraceEvents(TRACE_INFO, "AcceptEntryList entry %u: %u %u %u %!STATUS!", i, (ULONG)Entries[i].Word1,
                    (ULONG)Entries[i].Word2, (ULONG)Entries[i].Word3, status);
    }
    return status;
}
