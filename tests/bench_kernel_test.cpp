// The simulated kernel the driver stands on: the virtual clock and its
// timers, events with real blocking waits, and the framework object tree.
#include <gtest/gtest.h>

#include "bench/objects.h"
#include "bench/bench.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace korvanel::test {
namespace {

using bench::Clock;
using bench::Bench;

TEST(BenchClockTest, DelaysAndStallsMoveVirtualTimeAndAreRecorded)
{
    Bench sys;
    int64_t start = sys.clock().now();

    LARGE_INTEGER interval;
    interval.QuadPart = -60000;  // 6 ms, relative
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    KeStallExecutionProcessor(50);
    interval.QuadPart = sys.clock().now() + 1000;  // absolute: 100 us from now
    KeDelayExecutionThread(KernelMode, FALSE, &interval);

    EXPECT_EQ(sys.clock().now() - start, 60000 + 500 + 1000);
    EXPECT_EQ(sys.clock().delays().size(), 3u);

    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, sys.clock().now());
}

// A long simulation stalls millions of times: the record keeps the latest
// stalls of each thread and counts them all; time stays exact.
TEST(BenchClockTest, TheDelayRecordStaysBoundedAndTheCountsExact)
{
    Bench sys;
    int64_t start = sys.clock().now();
    const size_t kept = Clock::kDelaysKeptPerThread, total = kept + 1000;
    for (size_t i = 0; i < total; i++) {
        KeStallExecutionProcessor(50);
    }
    LARGE_INTEGER interval;
    interval.QuadPart = -60000;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);

    EXPECT_EQ(sys.clock().now() - start, int64_t(total) * 500 + 60000);
    EXPECT_EQ(sys.clock().stall_count(), total);
    EXPECT_EQ(sys.clock().sleep_count(), 1u);
    auto delays = sys.clock().delays();
    ASSERT_EQ(delays.size(), kept);
    EXPECT_EQ(delays.back().kind, Clock::Delay::Kind::Sleep);
    EXPECT_EQ(delays.front().at, start + int64_t(total - kept + 1) * 500) << "not the latest stalls";

    sys.clock().clear_delays();
    EXPECT_EQ(sys.clock().stall_count(), 0u);
    EXPECT_TRUE(sys.clock().delays().empty());
}

// Threads that stall at the same time advance the clock as real time would
// pass: by the longest of them, never backwards, each delay recorded.
TEST(BenchClockTest, ConcurrentStallsKeepTimeMonotonicAndRecordEveryDelay)
{
    Bench sys;
    int64_t start = sys.clock().now();
    constexpr int kThreads = 4, kStalls = 10000;
    std::atomic<bool> backwards{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&] {
            int64_t last = sys.clock().now();
            for (int i = 0; i < kStalls; i++) {
                KeStallExecutionProcessor(50);
                int64_t now = sys.clock().now();
                backwards = backwards || now < last;
                last = now;
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_FALSE(backwards);
    int64_t passed = sys.clock().now() - start;
    EXPECT_GE(passed, int64_t(kStalls) * 500);
    EXPECT_LE(passed, int64_t(kThreads) * kStalls * 500);
    EXPECT_EQ(sys.clock().stall_count(), size_t(kThreads) * kStalls);
    auto delays = sys.clock().delays();
    EXPECT_EQ(delays.size(), size_t(kThreads) * kStalls);
    EXPECT_TRUE(std::is_sorted(delays.begin(), delays.end(),
                               [](const Clock::Delay& a, const Clock::Delay& b) { return a.at < b.at; }));
}

TEST(BenchClockTest, TimersFireInDueOrderAtTheirOwnTime)
{
    Bench sys;
    std::vector<std::pair<int, int64_t>> fired;
    int64_t t0 = sys.clock().now();
    sys.clock().add_timer(t0 + 300, [&] { fired.push_back({3, sys.clock().now()}); });
    sys.clock().add_timer(t0 + 100, [&] { fired.push_back({1, sys.clock().now()}); });
    uint64_t cancelled = sys.clock().add_timer(t0 + 200, [&] { fired.push_back({2, sys.clock().now()}); });
    sys.clock().cancel_timer(cancelled);

    sys.clock().advance(99);
    EXPECT_TRUE(fired.empty());
    // A stall that passes timers' times fires them, each at its own time; a
    // timer moved ahead fires in its new place.
    uint64_t moved = sys.clock().add_timer(t0 + 5000, [&] { fired.push_back({4, sys.clock().now()}); });
    EXPECT_TRUE(sys.clock().move_timer(moved, t0 + 104));
    KeStallExecutionProcessor(1);
    ASSERT_EQ(fired.size(), 2u);
    EXPECT_EQ(fired[0], std::make_pair(1, t0 + 100));
    EXPECT_EQ(fired[1], std::make_pair(4, t0 + 104));
    EXPECT_EQ(sys.clock().now(), t0 + 109);
    EXPECT_FALSE(sys.clock().move_timer(moved, t0 + 200)) << "a fired timer moved";
    sys.clock().advance(990);
    ASSERT_EQ(fired.size(), 3u);
    EXPECT_EQ(fired[2], std::make_pair(3, t0 + 300));
    EXPECT_EQ(sys.clock().now(), t0 + 1099);
    EXPECT_EQ(sys.clock().delays().size(), 1u);
}

TEST(BenchEventTest, SynchronizationEventsWakeOneWaitAndResetThemselves)
{
    Bench sys;
    struct Case {
        EVENT_TYPE type;
        LONG state_after_wait;
    } cases[] = {{SynchronizationEvent, 0}, {NotificationEvent, 1}};
    for (auto c : cases) {
        KEVENT event;
        KeInitializeEvent(&event, c.type, TRUE);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateEvent(&event), c.state_after_wait);
    }

    // A wait with a time-out lets that time pass on the virtual clock and reports it.
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10000;
    int64_t before = sys.clock().now();
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
    EXPECT_EQ(sys.clock().now() - before, 10000);

    // An injected failure is returned without taking the event.
    KeSetEvent(&event, 0, FALSE);
    sys.faults().fail("KeWaitForSingleObject", STATUS_CANCELLED);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_CANCELLED);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
}

// Calls are counted per thread; more threads than there are tables share
// one. Every call is counted either way, from threads one after another and
// at once, and the next bench on the same thread counts from zero.
TEST(BenchFaultsTest, CallsFromManyThreadsAreAllCounted)
{
    static const char* const kRoutine = "KeWaitForSingleObject";
    auto calls = [](Bench& s, unsigned n) {
        for (unsigned i = 0; i < n; i++) {
            s.faults().check(kRoutine);
        }
    };
    {
        Bench sys;
        calls(sys, 5);
        for (int i = 0; i < 100; i++) {
            std::thread([&] { calls(sys, 3); }).join();
        }
        // 80 threads alive at once: the last of them share a table.
        std::atomic<int> started{0};
        std::vector<std::thread> together;
        for (int i = 0; i < 80; i++) {
            together.emplace_back([&] {
                started++;
                while (started.load() < 80) {
                    std::this_thread::yield();
                }
                calls(sys, 2000);
            });
        }
        for (auto& t : together) {
            t.join();
        }
        EXPECT_EQ(sys.faults().calls(kRoutine), 5u + 100u * 3 + 80u * 2000);
    }
    Bench next;
    calls(next, 2);
    EXPECT_EQ(next.faults().calls(kRoutine), 2u);
}

TEST(BenchObjectTest, DeletingAnObjectCleansUpItsChildrenFirst)
{
    Bench sys;
    static std::vector<WDFOBJECT> cleaned;
    cleaned.clear();
    auto cleanup = [](WDFOBJECT o) { cleaned.push_back(o); };

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = cleanup;
    WDFSTRING parent;
    ASSERT_EQ(WdfStringCreate(nullptr, &attributes, &parent), STATUS_SUCCESS);
    attributes.ParentObject = parent;
    WDFSTRING child;
    ASSERT_EQ(WdfStringCreate(nullptr, &attributes, &child), STATUS_SUCCESS);

    WdfObjectDelete(parent);
    ASSERT_EQ(cleaned.size(), 2u);
    EXPECT_EQ(cleaned[0], (WDFOBJECT)child);
    EXPECT_EQ(cleaned[1], (WDFOBJECT)parent);
    EXPECT_EQ(bench::Object::live_count(), 0u);
}

}  // namespace
}  // namespace korvanel::test
