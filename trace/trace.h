/*
 * trace.h - the driver's software trace events.
 *
 * One trace control block for the whole driver, registered under
 * {A85E7B83-68E8-492D-B506-4161E7A87DDA}. An event goes out only while tracing
 * is registered and a consumer has enabled its flag. It carries the message
 * GUID of its source module and a message number (from 10 in each module),
 * then its arguments as (pointer, length) pairs: "KORVANEL" first, then 32-bit
 * numbers, pointers and texts with their terminators.
 *
 * Each source module starts with TRACE_MODULE(guid) after its includes and
 * emits with TraceEvents(TRACE_INFO or TRACE_ERROR, "message", arguments...).
 * The message text stays at the call site: a Windows build keeps it out of the
 * binary as a trace-format table would; the host build puts it in a format
 * table that the host's decoder reads.
 */
#pragma once

#include "../wdk/wdk.h"

#define TRACE_INFO  0x1 /* entry, exit and values */
#define TRACE_ERROR 0x4 /* failures */

#define TRACE_FIRST_MESSAGE_NUMBER 10

typedef struct _TRACE_CONTROL_BLOCK {
    /* Enabled flags; zero whenever tracing is not registered, so that one load
     * and one branch decide an event. */
    volatile ULONG Flags;
    ULONG Registered;           /* 0, or how tracing was registered */
    /* The consumer's session (a TRACEHANDLE), given when it enables us; 0 when
     * none. Written by the enable callback while events read it. */
    volatile LONG64 Logger;
    REGHANDLE RegHandle;        /* classic provider handle */
    PFN_ETW_UNREGISTER Unregister;
} TRACE_CONTROL_BLOCK;

#define TRACE_REGISTERED_CLASSIC 1
#define TRACE_REGISTERED_WMI     2

extern TRACE_CONTROL_BLOCK TraceControl;
extern const GUID TraceControlGuid;

/* The enabled flags and the session, as an event on any thread reads them
 * while a consumer enables or disables us. */
_IRQL_requires_max_(HIGH_LEVEL)
inline ULONG TraceFlags(VOID) { return ReadULongNoFence(&TraceControl.Flags); }
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACEHANDLE TraceLogger(VOID) { return (TRACEHANDLE)ReadNoFence64(&TraceControl.Logger); }

/* Registration at driver entry, removal at driver-object cleanup. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID TraceInitialize(_In_ PDRIVER_OBJECT DriverObject, _In_ PCUNICODE_STRING RegistryPath);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID TraceCleanup(_In_ PDRIVER_OBJECT DriverObject);
EXTERN_C_END

/* ---- Event arguments ---- */

/* One argument. A number is carried in Number and sent from there. */
typedef struct _TRACE_ARGUMENT {
    const VOID* Data;
    SIZE_T Length;
    ULONG64 Number;
} TRACE_ARGUMENT;

#define TRACE_MAX_ARGUMENTS 8

_IRQL_requires_max_(HIGH_LEVEL)
inline SIZE_T TraceTextBytes(_In_reads_or_z_(Capacity) const CHAR* Text, _In_ SIZE_T Capacity)
{
    SIZE_T n = 0;
    while (n < Capacity && Text[n] != 0) {
        n++;
    }
    return n < Capacity ? n + 1 : Capacity;
}

_IRQL_requires_max_(HIGH_LEVEL)
inline SIZE_T TraceWideTextBytes(_In_reads_or_z_(Capacity) const WCHAR* Text, _In_ SIZE_T Capacity)
{
    SIZE_T n = 0;
    while (n < Capacity && Text[n] != 0) {
        n++;
    }
    return (n < Capacity ? n + 1 : Capacity) * sizeof(WCHAR);
}

/* Numbers of up to 32 bits go out as 32-bit words, wider ones as 64-bit. */
template <typename T>
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ const T& Value)
{
    static_assert(sizeof(T) <= 8, "trace arguments are numbers, pointers or texts");
    if constexpr (sizeof(T) <= 4) {
        return {nullptr, 4, (ULONG64)(ULONG)Value};
    } else {
        return {nullptr, 8, (ULONG64)Value};
    }
}
template <typename T>
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ T* const& Pointer)
{
    return {nullptr, sizeof(PVOID), (ULONG64)(ULONG_PTR)Pointer};
}
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ const CHAR* const& Text)
{
    static const CHAR Null[] = "NULL";
    const CHAR* t = Text ? Text : Null;
    return {t, TraceTextBytes(t, 0x7FFFFFFF), 0};
}
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ CHAR* const& Text) { return TraceArg((const CHAR* const&)Text); }
template <SIZE_T N>
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ const CHAR (&Text)[N])
{
    return {Text, TraceTextBytes(Text, N), 0};
}
template <SIZE_T N>
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ CHAR (&Text)[N])
{
    return {Text, TraceTextBytes(Text, N), 0};
}
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ const WCHAR* const& Text)
{
    static const WCHAR Null[] = WIDE("NULL");
    const WCHAR* t = Text ? Text : Null;
    return {t, TraceWideTextBytes(t, 0x7FFFFFFF), 0};
}
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ WCHAR* const& Text) { return TraceArg((const WCHAR* const&)Text); }
/* A counted string goes out as its characters and a terminator-free length. */
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ const UNICODE_STRING& Text)
{
    return {Text.Buffer, Text.Buffer ? Text.Length : (SIZE_T)0, 0};
}
_IRQL_requires_max_(HIGH_LEVEL)
inline TRACE_ARGUMENT TraceArg(_In_ UNICODE_STRING& Text) { return TraceArg((const UNICODE_STRING&)Text); }

/* Sends one enabled event; out of line so that call sites stay small. */
_IRQL_requires_max_(HIGH_LEVEL)
VOID TraceWrite(_In_ LPCGUID MessageGuid, _In_ USHORT MessageNumber, _In_reads_opt_(Count) TRACE_ARGUMENT* Arguments,
                _In_ ULONG Count);

template <typename... A>
_IRQL_requires_max_(HIGH_LEVEL)
inline VOID TraceSend(_In_ LPCGUID MessageGuid, _In_ USHORT MessageNumber, _In_ const A&... Arguments)
{
    static_assert(sizeof...(A) <= TRACE_MAX_ARGUMENTS, "too many trace arguments");
    TRACE_ARGUMENT list[sizeof...(A) + 1] = {TraceArg(Arguments)..., {nullptr, 0, 0}};
    TraceWrite(MessageGuid, MessageNumber, list, sizeof...(A));
}

/* ---- Message numbering and format table ---- */

/* The host build keeps each call site's format text in a table the decoder
 * reads, keyed by message GUID and number. */
typedef struct _TRACE_FORMAT {
    const GUID* MessageGuid;
    ULONG MessageNumber;
    ULONG Flag;
    const CHAR* Text;
    const CHAR* File;
} TRACE_FORMAT;

#if defined(KORVANEL_WDK) || defined(KORVANEL_CROSS_CHECK)
#define TRACE_FORMAT_RECORD(Flag, Number, Text)
#else
#define TRACE_FORMAT_RECORD(Flag, Number, Text)                                                          \
    __attribute__((section("korvanel_trace_formats"), used)) static const TRACE_FORMAT TraceFormatRecord = { \
        TraceModuleGuid, (ULONG)(Number), (Flag), Text, __FILE__}
#endif

#define TRACE_MODULE(Guid)                                 \
    static constexpr const GUID* TraceModuleGuid = &(Guid); \
    enum { TraceModuleCounterBase = __COUNTER__ }

#define TraceEvents(Flag, Text, ...)                                                                   \
    do {                                                                                               \
        enum { TraceNumber = TRACE_FIRST_MESSAGE_NUMBER + __COUNTER__ - TraceModuleCounterBase - 1 }; \
        TRACE_FORMAT_RECORD(Flag, TraceNumber, Text);                                                  \
        if (TraceFlags() & (Flag)) {                                                                   \
            TraceSend(TraceModuleGuid, (USHORT)TraceNumber __VA_OPT__(, ) __VA_ARGS__);               \
        }                                                                                              \
    } while (0)
