// ke.cpp - the kernel's dispatcher and time services on the bench: the clock
// (virtual or real), events with real blocking waits, thread delays,
// processor stalls, system time and interlocked operations.
#include "bench.h"
#include "irql_rules.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <thread>

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

int64_t real_system_time()
{
    // 100 ns units since 1601-01-01, as KeQuerySystemTime reports.
    constexpr int64_t kEpochDifference = 116444736000000000LL;
    auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return kEpochDifference + std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count() / 100;
}

}  // namespace

// ---- Clock -----------------------------------------------------------------

// One thread's hand on the clock: the time its last delay ended and the
// records of its delays. Only its own thread writes it, so it needs no lock
// and no locked instruction; readers load it whole.
struct Clock::Lane {
    // The kept records, a ring made of chunks that come into being as it
    // fills: a thread that never waits costs nothing.
    static constexpr size_t kChunk = 1024;
    static constexpr size_t kChunks = kDelaysKeptPerThread / kChunk;
    static_assert(kDelaysKeptPerThread % kChunk == 0);

    std::thread::id owner;
    std::atomic<int64_t> now{INT64_MIN};
    std::atomic<Delay*> chunks[kChunks] = {};
    std::atomic<uint64_t> written{0};  // delays since the last clear, kept or not
    std::atomic<uint64_t> sleeps{0};

    Delay& slot(uint64_t n)  // the owner's; makes the chunk
    {
        size_t at = n % kDelaysKeptPerThread;
        Delay* chunk = chunks[at / kChunk].load(std::memory_order_relaxed);
        if (chunk == nullptr) [[unlikely]] {
            chunk = new Delay[kChunk];
            chunks[at / kChunk].store(chunk, std::memory_order_release);
        }
        return chunk[at % kChunk];
    }
    const Delay& kept(uint64_t n) const  // a reader's; the record exists
    {
        size_t at = n % kDelaysKeptPerThread;
        return chunks[at / kChunk].load(std::memory_order_acquire)[at % kChunk];
    }
    ~Lane()
    {
        for (auto& c : chunks) {
            delete[] c.load();
        }
    }
};

namespace {

std::atomic<uint64_t> g_clock_generation{1};

// Which lane of which clock this thread uses; a generation tells a clock
// from an earlier one made at the same address.
struct LaneCache {
    uint64_t generation = 0;
    void* lane = nullptr;
};
thread_local LaneCache t_lane;

// A single writer's increment: a load and a store, no locked instruction.
void bump(std::atomic<uint64_t>& counter)
{
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace

Clock::Clock() : generation_(g_clock_generation.fetch_add(1)), shared_lane_(std::make_unique<Lane>()) {}
Clock::~Clock() = default;

Clock::Mode Clock::mode() const { return mode_.load(std::memory_order_relaxed); }

void Clock::set_mode(Mode mode)
{
    std::lock_guard lock(mutex_);
    if (mode == Mode::Real && mode_ != Mode::Real) {
        real_base_ = real_system_time() - now();
    }
    mode_.store(mode);
}

int64_t Clock::now() const
{
    if (mode() == Mode::Real) {
        std::lock_guard lock(mutex_);
        return real_system_time() - real_base_;
    }
    return virtual_now();
}

// The latest of the base and every thread's hand.
inline int64_t Clock::virtual_now() const
{
    int64_t t = base_.load(std::memory_order_acquire);
    size_t n = lane_count_.load(std::memory_order_acquire);
    for (size_t i = 0; i < n; i++) {
        t = std::max(t, lanes_[i]->now.load(std::memory_order_acquire));
    }
    return std::max(t, shared_lane_->now.load(std::memory_order_acquire));
}

// The common case stays small enough to inline into every delay.
inline Clock::Lane& Clock::lane()
{
    if (t_lane.generation == generation_) [[likely]] {
        return *static_cast<Lane*>(t_lane.lane);
    }
    return new_lane();
}

Clock::Lane& Clock::new_lane()
{
    std::lock_guard lock(mutex_);
    auto self = std::this_thread::get_id();
    size_t n = lane_count_.load(std::memory_order_relaxed);
    Lane* found = nullptr;
    for (size_t i = 0; i < n && found == nullptr; i++) {
        if (lanes_[i]->owner == self) {
            found = lanes_[i].get();
        }
    }
    if (found == nullptr && n < kMaxLanes) {
        lanes_[n] = std::make_unique<Lane>();
        lanes_[n]->owner = self;
        found = lanes_[n].get();
        lane_count_.store(n + 1, std::memory_order_release);
    }
    if (found == nullptr) {
        // More threads than lanes: the rest share one, under the lock.
        return *shared_lane_;
    }
    t_lane = {generation_, found};
    return *found;
}

inline void Clock::record(Lane& lane, Delay::Kind kind, int64_t amount, int64_t at)
{
    uint64_t n = lane.written.load(std::memory_order_relaxed);
    lane.slot(n) = {kind, amount, at};
    lane.written.store(n + 1, std::memory_order_release);
    if (kind == Delay::Kind::Sleep) {
        bump(lane.sleeps);
    }
}

void Clock::raise_base(int64_t time)
{
    int64_t current = base_.load(std::memory_order_relaxed);
    while (current < time && !base_.compare_exchange_weak(current, time, std::memory_order_acq_rel)) {
    }
}

// With mutex_ held.
void Clock::update_next_due()
{
    next_due_.store(due_order_.empty() ? INT64_MAX : due_order_.begin()->first, std::memory_order_release);
}

// Fires, in due order and each at its own time, the timers due by `until`;
// outside the lock, so they may call back into the platform.
void Clock::fire_timers(int64_t until)
{
    for (;;) {
        std::function<void()> fn;
        {
            std::lock_guard lock(mutex_);
            if (due_order_.empty() || due_order_.begin()->first > until) {
                return;
            }
            auto [due, id] = *due_order_.begin();
            if (mode() == Mode::Virtual) {
                raise_base(due);
            }
            auto it = timers_.find(id);
            fn = std::move(it->second.fn);
            timers_.erase(it);
            due_order_.erase(due_order_.begin());
            update_next_due();
        }
        fn();
    }
}

void Clock::advance(int64_t units)
{
    units = std::max<int64_t>(units, 0);
    if (mode() == Mode::Real) {
        // Real time cannot be pushed; pretend it passed by moving the base.
        {
            std::lock_guard lock(mutex_);
            real_base_ -= units;
        }
        fire_timers(now());
        return;
    }
    int64_t target = now() + units;
    if (target >= next_due_.load(std::memory_order_acquire)) {
        fire_timers(target);
    }
    raise_base(target);
}

void Clock::fire_due_timers() { advance(0); }

// A delay on the virtual clock: this thread's hand moves from the clock's
// present time by `duration`, passing any timer due on the way.
[[gnu::always_inline]] inline void Clock::pass(Lane& lane, Delay::Kind kind, int64_t amount, int64_t duration)
{
    int64_t start = virtual_now();
    record(lane, kind, amount, start);
    int64_t end = start + duration;
    if (end >= next_due_.load(std::memory_order_acquire)) {
        fire_timers(end);
    }
    if (end > lane.now.load(std::memory_order_relaxed)) {
        lane.now.store(end, std::memory_order_release);
    }
}

std::vector<Clock::Delay> Clock::delays() const
{
    std::lock_guard lock(mutex_);
    std::vector<Delay> out;
    auto collect = [&out](const Lane& lane) {
        uint64_t n = lane.written.load(std::memory_order_acquire);
        uint64_t kept = std::min<uint64_t>(n, kDelaysKeptPerThread);
        for (uint64_t i = n - kept; i < n; i++) {
            out.push_back(lane.kept(i));
        }
    };
    size_t lanes = lane_count_.load(std::memory_order_acquire);
    for (size_t i = 0; i < lanes; i++) {
        collect(*lanes_[i]);
    }
    collect(*shared_lane_);
    // Each lane is in time order already; a stable sort keeps it so.
    std::stable_sort(out.begin(), out.end(), [](const Delay& a, const Delay& b) { return a.at < b.at; });
    return out;
}

void Clock::clear_delays()
{
    std::lock_guard lock(mutex_);
    auto clear = [](Lane& lane) {
        lane.written.store(0);
        lane.sleeps.store(0);
    };
    size_t lanes = lane_count_.load(std::memory_order_acquire);
    for (size_t i = 0; i < lanes; i++) {
        clear(*lanes_[i]);
    }
    clear(*shared_lane_);
}

void Clock::reset()
{
    std::lock_guard lock(mutex_);
    auto clear = [](Lane& lane) {
        lane.now.store(INT64_MIN);
        lane.written.store(0);
        lane.sleeps.store(0);
    };
    size_t lanes = lane_count_.load(std::memory_order_acquire);
    for (size_t i = 0; i < lanes; i++) {
        clear(*lanes_[i]);
    }
    clear(*shared_lane_);
    mode_.store(Mode::Virtual);
    base_.store(kStartTime);
    real_base_ = 0;
    timers_.clear();
    due_order_.clear();
    next_timer_ = 1;
    update_next_due();
}

size_t Clock::stall_count() const
{
    std::lock_guard lock(mutex_);
    auto stalls = [](const Lane& lane) { return lane.written.load() - lane.sleeps.load(); };
    size_t count = stalls(*shared_lane_);
    for (size_t i = 0; i < lane_count_.load(std::memory_order_acquire); i++) {
        count += stalls(*lanes_[i]);
    }
    return count;
}

size_t Clock::sleep_count() const
{
    std::lock_guard lock(mutex_);
    size_t count = shared_lane_->sleeps.load();
    for (size_t i = 0; i < lane_count_.load(std::memory_order_acquire); i++) {
        count += lanes_[i]->sleeps.load();
    }
    return count;
}

uint64_t Clock::add_timer(int64_t due, std::function<void()> fn)
{
    std::lock_guard lock(mutex_);
    uint64_t id = next_timer_++;
    timers_.emplace(id, Timer{due, std::move(fn)});
    due_order_.insert({due, id});
    update_next_due();
    return id;
}

bool Clock::move_timer(uint64_t id, int64_t due)
{
    std::lock_guard lock(mutex_);
    auto it = timers_.find(id);
    if (it == timers_.end()) {
        return false;
    }
    // The same node moves, so rescheduling allocates nothing.
    auto node = due_order_.extract({it->second.due, id});
    node.value().first = due;
    due_order_.insert(std::move(node));
    it->second.due = due;
    update_next_due();
    return true;
}

void Clock::cancel_timer(uint64_t id)
{
    std::lock_guard lock(mutex_);
    auto it = timers_.find(id);
    if (it != timers_.end()) {
        due_order_.erase({it->second.due, id});
        timers_.erase(it);
        update_next_due();
    }
}

// The common stall: the virtual clock and a thread that has its own lane
// (the shared lane is never the cached one), with nothing to lock.
void Clock::stall_us(uint32_t us)
{
    if (mode() == Mode::Virtual && t_lane.generation == generation_) [[likely]] {
        pass(*static_cast<Lane*>(t_lane.lane), Delay::Kind::Stall, us, int64_t(us) * 10);
        return;
    }
    stall_other(us);
}

void Clock::stall_other(uint32_t us)
{
    if (mode() == Mode::Real) {
        // The spin's end is fixed first, so the bookkeeping is part of the
        // stall; it spins on the monotonic clock and never gives the
        // processor up.
        auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
        Lane& l = lane();
        std::unique_lock shared(mutex_, std::defer_lock);
        if (&l == shared_lane_.get()) {
            shared.lock();
        }
        record(l, Delay::Kind::Stall, us, now());
        if (shared) {
            shared.unlock();
        }
        while (std::chrono::steady_clock::now() < until) {
        }
        fire_due_timers();
        return;
    }
    Lane& l = lane();
    if (&l == shared_lane_.get()) {
        std::lock_guard lock(mutex_);
        pass(l, Delay::Kind::Stall, us, int64_t(us) * 10);
    } else {
        pass(l, Delay::Kind::Stall, us, int64_t(us) * 10);
    }
}

void Clock::sleep(int64_t interval)
{
    Lane& l = lane();
    std::unique_lock shared(mutex_, std::defer_lock);
    if (&l == shared_lane_.get()) {
        shared.lock();
    }
    int64_t start = now();
    // Negative: relative, in 100 ns units. Positive: an absolute system time.
    int64_t duration = interval < 0 ? -interval : std::max<int64_t>(0, interval - start);
    if (mode() == Mode::Real) {
        record(l, Delay::Kind::Sleep, interval, start);
        if (shared) {
            shared.unlock();
        }
        auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(duration * 100);
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_until(until);
        }
        fire_due_timers();
        return;
    }
    pass(l, Delay::Kind::Sleep, interval, duration);
}

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
