// ke.cpp - the kernel's dispatcher and time services on the host: the clock
// (virtual or real), events with real blocking waits, thread delays,
// processor stalls, system time and interlocked operations.
#include "system.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <thread>

namespace korvanel::host {

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

Clock::Mode Clock::mode() const
{
    std::lock_guard lock(mutex_);
    return mode_;
}

void Clock::set_mode(Mode mode)
{
    std::lock_guard lock(mutex_);
    if (mode == Mode::Real && mode_ != Mode::Real) {
        real_base_ = real_system_time() - virtual_now_;
    }
    mode_ = mode;
}

int64_t Clock::now() const
{
    std::lock_guard lock(mutex_);
    return mode_ == Mode::Real ? real_system_time() - real_base_ : virtual_now_;
}

void Clock::advance(int64_t units)
{
    if (units < 0) {
        units = 0;
    }
    {
        std::lock_guard lock(mutex_);
        if (mode_ == Mode::Real) {
            // Real time cannot be pushed; pretend it passed by moving the base.
            real_base_ -= units;
        }
    }
    int64_t target = now() + (mode() == Mode::Real ? 0 : units);
    // Timers fire in due order, each at its own time, outside the lock so
    // they may call back into the platform.
    for (;;) {
        std::function<void()> fn;
        {
            std::lock_guard lock(mutex_);
            auto due = timers_.end();
            for (auto it = timers_.begin(); it != timers_.end(); ++it) {
                if (it->due <= target && (due == timers_.end() || it->due < due->due)) {
                    due = it;
                }
            }
            if (due == timers_.end()) {
                if (mode_ == Mode::Virtual && virtual_now_ < target) {
                    virtual_now_ = target;
                }
                break;
            }
            if (mode_ == Mode::Virtual && virtual_now_ < due->due) {
                virtual_now_ = due->due;
            }
            fn = std::move(due->fn);
            timers_.erase(due);
        }
        fn();
    }
}

void Clock::fire_due_timers() { advance(0); }

std::vector<Clock::Delay> Clock::delays() const
{
    std::lock_guard lock(mutex_);
    return delays_;
}

void Clock::clear_delays()
{
    std::lock_guard lock(mutex_);
    delays_.clear();
}

size_t Clock::stall_count() const
{
    std::lock_guard lock(mutex_);
    return std::count_if(delays_.begin(), delays_.end(), [](const Delay& d) { return d.kind == Delay::Kind::Stall; });
}

size_t Clock::sleep_count() const { return delays().size() - stall_count(); }

uint64_t Clock::add_timer(int64_t due, std::function<void()> fn)
{
    std::lock_guard lock(mutex_);
    uint64_t id = next_timer_++;
    timers_.push_back({id, due, std::move(fn)});
    return id;
}

void Clock::cancel_timer(uint64_t id)
{
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [id](const Timer& t) { return t.id == id; });
}

void Clock::stall_us(uint32_t us)
{
    // The spin's end is fixed first, so the bookkeeping is part of the stall.
    auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
    int64_t start = now();
    {
        std::lock_guard lock(mutex_);
        delays_.push_back({Delay::Kind::Stall, us, start});
    }
    if (mode() == Mode::Real) {
        // Spin on the monotonic clock: a stall must not give up the processor.
        while (std::chrono::steady_clock::now() < until) {
        }
        fire_due_timers();
    } else {
        advance(int64_t(us) * 10);
    }
}

void Clock::sleep(int64_t interval)
{
    int64_t start = now();
    {
        std::lock_guard lock(mutex_);
        delays_.push_back({Delay::Kind::Sleep, interval, start});
    }
    // Negative: relative, in 100 ns units. Positive: an absolute system time.
    int64_t duration = interval < 0 ? -interval : std::max<int64_t>(0, interval - start);
    if (mode() == Mode::Real) {
        auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(duration * 100);
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_until(until);
        }
        fire_due_timers();
    } else {
        advance(duration);
    }
}

}  // namespace korvanel::host

using korvanel::host::System;

// ---- Events and waits ---------------------------------------------------------

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    std::lock_guard lock(korvanel::host::event_mutex());
    Event->Type = Type;
    Event->SignalState = State ? 1 : 0;
    Event->Magic = korvanel::host::kEventMagic;
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    (void)Increment;
    (void)Wait;
    LONG previous;
    {
        std::lock_guard lock(korvanel::host::event_mutex());
        if (Event->Magic != korvanel::host::kEventMagic) {
            System::current().faults().note_error("KeSetEvent on an event that was never initialised");
        }
        previous = Event->SignalState;
        Event->SignalState = 1;
    }
    korvanel::host::event_changed().notify_all();
    return previous;
}

VOID KeClearEvent(PRKEVENT Event)
{
    std::lock_guard lock(korvanel::host::event_mutex());
    Event->SignalState = 0;
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    std::lock_guard lock(korvanel::host::event_mutex());
    return Event->SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout)
{
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    auto& sys = System::current();
    NTSTATUS injected = sys.faults().check("KeWaitForSingleObject");
    if (injected != STATUS_SUCCESS) {
        return injected;
    }
    auto* event = static_cast<PRKEVENT>(Object);
    std::unique_lock lock(korvanel::host::event_mutex());
    if (event->Magic != korvanel::host::kEventMagic) {
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
            if (sys.clock().mode() == korvanel::host::Clock::Mode::Virtual) {
                lock.unlock();
                sys.clock().advance(units);
                lock.lock();
            } else {
                korvanel::host::event_changed().wait_for(lock, std::chrono::nanoseconds(units * 100), satisfied);
            }
            if (!satisfied()) {
                return STATUS_TIMEOUT;
            }
        } else {
            korvanel::host::event_changed().wait(lock, satisfied);
        }
    }
    if (event->Type == SynchronizationEvent) {
        event->SignalState = 0;
    }
    return STATUS_SUCCESS;
}

// ---- Time ------------------------------------------------------------------------

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    (void)WaitMode;
    (void)Alertable;
    if (Interval == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    System::current().clock().sleep(Interval->QuadPart);
    return STATUS_SUCCESS;
}

VOID KeStallExecutionProcessor(ULONG MicroSeconds)
{
    System::current().clock().stall_us(MicroSeconds);
}

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = System::current().clock().now();
}

// ---- Interlocked operations ------------------------------------------------------

LONG InterlockedIncrement(LONG volatile* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
LONG InterlockedDecrement(LONG volatile* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
LONG InterlockedExchange(LONG volatile* Target, LONG Value) { return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST); }
LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
