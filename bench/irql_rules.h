// irql_rules.h - what the bench holds the driver to, in three tables:
//
//   stops::       each fault the bench stops for, with the stop code (and
//                 subcode) Driver Verifier or the framework's verifier gives it;
//   kIrqlRules    the highest interrupt request level at which each platform
//                 routine the driver calls may be called, each row under the
//                 words of the "IRQL" line (or the Remarks sentence it points
//                 to) of the routine's page in the WDK reference;
//   kCallbackLevels  the level at which the framework and the system call the
//                 driver back, and the highest their documentation allows.
//
// Each bench routine names its row on entry (verifier.h); a row that does not
// exist does not compile.
#pragma once

#include "verifier.h"

#include <span>

namespace korvanel::bench {

namespace stops {
#define VERIFIER "DRIVER_VERIFIER_DETECTED_VIOLATION", 0xC4
#define BAD_POOL "BAD_POOL_CALLER", 0xC2
#define WDF "WDF_VIOLATION", 0x10D
// Levels. Driver Verifier checks the kernel's routines on entry ("A call was
// made to a Kernel API at the incorrect IRQL", 0xE5) and some more closely;
// the framework's methods, the string-safe library and the C library touch
// pageable code or data and fault there.
inline constexpr Stop kKernelApiWrongIrql{VERIFIER, 0xE5};
inline constexpr Stop kZwNotAtPassive{VERIFIER, 0xE6};
inline constexpr Stop kIrqlNotLessOrEqual{"IRQL_NOT_LESS_OR_EQUAL", 0x0A, 0};
inline constexpr Stop kPagedCodeAboveApc{"DRIVER_IRQL_NOT_LESS_OR_EQUAL", 0xD1, 0};
inline constexpr Stop kAllocatePagedAboveApc{VERIFIER, 0x01};
inline constexpr Stop kAllocateNonPagedAboveDispatch{VERIFIER, 0x02};
inline constexpr Stop kFreePagedAboveApc{VERIFIER, 0x11};
inline constexpr Stop kFreeNonPagedAboveDispatch{VERIFIER, 0x12};
inline constexpr Stop kRaiseToLowerLevel{VERIFIER, 0x30};
inline constexpr Stop kLowerToHigherLevel{VERIFIER, 0x31};
inline constexpr Stop kReleaseSpinLockNotAtDispatch{VERIFIER, 0x32};
inline constexpr Stop kAcquireSpinLockAboveDispatch{VERIFIER, 0x42};
inline constexpr Stop kSetEventAboveDispatch{VERIFIER, 0x80};
inline constexpr Stop kSetEventAndWaitAboveApc{VERIFIER, 0x20016};  // the IrqlKeSetEvent rule
inline constexpr Stop kWaitAboveDispatch{VERIFIER, 0x120};
inline constexpr Stop kWaitForeverAtDispatch{VERIFIER, 0x121};
inline constexpr Stop kTimedWaitAtDispatch{VERIFIER, 0x122};
inline constexpr Stop kUserModeWaitOnStack{VERIFIER, 0x123};
inline constexpr Stop kSpinLockAlreadyOwned{"SPIN_LOCK_ALREADY_OWNED", 0x0F, 0};
inline constexpr Stop kSpinLockNotOwned{"SPIN_LOCK_NOT_OWNED", 0x10, 0};
// An operation the camera driver called came back at another level; the
// first parameter carries (current << 16) | (expected << 8).
inline constexpr Stop kIrqlUnexpectedValue{"IRQL_UNEXPECTED_VALUE", 0xC8, 0};
// Pool tracking.
inline constexpr Stop kFreeNeverAllocated{VERIFIER, 0x10};
inline constexpr Stop kFreeAlreadyFreed{VERIFIER, 0x13};
inline constexpr Stop kFreeWrongTag{BAD_POOL, 0x0A};
inline constexpr Stop kLeakAtUnload{VERIFIER, 0x62};
// The framework's verifier: a handle that is null, of another type or of a
// deleted object (WDF_INVALID_HANDLE); an object deleted twice, or one the
// framework deletes itself (WDF_OBJECT_ERROR); a callback that returns at
// another level (WDF_VERIFIER_IRQL_MISMATCH).
inline constexpr Stop kWdfInvalidHandle{WDF, 0x5};
inline constexpr Stop kWdfObjectError{WDF, 0x7};
inline constexpr Stop kWdfIrqlMismatch{WDF, 0xE};
// Handle checks: a user-mode handle referenced from kernel mode.
inline constexpr Stop kUserHandleFromKernel{VERIFIER, 0xF6};
// Deadlock detection, here extended to the events the driver uses as locks.
inline constexpr Stop kSelfDeadlock{VERIFIER, 0x1000};
inline constexpr Stop kDeadlock{VERIFIER, 0x1001};
#undef VERIFIER
#undef BAD_POOL
#undef WDF
}  // namespace stops

namespace irql_table {
using C = Condition;
using namespace stops;

// One row per routine and condition. fails: a fault rule can make the
// routine fail.
inline constexpr IrqlRule kIrqlRules[] = {
    // routine                                 condition         max             fails  stop
    // "<= DISPATCH_LEVEL (see Remarks section)": "A caller executing at DISPATCH_LEVEL must specify a
    // NonPagedXxx value for PoolType. A caller executing at IRQL <= APC_LEVEL can specify any POOL_TYPE value".
    {"ExAllocatePoolWithTag",                  C::PagedPool,     APC_LEVEL,      true,  kAllocatePagedAboveApc},
    {"ExAllocatePoolWithTag",                  C::NonPagedPool,  DISPATCH_LEVEL, true,  kAllocateNonPagedAboveDispatch},
    // "<= DISPATCH_LEVEL (see Remarks section)": "A caller executing at DISPATCH_LEVEL must specify
    // POOL_FLAG_NON_PAGED or POOL_FLAG_NON_PAGED_EXECUTABLE for Flags."
    {"ExAllocatePool2",                        C::PagedPool,     APC_LEVEL,      true,  kAllocatePagedAboveApc},
    {"ExAllocatePool2",                        C::NonPagedPool,  DISPATCH_LEVEL, true,  kAllocateNonPagedAboveDispatch},
    // "<= DISPATCH_LEVEL (see Remarks section)": "A caller at DISPATCH_LEVEL must have specified a
    // NonPagedXxxPoolType when the memory was allocated. Otherwise, the caller must be running at
    // IRQL <= APC_LEVEL." (the same words on both pages)
    {"ExFreePoolWithTag",                      C::PagedPool,     APC_LEVEL,      false, kFreePagedAboveApc},
    {"ExFreePoolWithTag",                      C::NonPagedPool,  DISPATCH_LEVEL, false, kFreeNonPagedAboveDispatch},
    {"ExFreePool",                             C::PagedPool,     APC_LEVEL,      false, kFreePagedAboveApc},
    {"ExFreePool",                             C::NonPagedPool,  DISPATCH_LEVEL, false, kFreeNonPagedAboveDispatch},
    // "Any level"
    {"InterlockedCompareExchange",             C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    {"InterlockedDecrement",                   C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    {"InterlockedExchange",                    C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    {"InterlockedIncrement",                   C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    // "<= APC_LEVEL"
    {"IoBuildSynchronousFsdRequest",           C::Always,        APC_LEVEL,      true,  kKernelApiWrongIrql},
    // "<= DISPATCH_LEVEL"
    {"IofCallDriver",                          C::Always,        DISPATCH_LEVEL, false, kKernelApiWrongIrql},
    // "PASSIVE_LEVEL"
    {"IoWMIRegistrationControl",               C::Always,        PASSIVE_LEVEL,  false, kKernelApiWrongIrql},
    // "<= DISPATCH_LEVEL"
    {"KeClearEvent",                           C::Always,        DISPATCH_LEVEL, false, kKernelApiWrongIrql},
    // "<= APC_LEVEL"
    {"KeDelayExecutionThread",                 C::Always,        APC_LEVEL,      false, kKernelApiWrongIrql},
    // "Any level"
    {"KeInitializeEvent",                      C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    {"KeQuerySystemTime",                      C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    // "<= DISPATCH_LEVEL"
    {"KeReadStateEvent",                       C::Always,        DISPATCH_LEVEL, false, kKernelApiWrongIrql},
    // "If Wait is set to FALSE, the caller can be running at IRQL <= DISPATCH_LEVEL. Otherwise,
    // callers of KeSetEvent must be running at IRQL <= APC_LEVEL and in a nonarbitrary thread context."
    {"KeSetEvent",                             C::Always,        DISPATCH_LEVEL, false, kSetEventAboveDispatch},
    {"KeSetEvent",                             C::SetAndWait,    APC_LEVEL,      false, kSetEventAndWaitAboveApc},
    // "Any level"
    {"KeStallExecutionProcessor",              C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    // "Callers of KeWaitForSingleObject must be running at IRQL <= DISPATCH_LEVEL. However, if
    // Timeout = NULL or *Timeout != 0, the caller must be running at IRQL <= APC_LEVEL and in a
    // nonarbitrary thread context."
    {"KeWaitForSingleObject",                  C::WaitForever,   APC_LEVEL,      true,  kWaitForeverAtDispatch},
    {"KeWaitForSingleObject",                  C::TimedWait,     APC_LEVEL,      true,  kTimedWaitAtDispatch},
    {"KeWaitForSingleObject",                  C::PollingWait,   DISPATCH_LEVEL, true,  kWaitAboveDispatch},
    // "PASSIVE_LEVEL"
    {"MmGetSystemRoutineAddress",              C::Always,        PASSIVE_LEVEL,  false, kKernelApiWrongIrql},
    {"RtlAnsiStringToUnicodeString",           C::Always,        PASSIVE_LEVEL,  true,  kKernelApiWrongIrql},
    // "Any level (See Remarks section)": "The DestinationString and SourceString buffers must be
    // resident if the caller is running at IRQL >= DISPATCH_LEVEL." (the bench checks the buffers)
    {"RtlCopyUnicodeString",                   C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    // "<=APC_LEVEL"
    {"RtlFreeUnicodeString",                   C::Always,        APC_LEVEL,      false, kKernelApiWrongIrql},
    // "PASSIVE_LEVEL"
    {"RtlGetVersion",                          C::Always,        PASSIVE_LEVEL,  false, kKernelApiWrongIrql},
    // "Callers of RtlInitAnsiString can be running at IRQL <= DISPATCH_LEVEL if the
    // DestinationString buffer is nonpageable." (the same words for RtlInitUnicodeString)
    {"RtlInitAnsiString",                      C::Always,        DISPATCH_LEVEL, false, kKernelApiWrongIrql},
    {"RtlInitUnicodeString",                   C::Always,        DISPATCH_LEVEL, false, kKernelApiWrongIrql},
    // "PASSIVE_LEVEL"
    {"RtlStringCbCopyA",                       C::Always,        PASSIVE_LEVEL,  false, kIrqlNotLessOrEqual},
    {"RtlStringCbPrintfW",                     C::Always,        PASSIVE_LEVEL,  false, kIrqlNotLessOrEqual},
    // No kernel page gives a level; case folding reads the pageable case tables, as the
    // Rtl string routines do, so passive level as theirs.
    {"_wcsicmp",                               C::Always,        PASSIVE_LEVEL,  false, kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"ZwClose",                                C::Always,        PASSIVE_LEVEL,  false, kZwNotAtPassive},
    {"ZwOpenKey",                              C::Always,        PASSIVE_LEVEL,  true,  kZwNotAtPassive},
    {"ZwQueryValueKey",                        C::Always,        PASSIVE_LEVEL,  true,  kZwNotAtPassive},
    // Event tracing, found by name. EtwRegisterClassicProvider has no page; its documented
    // sibling EtwRegister: "Callers of EtwRegister must be running at IRQL = PASSIVE_LEVEL".
    {"EtwRegisterClassicProvider",             C::Always,        PASSIVE_LEVEL,  false, kKernelApiWrongIrql},
    // "PASSIVE_LEVEL"
    {"EtwUnregister",                          C::Always,        PASSIVE_LEVEL,  false, kKernelApiWrongIrql},
    // "WmiTraceMessage runs at the IRQL of the caller."
    {"WmiTraceMessage",                        C::Always,        HIGH_LEVEL,     false, kKernelApiWrongIrql},
    // The framework. "PASSIVE_LEVEL"
    {"WdfDeviceAddQueryInterface",             C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    // "<= DISPATCH_LEVEL"
    {"WdfDeviceAssignS0IdleSettings",          C::Always,        DISPATCH_LEVEL, true,  kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"WdfDeviceCreate",                        C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    {"WdfDeviceCreateDeviceInterface",         C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    // "<= DISPATCH_LEVEL"
    {"WdfDeviceInitSetPnpPowerEventCallbacks", C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    {"WdfDeviceResumeIdle",                    C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"WdfDeviceRetrieveDeviceInterfaceString", C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    // "<= DISPATCH_LEVEL"
    {"WdfDeviceSetDeviceState",                C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    {"WdfDeviceSetStaticStopRemove",           C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    // "If WaitForD0 is TRUE, WdfDeviceStopIdle must be called at IRQL = PASSIVE_LEVEL. If WaitForD0
    // is FALSE, this method must be called at IRQL <= DISPATCH_LEVEL."
    {"WdfDeviceStopIdle",                      C::WaitForD0,     PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    {"WdfDeviceStopIdle",                      C::NoWait,        DISPATCH_LEVEL, true,  kIrqlNotLessOrEqual},
    // "<=DISPATCH_LEVEL"
    {"WdfDeviceWdmGetPhysicalDevice",          C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"WdfDriverCreate",                        C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    // "<= DISPATCH_LEVEL"
    {"WdfDriverWdmGetDriverObject",            C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"WdfIoTargetClose",                       C::Always,        PASSIVE_LEVEL,  false, kIrqlNotLessOrEqual},
    {"WdfIoTargetCreate",                      C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    {"WdfIoTargetOpen",                        C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    {"WdfIoTargetSendIoctlSynchronously",      C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    // "The WdfObjectDelete method must be called at IRQL <= DISPATCH_LEVEL." (PASSIVE_LEVEL for a
    // control device object or a common buffer, which the driver has none of)
    {"WdfObjectDelete",                        C::Always,        DISPATCH_LEVEL, false, kIrqlNotLessOrEqual},
    // WdfObjectGetTypedContext: "Any level"
    {"WdfObjectGetTypedContextWorker",         C::Always,        HIGH_LEVEL,     false, kIrqlNotLessOrEqual},
    // "PASSIVE_LEVEL"
    {"WdfStringCreate",                        C::Always,        PASSIVE_LEVEL,  true,  kIrqlNotLessOrEqual},
    {"WdfStringGetUnicodeString",              C::Always,        PASSIVE_LEVEL,  false, kIrqlNotLessOrEqual},
    // Levels themselves. "Any level (see Remarks section)": "If the new IRQL is less than the
    // current IRQL, a bug check occurs."
    {"KeRaiseIrql",                            C::Always,        HIGH_LEVEL,     false, kRaiseToLowerLevel},
    // "Any level"
    {"KeLowerIrql",                            C::Always,        HIGH_LEVEL,     false, kLowerToHigherLevel},
    // "<= DISPATCH_LEVEL"
    {"KeAcquireSpinLock",                      C::Always,        DISPATCH_LEVEL, false, kAcquireSpinLockAboveDispatch},
    // "DISPATCH_LEVEL (see Remarks section)"
    {"KeReleaseSpinLock",                      C::Always,        DISPATCH_LEVEL, false, kReleaseSpinLockNotAtDispatch},
};

// The framework and the system calling the driver back. level: where this
// bench calls it; highest: where the sweep calls it, the highest its page
// allows.
inline constexpr CallbackLevel kCallbackLevels[] = {
    // callback                           level           highest
    // DRIVER_INITIALIZE: "Called at PASSIVE_LEVEL."
    {"DriverEntry",                       PASSIVE_LEVEL,  PASSIVE_LEVEL},
    // EvtDriverDeviceAdd, EvtDriverUnload: "PASSIVE_LEVEL"
    {"EvtDriverDeviceAdd",                PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDriverUnload",                   PASSIVE_LEVEL,  PASSIVE_LEVEL},
    // EvtCleanupCallback, EvtDestroyCallback: "Typically, the framework calls the EvtCleanupCallback
    // callback function at IRQL <= DISPATCH_LEVEL. However, the framework calls the callback function
    // at IRQL = PASSIVE_LEVEL in the following situations: The object's handle type is WDFDEVICE,
    // WDFDRIVER, WDFDPC, WDFINTERRUPT, WDFIOTARGET, WDFQUEUE, WDFSTRING, WDFTIMER, or WDFWORKITEM."
    {"EvtCleanupCallback",                PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDestroyCallback",                PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtCleanupCallback (other objects)", PASSIVE_LEVEL, DISPATCH_LEVEL},
    {"EvtDestroyCallback (other objects)", PASSIVE_LEVEL, DISPATCH_LEVEL},
    // EvtDeviceD0Entry: "The EvtDeviceD0Entry callback function is called at IRQL = PASSIVE_LEVEL.
    // You should not make this callback function pageable." The others: "PASSIVE_LEVEL"
    {"EvtDeviceD0Entry",                  PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDeviceD0Exit",                   PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDevicePrepareHardware",          PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDeviceReleaseHardware",          PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDeviceQueryRemove",              PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"EvtDeviceQueryStop",                PASSIVE_LEVEL,  PASSIVE_LEVEL},
    // IRP_MN_QUERY_INTERFACE: "A driver or system component sends this IRP at IRQL = PASSIVE_LEVEL";
    // the exporting driver references the interface before it answers. (The camera driver's own
    // calls of the record's routines follow the interface's contract: see platform/checked.h.)
    {"InterfaceReference",                PASSIVE_LEVEL,  PASSIVE_LEVEL},
    // A classic provider's enable callback and a WMI provider's IRP_MJ_SYSTEM_CONTROL handling run
    // in the system's passive-level worker.
    {"the trace enable callback",         PASSIVE_LEVEL,  PASSIVE_LEVEL},
    {"the WMI callback",                  PASSIVE_LEVEL,  PASSIVE_LEVEL},
};

}  // namespace irql_table

inline constexpr std::span<const IrqlRule> irql_rules() { return irql_table::kIrqlRules; }
inline constexpr std::span<const CallbackLevel> callback_levels() { return irql_table::kCallbackLevels; }

namespace detail {
consteval bool same_text(const char* a, const char* b)
{
    while (*a != 0 && *a == *b) {
        a++, b++;
    }
    return *a == *b;
}
}  // namespace detail

consteval const IrqlRule& irql_rule(const char* routine, Condition condition = Condition::Always)
{
    for (const IrqlRule& rule : irql_table::kIrqlRules) {
        if (rule.condition == condition && detail::same_text(rule.routine, routine)) {
            return rule;
        }
    }
    throw "no IRQL rule for this routine and condition";
}

consteval const CallbackLevel& callback_level(const char* callback)
{
    for (const CallbackLevel& level : irql_table::kCallbackLevels) {
        if (detail::same_text(level.callback, callback)) {
            return level;
        }
    }
    throw "no level for this callback";
}

}  // namespace korvanel::bench
