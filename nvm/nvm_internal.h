/*
 * nvm_internal.h - what the memory sources share: the page-engine record
 * that says how one engine differs from the others, the one read and one
 * write body every engine runs, and the memory's text traces.
 */
#pragma once

#include "nvm.h"
#include "../sensor/device_context.h"
#include "../bus/bus_lock.h"

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

/* The longest data an engine sends after the address: the largest write
 * page of any memory type. */
#define NVM_ENGINE_MAX_DATA 64

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
extern const NVM_ENGINE NvmEngineRomWrite4;

/* Block is the block (in-block engines) or the page (paged engines). */
NTSTATUS NvmEngineRead(const NVM_ENGINE* Engine, PDEVICE_CONTEXT DeviceContext, UCHAR Block, USHORT Address,
                       PUCHAR Buffer, LONG Length);
NTSTATUS NvmEngineWrite(const NVM_ENGINE* Engine, PDEVICE_CONTEXT DeviceContext, UCHAR Block, USHORT Address,
                        const UCHAR* Data, LONG Length);

/* A text trace of the memory code: NvmType, the text and two numbers, sent
 * only while NvmType names a row. A null text sends nothing. */
VOID NvmTrace(PDEVICE_CONTEXT DeviceContext, BOOLEAN Error, const CHAR* Text, ULONG First, ULONG Second);
/* The two exit texts of a command: address and first byte (NVM_TRACE_NO_NUMBER
 * when the length leaves no byte), then length and status. */
VOID NvmTraceExit(PDEVICE_CONTEXT DeviceContext, const CHAR* const Texts[2], USHORT Address, const UCHAR* Data,
                  LONG Length, NTSTATUS Status);

EXTERN_C_END
