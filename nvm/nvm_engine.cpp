/*
 * nvm_engine.cpp - the page engines: one bus exchange with a memory over a
 * connection slot the caller has opened, under the BusLock the caller holds.
 * A read is an address phase (a write of the address bytes alone) followed by
 * a data phase (a read into the caller's buffer); a write is one request of
 * the address bytes and the data; an erase is one request of two command
 * bytes. The engines neither lock, open, close nor split at pages.
 *
 * All engines run one read body or one write body; NVM_ENGINE records say
 * how each named engine differs: address encoding, slot, length limit,
 * time-out, texts, the STATUS_NOTIFY_CLEANUP rule and the wait after a write.
 */
#include "nvm_internal.h"
#include "../bus/delay.h"
#include "../trace/trace.h"

/* Bytes of the longest address an engine sends. */
#define NVM_ADDRESS_BYTES 2

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static ULONG NvmEncodeAddress(_In_ const NVM_ENGINE* Engine, _In_ UCHAR Block, _In_ USHORT Address,
                              _Out_writes_bytes_to_(NVM_ADDRESS_BYTES, return) PUCHAR Bytes, _Out_ PULONG Slot);
EXTERN_C_END

// Synchronous bus requests and the waits after writes: passive level only.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, NvmEncodeAddress)
#pragma alloc_text(PAGE, NvmEngineRead)
#pragma alloc_text(PAGE, NvmEngineWrite)
#pragma alloc_text(PAGE, nvmRead0)
#pragma alloc_text(PAGE, M24c64RomRead)
#pragma alloc_text(PAGE, RomRead1)
#pragma alloc_text(PAGE, RomRead2)
#pragma alloc_text(PAGE, RomRead3)
#pragma alloc_text(PAGE, RomRead4)
#pragma alloc_text(PAGE, nvmWrite0)
#pragma alloc_text(PAGE, bulkWrite)
#pragma alloc_text(PAGE, RomWrite1)
#pragma alloc_text(PAGE, RomWrite2)
#pragma alloc_text(PAGE, RomWrite3)
#pragma alloc_text(PAGE, RomWrite4)
#pragma alloc_text(PAGE, PageErase3)
#endif

/* Relative time-outs in 100 ns units: a read may wait for a slow part for
 * 8 s; writes and erases get 50 ms. */
#define NVM_READ_TIMEOUT  (-80000000LL)
#define NVM_WRITE_TIMEOUT (-500000LL)

/* The paged memory's erase commands, and the waits its erases need. */
#define NVM_ERASE_MACRO     0x81
#define NVM_ERASE_PAGE      0x82
#define NVM_ERASE_CONFIRM   0xEE
#define NVM_MACRO_ERASE_MS  50
#define NVM_PAGE_ERASE_MS   10

/* The block count of the 16-bit and paged engines: they use slot 2 alone. */
#define NVM_ONE_SLOT 1

static const CHAR NvmBlockAddressText[] = "nvmRead0 Failed to read <0>!!";
static const CHAR NvmBlockDataText[] = "nvmRead0 Failed to read <1>!!";
static const CHAR NvmWriteLengthText[] = "nvmWrite0 data length invalid error!!";
static const CHAR NvmWriteFailText[] = "nvmWrite0 Failed to write !!";

/* Reads: the length text, the address-phase and data-phase failure texts;
 * only nvmRead0 reports the refused length and fails on STATUS_NOTIFY_CLEANUP. */
const NVM_ENGINE NvmEngineRead0 = {
    .LengthText = "nvmRead0 data length invalid error!!", .FailText = NvmBlockAddressText,
    .DataFailText = NvmBlockDataText, .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddress16,
    .BlockCount = NVM_ONE_SLOT, .CleanupIsFailure = 1, .LengthTextHasLength = 1};
const NVM_ENGINE NvmEngineM24c64Read = {
    .LengthText = "M24c64RomRead address is out of range!", .FailText = "M24c64RomRead Failed to read <0>!!",
    .DataFailText = "M24c64RomRead Failed to read <1>!!", .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddress16,
    .BlockCount = NVM_ONE_SLOT};
const NVM_ENGINE NvmEngineRomRead1 = {
    .LengthText = "RomRead1 address is out of range!", .FailText = NvmBlockAddressText,
    .DataFailText = NvmBlockDataText, .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddressInBlock,
    .BlockCount = NvmBlockCount(NVM_TYPE_BRCA016)};
const NVM_ENGINE NvmEngineRomRead2 = {
    .LengthText = "RomRead2 address is out of range!", .FailText = NvmBlockAddressText,
    .DataFailText = NvmBlockDataText, .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddressInBlock,
    .BlockCount = NvmBlockCount(NVM_TYPE_CAT24C)};
const NVM_ENGINE NvmEngineRomRead3 = {
    .LengthText = "RomRead3 address is out of range!", .FailText = NvmBlockAddressText,
    .DataFailText = NvmBlockDataText, .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddressPaged,
    .BlockCount = NVM_ONE_SLOT};
const NVM_ENGINE NvmEngineRomRead4 = {
    .LengthText = "RomRead4 address is out of range!", .FailText = NvmBlockAddressText,
    .DataFailText = NvmBlockDataText, .Timeout = NVM_READ_TIMEOUT, .Addressing = NvmAddressInBlock,
    .BlockCount = NvmBlockCount(NVM_TYPE_CAT24C16)};

/* Writes: the length limit and the wait after the call; only bulkWrite skips
 * the wait when nothing went out or the request failed. */
const NVM_ENGINE NvmEngineWrite0 = {
    .LengthText = NvmWriteLengthText, .FailText = NvmWriteFailText, .Timeout = NVM_WRITE_TIMEOUT, .LengthLimit = 0,
    .DelayMs = 20, .Addressing = NvmAddress16, .BlockCount = NVM_ONE_SLOT, .DelayAlways = 1};
const NVM_ENGINE NvmEngineBulkWrite = {
    .LengthText = "bulkWrite data length invalid error!!", .FailText = "bulkWrite Failed to write !!",
    .Timeout = NVM_WRITE_TIMEOUT, .LengthLimit = 32, .DelayMs = 5, .Addressing = NvmAddress16,
    .BlockCount = NVM_ONE_SLOT, .DelayAlways = 0};
/* RomWrite1 and RomWrite4 write to parts of the same eight blocks with the
 * same texts: one record serves both. */
static_assert(NvmBlockCount(NVM_TYPE_BRCA016) == NvmBlockCount(NVM_TYPE_CAT24C16), "RomWrite1 and RomWrite4 differ");
const NVM_ENGINE NvmEngineRomWrite1 = {
    .LengthText = NvmWriteLengthText, .FailText = NvmWriteFailText, .Timeout = NVM_WRITE_TIMEOUT, .LengthLimit = 16,
    .DelayMs = 5, .Addressing = NvmAddressInBlock, .BlockCount = NvmBlockCount(NVM_TYPE_BRCA016), .DelayAlways = 1};
const NVM_ENGINE NvmEngineRomWrite2 = {
    .LengthText = NvmWriteLengthText, .FailText = NvmWriteFailText, .Timeout = NVM_WRITE_TIMEOUT, .LengthLimit = 16,
    .DelayMs = 5, .Addressing = NvmAddressInBlock, .BlockCount = NvmBlockCount(NVM_TYPE_CAT24C), .DelayAlways = 1};
const NVM_ENGINE NvmEngineRomWrite3 = {
    .LengthText = NvmWriteLengthText, .FailText = NvmWriteFailText, .Timeout = NVM_WRITE_TIMEOUT, .LengthLimit = 32,
    .DelayMs = 5, .Addressing = NvmAddressPaged, .BlockCount = NVM_ONE_SLOT, .DelayAlways = 1};

/* The address bytes the engine sends before the data, and its slot. Returns
 * the number of address bytes, 0 for a block the engine has no slot for. */
_Use_decl_annotations_
static ULONG NvmEncodeAddress(const NVM_ENGINE* Engine, UCHAR Block, USHORT Address, PUCHAR Bytes, PULONG Slot)
{
    PAGED_CODE();

    if (Engine == NULL || Bytes == NULL || Slot == NULL) {
        return 0;
    }
    *Slot = I2C_SLOT_NVM;
    switch (Engine->Addressing) {
    case NvmAddressInBlock:
        // Each 256-byte block answers on a connection of its own: block b
        // on slot 2 + b.
        if (Block >= Engine->BlockCount) {
            return 0;
        }
        *Slot = I2C_SLOT_NVM + Block;
        Bytes[0] = (UCHAR)Address;
        return 1;
    case NvmAddressPaged:
        // The page folds into the high byte: page x 1024 + offset.
        Bytes[0] = (UCHAR)((UCHAR)(Address >> 8) | (UCHAR)(Block * 4));
        Bytes[1] = (UCHAR)Address;
        return 2;
    default:
        Bytes[0] = (UCHAR)(Address >> 8);
        Bytes[1] = (UCHAR)Address;
        return 2;
    }
}

_Use_decl_annotations_
NTSTATUS NvmEngineRead(const NVM_ENGINE* Engine, PDEVICE_CONTEXT DeviceContext, UCHAR Block, USHORT Address,
                       PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();

    if (Engine == NULL || DeviceContext == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Length <= 0) {
        NvmTrace(DeviceContext, TRUE, Engine->LengthText,
                 Engine->LengthTextHasLength ? (ULONG)Length : NVM_TRACE_NO_NUMBER, NVM_TRACE_NO_NUMBER);
        return Length == 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }

    UCHAR address[NVM_ADDRESS_BYTES];
    ULONG slot;
    ULONG addressBytes = NvmEncodeAddress(Engine, Block, Address, address, &slot);
    if (addressBytes == 0) {
        return STATUS_INVALID_PARAMETER;
    }

    // The address phase sets the part's address pointer; the data phase
    // reads on from there. The caller's BusLock keeps other transfers of
    // this device from falling between the two.
    NTSTATUS status = I2cTransfer(DeviceContext, slot, SpbTransferDirectionToDevice, address, addressBytes,
                              Engine->Timeout);
    if (!NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Engine->FailText, (ULONG)status, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }
    // Some controllers complete an aborted address phase with this success
    // code; the pointer is then not where the read expects it.
    if (status == STATUS_NOTIFY_CLEANUP && Engine->CleanupIsFailure) {
        NvmTrace(DeviceContext, TRUE, "nvmRead0 temp WA for MFT0 data abort: treat STATUS_NOTIFY_CLEANUP as fail!",
                 (ULONG)status, NVM_TRACE_NO_NUMBER);
        return STATUS_INVALID_PARAMETER;
    }

    status = I2cTransfer(DeviceContext, slot, SpbTransferDirectionFromDevice, Buffer, (ULONG)Length, Engine->Timeout);
    if (!NT_SUCCESS(status)) {
        NvmTrace(DeviceContext, TRUE, Engine->DataFailText, (ULONG)status, NVM_TRACE_NO_NUMBER);
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS NvmEngineWrite(const NVM_ENGINE* Engine, PDEVICE_CONTEXT DeviceContext, UCHAR Block, USHORT Address,
                        const UCHAR* Data, LONG Length)
{
    PAGED_CODE();

    if (Engine == NULL || DeviceContext == NULL || Data == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // A fixed limit is compared unsigned, so a negative length is too long;
    // the page-size limit is compared signed. The page-size limit is also
    // held to NVM_MAX_WRITE_PAGE: the transfer buffer lives on the stack and
    // has room for the largest write page of any part, no more. CmdWrite
    // never passes more (its geometry check refuses a larger NvmPageSize);
    // a caller that does gets the length refused and traced like any other
    // length past the limit, not a buffer overrun.
    LONG limit = Engine->LengthLimit;
    BOOLEAN refused;
    if (limit != 0) {
        refused = (ULONG)Length > (ULONG)limit;
    } else {
        limit = DeviceContext->NvmPageSize < NVM_MAX_WRITE_PAGE ? DeviceContext->NvmPageSize : NVM_MAX_WRITE_PAGE;
        refused = Length > limit || Length < 0;
    }

    UCHAR transfer[NVM_ADDRESS_BYTES + NVM_MAX_WRITE_PAGE];
    ULONG slot = I2C_SLOT_NVM;
    ULONG addressBytes = refused ? 0 : NvmEncodeAddress(Engine, Block, Address, transfer, &slot);
    NTSTATUS status;
    BOOLEAN sent = FALSE;
    if (refused) {
        NvmTrace(DeviceContext, TRUE, Engine->LengthText, (ULONG)Length, NVM_TRACE_NO_NUMBER);
        status = Length == 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    } else if (addressBytes == 0) {
        status = STATUS_INVALID_PARAMETER;
    } else {
        // Address and data in one request: the part starts its write cycle
        // at the stop condition. A length of 0 sends the address alone.
        RtlCopyMemory(&transfer[addressBytes], Data, (SIZE_T)Length);
        status = I2cTransfer(DeviceContext, slot, SpbTransferDirectionToDevice, transfer, addressBytes + (ULONG)Length,
                         Engine->Timeout);
        if (!NT_SUCCESS(status)) {
            NvmTrace(DeviceContext, TRUE, Engine->FailText, (ULONG)status, NVM_TRACE_NO_NUMBER);
            status = STATUS_INVALID_PARAMETER;
        } else {
            sent = TRUE;
        }
    }

    // The part does not answer during its write cycle: a fixed wait, not a
    // poll.
    if (sent || Engine->DelayAlways) {
        DelayMilliseconds(Engine->DelayMs);
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS nvmRead0(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineRead0, DeviceContext, 0, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS M24c64RomRead(PDEVICE_CONTEXT DeviceContext, USHORT Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineM24c64Read, DeviceContext, 0, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS RomRead1(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineRomRead1, DeviceContext, Block, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS RomRead2(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineRomRead2, DeviceContext, Block, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS RomRead3(PDEVICE_CONTEXT DeviceContext, UCHAR Page, USHORT Offset, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineRomRead3, DeviceContext, Page, Offset, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS RomRead4(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, PUCHAR Buffer, LONG Length)
{
    PAGED_CODE();
    return NvmEngineRead(&NvmEngineRomRead4, DeviceContext, Block, Address, Buffer, Length);
}

_Use_decl_annotations_
NTSTATUS nvmWrite0(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineWrite0, DeviceContext, 0, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS bulkWrite(PDEVICE_CONTEXT DeviceContext, USHORT Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineBulkWrite, DeviceContext, 0, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS RomWrite1(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineRomWrite1, DeviceContext, Block, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS RomWrite2(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineRomWrite2, DeviceContext, Block, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS RomWrite3(PDEVICE_CONTEXT DeviceContext, UCHAR Page, USHORT Offset, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineRomWrite3, DeviceContext, Page, Offset, Data, Length);
}

_Use_decl_annotations_
NTSTATUS RomWrite4(PDEVICE_CONTEXT DeviceContext, UCHAR Block, UCHAR Address, const UCHAR* Data, LONG Length)
{
    PAGED_CODE();
    return NvmEngineWrite(&NvmEngineRomWrite1, DeviceContext, Block, Address, Data, Length);
}

_Use_decl_annotations_
NTSTATUS PageErase3(PDEVICE_CONTEXT DeviceContext, UCHAR Page, UCHAR Macro)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (Page >= NvmBlockCount(NVM_TYPE_DW9806B)) {
        NvmTrace(DeviceContext, TRUE, "PageErase3 page length invalid error!!", Page, NVM_TRACE_NO_NUMBER);
    } else {
        UCHAR command[2] = {(UCHAR)((Macro ? NVM_ERASE_MACRO : NVM_ERASE_PAGE) | Page), NVM_ERASE_CONFIRM};
        status = I2cTransfer(DeviceContext, I2C_SLOT_NVM, SpbTransferDirectionToDevice, command, sizeof(command),
                         NVM_WRITE_TIMEOUT);
        if (!NT_SUCCESS(status)) {
            NvmTrace(DeviceContext, TRUE, "nvmWrite0 Failed to erase !!", (ULONG)status, NVM_TRACE_NO_NUMBER);
            status = STATUS_INVALID_PARAMETER;
        }
    }
    // The erase cycle, taken whatever happened.
    DelayMilliseconds(Macro ? NVM_MACRO_ERASE_MS : NVM_PAGE_ERASE_MS);
    return status;
}
