// device.h - what every client of the bench does first: load korvanel and
// open a device as the camera driver does, by adding it and taking its
// SENSOR_INTERFACE with a query-interface request.
//
//   bench::Bench sys;
//   platform::load_driver(sys);
//   auto dev = platform::open_device(sys, {.hardware_ids = {u"root\\KORVANEL\\rgbir"}});
//   dev.si.SelectMode(dev.si.InterfaceHeader.Context, 2, 1920, 1080, 0);
#pragma once

#include "bench/bench.h"
#include "sensor/device_context.h"
#include "sensor/sensor_interface.h"

namespace korvanel::platform {

// Loads the driver image: its DriverEntry with the service key's path.
NTSTATUS load_driver(bench::Bench& sys);

struct OpenDevice {
    bench::Device* device = nullptr;
    PDEVICE_CONTEXT context = nullptr;  // what a platform component selecting parts writes to
    SENSOR_INTERFACE si{};              // the camera driver's copy, one reference held
    NTSTATUS status = STATUS_SUCCESS;   // the device add's failure, or the query's
};

// Adds a device and, when that succeeds, takes its interface.
OpenDevice open_device(bench::Bench& sys, bench::DeviceConfig config = {});

}  // namespace korvanel::platform
