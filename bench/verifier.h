// verifier.h - the bench is as strict as the Windows kernel under Driver
// Verifier and the framework's verifier: every thread that runs driver code
// carries an interrupt request level, every platform routine the driver calls
// checks it against the routine's documented limit, PAGED_CODE() checks it,
// every call into the driver (a framework callback, an operation the camera
// driver calls directly) must return at the level it was entered and holding
// the spin locks it held, and pool, handle and wait misuse stop at the
// faulting call, as a bugcheck would.
//
// The rules are one table (irql_rules.h), written from the "IRQL" line of
// each routine's reference page; a platform routine names its row in the one
// line it begins with:
//
//   NTSTATUS ZwOpenKey(...)
//   {
//       NTSTATUS injected = KORVANEL_ENTRY(irql_rule("ZwOpenKey"));
//
// which checks the level, counts the call and applies the fault rules.
//
// A violation is reported to the hook (the test suite fails the running
// test there, the tool prints it) and thrown as bench::Bugcheck, which ends
// the driver's work on that thread the way a bugcheck ends the machine's.
// The thread is then back at PASSIVE_LEVEL holding no spin lock, so that
// whatever runs next on it starts clean.
//
// Modes (KORVANEL_VERIFIER in the environment, or set_mode):
//   on     the default: every check.
//   sweep  every check, and every call into the driver is made at the
//          highest level its declaration or documentation allows, so that
//          every branch a run reaches at all is also reached at its level.
//   off    no check; for a measurement that says so.
#pragma once

#include "../wdk/wdm.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <utility>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvanel::bench {

// What a routine's documentation makes its limit depend on.
enum class Condition : uint8_t {
    Always,
    WaitForever,   // a wait with no time-out
    TimedWait,     // a wait with a non-zero time-out
    PollingWait,   // a wait with a zero time-out: any wait's limit
    PagedPool,
    NonPagedPool,
    WaitForD0,     // WdfDeviceStopIdle that waits for D0
    NoWait,        // WdfDeviceStopIdle that does not
    SetAndWait,    // KeSetEvent with Wait TRUE
};

// A stop: what Windows names it, its code and, where the code has them, the
// subcode in its first parameter.
struct Stop {
    const char* bugcheck;
    uint32_t code;
    uint32_t subcode;
};

struct IrqlRule {
    const char* routine;
    Condition condition;
    KIRQL max;   // the highest level the routine may be called at
    bool fails;  // a fault rule can make the routine fail
    Stop stop;   // what Windows stops with when the rule is broken
};

// A framework (or system) callback into the driver: the level it is called
// at on this bench, and the highest its documentation allows, at which the
// sweep calls it.
struct CallbackLevel {
    const char* callback;
    KIRQL level;
    KIRQL highest;
};

const char* irql_name(KIRQL level);  // "PASSIVE_LEVEL", ...

struct Violation {
    Violation() = default;
    Violation(Stop s, std::string r, std::string c, std::string w)
        : stop(s), routine(std::move(r)), caller(std::move(c)), what(std::move(w))
    {
    }
    Stop stop{};
    std::string routine;  // the platform routine, or the driver routine at fault
    std::string caller;   // the driver routine that called it, where the bench can tell
    std::string what;     // one line on the rule that was broken
    // For a broken level rule: the level found and the highest allowed.
    bool level_rule = false;
    KIRQL current = 0;
    KIRQL allowed = 0;
    std::vector<std::string> details;  // further lines: the allocation leaked, the threads waiting
    std::string text() const;          // the report, several lines
};

class Bugcheck : public std::runtime_error {
public:
    explicit Bugcheck(Violation v);
    const Violation& violation() const { return violation_; }

private:
    Violation violation_;
};

// The framework's steps of one piece of work (a deletion, a removal, an
// unload) run to their end even when the driver stops in one of them, so
// that the bench's records stay whole; the first stop is thrown once the
// work is done.
class Completion {
public:
    template <typename F>
    void step(F&& f)
    {
        try {
            f();
        } catch (const Bugcheck&) {
            if (!first_) {
                first_ = std::current_exception();
            }
        }
    }
    void finish()
    {
        if (first_) {
            std::rethrow_exception(std::exchange(first_, nullptr));
        }
    }

private:
    std::exception_ptr first_;
};

namespace verifier {

enum class Mode : uint8_t { Off, On, Sweep };
// The mode KORVANEL_VERIFIER names ("on", "off", "sweep"); On when unset.
Mode mode();
void set_mode(Mode mode);
bool enabled();
void set_enabled(bool on);  // On or Off

// The current thread's state, read inline on every platform call and around
// every call into the driver: the level in the low byte, the number of spin
// locks held in the next. One word, so that "returned as it was entered" is
// one compare.
extern thread_local constinit uint32_t t_state;
extern constinit std::atomic<Mode> g_mode;

inline KIRQL irql() { return KIRQL(t_state & 0xFF); }
inline void set_irql(KIRQL level) { t_state = (t_state & ~0xFFu) | level; }
inline int spin_locks_held() { return int(t_state >> 8); }
inline bool sweeping() { return g_mode.load(std::memory_order_relaxed) == Mode::Sweep; }

// Called with every violation before it is thrown; the default prints the
// report to stderr. Returns the hook it replaces.
using Hook = std::function<void(const Violation&)>;
Hook set_hook(Hook hook);

// Reports (unless `report` is false: a stop already reported on another
// thread), puts the thread back at PASSIVE_LEVEL with no spin lock held, and
// throws. Nothing happens while the verifier is off.
void violate(Violation v, bool report = true);

// The name of the code at an address ("SelectMode"), static routines
// included, or the address.
std::string symbol(const void* address);

// A broken rule: reported and thrown when the verifier is on.
[[gnu::cold]] void refuse(const IrqlRule& rule, const void* caller);
// A stop for the current level: `allowed` is what the rule broken allows.
[[gnu::cold]] void violate_at_level(const Stop& stop, std::string routine, const void* caller, std::string what,
                                    KIRQL allowed);
// The call counted and, when a fault rule says so, its injected failure.
NTSTATUS check_faults(const char* routine);

// The caller's level against the rule. The rule is a constant, so the check
// is one thread-local load and a compare.
[[gnu::always_inline]] inline void check_level(const IrqlRule& rule, const void* caller)
{
    if (irql() > rule.max) [[unlikely]] {
        refuse(rule, caller);
    }
}

// Entry hooks pending on the bench (Faults::at_entry).
extern constinit std::atomic<size_t> g_entry_hooks;
[[gnu::cold]] void run_entry_hooks(const char* routine);

// The entry line of a platform routine: the caller's level against the rule,
// the call counted and, for routines that can fail, an injected failure.
[[gnu::always_inline]] inline NTSTATUS enter(const IrqlRule& rule, const void* caller)
{
    check_level(rule, caller);
    if (g_entry_hooks.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        run_entry_hooks(rule.routine);
    }
    return rule.fails ? check_faults(rule.routine) : STATUS_SUCCESS;
}

// This thread back at PASSIVE_LEVEL with no spin lock held, as a new
// machine's thread: a new bench begins so.
void reset_thread();

// Spin locks held by this thread, so that a stop can let them go.
void spin_lock_taken(PKSPIN_LOCK lock);
void spin_lock_released(PKSPIN_LOCK lock);

// A call into the driver came back at another level or with other spin locks
// than it was entered with: the stop names `routine`.
[[gnu::cold]] void returned_changed(const char* routine, uint32_t entered, const Stop& stop);

// The scope of one call into the driver at `level` (raised to `highest` in
// the sweep when `highest` is above it): the state is restored when the
// scope ends, however it ends, and returned() checks the driver kept it.
class CallScope {
public:
    [[gnu::always_inline]] CallScope(KIRQL level) : before_(t_state), entered_((before_ & ~0xFFu) | level)
    {
        t_state = entered_;
    }
    [[gnu::always_inline]] void returned(const char* routine, const Stop& stop) const
    {
        if (t_state != entered_) [[unlikely]] {
            returned_changed(routine, entered_, stop);
        }
    }
    [[gnu::always_inline]] ~CallScope() { t_state = before_; }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

private:
    uint32_t before_;
    uint32_t entered_;
};

// The state an operation the camera driver calls directly runs in: the
// caller's, or in the sweep at the operation's declared highest level when
// that is above the caller's.
[[gnu::always_inline]] inline uint32_t operation_state(uint32_t caller, KIRQL highest)
{
    return sweeping() && KIRQL(caller & 0xFF) < highest ? (caller & ~0xFFu) | highest : caller;
}

// What the framework's verifier stops with when a callback returns at
// another level than it was called at (irql_rules.h).
extern const Stop kCallbackReturnedChanged;

// The framework calling into the driver: the callback runs at its level (in
// the sweep, the highest its documentation allows), on whatever thread does
// the work here, and must return at that level holding no spin lock it did
// not hold before.
template <typename F>
auto call_driver(const CallbackLevel& callback, F&& f)
{
    CallScope scope(sweeping() ? callback.highest : callback.level);
    if constexpr (std::is_void_v<decltype(f())>) {
        f();
        scope.returned(callback.callback, kCallbackReturnedChanged);
    } else {
        auto result = f();
        scope.returned(callback.callback, kCallbackReturnedChanged);
        return result;
    }
}

// Runs `f` at `level` on this thread, as a caller holding a spin lock or
// running in a DPC would, and restores the level afterwards.
template <typename F>
auto at_irql(KIRQL level, F&& f)
{
    KIRQL saved = irql();
    set_irql(level);
    struct Restore {
        KIRQL saved;
        ~Restore() { set_irql(saved); }
    } restore{saved};
    return f();
}

}  // namespace verifier
}  // namespace korvanel::bench

// The first line of every platform routine the driver calls.
#define KORVANEL_ENTRY(rule) ::korvanel::bench::verifier::enter((rule), __builtin_return_address(0))
