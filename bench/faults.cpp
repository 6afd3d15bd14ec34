// faults.cpp - fault injection consulted by every platform routine that can
// fail, and the list of platform misuse found along the way.
#include "bench.h"
#include "fault_rules.h"
#include "verifier.h"

#include <cstring>

namespace korvanel::bench {

namespace {
std::atomic<uint64_t> g_next_faults_id{1};
// The counter table this thread last counted in, whose it is, and whether
// other threads count in it too.
thread_local struct {
    uint64_t owner = 0;
    void* table = nullptr;
    bool shared = false;
} t_counters;
}  // namespace

// The first table is the shared one, for the threads past kThreadTables.
Faults::Faults() : id_(g_next_faults_id.fetch_add(1))
{
    thread_counters_.push_back(std::make_unique<ThreadCounters>());
}
Faults::~Faults() { verifier::g_entry_hooks.fetch_sub(entry_hooks_.size()); }

void Faults::fail(const std::string& routine, NTSTATUS status, unsigned skip, unsigned times)
{
    std::lock_guard lock(mutex_);
    rules_.push_back({routine, status, skip, times});
    rule_count_.store(rules_.size());
}

void Faults::reset()
{
    std::lock_guard lock(mutex_);
    rules_.clear();
    rule_count_.store(0);
    errors_.clear();
    overflow_calls_.clear();
    verifier::g_entry_hooks.fetch_sub(entry_hooks_.size());
    entry_hooks_.clear();
    // The tables keep their threads and their routines' slots; a count of 0
    // is what a slot nobody claimed would add up to.
    for (auto& table : thread_counters_) {
        for (Counter& c : table->counters) {
            c.calls.store(0, std::memory_order_relaxed);
        }
    }
}

void Faults::clear()
{
    std::lock_guard lock(mutex_);
    rules_.clear();
    rule_count_.store(0);
}

// This thread's table; found or made under the lock once, then cached. A
// thread that went back and forth between benches finds its table again.
// The tables are bounded: a long run that starts thread after thread ends up
// counting the newest ones in the shared table.
Faults::Counter* Faults::thread_table(bool* shared)
{
    if (t_counters.owner != id_) [[unlikely]] {
        std::lock_guard lock(mutex_);
        auto self = std::this_thread::get_id();
        ThreadCounters* table = nullptr;
        for (size_t i = 1; i < thread_counters_.size(); i++) {
            if (thread_counters_[i]->thread == self) {
                table = thread_counters_[i].get();
            }
        }
        if (table == nullptr && thread_counters_.size() <= kThreadTables) {
            thread_counters_.push_back(std::make_unique<ThreadCounters>());
            table = thread_counters_.back().get();
            table->thread = self;
        }
        bool own = table != nullptr;
        t_counters = {id_, own ? table->counters : thread_counters_[0]->counters, !own};
    }
    *shared = t_counters.shared;
    return static_cast<Counter*>(t_counters.table);
}

// Open addressing on the name's address: a slot is claimed once and keeps its
// name for good. A thread's own table only it writes; readers take the name
// with acquire, so they never see a count without its name. The shared table
// is claimed and counted with atomic read-modify-writes.
void Faults::count(const char* routine)
{
    bool shared;
    Counter* table = thread_table(&shared);
    size_t start = (reinterpret_cast<uintptr_t>(routine) >> 3) % kCounters;
    for (size_t i = 0; i < kCounters; i++) {
        Counter& c = table[(start + i) % kCounters];
        const char* name = c.routine.load(std::memory_order_acquire);
        if (name == nullptr) {
            const char* expected = nullptr;
            if (!shared) {
                c.routine.store(routine, std::memory_order_release);
                name = routine;
            } else if (c.routine.compare_exchange_strong(expected, routine, std::memory_order_acq_rel)) {
                name = routine;
            } else {
                name = expected;
            }
        }
        if (name == routine) {
            if (shared) {
                c.calls.fetch_add(1, std::memory_order_relaxed);
            } else {
                c.calls.store(c.calls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            }
            return;
        }
    }
    count_overflow(routine);
}

void Faults::count_overflow(const char* routine)
{
    std::lock_guard lock(mutex_);
    overflow_calls_[routine]++;
}

NTSTATUS Faults::check(const char* routine) { return take(routine, true, true, true); }

NTSTATUS Faults::check_wait(const char* routine, bool alertable, bool user_apc, bool others)
{
    return take(routine, alertable, user_apc, others);
}

NTSTATUS Faults::take(const char* routine, bool alertable, bool user_apc, bool others)
{
    count(routine);
    if (rule_count_.load(std::memory_order_acquire) == 0) {
        return STATUS_SUCCESS;
    }
    std::lock_guard lock(mutex_);
    auto applies = [&](const Rule& r) {
        if (r.routine != routine) {
            return false;
        }
        return r.status == STATUS_ALERTED ? alertable : r.status == STATUS_USER_APC ? user_apc : others;
    };
    auto rule = take_due_rule(rules_, applies);
    rule_count_.store(rules_.size());
    return rule ? rule->status : STATUS_SUCCESS;
}

// The hooks are rare (a test that interleaves), so the platform routines look
// for them only while one is pending: one load of a global.
void Faults::at_entry(const std::string& routine, std::function<void()> fn)
{
    std::lock_guard lock(mutex_);
    entry_hooks_.emplace_back(routine, std::move(fn));
    verifier::g_entry_hooks.fetch_add(1);
}

void Faults::run_entry_hooks(const char* routine)
{
    std::function<void()> fn;
    {
        std::lock_guard lock(mutex_);
        for (auto it = entry_hooks_.begin(); it != entry_hooks_.end(); ++it) {
            if (it->first == routine) {
                fn = std::move(it->second);
                entry_hooks_.erase(it);
                verifier::g_entry_hooks.fetch_sub(1);
                break;
            }
        }
    }
    if (fn) {
        fn();
    }
}

unsigned Faults::calls(const std::string& routine) const
{
    unsigned total = 0;
    std::lock_guard lock(mutex_);
    for (auto& table : thread_counters_) {
        for (const Counter& c : table->counters) {
            const char* name = c.routine.load(std::memory_order_acquire);
            if (name != nullptr && routine == name) {
                total += c.calls.load(std::memory_order_relaxed);
            }
        }
    }
    auto it = overflow_calls_.find(routine);
    return total + (it == overflow_calls_.end() ? 0 : it->second);
}

void Faults::note_error(const std::string& error)
{
    std::lock_guard lock(mutex_);
    errors_.push_back(error);
}

std::vector<std::string> Faults::errors() const
{
    std::lock_guard lock(mutex_);
    return errors_;
}

}  // namespace korvanel::bench

void KorvanelBenchAssertionFailed(const char* Expression, const char* File, int Line)
{
    korvanel::bench::Bench::current().faults().note_error(std::string("assertion failed: ") + Expression + " (" +
                                                           File + ":" + std::to_string(Line) + ")");
}
