// ke.cpp - the kernel's dispatcher and time services on the bench: events
// with real blocking waits, thread delays, processor stalls, system time and
// interlocked operations, all on the bench's clock.
#include "bench.h"
#include "irql_rules.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>

#include <dirent.h>
#include <pthread.h>

namespace korvanel::bench {

namespace {

constexpr ULONG kEventMagic = 0x4B455654;  // "KEVT"

// All events share one lock and one condition: a set wakes every waiter and
// each one checks its own event.
std::mutex& event_mutex()
{
    static std::mutex m;
    return m;
}
std::condition_variable& event_changed()
{
    static std::condition_variable cv;
    return cv;
}

}  // namespace

}  // namespace korvanel::bench

using korvanel::bench::Bench;
namespace verifier = korvanel::bench::verifier;
using korvanel::bench::Condition;
using korvanel::bench::irql_rule;
using korvanel::bench::Violation;

// ---- Events and waits ---------------------------------------------------------
//
// A wait that nothing can end stops the bench instead of hanging it, as
// Driver Verifier's deadlock detection stops for a lock taken twice or in a
// cycle; here the driver's locks are events (BusLock):
//   - a thread waits, with no time-out, for a synchronization event it took
//     itself, that nobody has set since and that no thread but itself has
//     ever set (it took the lock and waits for it again): a self-deadlock
//     (0xC4/0x1000);
//   - every thread that uses events waits with no time-out, and the process
//     has no other thread that could still set one: a deadlock (0xC4/0x1001)
//     naming the waiters. Timers cannot end it on the virtual clock: time
//     moves only when a thread does.

namespace {

using korvanel::bench::event_changed;
using korvanel::bench::event_mutex;
using korvanel::bench::kEventMagic;

// The threads that use events, and what each is waiting for; under the event
// mutex. A thread is entered on its first event call and leaves when it ends.
struct EventThread {
    bool waiting = false;
    PRKEVENT event = nullptr;
    const void* caller = nullptr;
};
std::map<const void*, EventThread>& event_threads()
{
    static std::map<const void*, EventThread> threads;
    return threads;
}
// A declared deadlock: every waiter wakes to it and stops.
struct Deadlock {
    uint64_t generation = 0;
    Violation violation;
    bool reported = false;
};
Deadlock& deadlock()
{
    static Deadlock d;
    return d;
}

struct ThreadEntry {
    bool entered = false;
    void enter()  // with the event mutex held
    {
        if (!entered) {
            event_threads()[this] = {};
            entered = true;
        }
    }
    ~ThreadEntry()
    {
        if (entered) {
            std::lock_guard lock(event_mutex());
            event_threads().erase(this);
            event_changed().notify_all();  // the others may now be all that is left
        }
    }
};
thread_local ThreadEntry t_entry;
const void* this_thread() { return &t_entry; }

// An event's bench bookkeeping lives in its reserved words: which thread has
// set it (none, one, or kMany), and which thread's wait took its last
// signal (none once it is set again).
constexpr ULONG64 kMany = ~ULONG64(0);
ULONG64 me() { return reinterpret_cast<ULONG64>(this_thread()); }
void note_setter(PRKEVENT event)
{
    ULONG64& setter = event->Reserved[0];
    setter = setter == 0 || setter == me() ? me() : kMany;
    event->Reserved[1] = 0;
}
bool waits_for_itself(PRKEVENT event)
{
    return event->Type == SynchronizationEvent && event->Reserved[1] == me() &&
           (event->Reserved[0] == 0 || event->Reserved[0] == me());
}

size_t threads_in_process()
{
    size_t n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            n += entry->d_name[0] != '.';
        }
        closedir(dir);
    }
    return n;
}

std::string waiter_line(const EventThread& t)
{
    char text[160];
    snprintf(text, sizeof text, "waiting: %s, for the event at %p", verifier::symbol(t.caller).c_str(),
             static_cast<void*>(t.event));
    return text;
}

// With the event mutex held: whether every thread that uses events now waits
// for ever, and whether besides no other thread exists that could end a wait.
bool every_user_waits()
{
    auto& threads = event_threads();
    return !threads.empty() &&
           std::all_of(threads.begin(), threads.end(), [](const auto& entry) { return entry.second.waiting; });
}
bool all_wait_for_ever() { return every_user_waits() && threads_in_process() <= event_threads().size(); }

void declare_deadlock()  // with the event mutex held
{
    auto& d = deadlock();
    Violation v{korvanel::bench::stops::kDeadlock, "KeWaitForSingleObject", "",
                "every thread waits, with no time-out, for an event only a waiting thread could set"};
    for (auto& [tag, t] : event_threads()) {
        if (v.caller.empty()) {
            v.caller = verifier::symbol(t.caller);
        }
        v.details.push_back(waiter_line(t));
    }
    d.violation = std::move(v);
    d.reported = false;
    d.generation++;
    event_changed().notify_all();
}

// The current thread's stack, for telling whether an object lives on it.
bool on_this_stack(const void* p)
{
    thread_local const char* low = nullptr;
    thread_local const char* high = nullptr;
    if (low == nullptr) {
        pthread_attr_t attributes;
        void* base = nullptr;
        size_t size = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getstack(&attributes, &base, &size);
            pthread_attr_destroy(&attributes);
        }
        low = static_cast<const char*>(base);
        high = low + size;
    }
    auto* at = static_cast<const char*>(p);
    return at >= low && at < high;
}

}  // namespace

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    KORVANEL_ENTRY(irql_rule("KeInitializeEvent"));
    std::lock_guard lock(event_mutex());
    t_entry.enter();
    Event->Type = Type;
    Event->SignalState = State ? 1 : 0;
    Event->Magic = kEventMagic;
    Event->Reserved[0] = 0;  // the initial state is no thread's setting
    Event->Reserved[1] = 0;
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    // "If Wait is set to FALSE, the caller can be running at IRQL <=
    // DISPATCH_LEVEL. Otherwise ... IRQL <= APC_LEVEL". With Wait TRUE the
    // routine returns at DISPATCH_LEVEL, and the wait that must follow
    // lowers it again; here the level simply stays where it was.
    KORVANEL_ENTRY(irql_rule("KeSetEvent"));
    if (Wait) {
        KORVANEL_ENTRY(irql_rule("KeSetEvent", Condition::SetAndWait));
    }
    (void)Increment;
    LONG previous;
    {
        std::lock_guard lock(event_mutex());
        t_entry.enter();
        if (Event->Magic != kEventMagic) {
            Bench::current().faults().note_error("KeSetEvent on an event that was never initialised");
        }
        previous = Event->SignalState;
        Event->SignalState = 1;
        note_setter(Event);
    }
    event_changed().notify_all();
    return previous;
}

VOID KeClearEvent(PRKEVENT Event)
{
    KORVANEL_ENTRY(irql_rule("KeClearEvent"));
    std::lock_guard lock(event_mutex());
    Event->SignalState = 0;
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    KORVANEL_ENTRY(irql_rule("KeReadStateEvent"));
    std::lock_guard lock(event_mutex());
    return Event->SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout)
{
    (void)WaitReason;
    const void* caller = __builtin_return_address(0);
    // Any wait: DISPATCH_LEVEL at most. One that may block: APC_LEVEL.
    verifier::check_level(irql_rule("KeWaitForSingleObject", Condition::PollingWait), caller);
    bool polls = Timeout != nullptr && Timeout->QuadPart == 0;
    if (Timeout == nullptr) {
        verifier::check_level(irql_rule("KeWaitForSingleObject", Condition::WaitForever), caller);
    } else if (!polls) {
        verifier::check_level(irql_rule("KeWaitForSingleObject", Condition::TimedWait), caller);
    }
    auto& sys = Bench::current();
    // An alert ends only an alertable wait, a user APC only an alertable
    // user-mode one; a fault rule delivers either.
    NTSTATUS injected = sys.faults().check_wait("KeWaitForSingleObject", Alertable, Alertable && WaitMode == UserMode, true);
    if (injected != STATUS_SUCCESS) {
        return injected;
    }
    // "If you allocate the event on the stack, you must set the WaitMode
    // parameter to KernelMode": a user-mode wait lets the stack be paged out.
    if (WaitMode == UserMode && on_this_stack(Object)) {
        Violation v{korvanel::bench::stops::kUserModeWaitOnStack, "KeWaitForSingleObject", verifier::symbol(caller),
                    "a user-mode wait for an object on the waiting thread's kernel stack"};
        verifier::violate(std::move(v));
    }
    auto* event = static_cast<PRKEVENT>(Object);
    std::unique_lock lock(event_mutex());
    t_entry.enter();
    if (event->Magic != kEventMagic) {
        lock.unlock();
        sys.faults().note_error("KeWaitForSingleObject on an event that was never initialised");
        return STATUS_INVALID_PARAMETER;
    }
    auto satisfied = [event] { return event->SignalState != 0; };
    if (!satisfied()) {
        if (Timeout != nullptr) {
            // A wait with a time-out: on the virtual clock the time passes at
            // once; on the real clock the waiter blocks at most that long.
            int64_t units = Timeout->QuadPart < 0 ? -Timeout->QuadPart : 0;
            if (sys.clock().mode() == korvanel::bench::Clock::Mode::Virtual) {
                lock.unlock();
                sys.clock().advance(units);
                lock.lock();
            } else {
                event_changed().wait_for(lock, std::chrono::nanoseconds(units * 100), satisfied);
            }
            if (!satisfied()) {
                return STATUS_TIMEOUT;
            }
        } else {
            if (waits_for_itself(event)) {
                lock.unlock();
                Violation v{korvanel::bench::stops::kSelfDeadlock, "KeWaitForSingleObject", verifier::symbol(caller),
                            "a thread waits, with no time-out, for an event it took and only it sets"};
                char text[96];
                snprintf(text, sizeof text, "the event at %p", static_cast<void*>(event));
                v.details.push_back(text);
                verifier::violate(std::move(v));
                return STATUS_UNSUCCESSFUL;  // the verifier is off: the wait would never end
            }
            EventThread& me = event_threads()[this_thread()];
            me = {true, event, caller};
            auto& d = deadlock();
            uint64_t generation = d.generation;
            // Looked at again on every wake: a thread that ended may have
            // been the last that could set the event. While every thread
            // that uses events waits and only threads that do not are left
            // (one that is ending, one that has not used an event yet), it is
            // looked at again every few milliseconds, until those go or act.
            auto ends = [&] {
                if (satisfied() || d.generation != generation) {
                    return true;
                }
                if (all_wait_for_ever() && verifier::enabled()) {
                    declare_deadlock();
                    return true;
                }
                return false;
            };
            while (!ends()) {
                if (every_user_waits()) {
                    event_changed().wait_for(lock, std::chrono::milliseconds(5));
                } else {
                    event_changed().wait(lock);
                }
            }
            me.waiting = false;
            if (!satisfied()) {
                // Stopped: one waiter reports, every one of them stops.
                Violation v = d.violation;
                bool report = !d.reported;
                d.reported = true;
                lock.unlock();
                verifier::violate(std::move(v), report);
                return STATUS_UNSUCCESSFUL;  // not reached: the deadlock was declared with the verifier on
            }
        }
    }
    if (event->Type == SynchronizationEvent) {
        event->SignalState = 0;
        event->Reserved[1] = me();
    }
    return STATUS_SUCCESS;
}

// ---- Time ------------------------------------------------------------------------

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("KeDelayExecutionThread"));
    if (Interval == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // "STATUS_ALERTED: The delay completed because the thread was alerted";
    // "STATUS_USER_APC: A user-mode APC was delivered before the specified
    // Interval expired." Only an alertable delay ends early.
    NTSTATUS alerted = Bench::current().faults().check_wait("KeDelayExecutionThread", Alertable,
                                                             Alertable && WaitMode == UserMode, false);
    if (alerted != STATUS_SUCCESS) {
        return alerted;
    }
    Bench::current().clock().sleep(Interval->QuadPart);
    return STATUS_SUCCESS;
}

VOID KeStallExecutionProcessor(ULONG MicroSeconds)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("KeStallExecutionProcessor"));
    Bench::current().clock().stall_us(MicroSeconds);
}

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("KeQuerySystemTime"));
    CurrentTime->QuadPart = Bench::current().clock().now();
}

// ---- Interlocked operations ------------------------------------------------------

LONG InterlockedIncrement(LONG volatile* Addend)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("InterlockedIncrement"));
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
LONG InterlockedDecrement(LONG volatile* Addend)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("InterlockedDecrement"));
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("InterlockedExchange"));
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("InterlockedCompareExchange"));
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
