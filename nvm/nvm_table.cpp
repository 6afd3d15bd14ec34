/*
 * nvm_table.cpp - the memory type table, the 750-byte cache that the memory
 * is loaded into once and served from afterwards, the stub operations of
 * types 3 and 4, and what every memory source shares: its text traces.
 */
#include "nvm_internal.h"
#include "../trace/trace.h"

// {5C0E61A2-4B7D-4E39-9A1F-2D8C73B04E95}
static const GUID NvmTableTraceGuid = {0x5c0e61a2, 0x4b7d, 0x4e39, {0x9a, 0x1f, 0x2d, 0x8c, 0x73, 0xb0, 0x4e, 0x95}};
TRACE_MODULE(NvmTableTraceGuid);

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmFillCache(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ ULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmStub(_In_ PDEVICE_CONTEXT DeviceContext, _In_ USHORT Address, _In_ const VOID* Buffer,
                        _In_ LONG Length);
EXTERN_C_END

// The load, the cache copy and the traces run inside commands that wait on
// BusLock and on synchronous bus requests: passive level throughout.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, NvmFillCache)
#pragma alloc_text(PAGE, NvmLoad)
#pragma alloc_text(PAGE, NvmCacheWrite)
#pragma alloc_text(PAGE, NvmStub)
#pragma alloc_text(PAGE, NvmStubRead)
#pragma alloc_text(PAGE, NvmStubWrite)
#pragma alloc_text(PAGE, NvmTrace)
#pragma alloc_text(PAGE, NvmTraceExit)
#endif

/* Type 3 loads a fixed 432 bytes through its stub, whatever the cache length. */
#define NVM_STUB_LOAD_LENGTH 432

/* Every type loads from address 0 through NvmLoad. */
#define NVM_ROW(Type, Write, Read) \
    {Type, NvmGeometry[Type].Size, NvmGeometry[Type].PageSize, 0, Write, Read, NvmLoad}

constexpr NVM_DRIVER NvmDriverTable[NVM_TYPE_COUNT] = {
    NVM_ROW(0, NULL, NULL),
    NVM_ROW(1, NULL, NULL),
    NVM_ROW(2, NULL, NULL),
    NVM_ROW(3, NvmStubWrite, NvmStubRead),
    NVM_ROW(4, NvmStubWrite, NvmStubRead),
    NVM_ROW(5, CmdWrite, CmdRead),
    NVM_ROW(NVM_TYPE_BRCA016, Cmd_Brca016Write, Cmd_Brca016Read),
    NVM_ROW(7, CmdWrite, CmdRead),
    NVM_ROW(8, CmdWrite, CmdRead),
    NVM_ROW(NVM_TYPE_CAT24C, Cmd_Cat24cWrite, Cmd_Cat24cRead),
    NVM_ROW(NVM_TYPE_M24C64, Cmd_M24c64Write, Cmd_M24c64Read),
    NVM_ROW(NVM_TYPE_DW9806B, Cmd_DW9806BWrite, Cmd_DW9806BRead),
    NVM_ROW(NVM_TYPE_CAT24C16, Cmd_Cat24c16Write, Cmd_Cat24c16Read),
};

/* What no command reads from a row, held at build time: the selected row is
 * found by index, so a row names its own type; the cache mirrors address i
 * at position i, so every load starts at address 0; and the commands of the
 * parts with a fixed geometry take it from NvmGeometry, so a row's size and
 * page may not say otherwise (types 5, 7 and 8 hand theirs to the context,
 * where the commands check against them). */
static consteval bool NvmRowsAgreeWithTheirParts()
{
    for (ULONG type = 0; type < NVM_TYPE_COUNT; type++) {
        const NVM_DRIVER& row = NvmDriverTable[type];
        if (row.Type != type || row.LoadAddress != 0 || row.Size != NvmGeometry[type].Size ||
            row.PageSize != NvmGeometry[type].PageSize) {
            return false;
        }
    }
    return true;
}
static_assert(NvmRowsAgreeWithTheirParts(), "an NVM_DRIVER row disagrees with its type's part");

/* Reads the selected memory into the cache. Types without a read (0 to 2,
 * and any number past the table) have nothing to load. */
_Use_decl_annotations_
static NTSTATUS NvmFillCache(PDEVICE_CONTEXT DeviceContext, ULONG Length)
{
    PAGED_CODE();

    ULONG type = DeviceContext->NvmType;
    NTSTATUS status;
    if (type == 3) {
        status = NvmStubRead(DeviceContext, 0, DeviceContext->NvmCache, NVM_STUB_LOAD_LENGTH);
    } else if (type < NVM_TYPE_COUNT && NvmDriverTable[type].Read != NULL) {
        status = NvmDriverTable[type].Read(DeviceContext, (USHORT)NvmDriverTable[type].LoadAddress,
                                           DeviceContext->NvmCache, (LONG)Length);
    } else {
        return STATUS_SUCCESS;
    }

    if (NT_SUCCESS(status)) {
        DeviceContext->NvmLoaded = 1;
    } else {
        // Still unloaded: the next load reads again.
        TraceEvents(TRACE_ERROR, "NvmLoad: reading the memory failed");
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS NvmLoad(PDEVICE_CONTEXT DeviceContext, PULONG Size, PUCHAR Buffer)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Size == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    TraceEvents(TRACE_INFO, "NvmLoad entry");

    // The cache holds 750 bytes: a larger cache length in the context is
    // taken as 750 everywhere (the size reported, the copy and the read), so
    // that neither the cache nor the caller's buffer is overrun.
    ULONG length = DeviceContext->NvmCacheLength;
    if (length > NVM_CACHE_SIZE) {
        length = NVM_CACHE_SIZE;
    }

    NTSTATUS status = STATUS_SUCCESS;
    if (*Size < length) {
        // The caller learns the size it needs; nothing is loaded or copied.
        status = STATUS_BUFFER_OVERFLOW;
    } else if (DeviceContext->NvmLoaded) {
        RtlCopyMemory(Buffer, DeviceContext->NvmCache, length);
    } else if (!DeviceContext->NvmEnabled || !DeviceContext->NvmAvailable) {
        TraceEvents(TRACE_ERROR, "NvmLoad: memory not available, type %u, cache length %u", DeviceContext->NvmType,
                    DeviceContext->NvmCacheLength);
    } else {
        // The caller's buffer is left alone: it gets the data on its next
        // call, from the cache.
        status = NvmFillCache(DeviceContext, length);
    }
    *Size = length;

    TraceEvents(TRACE_INFO, "NvmLoad exit: size %u, buffer %p, %!STATUS!", *Size, Buffer, status);
    return status;
}

_Use_decl_annotations_
VOID NvmCacheWrite(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Data == NULL || Address >= NVM_CACHE_SIZE || Length < 1) {
        return;
    }
    // Bytes past the cache's end are dropped: the cache mirrors only the
    // memory's first 750 bytes.
    LONG room = NVM_CACHE_SIZE - Address;
    RtlCopyMemory(&DeviceContext->NvmCache[Address], Data, (SIZE_T)(Length < room ? Length : room));
}

/* Types 3 and 4 have no memory behind them: the operations accept the call
 * and move nothing. */
_Use_decl_annotations_
static NTSTATUS NvmStub(PDEVICE_CONTEXT DeviceContext, USHORT Address, const VOID* Buffer, LONG Length)
{
    PAGED_CODE();

    NTSTATUS status = DeviceContext != NULL && Buffer != NULL ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    TraceEvents(TRACE_INFO, "NvmStub: address %u, length %u, %!STATUS!", Address, (ULONG)Length, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS NvmStubRead(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmStub(DeviceContext, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS NvmStubWrite(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmStub(DeviceContext, Address, Data, Length);
}

_Use_decl_annotations_
VOID NvmTrace(PDEVICE_CONTEXT DeviceContext, BOOLEAN Error, const CHAR* Text, ULONG First, ULONG Second)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Text == NULL || DeviceContext->NvmType >= NVM_TYPE_COUNT) {
        return;
    }
    if (Error) {
        TraceEvents(TRACE_ERROR, "NvmType %u: %s 0x%x 0x%x", DeviceContext->NvmType, Text, First, Second);
    } else {
        TraceEvents(TRACE_INFO, "NvmType %u: %s 0x%x 0x%x", DeviceContext->NvmType, Text, First, Second);
    }
}

_Use_decl_annotations_
VOID NvmTraceExit(PDEVICE_CONTEXT DeviceContext, const CHAR* const Texts[2], USHORT Address, const UCHAR* Data,
                  LONG Length, NTSTATUS Status)
{
    PAGED_CODE();

    if (Texts == NULL || Data == NULL) {
        return;
    }
    // The first byte only when the caller's buffer has one.
    NvmTrace(DeviceContext, FALSE, Texts[0], Address, Length >= 1 ? Data[0] : NVM_TRACE_NO_NUMBER);
    NvmTrace(DeviceContext, FALSE, Texts[1], (ULONG)Length, (ULONG)Status);
}
