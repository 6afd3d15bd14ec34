// verifier.h - the bench is as strict as the Windows kernel under Driver
// Verifier: every thread that runs driver code carries an interrupt request
// level, every platform routine the driver calls checks it against the
// routine's documented limit, PAGED_CODE() checks it, and a broken rule stops
// the work with a report, as a bugcheck would.
//
// The rules are one table (irql_rules.h), written from the "IRQL" line of
// each routine's reference page; a platform routine names its row in the one
// line it begins with, which checks the level, counts the call and applies
// the fault rules:
//
//   NTSTATUS ZwOpenKey(...)
//   {
//       NTSTATUS injected = KORVANEL_ENTRY(irql_rule("ZwOpenKey"));
//
// which checks the level, counts the call and applies the fault rules.
//
// A violation is reported to the hook (the test suite fails the running
// test there, the tool prints it) and thrown as host::Bugcheck, which ends
// the driver's work on that thread the way a bugcheck ends the machine's.
#pragma once

#include "../wdk/wdm.h"

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>

namespace korvanel::host {

// What a routine's documentation makes its limit depend on.
enum class Condition : uint8_t {
    Always,
    BlockingWait,  // a wait with no time-out or a non-zero one
    PollingWait,   // a wait with a zero time-out
    PagedPool,
    NonPagedPool,
    WaitForD0,     // WdfDeviceStopIdle that waits for D0
    NoWait,        // WdfDeviceStopIdle that does not
};

struct IrqlRule {
    const char* routine;
    Condition condition;
    KIRQL max;            // the highest level the routine may be called at
    bool fails;           // a fault rule can make the routine fail
    const char* bugcheck; // what Windows stops with when the rule is broken
    uint32_t code;
    uint32_t subcode;     // 0xC4's first parameter; 0 where none fits
};

const char* irql_name(KIRQL level);  // "PASSIVE_LEVEL", ...

struct Violation {
    std::string bugcheck;  // "DRIVER_IRQL_NOT_LESS_OR_EQUAL"
    uint32_t code = 0;     // 0xD1
    uint32_t subcode = 0;
    std::string routine;   // the platform routine, or the pageable driver routine reached
    std::string caller;    // the driver routine that called it, where the bench can tell
    KIRQL current = 0;
    KIRQL allowed = 0;
    std::string what;      // one line on the rule that was broken
    std::string text() const;  // the report, several lines
};

class Bugcheck : public std::runtime_error {
public:
    explicit Bugcheck(Violation v);
    const Violation& violation() const { return violation_; }

private:
    Violation violation_;
};

namespace verifier {

// The current thread's level. Every thread starts at PASSIVE_LEVEL.
KIRQL irql();
void set_irql(KIRQL level);

// On by default everywhere; off only for a measurement that says so.
bool enabled();
void set_enabled(bool on);

// Called with every violation before it is thrown; the default prints the
// report to stderr. Returns the hook it replaces.
using Hook = std::function<void(const Violation&)>;
Hook set_hook(Hook hook);

// Reports and throws.
[[noreturn]] void violate(Violation v);

// The name of the code at a return address ("SelectMode"), or the address.
std::string symbol(const void* address);

// The current thread's level, read inline by every platform routine.
extern thread_local constinit KIRQL t_irql;
// A broken rule: reported and thrown when the verifier is on.
void refuse(const IrqlRule& rule, const void* caller);
// The call counted and, when a fault rule says so, its injected failure.
NTSTATUS check_faults(const char* routine);

// The entry line of a platform routine: the caller's level against the rule,
// the call counted and, for routines that can fail, an injected failure. The
// rule is a constant, so the check is one thread-local load and a compare.
[[gnu::always_inline]] inline NTSTATUS enter(const IrqlRule& rule, const void* caller)
{
    if (t_irql > rule.max) [[unlikely]] {
        refuse(rule, caller);
    }
    return rule.fails ? check_faults(rule.routine) : STATUS_SUCCESS;
}

// A spin lock taken or released on this thread (the framework checks none is
// held when a callback returns).
void spin_lock_taken(int delta);
int spin_locks_held();

// The framework calling into the driver: the callback runs at `level`, as the
// framework documents it, on whatever thread does the work here; it must
// return at that level and holding no spin lock it did not hold before.
void callback_returned(const char* callback, KIRQL level, int spin_locks);

template <typename F>
auto call_driver(const char* callback, KIRQL level, F&& f)
{
    KIRQL saved = irql();
    int locks = spin_locks_held();
    set_irql(level);
    try {
        if constexpr (std::is_void_v<decltype(f())>) {
            f();
            callback_returned(callback, level, locks);
            set_irql(saved);
        } else {
            auto result = f();
            callback_returned(callback, level, locks);
            set_irql(saved);
            return result;
        }
    } catch (...) {
        set_irql(saved);
        throw;
    }
}

// Runs `f` at `level` on this thread, as a caller holding a spin lock or
// running in a DPC would, and restores the level afterwards.
template <typename F>
auto at_irql(KIRQL level, F&& f)
{
    KIRQL saved = irql();
    set_irql(level);
    try {
        if constexpr (std::is_void_v<decltype(f())>) {
            f();
            set_irql(saved);
        } else {
            auto result = f();
            set_irql(saved);
            return result;
        }
    } catch (...) {
        set_irql(saved);
        throw;
    }
}

}  // namespace verifier
}  // namespace korvanel::host

// The first line of every platform routine the driver calls.
#define KORVANEL_ENTRY(rule) ::korvanel::host::verifier::enter((rule), __builtin_return_address(0))
