// camera_client.h - the sensor interface as the camera driver uses it: a
// device is added, its SENSOR_INTERFACE taken by a query-interface request and
// every operation called through the copy with its Context. Device add
// rewrites the driver-wide PDAF fields from the registry; they are put back.
#pragma once

#include "driver_fixture.h"

#include "sensor/description.h"

#include <cstring>
#include <vector>

namespace korvanel::test {

class CameraTest : public DriverTest {
protected:
    SENSOR_INTERFACE si{};
    PSENSOR_CONTEXT ctx = nullptr;
    bench::Device* dev = nullptr;
    const PDAF_INFO savedPdaf = PdafInfoTemplate;
    const ULONG savedPdafType = SensorParameters.PdafType;

    // Adds the device (after the test set the registry) and takes the interface.
    void open(bench::DeviceConfig config = {})
    {
        close();
        auto opened = platform::open_device(sys, std::move(config));
        dev = opened.device;
        ASSERT_EQ(opened.status, STATUS_SUCCESS);
        si = opened.si;
        ctx = (PSENSOR_CONTEXT)si.InterfaceHeader.Context;
    }

    // A device enumerated under these hardware identifiers.
    void open(std::vector<std::u16string> hardware_ids)
    {
        bench::DeviceConfig config;
        config.hardware_ids = std::move(hardware_ids);
        open(std::move(config));
    }

    void close()
    {
        if (ctx != nullptr) {
            si.InterfaceHeader.InterfaceDereference(ctx);
            ctx = nullptr;
        }
    }

    void TearDown() override
    {
        close();
        PdafInfoTemplate = savedPdaf;
        SensorParameters.PdafType = savedPdafType;
        DriverTest::TearDown();
    }
};

// The bytes of a record, for comparing what the camera driver reads.
template <typename T>
std::vector<uint8_t> bytes_of(const T& record)
{
    auto* p = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

// Writes a little-endian value into an expected record.
template <typename T>
void put(std::vector<uint8_t>& b, size_t at, T v)
{
    memcpy(&b[at], &v, sizeof v);
}

}  // namespace korvanel::test
