// irql_rules.h - the highest interrupt request level at which each platform
// routine the driver calls may be called, from the "IRQL" line of the
// routine's page in the WDK reference, and what Windows stops with when a
// caller breaks it. Each host routine names its row on entry (verifier.h);
// a row that does not exist does not compile.
#pragma once

#include "verifier.h"

#include <span>

namespace korvanel::host {

namespace irql_table {
using C = Condition;
// Bugchecks. A platform routine called above its level faults in pageable
// kernel code, as the verifier forces it to (0x0A); the verifier's own pool
// and IRQL checks say more (0xC4 with a subcode); a pageable driver routine
// reached above APC_LEVEL faults in the driver's pages (0xD1).
#define IRQL_NOT_LESS "IRQL_NOT_LESS_OR_EQUAL", 0x0A
#define VERIFIER "DRIVER_VERIFIER_DETECTED_VIOLATION", 0xC4

// One row per routine and condition, from the "IRQL" line of its page in the
// WDK reference. fails: a fault rule can make the routine fail.
inline constexpr IrqlRule kIrqlRules[] = {
    // routine                                   condition           max             fails  bugcheck
    {"ExAllocatePoolWithTag",                    C::PagedPool,       APC_LEVEL,      true,  VERIFIER, 0x01},
    {"ExAllocatePoolWithTag",                    C::NonPagedPool,    DISPATCH_LEVEL, true,  VERIFIER, 0x02},
    {"ExFreePoolWithTag",                        C::PagedPool,       APC_LEVEL,      false, VERIFIER, 0x11},
    {"ExFreePoolWithTag",                        C::NonPagedPool,    DISPATCH_LEVEL, false, VERIFIER, 0x12},
    {"InterlockedCompareExchange",               C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"InterlockedDecrement",                     C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"InterlockedExchange",                      C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"InterlockedIncrement",                     C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"IoBuildSynchronousFsdRequest",             C::Always,          APC_LEVEL,      true,  IRQL_NOT_LESS, 0},
    {"IofCallDriver",                            C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"IoWMIRegistrationControl",                 C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"KeClearEvent",                             C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"KeDelayExecutionThread",                   C::Always,          APC_LEVEL,      false, IRQL_NOT_LESS, 0},
    {"KeInitializeEvent",                        C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"KeQuerySystemTime",                        C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"KeReadStateEvent",                         C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"KeSetEvent",                               C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"KeStallExecutionProcessor",                C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    {"KeWaitForSingleObject",                    C::BlockingWait,    APC_LEVEL,      true,  IRQL_NOT_LESS, 0},
    {"KeWaitForSingleObject",                    C::PollingWait,     DISPATCH_LEVEL, true,  IRQL_NOT_LESS, 0},
    {"MmGetSystemRoutineAddress",                C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"RtlAnsiStringToUnicodeString",             C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"RtlCopyUnicodeString",                     C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"RtlFreeUnicodeString",                     C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"RtlGetVersion",                            C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"RtlInitAnsiString",                        C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"RtlInitUnicodeString",                     C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"RtlStringCbCopyA",                         C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"RtlStringCbPrintfW",                       C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"ZwClose",                                  C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"ZwOpenKey",                                C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"ZwQueryValueKey",                          C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    // Event tracing, found by name: registration at passive level, a
    // message at the caller's level.
    {"EtwRegisterClassicProvider",               C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"EtwUnregister",                            C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"WmiTraceMessage",                          C::Always,          HIGH_LEVEL,     false, IRQL_NOT_LESS, 0},
    // The framework.
    {"WdfDeviceAddQueryInterface",               C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceAssignS0IdleSettings",            C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceCreate",                          C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceCreateDeviceInterface",           C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceInitSetPnpPowerEventCallbacks",   C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfDeviceResumeIdle",                      C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfDeviceRetrieveDeviceInterfaceString",   C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceSetDeviceState",                  C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfDeviceSetStaticStopRemove",             C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfDeviceStopIdle",                        C::WaitForD0,       PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceStopIdle",                        C::NoWait,          DISPATCH_LEVEL, true,  IRQL_NOT_LESS, 0},
    {"WdfDeviceWdmGetPhysicalDevice",            C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfDriverCreate",                          C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfDriverWdmGetDriverObject",              C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfIoTargetClose",                         C::Always,          PASSIVE_LEVEL,  false, IRQL_NOT_LESS, 0},
    {"WdfIoTargetCreate",                        C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfIoTargetOpen",                          C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfIoTargetSendIoctlSynchronously",        C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfObjectDelete",                          C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfObjectGetTypedContextWorker",           C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"WdfStringCreate",                          C::Always,          PASSIVE_LEVEL,  true,  IRQL_NOT_LESS, 0},
    {"WdfStringGetUnicodeString",                C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    // Levels themselves.
    {"KeRaiseIrql",                              C::Always,          HIGH_LEVEL,     false, VERIFIER, 0x30},
    {"KeLowerIrql",                              C::Always,          HIGH_LEVEL,     false, VERIFIER, 0x31},
    {"KeAcquireSpinLock",                        C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
    {"KeReleaseSpinLock",                        C::Always,          DISPATCH_LEVEL, false, IRQL_NOT_LESS, 0},
};

#undef IRQL_NOT_LESS
#undef VERIFIER
}  // namespace irql_table

inline constexpr std::span<const IrqlRule> irql_rules() { return irql_table::kIrqlRules; }

consteval const IrqlRule& irql_rule(const char* routine, Condition condition = Condition::Always)
{
    auto same = [](const char* a, const char* b) {
        while (*a != 0 && *a == *b) {
            a++, b++;
        }
        return *a == *b;
    };
    for (const IrqlRule& rule : irql_table::kIrqlRules) {
        if (rule.condition == condition && same(rule.routine, routine)) {
            return rule;
        }
    }
    throw "no IRQL rule for this routine and condition";
}

}  // namespace korvanel::host
