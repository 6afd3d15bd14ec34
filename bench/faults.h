// faults.h - fault injection: rules that make a platform routine fail, and
// the platform misuse found along the way.
#pragma once

#include "../wdk/wdm.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace korvanel::bench {

// Every platform routine that can fail asks check() first. A rule names the
// routine, the status to return, how many matching calls to let through first
// and how many to fail (0 = every one after that).
//
// check() is on the path of every platform call, power references included:
// it counts without a lock or an allocation, and takes the lock only while
// rules exist.
class Faults {
public:
    struct Rule {
        std::string routine;
        NTSTATUS status;
        unsigned skip = 0;
        unsigned times = 1;
    };
    Faults();
    ~Faults();
    void fail(const std::string& routine, NTSTATUS status, unsigned skip = 0, unsigned times = 1);
    void clear();
    void reset();  // no rules, hooks or errors, every count back to 0
    NTSTATUS check(const char* routine);  // STATUS_SUCCESS, or the injected status
    // A wait's check: a rule with STATUS_ALERTED (an alert) ends only an
    // alertable wait and one with STATUS_USER_APC only an alertable user-mode
    // one, as on Windows; a rule that cannot end this wait stays for the next.
    // Any other status ends the wait only where `others` is true.
    NTSTATUS check_wait(const char* routine, bool alertable, bool user_apc, bool others);
    unsigned calls(const std::string& routine) const;  // how often the routine asked

    // Runs `fn` once, at the next entry of `routine` on any thread, before
    // the routine does anything: what another thread or the PnP manager does
    // at that instant (a query-remove between two steps of the driver).
    void at_entry(const std::string& routine, std::function<void()> fn);
    void run_entry_hooks(const char* routine);

    // Misuse of the platform that Windows would catch (a bad free, an unknown
    // handle, an unbalanced reference); the unload report lists them.
    void note_error(const std::string& error);
    std::vector<std::string> errors() const;

private:
    // Call counts by the routine name's address (each caller passes its own
    // literal); names at other addresses with the same text add up in calls().
    // Every thread counts in a table of its own, which only it writes: a
    // count is a plain increment, with no locked instruction on the path of
    // every platform call, and calls() adds the tables up. Threads past the
    // first kThreadTables share one table, counted with atomic increments.
    struct Counter {
        std::atomic<const char*> routine{nullptr};
        std::atomic<unsigned> calls{0};
    };
    static constexpr size_t kCounters = 256;
    struct ThreadCounters {
        std::thread::id thread;
        Counter counters[kCounters];
    };
    static constexpr size_t kThreadTables = 64;
    const uint64_t id_;  // never reused, so a thread's cached table is this one's
    // The shared table, then one per thread that called, up to kThreadTables; under mutex_.
    std::vector<std::unique_ptr<ThreadCounters>> thread_counters_;
    Counter* thread_table(bool* shared);
    void count(const char* routine);
    [[gnu::cold, gnu::noinline]] void count_overflow(const char* routine);

    NTSTATUS take(const char* routine, bool alertable, bool user_apc, bool others);
    mutable std::mutex mutex_;
    std::atomic<size_t> rule_count_{0};
    std::vector<Rule> rules_;
    std::vector<std::pair<std::string, std::function<void()>>> entry_hooks_;
    std::map<std::string, unsigned> overflow_calls_;  // beyond kCounters names, under mutex_
    std::vector<std::string> errors_;
};

}  // namespace korvanel::bench
