/*
 * nvm.h - the module memory: the NVM_DRIVER type table, the 750-byte cache
 * the memory is loaded into once, the page engines that make one bus
 * exchange with a memory, and the read and write commands of the linear
 * (16-bit address) and block-addressed memories.
 *
 * A component that selects a memory sets NvmType, NvmCacheLength, NvmSize,
 * NvmPageSize and NvmAvailable in the device context, provides connection
 * slot 2 (slots 2 to 9 for the parts seen through one connection per
 * 256-byte block) and calls the operations of row NvmType.
 */
#pragma once

#include "../wdk/wdk.h"

struct _DEVICE_CONTEXT;

#define NVM_TYPE_COUNT 13

/* Number of a trace text that has nothing to report. */
#define NVM_TRACE_NO_NUMBER 2570 /* 0x0A0A */

EXTERN_C_START

typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NVM_WRITE_ROUTINE(
    _Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address, _In_reads_bytes_(Length) const UCHAR* Data,
    _In_ LONG Length);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NVM_READ_ROUTINE(
    _Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address, _Out_writes_bytes_(Length) PUCHAR Buffer,
    _In_ LONG Length);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NVM_LOAD_ROUTINE(
    _Inout_ struct _DEVICE_CONTEXT* DeviceContext, _Inout_ PULONG Size,
    _Out_writes_bytes_to_(*Size, *Size) PUCHAR Buffer);

/* One memory type. */
typedef struct _NVM_DRIVER {
    ULONG Type;              /* equal to the row's index */
    ULONG Size;              /* memory size in bytes */
    ULONG PageSize;          /* write page (or block) size in bytes */
    ULONG LoadAddress;       /* first address NvmLoad reads; low 16 bits used */
    NVM_WRITE_ROUTINE* Write;
    NVM_READ_ROUTINE* Read;
    NVM_LOAD_ROUTINE* Load;
} NVM_DRIVER, *PNVM_DRIVER;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(NVM_DRIVER) == 40, "NVM_DRIVER layout");
static_assert(FIELD_OFFSET(NVM_DRIVER, LoadAddress) == 12, "NVM_DRIVER layout");
static_assert(FIELD_OFFSET(NVM_DRIVER, Write) == 16, "NVM_DRIVER layout");
static_assert(FIELD_OFFSET(NVM_DRIVER, Read) == 24, "NVM_DRIVER layout");
static_assert(FIELD_OFFSET(NVM_DRIVER, Load) == 32, "NVM_DRIVER layout");
#endif

/* Indexed by NvmType. */
extern const NVM_DRIVER NvmDriverTable[NVM_TYPE_COUNT];

/* ---- Cache and stubs ---- */
NVM_LOAD_ROUTINE NvmLoad;
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID NvmCacheWrite(_Inout_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
NVM_READ_ROUTINE NvmStubRead;
NVM_WRITE_ROUTINE NvmStubWrite;

/* ---- Page engines: one exchange on an open connection, under BusLock ---- */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS nvmRead0(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address,
                  _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS M24c64RomRead(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address,
                       _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomRead1(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                  _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomRead2(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                  _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomRead3(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Page, _In_ USHORT Offset,
                  _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomRead4(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                  _Out_writes_bytes_(Length) PUCHAR Buffer, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS nvmWrite0(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS bulkWrite(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ USHORT Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomWrite1(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomWrite2(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomWrite3(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Page, _In_ USHORT Offset,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS RomWrite4(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Block, _In_ UCHAR Address,
                   _In_reads_bytes_(Length) const UCHAR* Data, _In_ LONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS PageErase3(_In_ struct _DEVICE_CONTEXT* DeviceContext, _In_ UCHAR Page, _In_ UCHAR Macro);

/* ---- Linear-address commands (types 5, 7, 8 and 10) ---- */
NVM_READ_ROUTINE CmdRead;
NVM_WRITE_ROUTINE CmdWrite;
NVM_READ_ROUTINE Cmd_M24c64Read;
NVM_WRITE_ROUTINE Cmd_M24c64Write;

/* ---- Block-addressed commands (types 6, 9, 12 and 11) ---- */
NVM_READ_ROUTINE Cmd_Brca016Read;
NVM_WRITE_ROUTINE Cmd_Brca016Write;
NVM_READ_ROUTINE Cmd_Cat24cRead;
NVM_WRITE_ROUTINE Cmd_Cat24cWrite;
NVM_READ_ROUTINE Cmd_Cat24c16Read;
NVM_WRITE_ROUTINE Cmd_Cat24c16Write;
NVM_READ_ROUTINE Cmd_DW9806BRead;
NVM_WRITE_ROUTINE Cmd_DW9806BWrite;

EXTERN_C_END
