// The simulated kernel the driver stands on: the virtual clock and its
// timers, events with real blocking waits, and the framework object tree.
#include <gtest/gtest.h>

#include "host/objects.h"
#include "host/system.h"

#include <atomic>
#include <thread>

namespace korvanel::test {
namespace {

using host::Clock;
using host::System;

TEST(HostClockTest, DelaysAndStallsMoveVirtualTimeAndAreRecorded)
{
    System sys;
    int64_t start = sys.clock().now();

    LARGE_INTEGER interval;
    interval.QuadPart = -60000;  // 6 ms, relative
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    KeStallExecutionProcessor(50);
    interval.QuadPart = sys.clock().now() + 1000;  // absolute: 100 us from now
    KeDelayExecutionThread(KernelMode, FALSE, &interval);

    EXPECT_EQ(sys.clock().now() - start, 60000 + 500 + 1000);
    auto delays = sys.clock().delays();
    ASSERT_EQ(delays.size(), 3u);
    EXPECT_EQ(delays[0].kind, Clock::Delay::Kind::Sleep);
    EXPECT_EQ(delays[0].amount, -60000);
    EXPECT_EQ(delays[1].kind, Clock::Delay::Kind::Stall);
    EXPECT_EQ(delays[1].amount, 50);
    EXPECT_EQ(delays[1].at, start + 60000);

    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, sys.clock().now());
}

TEST(HostClockTest, TimersFireInDueOrderAtTheirOwnTime)
{
    System sys;
    std::vector<std::pair<int, int64_t>> fired;
    int64_t t0 = sys.clock().now();
    sys.clock().add_timer(t0 + 300, [&] { fired.push_back({3, sys.clock().now()}); });
    sys.clock().add_timer(t0 + 100, [&] { fired.push_back({1, sys.clock().now()}); });
    uint64_t cancelled = sys.clock().add_timer(t0 + 200, [&] { fired.push_back({2, sys.clock().now()}); });
    sys.clock().cancel_timer(cancelled);

    sys.clock().advance(99);
    EXPECT_TRUE(fired.empty());
    sys.clock().advance(1000);
    ASSERT_EQ(fired.size(), 2u);
    EXPECT_EQ(fired[0], std::make_pair(1, t0 + 100));
    EXPECT_EQ(fired[1], std::make_pair(3, t0 + 300));
    EXPECT_EQ(sys.clock().now(), t0 + 1099);
}

TEST(HostEventTest, SynchronizationEventsWakeOneWaitAndResetThemselves)
{
    System sys;
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
}

TEST(HostEventTest, AWaitBlocksUntilAnotherThreadSetsTheEvent)
{
    System sys;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<bool> set{false};
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        set = true;
        KeSetEvent(&event, 0, FALSE);
    });
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(set.load());
    setter.join();
}

TEST(HostEventTest, InjectedWaitFailureIsReturnedWithoutTakingTheEvent)
{
    System sys;
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    sys.faults().fail("KeWaitForSingleObject", STATUS_CANCELLED);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_CANCELLED);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
}

TEST(HostObjectTest, DeletingAnObjectCleansUpItsChildrenFirst)
{
    System sys;
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
    EXPECT_EQ(host::Object::live_count(), 0u);

    // A stale handle is caught, not followed.
    WdfObjectDelete(child);
    ASSERT_EQ(sys.faults().errors().size(), 1u);
}

}  // namespace
}  // namespace korvanel::test
