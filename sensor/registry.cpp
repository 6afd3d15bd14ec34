/*
 * registry.cpp - configuration from the driver's service key.
 *
 * Driver entry keeps a private copy of the service key path; each device add
 * reads the six configuration values from it.
 */
#include "registry.h"
#include "description.h"
#include "../trace/trace.h"

// {6B8A2F31-5C1E-4D7A-9E42-1F0B3C6D8E91}
static const GUID RegistryTraceGuid = {0x6b8a2f31, 0x5c1e, 0x4d7a, {0x9e, 0x42, 0x1f, 0x0b, 0x3c, 0x6d, 0x8e, 0x91}};
TRACE_MODULE(RegistryTraceGuid);

#ifdef ALLOC_PRAGMA
#pragma alloc_text(INIT, SaveRegistryPath)
#pragma alloc_text(PAGE, FreeRegistryPath)
#pragma alloc_text(PAGE, ReadRegistryValue)
#pragma alloc_text(PAGE, ReadRegistryConfiguration)
#endif

UNICODE_STRING DriverRegistryPath;

_Use_decl_annotations_
NTSTATUS SaveRegistryPath(PCUNICODE_STRING RegistryPath)
{
    if (RegistryPath == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // Room for a terminator as well, so the copy can be used as a C string. A
    // counted string holds at most 65,535 bytes: a path of 32,767 characters
    // leaves no room for it, and a copy cut short would name another key.
    if ((ULONG)RegistryPath->Length + sizeof(WCHAR) > MAXUSHORT) {
        DriverRegistryPath.Length = 0;
        DriverRegistryPath.MaximumLength = 0;
        DriverRegistryPath.Buffer = NULL;
        TraceEvents(TRACE_ERROR, "SaveRegistryPath: a path of %u bytes leaves no room for its terminator %!STATUS!",
                    (ULONG)RegistryPath->Length, STATUS_NAME_TOO_LONG);
        return STATUS_NAME_TOO_LONG;
    }
    USHORT maximumLength = (USHORT)(RegistryPath->Length + sizeof(WCHAR));
    PWCH buffer = (PWCH)ExAllocatePoolWithTag(PagedPool, maximumLength, KORVANEL_POOL_TAG);
    if (buffer == NULL) {
        DriverRegistryPath.Length = 0;
        DriverRegistryPath.MaximumLength = 0;
        DriverRegistryPath.Buffer = NULL;
        TraceEvents(TRACE_ERROR, "SaveRegistryPath: allocation of %u bytes failed", maximumLength);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    DriverRegistryPath.Buffer = buffer;
    DriverRegistryPath.MaximumLength = maximumLength;
    DriverRegistryPath.Length = 0;
    RtlCopyUnicodeString(&DriverRegistryPath, RegistryPath);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
VOID FreeRegistryPath(VOID)
{
    PAGED_CODE();

    if (DriverRegistryPath.Buffer != NULL) {
        ExFreePoolWithTag(DriverRegistryPath.Buffer, KORVANEL_POOL_TAG);
        DriverRegistryPath.Buffer = NULL;
    }
    DriverRegistryPath.Length = 0;
    DriverRegistryPath.MaximumLength = 0;
}

// Room for any value a configuration read can meet; larger data fails the
// query and counts as absent.
#define REGISTRY_QUERY_BUFFER_SIZE 4096

_Use_decl_annotations_
NTSTATUS ReadRegistryValue(PCUNICODE_STRING KeyPath, PCSTR ValueName, ULONG ExpectedType, PVOID Buffer,
                           PULONG Length)
{
    PAGED_CODE();

    if (KeyPath == NULL || ValueName == NULL || Buffer == NULL || Length == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    ANSI_STRING ansiName;
    UNICODE_STRING valueName;
    RtlInitAnsiString(&ansiName, ValueName);
    NTSTATUS status = RtlAnsiStringToUnicodeString(&valueName, &ansiName, TRUE);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "ReadRegistryValue: %s name conversion failed %!STATUS!", ValueName, status);
        return status;
    }

    OBJECT_ATTRIBUTES attributes;
    HANDLE key;
    InitializeObjectAttributes(&attributes, (PUNICODE_STRING)KeyPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL,
                               NULL);
    status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        TraceEvents(TRACE_ERROR, "ReadRegistryValue: opening %wZ failed %!STATUS!", *KeyPath, status);
        RtlFreeUnicodeString(&valueName);
        return status;
    }

    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)ExAllocatePoolWithTag(
        PagedPool, REGISTRY_QUERY_BUFFER_SIZE, KORVANEL_POOL_TAG);
    if (information == NULL) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        TraceEvents(TRACE_ERROR, "ReadRegistryValue: %s query buffer %!STATUS!", ValueName, status);
    } else {
        ULONG resultLength = 0;
        status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, information,
                                 REGISTRY_QUERY_BUFFER_SIZE, &resultLength);
        if (!NT_SUCCESS(status)) {
            // An absent value ends here.
            TraceEvents(TRACE_ERROR, "ReadRegistryValue: %s query failed %!STATUS!", ValueName, status);
        } else if (information->Type != ExpectedType) {
            TraceEvents(TRACE_ERROR, "ReadRegistryValue: %s has type %u", ValueName, information->Type);
            status = STATUS_UNSUCCESSFUL;
        } else if (information->DataLength > *Length) {
            TraceEvents(TRACE_ERROR, "ReadRegistryValue: %s does not fit %u bytes", ValueName, *Length);
            status = STATUS_INVALID_PARAMETER;
        } else {
            *Length = information->DataLength;
            RtlCopyMemory(Buffer, information->Data, information->DataLength);
            status = STATUS_SUCCESS;
        }
        ExFreePoolWithTag(information, KORVANEL_POOL_TAG);
    }

    ZwClose(key);
    RtlFreeUnicodeString(&valueName);
    return status;
}

/* ---- The configuration values ---- */

// Where a value goes. The MIPI values stay raw in the context until
// InitSensorContext applies them (the lane count switches all four); the PDAF
// values go straight into the driver-wide description records.
typedef enum _REGISTRY_TARGET {
    RegistryMipiLanes,
    RegistryMipiPort,
    RegistryMipiDataFormat,
    RegistryMipiMBps,
    RegistryPdafInterleaveMode,
    RegistryPdafType,
} REGISTRY_TARGET;

// Read in this order.
static const struct {
    PCSTR Name;
    REGISTRY_TARGET Target;
} RegistryValues[] = {
    {"MipiLanes", RegistryMipiLanes},
    {"MipiPort", RegistryMipiPort},
    {"MipiDataFormat", RegistryMipiDataFormat},
    {"MipiMBps", RegistryMipiMBps},
    {"PDAFInterleaveMode", RegistryPdafInterleaveMode},
    {"PDAF_Type", RegistryPdafType},
};

// MIPI data formats whose PDAF data is framed differently.
#define MIPI_DATA_FORMAT_PDAF_FLAGGED 13
#define MIPI_DATA_FORMAT_PDAF_PLAIN   12

_IRQL_requires_max_(PASSIVE_LEVEL)
static VOID StoreRegistryValue(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ REGISTRY_TARGET Target, _In_ ULONG Value)
{
    switch (Target) {
    case RegistryMipiLanes:
        DeviceContext->RegMipiLanes = (UCHAR)Value;
        break;
    case RegistryMipiPort:
        DeviceContext->RegMipiPort = (UCHAR)Value;
        break;
    case RegistryMipiDataFormat:
        // The flags follow the two formats they describe; any other format
        // leaves them as an earlier device add set them.
        DeviceContext->RegMipiDataFormat = (UCHAR)Value;
        if (DeviceContext->RegMipiDataFormat == MIPI_DATA_FORMAT_PDAF_FLAGGED) {
            PdafInfoTemplate.FormatFlagA = 1;
            PdafInfoTemplate.FormatFlagB = 1;
        } else if (DeviceContext->RegMipiDataFormat == MIPI_DATA_FORMAT_PDAF_PLAIN) {
            PdafInfoTemplate.FormatFlagA = 0;
            PdafInfoTemplate.FormatFlagB = 0;
        }
        break;
    case RegistryMipiMBps:
        DeviceContext->RegMipiMBps = Value;
        break;
    case RegistryPdafInterleaveMode:
        PdafInfoTemplate.InterleaveMode = Value;
        break;
    case RegistryPdafType:
        SensorParameters.PdafType = Value;
        TraceEvents(TRACE_INFO, "ReadRegistryConfiguration PDAF_Type %u", Value);
        break;
    }
}

_Use_decl_annotations_
VOID ReadRegistryConfiguration(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return;
    }

    DeviceContext->RegMipiLanes = 0;
    DeviceContext->RegMipiPort = 0;

    // An absent, mistyped or oversized value keeps what its target holds; the
    // reader has traced why. A value shorter than 4 bytes is zero-extended.
    for (ULONG i = 0; i < RTL_NUMBER_OF(RegistryValues); i++) {
        ULONG value = 0;
        ULONG length = sizeof(value);
        if (NT_SUCCESS(ReadRegistryValue(&DriverRegistryPath, RegistryValues[i].Name, REG_DWORD, &value, &length))) {
            StoreRegistryValue(DeviceContext, RegistryValues[i].Target, value);
        }
    }
}
