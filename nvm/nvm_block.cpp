/*
 * nvm_block.cpp - read and write commands of the memories cut into blocks:
 * the 256-byte-block parts of types 6, 9 and 12, whose block b answers on
 * connection slot 2 + b with an 8-bit address, and the DW9806B's memory of
 * eight 1024-byte pages behind slot 2 (type 11), which is erased at the start
 * of every write. One planning routine cuts the range into per-block pieces;
 * one transfer loop moves them in ascending block order through the page
 * engines. NVM_BLOCK_MEMBER says how the four members differ.
 */
#include "nvm_internal.h"
#include "../trace/trace.h"


/* The most blocks of any member: the plan has room for them all. */
#define NVM_MAX_BLOCKS 8
static_assert(NvmBlockCount(NVM_TYPE_BRCA016) <= NVM_MAX_BLOCKS, "a member with more blocks than a plan holds");
static_assert(NvmBlockCount(NVM_TYPE_CAT24C) <= NVM_MAX_BLOCKS, "a member with more blocks than a plan holds");
static_assert(NvmBlockCount(NVM_TYPE_CAT24C16) <= NVM_MAX_BLOCKS, "a member with more blocks than a plan holds");
static_assert(NvmBlockCount(NVM_TYPE_DW9806B) <= NVM_MAX_BLOCKS, "a member with more blocks than a plan holds");

/* One block's share of a transfer. */
typedef struct _NVM_BLOCK_PIECE {
    USHORT Start;   /* offset of the first byte within the block */
    LONG Length;    /* bytes to move in the block */
    BOOLEAN Active; /* the block takes part */
} NVM_BLOCK_PIECE;

/* How one member differs from the others; what a record leaves out is zero. */
typedef struct _NVM_BLOCK_MEMBER {
    const NVM_ENGINE* ReadEngine = NULL;
    const NVM_ENGINE* WriteEngine = NULL;
    USHORT BlockSize = 0;
    UCHAR BlockCount = 0;
    UCHAR ChunkSize = 0;            /* write chunks, not aligned to anything but the piece's start */
    BOOLEAN SlotPerBlock = 0;       /* slot 2 + b around each block; else slot 2 once for the command */
    BOOLEAN EraseBeforeWrite = 0;   /* a macro erase starts every write */
    BOOLEAN TraceEveryBlock = 0;    /* write: " write page" and the plan for every block, not only active ones */
    const CHAR* ReadNullText = NULL;
    const CHAR* WriteNullText = NULL;
    const CHAR* WriteRangeText = NULL;
    const CHAR* PieceTexts[2] = {}; /* after a block's last chunk: start and first byte, block and status */
    const CHAR* ReadExitTexts[2] = {};
    const CHAR* WriteExitTexts[2] = {};
} NVM_BLOCK_MEMBER;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(NVM_BLOCK_MEMBER) == 96, "NVM_BLOCK_MEMBER layout");
#endif

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static VOID NvmBlockPlan(_In_ const NVM_BLOCK_MEMBER* Member, _In_ USHORT Address, _In_ LONG Length,
                         _Out_writes_(NVM_MAX_BLOCKS) NVM_BLOCK_PIECE* Plan);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmBlockWritePiece(_In_ const NVM_BLOCK_MEMBER* Member, _In_ PDEVICE_CONTEXT DeviceContext,
                                   _In_ UCHAR Block, _In_ const NVM_BLOCK_PIECE* Piece,
                                   _In_reads_bytes_(Piece->Length) const UCHAR* Data);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmBlockTransfer(_In_ const NVM_BLOCK_MEMBER* Member, _Inout_ PDEVICE_CONTEXT DeviceContext,
                                 _In_ USHORT Address, _Inout_updates_bytes_(Length) PUCHAR Buffer, _In_ LONG Length,
                                 _In_ BOOLEAN Write);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NvmBlockCommand(_In_ const NVM_BLOCK_MEMBER* Member, _Inout_ PDEVICE_CONTEXT DeviceContext,
                                _In_ USHORT Address, _Inout_updates_bytes_(Length) PUCHAR Buffer, _In_ LONG Length,
                                _In_ BOOLEAN Write);
EXTERN_C_END

// They wait on BusLock, send synchronous bus requests and sleep: passive level.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, NvmBlockPlan)
#pragma alloc_text(PAGE, NvmBlockWritePiece)
#pragma alloc_text(PAGE, NvmBlockTransfer)
#pragma alloc_text(PAGE, NvmBlockCommand)
#pragma alloc_text(PAGE, Cmd_Brca016Read)
#pragma alloc_text(PAGE, Cmd_Brca016Write)
#pragma alloc_text(PAGE, Cmd_Cat24cRead)
#pragma alloc_text(PAGE, Cmd_Cat24cWrite)
#pragma alloc_text(PAGE, Cmd_Cat24c16Read)
#pragma alloc_text(PAGE, Cmd_Cat24c16Write)
#pragma alloc_text(PAGE, Cmd_DW9806BRead)
#pragma alloc_text(PAGE, Cmd_DW9806BWrite)
#endif

static const CHAR NvmReadRangeText[] = "CmdRead address is out of range!";
static const CHAR NvmReadNullText[] = "CmdRead read buffer pointer is NULL!!";
static const CHAR NvmWriteNullText[] = "write buffer pointer is NULL!!!";

/* A member's blocks, from its type's geometry. */
#define NVM_BLOCKS_OF(Type) .BlockSize = NvmGeometry[Type].PageSize, .BlockCount = NvmBlockCount(Type)

static const NVM_BLOCK_MEMBER NvmBrca016 = {
    .ReadEngine = &NvmEngineRomRead1, .WriteEngine = &NvmEngineRomWrite1, NVM_BLOCKS_OF(NVM_TYPE_BRCA016),
    .ChunkSize = 16, .SlotPerBlock = TRUE, .TraceEveryBlock = TRUE,
    .WriteRangeText = "Cmd_Brca016Write address is out of  range!!",
    .PieceTexts = {"RomWrite1 addr data:", "RomWrite1 page status:"},
    .ReadExitTexts = {"Cmd_Brca016Read addr data:", "Cmd_Brca016Read len status:"},
    .WriteExitTexts = {"Cmd_Brca016Write addr data:", "Cmd_Brca016Write len status:"},
};

static const NVM_BLOCK_MEMBER NvmCat24c = {
    .ReadEngine = &NvmEngineRomRead2, .WriteEngine = &NvmEngineRomWrite2, NVM_BLOCKS_OF(NVM_TYPE_CAT24C),
    .ChunkSize = 16, .SlotPerBlock = TRUE, .TraceEveryBlock = TRUE,
    .ReadNullText = NvmReadNullText, .WriteNullText = NvmWriteNullText,
    .WriteRangeText = "Cmd_Cat24cWrite address is out of  range!!",
    .PieceTexts = {"RomWrite2 addr data:", "RomWrite2 page status:"},
    .ReadExitTexts = {"Cmd_Cat24cRead addr data:", "Cmd_Cat24cRead len status:"},
    .WriteExitTexts = {"Cmd_Cat24cWrite addr data:", "Cmd_Cat24cWrite len status:"},
};

static const NVM_BLOCK_MEMBER NvmCat24c16 = {
    .ReadEngine = &NvmEngineRomRead4, .WriteEngine = &NvmEngineRomWrite1, NVM_BLOCKS_OF(NVM_TYPE_CAT24C16),
    .ChunkSize = 16, .SlotPerBlock = TRUE, .TraceEveryBlock = TRUE,
    .ReadNullText = NvmReadNullText, .WriteNullText = NvmWriteNullText,
    .WriteRangeText = "Cmd_Cat24c16Write address is out of  range!!",
    .PieceTexts = {"RomWrite4 addr data:", "RomWrite4 page status:"},
    .ReadExitTexts = {"Cmd_Cat24c16Read addr data:", "Cmd_Cat24c16Read len status:"},
    .WriteExitTexts = {"Cmd_Cat24c16Write addr data:", "Cmd_Cat24c16Write len status:"},
};

static const NVM_BLOCK_MEMBER NvmDW9806B = {
    .ReadEngine = &NvmEngineRomRead3, .WriteEngine = &NvmEngineRomWrite3, NVM_BLOCKS_OF(NVM_TYPE_DW9806B),
    .ChunkSize = 32, .SlotPerBlock = FALSE, .EraseBeforeWrite = TRUE, .TraceEveryBlock = FALSE,
    .WriteRangeText = "Cmd_DW9806BWrite address is out of  range!!",
    .PieceTexts = {"RomWrite3 addr data:", "RomWrite3 page status:"},
    .ReadExitTexts = {"Cmd_DW9806BRead addr data:", "Cmd_DW9806BRead len status:"},
    .WriteExitTexts = {"Cmd_DW9806BWrite addr data:", "Cmd_DW9806BWrite len status:"},
};

/* Cuts [Address, Address + Length) into per-block pieces. The caller has
 * checked that the range is not empty and lies within the memory. */
_Use_decl_annotations_
static VOID NvmBlockPlan(const NVM_BLOCK_MEMBER* Member, USHORT Address, LONG Length, NVM_BLOCK_PIECE* Plan)
{
    PAGED_CODE();

    if (Member == NULL || Plan == NULL) {
        return;
    }
    LONG size = Member->BlockSize;
    for (ULONG b = 0; b < NVM_MAX_BLOCKS; b++) {
        Plan[b].Start = 0;
        Plan[b].Length = size;
        Plan[b].Active = FALSE;
    }
    LONG first = Address / size;
    LONG last = (Address + Length - 1) / size;
    Plan[first].Active = TRUE;
    Plan[first].Start = (USHORT)(Address % size);
    if (first == last) {
        Plan[first].Length = Length;
        return;
    }
    Plan[first].Length = size - Address % size;
    // A range that ends on a block boundary takes the whole last block.
    LONG end = (Address + Length) % size;
    Plan[last].Length = end != 0 ? end : size;
    for (LONG b = first; b <= last; b++) {
        Plan[b].Active = TRUE;
    }
}

/* One block's piece in chunks from its start offset on: the chunks are
 * not aligned to the part's write page. */
_Use_decl_annotations_
static NTSTATUS NvmBlockWritePiece(const NVM_BLOCK_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, UCHAR Block,
                                   const NVM_BLOCK_PIECE* Piece, const UCHAR* Data)
{
    PAGED_CODE();

    if (Member == NULL || Piece == NULL || Data == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    USHORT offset = Piece->Start;
    LONG remaining = Piece->Length;
    const UCHAR* chunk = Data;
    while (remaining > Member->ChunkSize) {
        NTSTATUS status = NvmEngineWrite(Member->WriteEngine, DeviceContext, Block, offset, chunk, Member->ChunkSize);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        offset = (USHORT)(offset + Member->ChunkSize);
        chunk += Member->ChunkSize;
        remaining -= Member->ChunkSize;
    }
    NTSTATUS status = NvmEngineWrite(Member->WriteEngine, DeviceContext, Block, offset, chunk, remaining);
    if (NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, FALSE, Member->PieceTexts[0], Piece->Start, Data[0]);
        NvmTrace(DeviceContext, FALSE, Member->PieceTexts[1], Block, (ULONG)status);
    }
    return status;
}

/* Under BusLock: the range check, the plan, the erase and the pieces. Slot
 * 2 of a member that opens it once is left for the caller to close. */
_Use_decl_annotations_
static NTSTATUS NvmBlockTransfer(const NVM_BLOCK_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                                 PUCHAR Buffer, LONG Length, BOOLEAN Write)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    LONG limit = (LONG)Member->BlockCount * Member->BlockSize;
    if (Length < 1 || (LONGLONG)Address + Length > limit) {
        NvmTrace(DeviceContext, TRUE, Write ? Member->WriteRangeText : NvmReadRangeText, NVM_TRACE_NO_NUMBER,
                 NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }
    NVM_BLOCK_PIECE plan[NVM_MAX_BLOCKS];
    NvmBlockPlan(Member, Address, Length, plan);

    NTSTATUS status = STATUS_SUCCESS;
    if (!Member->SlotPerBlock) {
        status = InitI2c(DeviceContext, I2C_SLOT_NVM);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (Write && Member->EraseBeforeWrite) {
        // The memory takes writes only into erased cells, so the whole of it
        // is erased first, however short the write.
        LONG first = Address / Member->BlockSize;
        LONG last = (Address + Length - 1) / Member->BlockSize;
        NvmTrace(DeviceContext, FALSE, " erase macro", first == last ? (ULONG)Member->BlockCount : (ULONG)last + 1,
                 NVM_TRACE_NO_NUMBER);
        status = PageErase3(DeviceContext, 0, TRUE);
        if (!NT_SUCCESS(status)) {
            NvmTrace(DeviceContext, TRUE, "erase eeprom error!!!", (ULONG)status, NVM_TRACE_NO_NUMBER);
            return status;
        }
    }

    for (UCHAR b = 0; b < Member->BlockCount; b++) {
        const NVM_BLOCK_PIECE* piece = &plan[b];
        if (Write && Member->TraceEveryBlock) {
            NvmTrace(DeviceContext, FALSE, " write page", b, NVM_TRACE_NO_NUMBER);
            NvmTrace(DeviceContext, FALSE, " __________", piece->Start, (ULONG)piece->Length);
        }
        if (!piece->Active) {
            continue;
        }
        if (Write && !Member->TraceEveryBlock) {
            NvmTrace(DeviceContext, FALSE, " write page", b, (ULONG)piece->Length);
        }

        ULONG slot = I2C_SLOT_NVM + (Member->SlotPerBlock ? b : 0);
        if (Member->SlotPerBlock) {
            status = InitI2c(DeviceContext, slot);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        status = Write ? NvmBlockWritePiece(Member, DeviceContext, b, piece, Buffer)
                       : NvmEngineRead(Member->ReadEngine, DeviceContext, b, piece->Start, Buffer, piece->Length);
        if (Member->SlotPerBlock) {
            DeinitI2c(DeviceContext, slot);
        }
        if (!NT_SUCCESS(status)) {
            if (Write) {
                NvmTrace(DeviceContext, TRUE, "write eeprom error!!!", (ULONG)status, NVM_TRACE_NO_NUMBER);
            }
            return status;
        }
        Buffer += piece->Length;
    }
    return status;
}

/* Writes pass their data as Buffer; nothing is stored through it then. */
_Use_decl_annotations_
static NTSTATUS NvmBlockCommand(const NVM_BLOCK_MEMBER* Member, PDEVICE_CONTEXT DeviceContext, USHORT Address,
                                PUCHAR Buffer, LONG Length, BOOLEAN Write)
{
    PAGED_CODE();

    if (Member == NULL || DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Buffer == NULL) {
        NvmTrace(DeviceContext, TRUE, Write ? Member->WriteNullText : Member->ReadNullText, NVM_TRACE_NO_NUMBER,
                 NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }

    // As for CmdRead and CmdWrite, the wait's status is not examined: a
    // kernel-mode wait without time-out on an event returns only success.
    (VOID) AcquireBusLock(&DeviceContext->BusLock);
    NTSTATUS status = NvmBlockTransfer(Member, DeviceContext, Address, Buffer, Length, Write);

    // Every path from here: the cache copy of a write, slot 2 closed when it
    // was opened for the whole command, the lock released once.
    if (Write) {
        NvmCacheWrite(DeviceContext, Address, Buffer, Length);
    }
    if (!Member->SlotPerBlock) {
        DeinitI2c(DeviceContext, I2C_SLOT_NVM);
    }
    ReleaseBusLock(&DeviceContext->BusLock);
    NvmTraceExit(DeviceContext, Write ? Member->WriteExitTexts : Member->ReadExitTexts, Address, Buffer, Length,
                 status);
    return status;
}

/* The named read and write of each family: its member record and the
 * direction, nothing else. */
#define NVM_BLOCK_ROUTINES(Name, Member)                                                              \
    _Use_decl_annotations_                                                                            \
    NTSTATUS Cmd_##Name##Read(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length) \
    {                                                                                                 \
        PAGED_CODE();                                                                                 \
        return NvmBlockCommand(&Member, DeviceContext, Address, Buffer, Length, FALSE);               \
    }                                                                                                 \
    _Use_decl_annotations_                                                                            \
    NTSTATUS Cmd_##Name##Write(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length) \
    {                                                                                                 \
        PAGED_CODE();                                                                                 \
        return NvmBlockCommand(&Member, DeviceContext, Address, (PUCHAR)Data, Length, TRUE);          \
    }

NVM_BLOCK_ROUTINES(Brca016, NvmBrca016)
NVM_BLOCK_ROUTINES(Cat24c, NvmCat24c)
NVM_BLOCK_ROUTINES(Cat24c16, NvmCat24c16)
NVM_BLOCK_ROUTINES(DW9806B, NvmDW9806B)
