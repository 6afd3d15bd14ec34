// The published operation slots, the power reference the camera driver holds
// while streaming, and the requests the sensor accepts and traces.
#include "camera_client.h"

#include "sensor/sensor.h"

#include <functional>
#include <set>

namespace korvanel::test {
namespace {

using PowerAcceptTest = CameraTest;

TEST_F(PowerAcceptTest, EachPowerUpHoldsTheDeviceInD0UntilItsPowerDown)
{
    open();
    EXPECT_EQ(dev->d0_entries(), 1u);
    sys.clock().advance_ms(14999);
    EXPECT_EQ(dev->power_state(), PowerDeviceD0);
    sys.clock().advance_ms(1);
    ASSERT_EQ(dev->power_state(), PowerDeviceD3) << "idles after 15 s";
    EXPECT_EQ(dev->d0_exits(), 1u);

    EXPECT_EQ(si.PowerUp(ctx), STATUS_SUCCESS);
    EXPECT_EQ(dev->power_state(), PowerDeviceD0) << "returned before D0";
    EXPECT_EQ(dev->d0_entries(), 2u);
    EXPECT_EQ(si.PowerUp(ctx), STATUS_SUCCESS);
    EXPECT_EQ(si.PowerDown(ctx), STATUS_SUCCESS);
    sys.clock().advance_ms(15000);
    EXPECT_EQ(dev->power_state(), PowerDeviceD0) << "one reference is still held";
    EXPECT_EQ(si.PowerDown(ctx), STATUS_SUCCESS);
    sys.clock().advance_ms(15000);
    EXPECT_EQ(dev->power_state(), PowerDeviceD3);

    // The framework's reference tracking sees this module, no tag, and a wait.
    auto calls = dev->idle_calls();
    ASSERT_EQ(calls.size(), 4u);
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_EQ(calls[i].stop, i < 2);
        EXPECT_EQ(calls[i].wait_for_d0, i < 2);
        EXPECT_EQ(calls[i].tag, nullptr);
        EXPECT_EQ(calls[i].file, "sensor");
        EXPECT_GT(calls[i].line, 0);
    }

    EXPECT_EQ(si.PowerUp(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(si.PowerDown(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(dev->idle_calls().size(), 4u) << "the framework was called without a context";
}

TEST_F(PowerAcceptTest, AFailedPowerUpReturnsTheFrameworkStatus)
{
    open();
    sys.faults().fail("WdfDeviceStopIdle", STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(si.PowerUp(ctx), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(dev->power_references(), 0);
}

// Each request: its status, and per trace event the 32-bit arguments after
// "KORVANEL" (the status last).
TEST_F(PowerAcceptTest, AcceptedRequestsAreTracedAndChangeNothing)
{
    open();
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    ULONG record[4] = {1, 2, 3, 0xCAFE};
    ULONG value = 77;
    SENSOR_ENTRY entries[3] = {{9, 11, 12, 13, 9}, {9, 21, 22, 23, 9}, {9, 31, 32, 33, 9}};
    const uint32_t ok = STATUS_SUCCESS, bad = (uint32_t)STATUS_INVALID_PARAMETER;
    struct Case {
        std::function<NTSTATUS()> call;
        NTSTATUS status;
        std::vector<std::vector<uint32_t>> events;
    } cases[] = {
        {[&] { return si.AcceptRecord(ctx, record); }, STATUS_SUCCESS, {{0xCAFE, ok}}},
        {[&] { return si.AcceptRecord(ctx, nullptr); }, STATUS_INVALID_PARAMETER, {}},
        {[&] { return si.AcceptEntry(ctx, &entries[1]); }, STATUS_SUCCESS, {{21, 22, 23, ok}}},
        {[&] { return si.AcceptEntry(ctx, nullptr); }, STATUS_SUCCESS, {{ok}}},
        {[&] { return si.AcceptPointer(ctx, &value); }, STATUS_SUCCESS, {{ok}}},
        {[&] { return si.AcceptPointer(ctx, nullptr); }, STATUS_INVALID_PARAMETER, {{bad}}},
        {[&] { return si.AcceptValue(ctx, &value); }, STATUS_SUCCESS, {{77, ok}}},
        {[&] { return si.AcceptValue(ctx, nullptr); }, STATUS_INVALID_PARAMETER, {{0, bad}}},
        {[&] { return si.AcceptPair(ctx, 5, 6); }, STATUS_SUCCESS, {{}, {5, 6, ok}}},
        {[&] { return si.AcceptPair(nullptr, 5, 6); }, STATUS_INVALID_PARAMETER, {{5, 6, bad}}},
        {[&] { return si.AcceptNotice(ctx); }, STATUS_SUCCESS, {{}, {ok}}},
        {[&] { return si.AcceptEntryList(ctx, entries, 3); }, STATUS_SUCCESS,
         {{0, 11, 12, 13, ok}, {1, 21, 22, 23, ok}, {2, 31, 32, 33, ok}}},
        {[&] { return si.AcceptEntryList(ctx, entries, 0); }, STATUS_SUCCESS, {}},
        {[&] { return si.AcceptEntryList(ctx, nullptr, 3); }, STATUS_INVALID_PARAMETER, {}},
    };
    const auto before = bytes_of(*ctx);
    for (size_t n = 0; n < std::size(cases); n++) {
        SCOPED_TRACE(n);
        sys.traces().clear();
        EXPECT_EQ(cases[n].call(), cases[n].status);
        auto events = sys.traces().events();
        ASSERT_EQ(events.size(), cases[n].events.size());
        for (size_t i = 0; i < events.size(); i++) {
            std::vector<uint32_t> args;
            for (size_t a = 1; a < events[i].args.size(); a++) {
                args.push_back(bench::Traces::u32(events[i], a));
            }
            EXPECT_EQ(args, cases[n].events[i]) << "event " << i;
        }
    }
    EXPECT_EQ(bytes_of(*ctx), before);
}

}  // namespace
}  // namespace korvanel::test
