// faults.cpp - fault injection consulted by every platform routine that can
// fail, and the list of platform misuse found along the way.
#include "system.h"
#include "rules.h"

#include <cstring>

namespace korvanel::host {

Faults::Faults() : counters_(std::make_unique<Counter[]>(kCounters)) {}
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

// Open addressing on the name's address: a slot is claimed once and keeps its
// name for good.
void Faults::count(const char* routine)
{
    size_t start = (reinterpret_cast<uintptr_t>(routine) >> 3) % kCounters;
    for (size_t i = 0; i < kCounters; i++) {
        Counter& c = counters_[(start + i) % kCounters];
        const char* name = c.routine.load(std::memory_order_acquire);
        if (name == nullptr) {
            const char* expected = nullptr;
            if (c.routine.compare_exchange_strong(expected, routine, std::memory_order_acq_rel)) {
                name = routine;
            } else {
                name = expected;
            }
        }
        if (name == routine) {
            c.calls.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
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
    for (size_t i = 0; i < kCounters; i++) {
        const char* name = counters_[i].routine.load(std::memory_order_acquire);
        if (name != nullptr && routine == name) {
            total += counters_[i].calls.load(std::memory_order_relaxed);
        }
    }
    std::lock_guard lock(mutex_);
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
