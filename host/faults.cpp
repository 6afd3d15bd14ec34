// faults.cpp - fault injection consulted by every platform routine that can
// fail, and the list of platform misuse found along the way.
#include "system.h"
#include "rules.h"

#include <cstring>

namespace korvanel::host {

namespace {
std::atomic<uint64_t> g_next_faults_id{1};
// The counter table this thread last counted in, and whose it is.
thread_local struct {
    uint64_t owner = 0;
    void* table = nullptr;
} t_counters;
}  // namespace

Faults::Faults() : id_(g_next_faults_id.fetch_add(1)) {}
Faults::~Faults() = default;

void Faults::fail(const std::string& routine, NTSTATUS status, unsigned skip, unsigned times)
{
    std::lock_guard lock(mutex_);
    rules_.push_back({routine, status, skip, times});
    rule_count_.store(rules_.size());
}

void Faults::clear()
{
    std::lock_guard lock(mutex_);
    rules_.clear();
    rule_count_.store(0);
}

// This thread's table; found or made under the lock once, then cached. A
// thread that went back and forth between benches finds its table again.
Faults::Counter* Faults::thread_table()
{
    if (t_counters.owner != id_) [[unlikely]] {
        std::lock_guard lock(mutex_);
        auto self = std::this_thread::get_id();
        ThreadCounters* table = nullptr;
        for (auto& t : thread_counters_) {
            if (t->thread == self) {
                table = t.get();
            }
        }
        if (table == nullptr) {
            thread_counters_.push_back(std::make_unique<ThreadCounters>());
            table = thread_counters_.back().get();
            table->thread = self;
        }
        t_counters = {id_, table->counters};
    }
    return static_cast<Counter*>(t_counters.table);
}

// Open addressing on the name's address: a slot is claimed once and keeps its
// name for good. Only this thread writes its table; readers take the name
// with acquire, so they never see a count without its name.
void Faults::count(const char* routine)
{
    Counter* table = thread_table();
    size_t start = (reinterpret_cast<uintptr_t>(routine) >> 3) % kCounters;
    for (size_t i = 0; i < kCounters; i++) {
        Counter& c = table[(start + i) % kCounters];
        const char* name = c.routine.load(std::memory_order_relaxed);
        if (name == nullptr) {
            c.routine.store(routine, std::memory_order_release);
            name = routine;
        }
        if (name == routine) {
            c.calls.store(c.calls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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

NTSTATUS Faults::check(const char* routine)
{
    count(routine);
    if (rule_count_.load(std::memory_order_acquire) == 0) {
        return STATUS_SUCCESS;
    }
    std::lock_guard lock(mutex_);
    auto rule = take_due_rule(rules_, [routine](const Rule& r) { return r.routine == routine; });
    rule_count_.store(rules_.size());
    return rule ? rule->status : STATUS_SUCCESS;
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

}  // namespace korvanel::host

void KorvanelHostAssertionFailed(const char* Expression, const char* File, int Line)
{
    korvanel::host::System::current().faults().note_error(std::string("assertion failed: ") + Expression + " (" +
                                                           File + ":" + std::to_string(Line) + ")");
}
