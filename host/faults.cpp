// faults.cpp - fault injection consulted by every platform routine that can
// fail, and the list of platform misuse found along the way.
#include "system.h"
#include "rules.h"

namespace korvanel::host {

void Faults::fail(const std::string& routine, NTSTATUS status, unsigned skip, unsigned times)
{
    std::lock_guard lock(mutex_);
    rules_.push_back({routine, status, skip, times});
}

void Faults::clear()
{
    std::lock_guard lock(mutex_);
    rules_.clear();
}

NTSTATUS Faults::check(const char* routine)
{
    std::lock_guard lock(mutex_);
    calls_[routine]++;
    auto rule = take_due_rule(rules_, [routine](const Rule& r) { return r.routine == routine; });
    return rule ? rule->status : STATUS_SUCCESS;
}

unsigned Faults::calls(const std::string& routine) const
{
    std::lock_guard lock(mutex_);
    auto it = calls_.find(routine);
    return it == calls_.end() ? 0 : it->second;
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
