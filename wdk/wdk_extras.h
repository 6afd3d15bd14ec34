/*
 * wdk_extras.h - kernel declarations the driver uses that not every header set
 * carries: the classic event-tracing registration (looked up by name at run
 * time), the WMI trace callback, the no-fence accessors and wide literals.
 * Included last by wdk.h in every build.
 */
#pragma once

/* Wide string literal of the platform's WCHAR: L"" on Windows, u"" on the host. */
#if defined(KORVANEL_WDK) || defined(KORVANEL_CROSS_CHECK)
#define WIDE_(s) L##s
#else
#define WIDE_(s) u##s
#endif
#define WIDE(s) WIDE_(s)

/* C linkage for the routines a Windows build places in code sections: the
 * Microsoft compiler accepts #pragma alloc_text only for such routines. The
 * WDK defines the pair; mingw's DDK and the host do not. */
#ifndef EXTERN_C_START
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#endif

#ifndef WMIREG_FLAG_CALLBACK
#define WMIREG_FLAG_CALLBACK 0x80000000
#endif

#ifndef TRACE_MESSAGE_SEQUENCE
#define TRACE_MESSAGE_SEQUENCE   1
#define TRACE_MESSAGE_GUID       2
#define TRACE_MESSAGE_TIMESTAMP  8
#define TRACE_MESSAGE_SYSTEMINFO 32
#endif

#ifndef EVENT_CONTROL_CODE_DISABLE_PROVIDER
#define EVENT_CONTROL_CODE_DISABLE_PROVIDER 0
#define EVENT_CONTROL_CODE_ENABLE_PROVIDER  1
#define EVENT_CONTROL_CODE_CAPTURE_STATE    2
#endif

#if !defined(KORVANEL_WDK)
/* The 64-bit logger handle handed to a classic provider doubles as this record. */
typedef struct _TRACE_ENABLE_CONTEXT {
    USHORT LoggerId;
    UCHAR Level;
    UCHAR InternalFlag;
    ULONG EnableFlags;
} TRACE_ENABLE_CONTEXT, *PTRACE_ENABLE_CONTEXT;
#endif

/* Classic provider registration, exported by the kernel from Windows Vista on
 * and found with MmGetSystemRoutineAddress. */
typedef VOID (NTAPI ETW_CLASSIC_CALLBACK)(LPCGUID Guid, UCHAR ControlCode, PVOID EnableContext,
                                          PVOID CallbackContext);
typedef ETW_CLASSIC_CALLBACK* PETW_CLASSIC_CALLBACK;
typedef NTSTATUS (NTAPI* PFN_ETW_REGISTER_CLASSIC_PROVIDER)(LPCGUID ProviderGuid, ULONG Type,
                                                            PETW_CLASSIC_CALLBACK EnableCallback,
                                                            PVOID CallbackContext,
                                                            PREGHANDLE RegHandle);
typedef NTSTATUS (NTAPI* PFN_ETW_UNREGISTER)(REGHANDLE RegHandle);

/* The callback that IoWMIRegistrationControl(WMIREG_FLAG_CALLBACK) registers in
 * place of a device object, as trace providers use it on older systems. */
typedef NTSTATUS (NTAPI WMI_TRACE_CALLBACK)(UCHAR MinorFunction, PVOID DataPath, ULONG BufferLength,
                                            PVOID Buffer, PVOID Context, PULONG Size);

/* Plain loads and stores for fields another thread may read without a lock. */
#if !defined(KORVANEL_WDK)
inline LONG ReadNoFence(LONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
inline VOID WriteNoFence(LONG volatile* Destination, LONG Value) { __atomic_store_n(Destination, Value, __ATOMIC_RELAXED); }
inline SHORT ReadNoFence16(SHORT const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
inline VOID WriteNoFence16(SHORT volatile* Destination, SHORT Value) { __atomic_store_n(Destination, Value, __ATOMIC_RELAXED); }
inline LONG64 ReadNoFence64(LONG64 const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
inline VOID WriteNoFence64(LONG64 volatile* Destination, LONG64 Value) { __atomic_store_n(Destination, Value, __ATOMIC_RELAXED); }
inline ULONG ReadULongNoFence(ULONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
inline VOID WriteULongNoFence(ULONG volatile* Destination, ULONG Value) { __atomic_store_n(Destination, Value, __ATOMIC_RELAXED); }
#endif
