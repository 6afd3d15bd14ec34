/*
 * wdm.h - the subset of the Windows kernel (WDM) interface that the driver
 * uses, with Windows widths, for the Linux host build. Implemented in bench/.
 *
 * Widths: ULONG and LONG are 32-bit, WCHAR is a 16-bit UTF-16 unit, pointers
 * are 64-bit. Record layouts are the x64 ones where the driver or a peer reads
 * them.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#if !defined(__x86_64__) && !defined(__aarch64__)
#error "the host build assumes a 64-bit little-endian machine"
#endif

/* Calling conventions and annotations have no meaning here. */
#define NTAPI
#define NTKERNELAPI
#define NTSYSAPI
#define FASTCALL
#define __cdecl
#define DECLSPEC_NOINLINE __attribute__((noinline))
#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define UNREFERENCED_PARAMETER(P) ((void)(P))
/* Source annotations: what the code analysis of a WDK build reads. The
 * bench proves the level ones (verifier_test.cpp). */
#define _IRQL_requires_max_(Level)
#define _IRQL_requires_(Level)
#define _IRQL_requires_same_
#define _Function_class_(Name)
#define _Must_inspect_result_
#define _Use_decl_annotations_
/* What a routine does with each parameter, in sal.h's names and arities:
 * reads it, writes it or both, and how many elements or bytes. */
#define _In_
#define _In_opt_
#define _In_z_
#define _In_opt_z_
#define _In_reads_(Size)
#define _In_reads_opt_(Size)
#define _In_reads_bytes_(Size)
#define _In_reads_or_z_(Size)
#define _Out_
#define _Out_opt_
#define _Out_writes_(Size)
#define _Out_writes_bytes_(Size)
#define _Out_writes_bytes_to_(Size, Count)
#define _Inout_
#define _Inout_updates_bytes_(Size)
#define _Outptr_
#define _At_(Target, Annotations)

/* Pageable code checks the level it runs at: above APC_LEVEL the bench
 * stops with the bugcheck Windows gives when such code is paged out. */
void KorvanelBenchPagedCode(const char* Routine, const void* ReturnAddress);
#define PAGED_CODE() KorvanelBenchPagedCode(__func__, __builtin_return_address(0))
#define PAGED_CODE_LOCKED()

/* A checked Windows build stops at a failed assertion; the bench lists it in
 * the unload report instead, so a test that reaches one fails. */
void KorvanelBenchAssertionFailed(const char* Expression, const char* File, int Line);
#define NT_ASSERT(exp) ((!(exp)) ? (KorvanelBenchAssertionFailed(#exp, __FILE__, __LINE__), (BOOLEAN)0) : (BOOLEAN)1)
#ifndef FIELD_OFFSET
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#endif
#define RTL_NUMBER_OF(A) (sizeof(A) / sizeof((A)[0]))
#define MAXUSHORT 0xffff
#define ARRAYSIZE(A) RTL_NUMBER_OF(A)

/* ---- Basic types ---- */
typedef void VOID, *PVOID;
typedef const void* PCVOID;
typedef char CHAR, *PCHAR, *PSTR;
typedef const char* PCSTR;
typedef const char* PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN;
typedef int16_t SHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG, INT;
typedef uint32_t ULONG, *PULONG, UINT, DWORD;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, *PLONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, *PULONG64, DWORD64;
typedef uint64_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T;
typedef int64_t LONG_PTR;
typedef char16_t WCHAR, *PWCHAR, *PWCH, *PWSTR, *LPWSTR;
typedef const char16_t *PCWSTR, *LPCWSTR;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef ULONG ACCESS_MASK;
typedef PVOID HANDLE, *PHANDLE;
typedef UCHAR KIRQL;
typedef ULONG64 TRACEHANDLE, *PTRACEHANDLE;
typedef ULONGLONG REGHANDLE, *PREGHANDLE;

#define TRUE 1
#define FALSE 0
#ifndef NULL
#define NULL nullptr
#endif

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID* PCGUID;
static_assert(sizeof(GUID) == 16, "GUID layout");
inline bool IsEqualGUID(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)

/* ---- Status codes ---- */
#define STATUS_SUCCESS                 ((NTSTATUS)0x00000000L)
#define STATUS_USER_APC                ((NTSTATUS)0x000000C0L)
#define STATUS_ALERTED                 ((NTSTATUS)0x00000101L)
#define STATUS_TIMEOUT                 ((NTSTATUS)0x00000102L)
#define STATUS_PENDING                 ((NTSTATUS)0x00000103L)
#define STATUS_NOTIFY_CLEANUP          ((NTSTATUS)0x0000010BL)
#define STATUS_BUFFER_OVERFLOW         ((NTSTATUS)0x80000005L)
#define STATUS_DEVICE_BUSY             ((NTSTATUS)0x80000011L)
#define STATUS_UNSUCCESSFUL            ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED         ((NTSTATUS)0xC0000002L)
#define STATUS_INFO_LENGTH_MISMATCH    ((NTSTATUS)0xC0000004L)
#define STATUS_INVALID_HANDLE          ((NTSTATUS)0xC0000008L)
#define STATUS_INVALID_PARAMETER       ((NTSTATUS)0xC000000DL)
#define STATUS_NO_SUCH_DEVICE          ((NTSTATUS)0xC000000EL)
#define STATUS_INVALID_DEVICE_REQUEST  ((NTSTATUS)0xC0000010L)
#define STATUS_NO_MEMORY               ((NTSTATUS)0xC0000017L)
#define STATUS_ACCESS_DENIED           ((NTSTATUS)0xC0000022L)
#define STATUS_BUFFER_TOO_SMALL        ((NTSTATUS)0xC0000023L)
#define STATUS_OBJECT_NAME_NOT_FOUND   ((NTSTATUS)0xC0000034L)
#define STATUS_IO_TIMEOUT              ((NTSTATUS)0xC00000B5L)
#define STATUS_INSUFFICIENT_RESOURCES  ((NTSTATUS)0xC000009AL)
#define STATUS_NOT_SUPPORTED           ((NTSTATUS)0xC00000BBL)
#define STATUS_INVALID_PARAMETER_2     ((NTSTATUS)0xC00000F0L)
#define STATUS_DEVICE_NOT_CONNECTED    ((NTSTATUS)0xC000009DL)
#define STATUS_INVALID_DEVICE_STATE    ((NTSTATUS)0xC0000184L)
#define STATUS_NAME_TOO_LONG           ((NTSTATUS)0xC0000106L)
#define STATUS_DEVICE_PROTOCOL_ERROR   ((NTSTATUS)0xC0000186L)
#define STATUS_CANCELLED               ((NTSTATUS)0xC0000120L)

/* ---- Strings ---- */
typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PANSI_STRING, *PSTRING;
typedef const STRING* PCANSI_STRING;
typedef const STRING* PCSZ_STRING;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;
static_assert(sizeof(UNICODE_STRING) == 16, "UNICODE_STRING layout");

/* ---- Processor and memory ---- */
typedef CHAR KPROCESSOR_MODE;
typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolNx = 512,
} POOL_TYPE;

/* ExAllocatePool2's flags: one kind of pool, and how to allocate. */
typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_UNINITIALIZED        0x0000000000000002ULL
#define POOL_FLAG_NON_PAGED            0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTABLE 0x0000000000000080ULL
#define POOL_FLAG_PAGED                0x0000000000000100ULL

#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))

/* ---- Dispatcher objects ---- */
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6 } KWAIT_REASON;
typedef LONG KPRIORITY;

/* An event's whole state lives in the record, as in the kernel; the bench's
 * waiters block on one condition shared by all events. */
typedef struct _KEVENT {
    LONG Type;         /* EVENT_TYPE */
    LONG SignalState;
    ULONG Magic;       /* set by KeInitializeEvent */
    ULONG Reserved0;
    ULONG64 Reserved[2];
} KEVENT, *PKEVENT, *PRKEVENT;

/* ---- I/O manager ---- */
struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _IRP;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0,
    PowerDeviceD1,
    PowerDeviceD2,
    PowerDeviceD3,
    PowerDeviceMaximum
} DEVICE_POWER_STATE, *PDEVICE_POWER_STATE;

typedef enum _BUS_QUERY_ID_TYPE {
    BusQueryDeviceID = 0,
    BusQueryHardwareIDs = 1,
    BusQueryCompatibleIDs = 2,
    BusQueryInstanceID = 3,
    BusQueryDeviceSerialNumber = 4,
    BusQueryContainerID = 5
} BUS_QUERY_ID_TYPE;

#define IRP_MJ_CREATE          0x00
#define IRP_MJ_CLOSE           0x02
#define IRP_MJ_DEVICE_CONTROL  0x0e
#define IRP_MJ_POWER           0x16
#define IRP_MJ_SYSTEM_CONTROL  0x17
#define IRP_MJ_PNP             0x1b
#define IRP_MN_QUERY_ID        0x13
#define IRP_MN_ENABLE_EVENTS   0x04
#define IRP_MN_DISABLE_EVENTS  0x05
#define IRP_MN_REGINFO         0x08

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            BUS_QUERY_ID_TYPE IdType;
        } QueryId;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    struct _DEVICE_OBJECT* DeviceObject;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

/* An I/O request packet as far as the driver touches it. The bench owns the
 * stack locations behind CurrentStackLocation. */
typedef struct _IRP {
    USHORT Type;
    USHORT Size;
    IO_STATUS_BLOCK IoStatus;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    CHAR StackCount;
    CHAR CurrentLocation;
    struct {
        struct {
            PIO_STACK_LOCATION CurrentStackLocation;
        } Overlay;
    } Tail;
} IRP, *PIRP;

inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation - 1; }
inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation; }

typedef struct _DEVICE_OBJECT {
    SHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    struct _DRIVER_OBJECT* DriverObject;
    PVOID BenchDevice; /* the bench's model of the device stack below */
} DEVICE_OBJECT, *PDEVICE_OBJECT;

typedef struct _DRIVER_OBJECT DRIVER_OBJECT, *PDRIVER_OBJECT;
typedef NTSTATUS(NTAPI DRIVER_INITIALIZE)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef VOID(NTAPI DRIVER_UNLOAD)(PDRIVER_OBJECT DriverObject);
struct _DRIVER_OBJECT {
    SHORT Type;
    SHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    UNICODE_STRING DriverName;
    DRIVER_UNLOAD* DriverUnload;
    PVOID BenchDriver;
};

typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _MDL* PMDL;
typedef struct _CM_RESOURCE_LIST* PCM_RESOURCE_LIST;

NTKERNELAPI PIRP NTAPI IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                                    ULONG Length, PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                                    PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
#define IoCallDriver(DeviceObject, Irp) IofCallDriver((DeviceObject), (Irp))
NTKERNELAPI NTSTATUS NTAPI IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action);

#define WMIREG_ACTION_REGISTER      1
#define WMIREG_ACTION_DEREGISTER    2
#define WMIREG_ACTION_REREGISTER    3
#define WMIREG_ACTION_UPDATE_GUIDS  4

/* ---- WMI records used by the trace registration ---- */
typedef struct _WNODE_HEADER {
    ULONG BufferSize;
    ULONG ProviderId;
    union {
        ULONG64 HistoricalContext;
        struct {
            ULONG Version;
            ULONG Linkage;
        };
    };
    union {
        ULONG CountLost;
        HANDLE KernelHandle;
        LARGE_INTEGER TimeStamp;
    };
    GUID Guid;
    ULONG ClientContext;
    ULONG Flags;
} WNODE_HEADER, *PWNODE_HEADER;

typedef struct {
    GUID Guid;
    ULONG Flags;
    ULONG InstanceCount;
    union {
        ULONG InstanceNameList;
        ULONG BaseNameOffset;
        ULONG_PTR Pdo;
        ULONG_PTR InstanceInfo;
    };
} WMIREGGUIDW, *PWMIREGGUIDW;

typedef struct {
    ULONG BufferSize;
    ULONG NextWmiRegInfo;
    ULONG RegistryPath;
    ULONG MofResourceName;
    ULONG GuidCount;
    WMIREGGUIDW WmiRegGuid[1];
} WMIREGINFOW, *PWMIREGINFOW;

#define WMIREG_FLAG_TRACED_GUID        0x00080000
#define WMIREG_FLAG_TRACE_CONTROL_GUID 0x00001000

/* ---- Direct-call interfaces ---- */
typedef VOID (*PINTERFACE_REFERENCE)(PVOID Context);
typedef VOID (*PINTERFACE_DEREFERENCE)(PVOID Context);
typedef struct _INTERFACE {
    USHORT Size;
    USHORT Version;
    PVOID Context;
    PINTERFACE_REFERENCE InterfaceReference;
    PINTERFACE_DEREFERENCE InterfaceDereference;
} INTERFACE, *PINTERFACE;
static_assert(sizeof(INTERFACE) == 32, "INTERFACE layout");

#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    static const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}

/* ---- Kernel services ---- */
/* Interrupt request levels: each thread has one. */
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15
typedef KIRQL* PKIRQL;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(void);
NTKERNELAPI VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
NTKERNELAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);
NTKERNELAPI VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);

NTKERNELAPI LONG FASTCALL InterlockedIncrement(LONG volatile* Addend);
NTKERNELAPI LONG FASTCALL InterlockedDecrement(LONG volatile* Addend);
NTKERNELAPI LONG FASTCALL InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand);
NTKERNELAPI LONG FASTCALL InterlockedExchange(LONG volatile* Target, LONG Value);

NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID NTAPI ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePool(PVOID P);

NTKERNELAPI PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

/* ---- Run-time library ---- */
typedef struct _OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;

NTSYSAPI NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation);
NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);
NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
int _wcsicmp(const WCHAR* string1, const WCHAR* string2);

/* ntstrsafe.h */
#define NTSTRSAFE_MAX_CCH 2147483647
NTSTATUS RtlStringCbCopyA(PSTR pszDest, SIZE_T cbDest, PCSTR pszSrc);
NTSTATUS RtlStringCbPrintfW(PWSTR pszDest, SIZE_T cbDest, PCWSTR pszFormat, ...);

/* ---- Registry ---- */
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_KERNEL_HANDLE    0x00000200L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
static_assert(sizeof(OBJECT_ATTRIBUTES) == 48, "OBJECT_ATTRIBUTES layout");

#define InitializeObjectAttributes(p, n, a, r, s)       \
    {                                                   \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);        \
        (p)->RootDirectory = (r);                       \
        (p)->Attributes = (a);                          \
        (p)->ObjectName = (n);                          \
        (p)->SecurityDescriptor = (s);                  \
        (p)->SecurityQualityOfService = NULL;           \
    }

#define KEY_QUERY_VALUE        0x0001
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_READ        0x20019
#define REG_NONE        0
#define REG_SZ          1
#define REG_EXPAND_SZ   2
#define REG_BINARY      3
#define REG_DWORD       4
#define REG_MULTI_SZ    7
#define REG_QWORD       11

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation,
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

NTSYSAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes);
NTSYSAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                        KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                        PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);

/* ---- File access (I/O target opens) ---- */
#define SYNCHRONIZE               0x00100000L
#define STANDARD_RIGHTS_READ      0x00020000L
#define STANDARD_RIGHTS_WRITE     0x00020000L
#define FILE_READ_DATA            0x0001
#define FILE_WRITE_DATA           0x0002
#define FILE_APPEND_DATA          0x0004
#define FILE_READ_EA              0x0008
#define FILE_WRITE_EA             0x0010
#define FILE_READ_ATTRIBUTES      0x0080
#define FILE_WRITE_ATTRIBUTES     0x0100
#define FILE_GENERIC_READ  (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE \
    (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_OPEN                 0x00000001
#define FILE_NON_DIRECTORY_FILE   0x00000040

#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_BUFFERED   0
#define METHOD_IN_DIRECT  1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER    3
#define FILE_ANY_ACCESS   0
#define FILE_DEVICE_CONTROLLER 0x00000004

/* ---- Event tracing ---- */
/* The kernel's variadic trace entry ends its named parameters with a USHORT,
 * which a variadic definition cannot start its argument list after (the type
 * promotes), so on the host the name leads to an entry that takes the message
 * number promoted. Callers write WmiTraceMessage as on Windows. */
extern "C" NTSTATUS KorvanelBenchWmiTraceMessage(TRACEHANDLE LoggerHandle, ULONG MessageFlags, LPGUID MessageGuid,
                                                ULONG MessageNumber, ...);
#define WmiTraceMessage KorvanelBenchWmiTraceMessage
