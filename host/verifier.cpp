// verifier.cpp - the interrupt request level of each thread, the rule table
// of the platform routines the driver calls, and what a broken rule does.
#include "irql_rules.h"
#include "system.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <mutex>

namespace korvanel::host {

namespace {


thread_local int t_spin_locks = 0;
std::atomic<bool> g_enabled{true};

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

void print_report(const Violation& v) { fprintf(stderr, "%s\n", v.text().c_str()); }

std::string hex(uint32_t value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%X", value);
    return text;
}

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
    std::string out = "*** STOP " + hex(code) + " " + bugcheck;
    if (subcode != 0) {
        out += " (" + hex(subcode) + ")";
    }
    out += "\n    " + what;
    out += "\n    routine: " + routine;
    if (!caller.empty()) {
        out += "\n    called by: " + caller;
    }
    out += "\n    IRQL: " + std::string(irql_name(current)) + " (" + std::to_string(current) + "), allowed at most " +
           irql_name(allowed) + " (" + std::to_string(allowed) + ")";
    return out;
}

Bugcheck::Bugcheck(Violation v) : std::runtime_error(v.text()), violation_(std::move(v)) {}

namespace verifier {

thread_local constinit KIRQL t_irql = PASSIVE_LEVEL;

KIRQL irql() { return t_irql; }
void set_irql(KIRQL level) { t_irql = level; }
bool enabled() { return g_enabled.load(std::memory_order_relaxed); }
void set_enabled(bool on) { g_enabled.store(on, std::memory_order_relaxed); }

Hook set_hook(Hook hook)
{
    std::lock_guard lock(hook_mutex());
    std::swap(hook_storage(), hook);
    return hook;
}

void violate(Violation v)
{
    Hook hook;
    {
        std::lock_guard lock(hook_mutex());
        hook = hook_storage();
    }
    if (hook) {
        hook(v);
    } else {
        print_report(v);
    }
    throw Bugcheck(std::move(v));
}

std::string symbol(const void* address)
{
    Dl_info info{};
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_sname == nullptr) {
        char text[32];
        snprintf(text, sizeof text, "%p", address);
        return text;
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : info.dli_sname;
    free(demangled);
    // "SelectMode(_DEVICE_CONTEXT*, ...)": the routine's name is enough.
    return name.substr(0, name.find('('));
}

void refuse(const IrqlRule& rule, const void* caller)
{
    if (g_enabled.load(std::memory_order_relaxed)) {
        violate({rule.bugcheck, rule.code, rule.subcode, rule.routine, symbol(caller), t_irql, rule.max,
                 std::string(rule.routine) + " called above its IRQL"});
    }
}

NTSTATUS check_faults(const char* routine) { return System::current().faults().check(routine); }

void spin_lock_taken(int delta) { t_spin_locks += delta; }
int spin_locks_held() { return t_spin_locks; }

void callback_returned(const char* callback, KIRQL level, int spin_locks)
{
    if (!g_enabled.load(std::memory_order_relaxed)) {
        return;
    }
    if (t_irql != level) {
        violate({"IRQL_UNEXPECTED_VALUE", 0xC8, 0, callback, "", t_irql, level,
                 std::string(callback) + " returned to the framework at another IRQL than it was called at"});
    }
    if (t_spin_locks != spin_locks) {
        violate({"IRQL_UNEXPECTED_VALUE", 0xC8, 0, callback, "", t_irql, level,
                 std::string(callback) + " returned to the framework holding a spin lock"});
    }
}

}  // namespace verifier
}  // namespace korvanel::host

// ---- The routines that change the level ----------------------------------------

using namespace korvanel::host;

KIRQL KeGetCurrentIrql(void) { return verifier::irql(); }

VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql)
{
    constexpr const IrqlRule& rule = irql_rule("KeRaiseIrql");
    KIRQL current = verifier::irql();
    if (NewIrql < current && verifier::enabled()) {
        verifier::violate({rule.bugcheck, rule.code, rule.subcode, "KeRaiseIrql",
                           verifier::symbol(__builtin_return_address(0)), current, NewIrql,
                           "KeRaiseIrql to a level below the current one"});
    }
    *OldIrql = current;
    verifier::set_irql(NewIrql);
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    constexpr const IrqlRule& rule = irql_rule("KeLowerIrql");
    KIRQL current = verifier::irql();
    if (NewIrql > current && verifier::enabled()) {
        verifier::violate({rule.bugcheck, rule.code, rule.subcode, "KeLowerIrql",
                           verifier::symbol(__builtin_return_address(0)), current, NewIrql,
                           "KeLowerIrql to a level above the current one"});
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
    ULONG_PTR owner = __atomic_load_n(SpinLock, __ATOMIC_ACQUIRE);
    if (owner == this_thread_tag() && verifier::enabled()) {
        verifier::violate({"SPIN_LOCK_ALREADY_OWNED", 0x0F, 0, "KeAcquireSpinLock",
                           verifier::symbol(__builtin_return_address(0)), verifier::irql(), DISPATCH_LEVEL,
                           "a spin lock acquired again by the thread that holds it"});
    }
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(SpinLock, &expected, this_thread_tag(), false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
        expected = 0;
    }
    *OldIrql = verifier::irql();
    verifier::set_irql(DISPATCH_LEVEL);
    verifier::spin_lock_taken(1);
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    KORVANEL_ENTRY(irql_rule("KeReleaseSpinLock"));
    if (__atomic_load_n(SpinLock, __ATOMIC_RELAXED) != this_thread_tag() && verifier::enabled()) {
        verifier::violate({"SPIN_LOCK_NOT_OWNED", 0x10, 0, "KeReleaseSpinLock",
                           verifier::symbol(__builtin_return_address(0)), verifier::irql(), DISPATCH_LEVEL,
                           "a spin lock released by a thread that does not hold it"});
    }
    if (verifier::irql() != DISPATCH_LEVEL && verifier::enabled()) {
        verifier::violate({"IRQL_NOT_LESS_OR_EQUAL", 0x0A, 0, "KeReleaseSpinLock",
                           verifier::symbol(__builtin_return_address(0)), verifier::irql(), DISPATCH_LEVEL,
                           "a spin lock released at another level than DISPATCH_LEVEL"});
    }
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
    verifier::spin_lock_taken(-1);
    KeLowerIrql(NewIrql);
}

void KorvanelHostPagedCode(const char* Routine)
{
    KIRQL level = verifier::irql();
    if (level > APC_LEVEL && verifier::enabled()) {
        verifier::violate({"DRIVER_IRQL_NOT_LESS_OR_EQUAL", 0xD1, 0, Routine, "", level, APC_LEVEL,
                           std::string("pageable routine ") + Routine + " reached above APC_LEVEL"});
    }
}
