/*
 * spb.h - the Simple Peripheral Bus request the driver sends to an I2C
 * controller: IOCTL_SPB_EXECUTE_SEQUENCE with a transfer list, in the
 * published x64 layout. A WDK build uses the real spb.h.
 */
#pragma once

#define IOCTL_SPB_EXECUTE_SEQUENCE 0x41808

typedef enum SPB_TRANSFER_DIRECTION {
    SpbTransferDirectionNone = 0,
    SpbTransferDirectionFromDevice = 1,
    SpbTransferDirectionToDevice = 2,
    SpbTransferDirectionMax = 3,
} SPB_TRANSFER_DIRECTION;

typedef enum SPB_TRANSFER_BUFFER_FORMAT {
    SpbTransferBufferFormatInvalid = 0,
    SpbTransferBufferFormatSimple = 1,
    SpbTransferBufferFormatList = 2,
    SpbTransferBufferFormatSimpleNonPaged = 3,
    SpbTransferBufferFormatMdl = 4,
    SpbTransferBufferFormatMax = 5,
} SPB_TRANSFER_BUFFER_FORMAT;

typedef struct SPB_TRANSFER_BUFFER_LIST_ENTRY {
    PVOID Buffer;
    ULONG BufferCb;
} SPB_TRANSFER_BUFFER_LIST_ENTRY, *PSPB_TRANSFER_BUFFER_LIST_ENTRY;

typedef struct SPB_TRANSFER_BUFFER {
    SPB_TRANSFER_BUFFER_FORMAT Format;
    union {
        SPB_TRANSFER_BUFFER_LIST_ENTRY Simple;
        struct {
            SPB_TRANSFER_BUFFER_LIST_ENTRY* List;
            ULONG ListCe;
        } BufferList;
        PMDL Mdl;
    };
} SPB_TRANSFER_BUFFER, *PSPB_TRANSFER_BUFFER;

typedef struct SPB_TRANSFER_LIST_ENTRY {
    SPB_TRANSFER_DIRECTION Direction;
    ULONG DelayInUs;
    SPB_TRANSFER_BUFFER Buffer;
} SPB_TRANSFER_LIST_ENTRY, *PSPB_TRANSFER_LIST_ENTRY;

typedef struct SPB_TRANSFER_LIST {
    ULONG Size;
    ULONG Reserved;
    ULONG TransferCount;
    SPB_TRANSFER_LIST_ENTRY Transfers[1];
} SPB_TRANSFER_LIST, *PSPB_TRANSFER_LIST;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(SPB_TRANSFER_LIST_ENTRY) == 32, "SPB_TRANSFER_LIST_ENTRY layout");
static_assert(sizeof(SPB_TRANSFER_LIST) == 48, "one-entry SPB_TRANSFER_LIST layout");
static_assert(FIELD_OFFSET(SPB_TRANSFER_LIST, Transfers) == 16, "SPB_TRANSFER_LIST layout");
#endif
