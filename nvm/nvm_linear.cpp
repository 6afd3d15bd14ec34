/*
 * nvm_linear.cpp - read and write commands of the memories that take a
 * 16-bit address on connection slot 2: CmdRead and CmdWrite (types 5, 7 and
 * 8, geometry from the context) and Cmd_M24c64Read and Cmd_M24c64Write
 * (type 10, 8 KiB in 32-byte pages). Each holds BusLock for its bus work,
 * opens and closes slot 2 around it and, for writes, cuts the data at page
 * boundaries into page-engine calls; every write also lands in the cache.
 *
 * One read body and one write body; NVM_LINEAR_MEMBER says where the two
 * members differ (texts, lock order, whether the wait's status counts, the
 * geometry, the engines and their chunk size).
 */
#include "nvm_internal.h"
#include "../trace/trace.h"


/* How one member differs from the other; what a record leaves out is zero. */
typedef struct _NVM_LINEAR_MEMBER {
    const NVM_ENGINE* ReadEngine = NULL;
    const NVM_ENGINE* WriteEngine = NULL;
    LONG FixedSize = 0;                 /* memory size; 0: NvmSize, after the geometry check */
    LONG ChunkSize = 0;                 /* whole write chunks; 0: NvmPageSize */
    BOOLEAN RangeBeforeLock = 0;        /* read: a range violation returns before the lock */
    BOOLEAN WaitChecked = 0;            /* a failed wait for BusLock returns its status at once */
    const CHAR* ReadNullText = NULL;
    const CHAR* WriteNullText = NULL;
    const CHAR* ReadWaitText = NULL;
    const CHAR* WriteWaitText = NULL;
    const CHAR* ReadRangeText = NULL;
    const CHAR* WriteRangeText = NULL;
    const CHAR* OpenFailText = NULL;
    const CHAR* ReadFailText = NULL;
    const CHAR* ChunkFailTexts[3] = {}; /* first chunk, whole chunks, tail */
    const CHAR* DoneText = NULL;
    const CHAR* ReadExitTexts[2] = {};
    const CHAR* WriteExitTexts[2] = {};
} NVM_LINEAR_MEMBER;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(NVM_LINEAR_MEMBER) == 160, "NVM_LINEAR_MEMBER layout");
#endif

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static BOOLEAN NvmLinearInRange(_In_ LONG Size, _In_ USHORT Address, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmLinearPrepare(_In_ const NVM_LINEAR_MEMBER* Member, _Inout_ PDEVICE_CONTEXT DeviceContext,
                                 _In_ USHORT Address, _In_ LONG Length, _In_opt_z_ const CHAR* RangeText);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmLinearRead(_In_ const NVM_LINEAR_MEMBER* Member, _Inout_ PDEVICE_CONTEXT DeviceContext,
                              _In_ USHORT Address, _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmLinearWritePages(_In_ const NVM_LINEAR_MEMBER* Member, _In_ PDEVICE_CONTEXT DeviceContext,
                                    _In_ USHORT Address, _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmLinearWrite(_In_ const NVM_LINEAR_MEMBER* Member, _Inout_ PDEVICE_CONTEXT DeviceContext,
                               _In_ USHORT Address, _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
EXTERN_C_END

// They wait on BusLock and send synchronous bus requests: passive level.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, NvmLinearInRange)
#pragma alloc_text(PAGE, NvmLinearPrepare)
#pragma alloc_text(PAGE, NvmLinearRead)
#pragma alloc_text(PAGE, NvmLinearWritePages)
#pragma alloc_text(PAGE, NvmLinearWrite)
#pragma alloc_text(PAGE, CmdRead)
#pragma alloc_text(PAGE, CmdWrite)
#pragma alloc_text(PAGE, Cmd_M24c64Read)
#pragma alloc_text(PAGE, Cmd_M24c64Write)
#endif

/* CmdRead and CmdWrite accept from the context a page of 1 to
 * NVM_MAX_WRITE_PAGE bytes and a memory larger than this. */
#define NVM_MIN_SIZE_ABOVE 64

static const NVM_LINEAR_MEMBER NvmLinearGeneric = {
    .ReadEngine = &NvmEngineRead0,
    .WriteEngine = &NvmEngineWrite0,
    .ReadRangeText = "CmdRead address is out of range!",
    .WriteRangeText = "CmdWrite address is out of  range!!",
    .ReadFailText = "CmdRead Error!",
    .ChunkFailTexts = {"CmdWrite Error 0!!", "CmdWrite Error 1!!", "CmdWrite Error 2!!"},
    .DoneText = "CmdWrite Done!!",
    .ReadExitTexts = {"CmdRead addr data:", "CmdRead len status:"},
    .WriteExitTexts = {"CmdWrite addr data:", "CmdWrite len status:"},
};

static const NVM_LINEAR_MEMBER NvmLinearM24c64 = {
    .ReadEngine = &NvmEngineM24c64Read,
    .WriteEngine = &NvmEngineBulkWrite,
    .FixedSize = NvmGeometry[NVM_TYPE_M24C64].Size,
    .ChunkSize = NvmGeometry[NVM_TYPE_M24C64].PageSize,
    .RangeBeforeLock = TRUE,
    .WaitChecked = TRUE,
    .ReadNullText = "CmdRead read buffer pointer is NULL!!",
    .WriteNullText = "write buffer pointer is NULL!!!",
    .ReadWaitText = "KeWaitForSingleObject!",
    .WriteWaitText = "KeWaitForSingleObject !!",
    .ReadRangeText = "Cmd_M24c64Read address is out of  range!!",
    .WriteRangeText = "Cmd_M24c64Write address is out of  range!!",
    .OpenFailText = "InitI2c error!!!",
    .ReadFailText = "M24c64RomRead Error!",
    .ChunkFailTexts = {NULL, "Cmd_M24c64Write Error 1!!", "Cmd_M24c64Write Error 2!!"},
    .DoneText = "Cmd_M24c64Write Done!!",
    .ReadExitTexts = {"Cmd_M24c64Read addr data:", "Cmd_M24c64Read len status:"},
    .WriteExitTexts = {"Cmd_m24c64Write addr data:", "Cmd_m24c64Write len status:"},
};

/* The range rule of both members: at least one byte, none past the end
 * (the sum cannot overflow in 64 bits). */
_Use_decl_annotations_
static BOOLEAN NvmLinearInRange(LONG Size, USHORT Address, LONG Length)
{
    PAGED_CODE();

    return Length >= 1 && (LONGLONG)Address + Length <= Size;
}

/* Under BusLock: the geometry and range checks, then slot 2 opened. A null
 * RangeText: the range was checked before the lock. */
_Use_decl_annotations_
static NTSTATUS NvmLinearPrepare(const NVM_LINEAR_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                                 LONG Length, const CHAR* RangeText)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    LONG size = Member->FixedSize;
    if (size == 0) {
        if (DeviceContext->NvmPageSize < 1 || DeviceContext->NvmPageSize > NVM_MAX_WRITE_PAGE ||
            DeviceContext->NvmSize <= NVM_MIN_SIZE_ABOVE) {
            return STATUS_UNSUCCESSFUL;
        }
        size = DeviceContext->NvmSize;
    }
    if (RangeText != NULL && !NvmLinearInRange(size, Address, Length)) {
        NvmTrace(DeviceContext, TRUE, RangeText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = InitI2c(DeviceContext, I2C_SLOT_NVM);
    if (!NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Member->OpenFailText, (ULONG)status, NVM_TRACE_NO_NUMBER);
    }
    return status;
}

_Use_decl_annotations_
static NTSTATUS NvmLinearRead(const NVM_LINEAR_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                              PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Buffer == NULL) {
        NvmTrace(DeviceContext, TRUE, Member->ReadNullText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Member->RangeBeforeLock && !NvmLinearInRange(Member->FixedSize, Address, Length)) {
        NvmTrace(DeviceContext, TRUE, Member->ReadRangeText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = AcquireBusLock(&DeviceContext->BusLock);
    if (Member->WaitChecked && !NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Member->ReadWaitText, (ULONG)status, NVM_TRACE_NO_NUMBER);
        return status;
    }

    // From here every path closes slot 2 and releases the lock once.
    status = NvmLinearPrepare(Member, DeviceContext, Address, Length,
                              Member->RangeBeforeLock ? NULL : Member->ReadRangeText);
    if (NT_SUCCESS(status)) {
        // One address phase and one data phase for the whole range: a
        // sequential read is not bounded by the write page.
        status = NvmEngineRead(Member->ReadEngine, DeviceContext, 0, Address, Buffer, Length);
        if (!NT_SUCCESS(status)) {
            NvmTrace(DeviceContext, TRUE, Member->ReadFailText, (ULONG)status, NVM_TRACE_NO_NUMBER);
        }
    }

    DeinitI2c(DeviceContext, I2C_SLOT_NVM);
    ReleaseBusLock(&DeviceContext->BusLock);
    NvmTraceExit(DeviceContext, Member->ReadExitTexts, Address, Buffer, Length, status);
    return status;
}

/* The data cut at page boundaries: the rest of the first page, whole
 * chunks, then the tail. Every chunk lies inside one write page, because a
 * part rolls a page write over within its page. */
_Use_decl_annotations_
static NTSTATUS NvmLinearWritePages(const NVM_LINEAR_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                                    const UCHAR* Data, LONG Length)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL || Data == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    // The M24c64 write takes its position in the page from NvmPageSize; with
    // no page size there it falls back to the part's own page, its chunk.
    // (CmdWrite never gets here without a page size.)
    LONG page = DeviceContext->NvmPageSize > 0 ? DeviceContext->NvmPageSize : Member->ChunkSize;
    LONG chunk = Member->ChunkSize != 0 ? Member->ChunkSize : page;
    const NVM_ENGINE* engine = Member->WriteEngine;

    LONG first = chunk - (LONG)(Address % page);
    if (first > Length) {
        first = Length;
    }
    NTSTATUS status = NvmEngineWrite(engine, DeviceContext, 0, Address, Data, first);
    if (!NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Member->ChunkFailTexts[0], (ULONG)status, NVM_TRACE_NO_NUMBER);
        return status;
    }
    LONG rest = Length - first;
    Address = (USHORT)(Address + first);
    Data += first;
    if (rest == 0) {
        NvmTrace(DeviceContext, FALSE, Member->DoneText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return status;
    }

    for (LONG whole = rest / chunk; whole > 0; whole--) {
        status = NvmEngineWrite(engine, DeviceContext, 0, Address, Data, chunk);
        if (!NT_SUCCESS(status)) {
            NvmTrace(DeviceContext, TRUE, Member->ChunkFailTexts[1], (ULONG)status, NVM_TRACE_NO_NUMBER);
            return status;
        }
        Address = (USHORT)(Address + chunk);
        Data += chunk;
    }

    LONG tail = rest % chunk;
    if (tail == 0) {
        NvmTrace(DeviceContext, FALSE, Member->DoneText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return status;
    }
    status = NvmEngineWrite(engine, DeviceContext, 0, Address, Data, tail);
    if (!NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Member->ChunkFailTexts[2], (ULONG)status, NVM_TRACE_NO_NUMBER);
    }
    return status;
}

_Use_decl_annotations_
static NTSTATUS NvmLinearWrite(const NVM_LINEAR_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                               const UCHAR* Data, LONG Length)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Data == NULL) {
        NvmTrace(DeviceContext, TRUE, Member->WriteNullText, NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = AcquireBusLock(&DeviceContext->BusLock);
    if (Member->WaitChecked && !NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Member->WriteWaitText, (ULONG)status, NVM_TRACE_NO_NUMBER);
        return status;
    }

    // From here every path copies the data into the cache, closes slot 2
    // and releases the lock once, whatever reached the memory.
    status = NvmLinearPrepare(Member, DeviceContext, Address, Length, Member->WriteRangeText);
    if (NT_SUCCESS(status)) {
        status = NvmLinearWritePages(Member, DeviceContext, Address, Data, Length);
    }

    NvmCacheWrite(DeviceContext, Address, Data, Length);
    DeinitI2c(DeviceContext, I2C_SLOT_NVM);
    ReleaseBusLock(&DeviceContext->BusLock);
    NvmTraceExit(DeviceContext, Member->WriteExitTexts, Address, Data, Length, status);
    return status;
}

_Use_decl_annotations_
NTSTATUS CmdRead(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmLinearRead(&NvmLinearGeneric, DeviceContext, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS CmdWrite(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmLinearWrite(&NvmLinearGeneric, DeviceContext, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS Cmd_M24c64Read(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmLinearRead(&NvmLinearM24c64, DeviceContext, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS Cmd_M24c64Write(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmLinearWrite(&NvmLinearM24c64, DeviceContext, Address, Data, Length);
}
