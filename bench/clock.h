// clock.h - the bench's clock: system time, thread delays, processor stalls
// and timers, virtual or real.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace korvanel::bench {

// System time, thread delays and processor stalls. Virtual (default): time
// moves only when the driver waits or stalls, the bus transfers, or a test
// advances it; delays and stalls are recorded. Real: delays sleep and stalls
// spin.
//
// A stall or a sleep is the hot path of a long simulation (a 5 ms wait is a
// hundred 50 us stalls), so each thread keeps its own hand on the virtual
// clock and its own delay record: a delay is a few plain loads and stores,
// with no lock and no locked instruction. The clock reads the latest of all
// hands; two threads stalling at the same time advance it once, as real time
// would pass. Each thread keeps its latest kDelaysKeptPerThread records, so a
// long run's record stays bounded; the counts cover every delay.
class Clock {
public:
    enum class Mode { Virtual, Real };
    struct Delay {
        enum class Kind { Stall, Sleep } kind;
        int64_t amount;  // Stall: microseconds; Sleep: the interval as passed (100 ns units, negative = relative)
        int64_t at;      // clock time when it started, 100 ns units
    };
    static constexpr size_t kDelaysKeptPerThread = size_t(1) << 16;

    Clock();
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    Mode mode() const;
    void set_mode(Mode mode);
    int64_t now() const;  // system time, 100 ns units
    void advance(int64_t units_100ns);
    void advance_ms(int64_t ms) { advance(ms * 10000); }
    void advance_us(int64_t us) { advance(us * 10); }

    // The kept records of every thread, in time order.
    std::vector<Delay> delays() const;
    void clear_delays();
    // Back to a new clock's state (time, timers, records), keeping what it
    // has allocated: the bench's reset.
    void reset();
    size_t stall_count() const;  // since the last clear_delays, kept or not
    size_t sleep_count() const;

    // Timers fire, in due order, while the clock passes their time.
    uint64_t add_timer(int64_t due, std::function<void()> fn);
    // Moves a pending timer to another time; false when it has fired or was
    // cancelled.
    bool move_timer(uint64_t id, int64_t due);
    void cancel_timer(uint64_t id);

    // Used by the kernel entry points.
    void stall_us(uint32_t us);
    void sleep(int64_t interval);  // KeDelayExecutionThread semantics

private:
    friend class Bench;
    struct Lane;
    Lane& lane();
    Lane& new_lane();
    // Calls f on every lane in use, the shared one last. Under mutex_.
    template <typename F>
    void each_lane(F f) const;
    int64_t virtual_now() const;
    void pass(Lane& lane, Delay::Kind kind, int64_t amount, int64_t duration);
    void stall_other(uint32_t us);
    void record(Lane& lane, Delay::Kind kind, int64_t amount, int64_t at);
    void raise_base(int64_t time);
    void fire_timers(int64_t until);
    void update_next_due();  // with mutex_ held

    static constexpr size_t kMaxLanes = 256;
    const uint64_t generation_;  // tells this clock's thread records from an earlier clock's
    std::atomic<Mode> mode_{Mode::Virtual};
    // The time advance() and the timers set; the threads' hands run ahead of it.
    static constexpr int64_t kStartTime = 132000000000000000LL;  // a fixed date, so runs repeat exactly
    std::atomic<int64_t> base_{kStartTime};
    std::unique_ptr<Lane> lanes_[kMaxLanes];
    std::atomic<size_t> lane_count_{0};
    const std::unique_ptr<Lane> shared_lane_;  // for threads beyond kMaxLanes, under mutex_

    mutable std::recursive_mutex mutex_;  // timers, lane creation, the real clock's base
    int64_t real_base_ = 0;
    // Pending timers by id, and their (due, id) in due order: adding, moving,
    // cancelling and finding the next are logarithmic however many devices
    // keep an idle timer.
    struct Timer {
        int64_t due;
        std::function<void()> fn;
    };
    std::map<uint64_t, Timer> timers_;
    std::set<std::pair<int64_t, uint64_t>> due_order_;
    std::atomic<int64_t> next_due_{INT64_MAX};  // earliest pending timer
    uint64_t next_timer_ = 1;
    void fire_due_timers();
};

}  // namespace korvanel::bench
