/*
 * nvm_internal.h - what the memory sources share: the geometry of every
 * memory type, the page-engine record that says how one engine differs from
 * the others, the one read and one write body every engine runs, and the
 * memory's text traces.
 */
#pragma once

#include "nvm.h"
#include "../sensor/device_context.h"
#include "../bus/bus_lock.h"
#include "../bus/i2c.h"

/* A memory type's part: its size, and its write page in bytes; for the parts
 * seen as blocks (types 6, 9 and 12: one connection per 256-byte block) and
 * the paged memory of type 11 (erased and addressed by 1024-byte page), the
 * block or page. The type table, the commands and the engines all take their
 * geometry from here. Types 0 to 4 have no memory behind them. */
typedef struct _NVM_GEOMETRY {
    ULONG Size;
    ULONG PageSize;
} NVM_GEOMETRY;

inline constexpr NVM_GEOMETRY NvmGeometry[NVM_TYPE_COUNT] = {
    {0, 0},          {0, 0},          {0, 0},         {0, 0},          {0, 0},
    {0x4000, 0x40},  {0x800, 0x100},  {0x80, 0x8},    {0x1000, 0x20},  {0x400, 0x100},
    {0x2000, 0x20},  {0x2000, 0x400}, {0x800, 0x100},
};

/* The types whose commands and engines know their part. Types 5, 7 and 8
 * share CmdRead and CmdWrite, which take the geometry from the context. */
#define NVM_TYPE_BRCA016  6
#define NVM_TYPE_CAT24C   9
#define NVM_TYPE_M24C64   10
#define NVM_TYPE_DW9806B  11
#define NVM_TYPE_CAT24C16 12

/* Blocks (or pages) of a part seen as blocks. */
_IRQL_requires_max_(PASSIVE_LEVEL)
constexpr ULONG NvmBlockCount(_In_ ULONG Type)
{
    return NvmGeometry[Type].Size / NvmGeometry[Type].PageSize;
}

/* The largest write page of any part: the engines' transfer buffer holds it
 * after the address, and CmdWrite accepts no larger NvmPageSize. */
#define NVM_MAX_WRITE_PAGE 64
static_assert(NvmGeometry[5].PageSize == NVM_MAX_WRITE_PAGE, "a write page larger than the transfer buffer");
static_assert(NvmGeometry[7].PageSize <= NVM_MAX_WRITE_PAGE, "a write page larger than the transfer buffer");
static_assert(NvmGeometry[8].PageSize <= NVM_MAX_WRITE_PAGE, "a write page larger than the transfer buffer");
static_assert(NvmGeometry[NVM_TYPE_M24C64].PageSize <= NVM_MAX_WRITE_PAGE, "a write page larger than the transfer buffer");

/* How an engine puts the memory address on the wire. */
typedef enum _NVM_ADDRESSING {
    NvmAddress16 = 0,   /* address bits 15-8, then 7-0 */
    NvmAddressInBlock,  /* the byte within the 256-byte block; the block picks the connection */
    NvmAddressPaged,    /* (bits 15-8 OR page x 4), then 7-0: page x 1024 + offset */
} NVM_ADDRESSING;

/* One page engine. Everything an engine does that another does not is here. */
typedef struct _NVM_ENGINE {
    const CHAR* LengthText = NULL;   /* length refused */
    const CHAR* FailText = NULL;     /* write: the request failed; read: the address phase failed */
    const CHAR* DataFailText = NULL; /* read: the data phase failed */
    LONGLONG Timeout = 0;            /* each request's relative time-out, 100 ns units */
    LONG LengthLimit = 0;            /* write: fixed limit, compared unsigned; 0: NvmPageSize, compared signed */
    LONG DelayMs = 0;                /* write: wait after the call */
    UCHAR Addressing = 0;            /* NVM_ADDRESSING */
    UCHAR BlockCount = 0;            /* in-block engines: blocks 0.. on slots 2.. */
    UCHAR DelayAlways = 0;           /* write: also wait after a refused length or a failed request */
    UCHAR CleanupIsFailure = 0;      /* read: an address phase completing with STATUS_NOTIFY_CLEANUP fails */
    UCHAR LengthTextHasLength = 0;   /* read: the length text reports the length */
} NVM_ENGINE;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(NVM_ENGINE) == 48, "NVM_ENGINE layout");
#endif

EXTERN_C_START

extern const NVM_ENGINE NvmEngineRead0;
extern const NVM_ENGINE NvmEngineM24c64Read;
extern const NVM_ENGINE NvmEngineRomRead1;
extern const NVM_ENGINE NvmEngineRomRead2;
extern const NVM_ENGINE NvmEngineRomRead3;
extern const NVM_ENGINE NvmEngineRomRead4;
extern const NVM_ENGINE NvmEngineWrite0;
extern const NVM_ENGINE NvmEngineBulkWrite;
extern const NVM_ENGINE NvmEngineRomWrite1;
extern const NVM_ENGINE NvmEngineRomWrite2;
extern const NVM_ENGINE NvmEngineRomWrite3;

/* Block is the block (in-block engines) or the page (paged engines). */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS NvmEngineRead(_In_ const NVM_ENGINE* Engine, _In_ PDEVICE_CONTEXT DeviceContext, _In_ UCHAR Block,
                       _In_ USHORT Address, _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS NvmEngineWrite(_In_ const NVM_ENGINE* Engine, _In_ PDEVICE_CONTEXT DeviceContext, _In_ UCHAR Block,
                        _In_ USHORT Address, _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);

/* A text trace of the memory code: NvmType, the text and two numbers, sent
 * only while NvmType names a row. A null text sends nothing. */
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID NvmTrace(_In_ PDEVICE_CONTEXT DeviceContext, _In_ BOOLEAN Error, _In_opt_z_ const CHAR* Text, _In_ ULONG First,
              _In_ ULONG Second);
/* The two exit texts of a command: address and first byte (NVM_TRACE_NO_NUMBER
 * when the length leaves no byte), then length and status. */
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID NvmTraceExit(_In_ PDEVICE_CONTEXT DeviceContext, _In_reads_(2) const CHAR* const Texts[2], _In_ USHORT Address,
                  _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length, _In_ NTSTATUS Status);

EXTERN_C_END
