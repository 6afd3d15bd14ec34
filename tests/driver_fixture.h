// driver_fixture.h - the fixture most tests start from: a fresh bench with
// the driver loaded, and a check at the end that unloading leaves nothing
// behind.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "bench/bench.h"
#include "platform/checked.h"
#include "platform/device.h"
#include "sensor/device_context.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

namespace korvanel::test {

// "03 80 1F": bytes as a transcript shows them.
inline std::string hex_bytes(const uint8_t* data, size_t n)
{
    std::string out;
    char b[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(b, sizeof b, i ? " %02X" : "%02X", data[i]);
        out += b;
    }
    return out;
}

class DriverTest : public ::testing::Test {
protected:
    bench::Bench sys;

    void SetUp() override { ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS); }

    void TearDown() override
    {
        auto report = sys.unload_driver();
        EXPECT_TRUE(report.clean()) << report.text();
    }

    // Adds a device and takes the interface as the camera driver would.
    PDEVICE_CONTEXT add(bench::DeviceConfig config = {})
    {
        auto& dev = sys.add_device(std::move(config));
        EXPECT_EQ(dev.add_status(), STATUS_SUCCESS);
        return static_cast<PDEVICE_CONTEXT>(dev.context());
    }

    SENSOR_INTERFACE take_interface(bench::Device& dev)
    {
        SENSOR_INTERFACE si{};
        EXPECT_EQ(platform::query_sensor_interface(dev, &si), STATUS_SUCCESS);
        return si;
    }
};

}  // namespace korvanel::test
