// clock.cpp - the bench's clock: virtual time that moves only when a thread
// delays, stalls or is told to, or the real clock; each thread's delays kept
// in its own lane, and the timers that fire as time passes.
#include "bench.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace korvanel::bench {

namespace {

int64_t real_system_time()
{
    // 100 ns units since 1601-01-01, as KeQuerySystemTime reports.
    constexpr int64_t kEpochDifference = 116444736000000000LL;
    auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return kEpochDifference + std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count() / 100;
}

}  // namespace

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

template <typename F>
void Clock::each_lane(F f) const
{
    size_t lanes = lane_count_.load(std::memory_order_acquire);
    for (size_t i = 0; i < lanes; i++) {
        f(*lanes_[i]);
    }
    f(*shared_lane_);
}

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
    each_lane(collect);
    // Each lane is in time order already; a stable sort keeps it so.
    std::stable_sort(out.begin(), out.end(), [](const Delay& a, const Delay& b) { return a.at < b.at; });
    return out;
}

void Clock::clear_delays()
{
    std::lock_guard lock(mutex_);
    each_lane([](Lane& lane) {
        lane.written.store(0);
        lane.sleeps.store(0);
    });
}

void Clock::reset()
{
    std::lock_guard lock(mutex_);
    clear_delays();
    each_lane([](Lane& lane) { lane.now.store(INT64_MIN); });
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
    size_t count = 0;
    each_lane([&count](const Lane& lane) { count += lane.written.load() - lane.sleeps.load(); });
    return count;
}

size_t Clock::sleep_count() const
{
    std::lock_guard lock(mutex_);
    size_t count = 0;
    each_lane([&count](const Lane& lane) { count += lane.sleeps.load(); });
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
