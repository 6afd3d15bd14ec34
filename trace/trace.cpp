/*
 * trace.cpp - the driver's trace provider: registration at driver entry,
 * the enable callbacks a trace consumer reaches, and event emission.
 *
 * From Windows Vista on the classic provider routines are exported by the
 * kernel and found by name; older systems take the provider through WMI
 * registration with a callback. Either way the consumer's session handle and
 * enabled flags land in TraceControl, and Flags stays zero whenever tracing is
 * not registered, so a disabled event costs one load and one branch.
 */
#include "trace.h"

#ifdef ALLOC_PRAGMA
#pragma alloc_text(INIT, TraceInitialize)
#pragma alloc_text(PAGE, TraceCleanup)
#endif

TRACE_CONTROL_BLOCK TraceControl;

// {A85E7B83-68E8-492D-B506-4161E7A87DDA}
const GUID TraceControlGuid = {0xa85e7b83, 0x68e8, 0x492d, {0xb5, 0x06, 0x41, 0x61, 0xe7, 0xa8, 0x7d, 0xda}};

#define TRACE_MESSAGE_OPTIONS \
    (TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_SYSTEMINFO | TRACE_MESSAGE_TIMESTAMP)

static const CHAR TraceComponentName[] = "KORVANEL";

/* A consumer enabled or disabled us: the session handle carries the flags. */
_IRQL_requires_max_(PASSIVE_LEVEL)
static VOID TraceSetSession(_In_ BOOLEAN Enable, _In_ TRACEHANDLE Logger)
{
    if (Enable) {
        TRACE_ENABLE_CONTEXT enableContext;
        RtlCopyMemory(&enableContext, &Logger, sizeof(enableContext));
        WriteNoFence64(&TraceControl.Logger, (LONG64)Logger);
        WriteULongNoFence(&TraceControl.Flags, enableContext.EnableFlags);
    } else {
        WriteULongNoFence(&TraceControl.Flags, 0);
        WriteNoFence64(&TraceControl.Logger, 0);
    }
}

_IRQL_requires_max_(PASSIVE_LEVEL)
static VOID NTAPI TraceClassicCallback(_In_ LPCGUID Guid, _In_ UCHAR ControlCode, _In_opt_ PVOID EnableContext,
                                       _In_opt_ PVOID CallbackContext)
{
    UNREFERENCED_PARAMETER(Guid);
    UNREFERENCED_PARAMETER(CallbackContext);

    // Other control codes (a capture-state request) leave the session as it is.
    if (ControlCode == EVENT_CONTROL_CODE_ENABLE_PROVIDER && EnableContext != NULL) {
        TRACEHANDLE logger;
        RtlCopyMemory(&logger, EnableContext, sizeof(logger));
        TraceSetSession(TRUE, logger);
    } else if (ControlCode == EVENT_CONTROL_CODE_DISABLE_PROVIDER) {
        TraceSetSession(FALSE, 0);
    }
}

_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS NTAPI TraceWmiCallback(_In_ UCHAR MinorFunction, _In_opt_ PVOID DataPath, _In_ ULONG BufferLength,
                                       _Inout_updates_bytes_(BufferLength) PVOID Buffer, _In_opt_ PVOID Context,
                                       _Out_opt_ PULONG Size)
{
    UNREFERENCED_PARAMETER(DataPath);
    UNREFERENCED_PARAMETER(Context);

    switch (MinorFunction) {
    case IRP_MN_REGINFO: {
        // We control one GUID, the trace control GUID of the driver.
        PWMIREGINFOW regInfo = (PWMIREGINFOW)Buffer;
        if (regInfo == NULL || BufferLength < sizeof(WMIREGINFOW)) {
            return STATUS_BUFFER_TOO_SMALL;
        }
        RtlZeroMemory(regInfo, sizeof(WMIREGINFOW));
        regInfo->BufferSize = sizeof(WMIREGINFOW);
        regInfo->GuidCount = 1;
        regInfo->WmiRegGuid[0].Guid = TraceControlGuid;
        regInfo->WmiRegGuid[0].Flags = WMIREG_FLAG_TRACE_CONTROL_GUID | WMIREG_FLAG_TRACED_GUID;
        if (Size != NULL) {
            *Size = sizeof(WMIREGINFOW);
        }
        return STATUS_SUCCESS;
    }
    case IRP_MN_ENABLE_EVENTS:
        if (Buffer == NULL || BufferLength < sizeof(WNODE_HEADER)) {
            return STATUS_INVALID_PARAMETER;
        }
        TraceSetSession(TRUE, ((PWNODE_HEADER)Buffer)->HistoricalContext);
        return STATUS_SUCCESS;
    case IRP_MN_DISABLE_EVENTS:
        TraceSetSession(FALSE, 0);
        return STATUS_SUCCESS;
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

_Use_decl_annotations_
VOID TraceInitialize(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(DriverObject);
    UNREFERENCED_PARAMETER(RegistryPath);

    RtlZeroMemory(&TraceControl, sizeof(TraceControl));

    RTL_OSVERSIONINFOW version;
    RtlZeroMemory(&version, sizeof(version));
    version.dwOSVersionInfoSize = sizeof(version);
    if (NT_SUCCESS(RtlGetVersion(&version)) && version.dwMajorVersion >= 6) {
        UNICODE_STRING registerName;
        UNICODE_STRING unregisterName;
        RtlInitUnicodeString(&registerName, WIDE("EtwRegisterClassicProvider"));
        RtlInitUnicodeString(&unregisterName, WIDE("EtwUnregister"));
        PFN_ETW_REGISTER_CLASSIC_PROVIDER registerClassic =
            (PFN_ETW_REGISTER_CLASSIC_PROVIDER)MmGetSystemRoutineAddress(&registerName);
        PFN_ETW_UNREGISTER unregister = (PFN_ETW_UNREGISTER)MmGetSystemRoutineAddress(&unregisterName);
        if (registerClassic != NULL && unregister != NULL) {
            TraceControl.Unregister = unregister;
            TraceControl.Registered = TRACE_REGISTERED_CLASSIC;
            if (!NT_SUCCESS(registerClassic(&TraceControlGuid, 0, TraceClassicCallback, &TraceControl,
                                            &TraceControl.RegHandle))) {
                // Not registered: no flags may stay behind from a callback.
                RtlZeroMemory(&TraceControl, sizeof(TraceControl));
            }
            return;
        }
    }

    TraceControl.Registered = TRACE_REGISTERED_WMI;
    if (!NT_SUCCESS(IoWMIRegistrationControl((PDEVICE_OBJECT)TraceWmiCallback,
                                             WMIREG_ACTION_REGISTER | WMIREG_FLAG_CALLBACK))) {
        RtlZeroMemory(&TraceControl, sizeof(TraceControl));
    }
}

_Use_decl_annotations_
VOID TraceCleanup(PDRIVER_OBJECT DriverObject)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DriverObject);

    WriteULongNoFence(&TraceControl.Flags, 0);
    if (TraceControl.Registered == TRACE_REGISTERED_CLASSIC) {
        TraceControl.Unregister(TraceControl.RegHandle);
    } else if (TraceControl.Registered == TRACE_REGISTERED_WMI) {
        IoWMIRegistrationControl((PDEVICE_OBJECT)TraceWmiCallback, WMIREG_ACTION_DEREGISTER | WMIREG_FLAG_CALLBACK);
    }
    RtlZeroMemory(&TraceControl, sizeof(TraceControl));
}

/* Arguments go out as (pointer, length) pairs after the component name; a
 * number is sent from its slot in the argument list. */
_Use_decl_annotations_
VOID TraceWrite(LPCGUID MessageGuid, USHORT MessageNumber, TRACE_ARGUMENT* Arguments, ULONG Count)
{
    const VOID* d[TRACE_MAX_ARGUMENTS];
    SIZE_T n[TRACE_MAX_ARGUMENTS];

    if (MessageGuid == NULL || (Arguments == NULL && Count != 0)) {
        return;
    }
    if (Count > TRACE_MAX_ARGUMENTS) {
        Count = TRACE_MAX_ARGUMENTS;
    }
    for (ULONG i = 0; i < Count; i++) {
        d[i] = Arguments[i].Data != NULL ? Arguments[i].Data : &Arguments[i].Number;
        n[i] = Arguments[i].Length;
    }

    // The session may have ended since the caller saw its flag.
    TRACEHANDLE logger = TraceLogger();
    if (logger == 0) {
        return;
    }
    LPGUID guid = (LPGUID)MessageGuid;
    PVOID name = (PVOID)TraceComponentName;
    SIZE_T nameLength = sizeof(TraceComponentName);

#define TRACE_PAIR(i) (PVOID) d[i], n[i]
    switch (Count) {
    case 0:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, (PVOID)NULL, (SIZE_T)0);
        break;
    case 1:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        (PVOID)NULL, (SIZE_T)0);
        break;
    case 2:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), (PVOID)NULL, (SIZE_T)0);
        break;
    case 3:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), (PVOID)NULL, (SIZE_T)0);
        break;
    case 4:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), TRACE_PAIR(3), (PVOID)NULL, (SIZE_T)0);
        break;
    case 5:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), TRACE_PAIR(3), TRACE_PAIR(4), (PVOID)NULL, (SIZE_T)0);
        break;
    case 6:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), TRACE_PAIR(3), TRACE_PAIR(4), TRACE_PAIR(5), (PVOID)NULL,
                        (SIZE_T)0);
        break;
    case 7:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), TRACE_PAIR(3), TRACE_PAIR(4), TRACE_PAIR(5), TRACE_PAIR(6),
                        (PVOID)NULL, (SIZE_T)0);
        break;
    case 8:
    default:
        WmiTraceMessage(logger, TRACE_MESSAGE_OPTIONS, guid, MessageNumber, name, nameLength, TRACE_PAIR(0),
                        TRACE_PAIR(1), TRACE_PAIR(2), TRACE_PAIR(3), TRACE_PAIR(4), TRACE_PAIR(5), TRACE_PAIR(6),
                        TRACE_PAIR(7), (PVOID)NULL, (SIZE_T)0);
        break;
    }
#undef TRACE_PAIR
}
