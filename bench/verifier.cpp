// verifier.cpp - the interrupt request level of each thread, the spin locks
// it holds, what a broken rule does, and the routines that change the level.
// The rules themselves are in irql_rules.h.
#include "irql_rules.h"
#include "bench.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace korvanel::bench {

namespace {

// Spin locks this thread holds, so that a stop can let them go (the machine
// they belonged to is gone). A driver holds one or two; more is a leak the
// count still shows.
constexpr int kSpinLocksKept = 8;
thread_local PKSPIN_LOCK t_held[kSpinLocksKept];

// Function-local, so that a hook set by another file's static initialiser is
// not wiped by this one's.
std::mutex& hook_mutex()
{
    static std::mutex m;
    return m;
}
verifier::Hook& hook_storage()
{
    static verifier::Hook hook;
    return hook;
}

std::string hex(uint32_t value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%X", value);
    return text;
}

std::string level_text(KIRQL level) { return std::string(irql_name(level)) + " (" + std::to_string(level) + ")"; }

}  // namespace

const char* irql_name(KIRQL level)
{
    switch (level) {
    case PASSIVE_LEVEL: return "PASSIVE_LEVEL";
    case APC_LEVEL: return "APC_LEVEL";
    case DISPATCH_LEVEL: return "DISPATCH_LEVEL";
    case HIGH_LEVEL: return "HIGH_LEVEL";
    default: return "a device level";
    }
}

std::string Violation::text() const
{
    std::string out = "*** STOP " + hex(stop.code) + " " + stop.bugcheck;
    if (stop.subcode != 0) {
        out += " (" + hex(stop.subcode) + ")";
    }
    out += "\n    " + what;
    out += "\n    routine: " + routine;
    if (!caller.empty()) {
        out += "\n    called by: " + caller;
    }
    if (level_rule) {
        out += "\n    IRQL: " + level_text(current) + ", allowed at most " + level_text(allowed);
    }
    for (const auto& line : details) {
        out += "\n    " + line;
    }
    return out;
}

Bugcheck::Bugcheck(Violation v) : std::runtime_error(v.text()), violation_(std::move(v)) {}

namespace verifier {

thread_local constinit uint32_t t_state = PASSIVE_LEVEL;
constinit std::atomic<Mode> g_mode{Mode::On};

namespace {
// KORVANEL_VERIFIER chooses the mode of a whole run: the test suite, a
// scenario, a fuzz target. A value it does not know is a mistake worth
// stopping for, not one to run past with the checks in another state.
const bool g_configured = [] {
    const char* value = std::getenv("KORVANEL_VERIFIER");
    if (value == nullptr || strcmp(value, "on") == 0) {
        return true;
    }
    if (strcmp(value, "off") == 0) {
        g_mode.store(Mode::Off);
    } else if (strcmp(value, "sweep") == 0) {
        g_mode.store(Mode::Sweep);
    } else {
        fprintf(stderr, "KORVANEL_VERIFIER=%.40s: expected on, off or sweep\n", value);
        std::exit(2);
    }
    return true;
}();
}  // namespace

Mode mode() { return g_mode.load(std::memory_order_relaxed); }
void set_mode(Mode m) { g_mode.store(m, std::memory_order_relaxed); }
bool enabled() { return mode() != Mode::Off; }
void set_enabled(bool on) { set_mode(on ? Mode::On : Mode::Off); }

Hook set_hook(Hook hook)
{
    std::lock_guard lock(hook_mutex());
    std::swap(hook_storage(), hook);
    return hook;
}

void violate(Violation v, bool report)
{
    if (!enabled()) {
        return;
    }
    if (report) {
        Hook hook;
        {
            std::lock_guard lock(hook_mutex());
            hook = hook_storage();
        }
        if (hook) {
            hook(v);
        } else {
            fprintf(stderr, "%s\n", v.text().c_str());
        }
    }
    // The stop ends the work on this thread: its spin locks are let go and
    // it is back at PASSIVE_LEVEL, as a fresh machine's thread would be. The
    // scopes it unwinds through put back the levels their callers had.
    reset_thread();
    throw Bugcheck(std::move(v));
}

void reset_thread()
{
    for (auto& lock : t_held) {
        if (lock != nullptr) {
            __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
            lock = nullptr;
        }
    }
    t_state = PASSIVE_LEVEL;
}

void violate_at_level(const Stop& stop, std::string routine, const void* caller, std::string what, KIRQL allowed)
{
    Violation v{stop, std::move(routine), caller ? symbol(caller) : "", std::move(what)};
    v.level_rule = true;
    v.current = irql();
    v.allowed = allowed;
    violate(std::move(v));
}

void refuse(const IrqlRule& rule, const void* caller)
{
    violate_at_level(rule.stop, rule.routine, caller, std::string(rule.routine) + " called above its IRQL", rule.max);
}

NTSTATUS check_faults(const char* routine) { return Bench::current().faults().check(routine); }

constinit std::atomic<size_t> g_entry_hooks{0};
void run_entry_hooks(const char* routine) { Bench::current().faults().run_entry_hooks(routine); }

void spin_lock_taken(PKSPIN_LOCK lock)
{
    for (auto& held : t_held) {
        if (held == nullptr) {
            held = lock;
            break;
        }
    }
    t_state += 1u << 8;
}

void spin_lock_released(PKSPIN_LOCK lock)
{
    for (auto& held : t_held) {
        if (held == lock) {
            held = nullptr;
            break;
        }
    }
    t_state -= 1u << 8;
}

void returned_changed(const char* routine, uint32_t entered, const Stop& stop)
{
    uint32_t now = t_state;
    KIRQL level = KIRQL(now & 0xFF), expected = KIRQL(entered & 0xFF);
    int locks = int(now >> 8) - int(entered >> 8);
    Violation v{stop, routine, "", ""};
    if (level != expected) {
        v.what = std::string(routine) + " returned at " + irql_name(level) + ", entered at " + irql_name(expected);
    } else {
        v.what = std::string(routine) + (locks > 0 ? " returned holding " : " returned having released ") +
                 std::to_string(locks > 0 ? locks : -locks) + " spin lock(s) it was entered " +
                 (locks > 0 ? "without" : "with");
    }
    // IRQL_UNEXPECTED_VALUE carries the levels in its first parameter.
    if (stop.code == stops::kIrqlUnexpectedValue.code) {
        v.stop.subcode = uint32_t(level) << 16 | uint32_t(expected) << 8;
    }
    v.level_rule = true;
    v.current = level;
    v.allowed = expected;
    violate(std::move(v));
}

const Stop kCallbackReturnedChanged = stops::kWdfIrqlMismatch;

}  // namespace verifier
}  // namespace korvanel::bench

// ---- The routines that change the level ----------------------------------------

using namespace korvanel::bench;

KIRQL KeGetCurrentIrql(void) { return verifier::irql(); }

VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql)
{
    constexpr const IrqlRule& rule = irql_rule("KeRaiseIrql");
    KIRQL current = verifier::irql();
    if (NewIrql < current) {
        verifier::violate_at_level(rule.stop, "KeRaiseIrql", __builtin_return_address(0),
                                   "KeRaiseIrql to a level below the current one", NewIrql);
    }
    *OldIrql = current;
    verifier::set_irql(NewIrql);
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    constexpr const IrqlRule& rule = irql_rule("KeLowerIrql");
    KIRQL current = verifier::irql();
    if (NewIrql > current) {
        verifier::violate_at_level(rule.stop, "KeLowerIrql", __builtin_return_address(0),
                                   "KeLowerIrql to a level above the current one", NewIrql);
    }
    verifier::set_irql(NewIrql);
}

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { *SpinLock = 0; }

// A held lock records its owner thread, so that a second acquire on the same
// thread (a deadlock on Windows) and a release by another thread are caught.
namespace {
ULONG_PTR this_thread_tag()
{
    static thread_local char tag;
    return reinterpret_cast<ULONG_PTR>(&tag);
}

}  // namespace

VOID KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql)
{
    KORVANEL_ENTRY(irql_rule("KeAcquireSpinLock"));
    if (__atomic_load_n(SpinLock, __ATOMIC_ACQUIRE) == this_thread_tag()) {
        verifier::violate_at_level(stops::kSpinLockAlreadyOwned, "KeAcquireSpinLock", __builtin_return_address(0),
                                   "a spin lock acquired again by the thread that holds it", DISPATCH_LEVEL);
    }
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(SpinLock, &expected, this_thread_tag(), false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
        expected = 0;
    }
    *OldIrql = verifier::irql();
    verifier::set_irql(DISPATCH_LEVEL);
    verifier::spin_lock_taken(SpinLock);
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    KORVANEL_ENTRY(irql_rule("KeReleaseSpinLock"));
    if (__atomic_load_n(SpinLock, __ATOMIC_RELAXED) != this_thread_tag()) {
        verifier::violate_at_level(stops::kSpinLockNotOwned, "KeReleaseSpinLock", __builtin_return_address(0),
                                   "a spin lock released by a thread that does not hold it", DISPATCH_LEVEL);
    }
    if (verifier::irql() != DISPATCH_LEVEL) {
        verifier::violate_at_level(stops::kReleaseSpinLockNotAtDispatch, "KeReleaseSpinLock", __builtin_return_address(0),
                                   "a spin lock released at another level than DISPATCH_LEVEL", DISPATCH_LEVEL);
    }
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
    verifier::spin_lock_released(SpinLock);
    KeLowerIrql(NewIrql);
}

void KorvanelBenchPagedCode(const char* Routine, const void* ReturnAddress)
{
    if (verifier::irql() > APC_LEVEL) {
        verifier::violate_at_level(stops::kPagedCodeAboveApc, Routine, ReturnAddress,
                                   std::string("pageable routine ") + Routine + " reached above APC_LEVEL", APC_LEVEL);
    }
}
