// Millisecond delays: short ones spin in 50 us stalls, from 6 ms on the
// thread sleeps once, never both; on the virtual clock.
#include <gtest/gtest.h>

#include "bus/bus_lock.h"
#include "bus/delay.h"
#include "driver/driver.h"
#include "bench/bench.h"

#include <climits>

namespace korvanel::test {
namespace {

using bench::Clock;

TEST(DelayTest, SpinsBelowSixMillisecondsAndSleepsFromThereOn)
{
    const struct {
        LONG ms;
        size_t stalls;      // each of 50 us
        int64_t interval;   // the one sleep's interval, 0 for none
        int64_t elapsed;    // 100 ns units
    } cases[] = {
        {0, 0, 0, 0},
        {1, 20, 0, 10000},
        {5, 100, 0, 50000},
        {6, 0, -60000, 60000},
        {10, 0, -100000, 100000},
        {50, 0, -500000, 500000},
        {-1, 0, 0, 0},
        {INT_MIN, 0, 0, 0},
    };
    bench::Bench sys;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ms);
        sys.clock().clear_delays();
        int64_t start = sys.clock().now();

        DelayMilliseconds(c.ms);

        EXPECT_EQ(sys.clock().now() - start, c.elapsed);
        auto delays = sys.clock().delays();
        EXPECT_EQ(sys.clock().stall_count(), c.stalls);
        EXPECT_EQ(sys.clock().sleep_count(), c.interval != 0 ? 1u : 0u);
        for (const auto& d : delays) {
            if (d.kind == Clock::Delay::Kind::Stall) {
                EXPECT_EQ(d.amount, 50);
            } else {
                EXPECT_EQ(d.amount, c.interval);
            }
        }
    }
}

// The driver waits in kernel mode and not alertable: an alert or a user APC
// delivered to the thread ends none of its waits early (the delay's sleep,
// the bus lock, the wait for a pending identifier query).
TEST(DelayTest, NoWaitOfTheDriverIsEndedByAnAlertOrAUserApc)
{
    bench::Bench sys;
    for (const char* wait : {"KeDelayExecutionThread", "KeWaitForSingleObject"}) {
        sys.faults().fail(wait, STATUS_ALERTED, 0, 100);
        sys.faults().fail(wait, STATUS_USER_APC, 0, 100);
    }
    int64_t start = sys.clock().now();
    DelayMilliseconds(10);
    EXPECT_EQ(sys.clock().now() - start, 100000);

    KEVENT lock;
    KeInitializeEvent(&lock, SynchronizationEvent, TRUE);
    EXPECT_EQ(AcquireBusLock(&lock), STATUS_SUCCESS);

    ASSERT_EQ(sys.load_driver(DriverEntry), STATUS_SUCCESS);
    bench::DeviceConfig config;
    config.hardware_ids = {u"root\\KORVANEL\\rgbir"};
    config.id_query = bench::DeviceConfig::IdQuery::Pending;
    auto& dev = sys.add_device(config);
    ASSERT_EQ(dev.add_status(), STATUS_SUCCESS);
    EXPECT_STREQ(static_cast<PDEVICE_CONTEXT>(dev.context())->SensorName, "RGBIR");
    EXPECT_EQ(sys.faults().calls("KeWaitForSingleObject"), 2u);
}

}  // namespace
}  // namespace korvanel::test
