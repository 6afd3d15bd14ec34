// device.cpp - loading korvanel and opening a device as the camera driver does.
#include "device.h"
#include "checked.h"

#include "driver/driver.h"
#include "bench/device_object.h"

namespace korvanel::platform {

NTSTATUS load_driver(bench::Bench& sys) { return sys.load_driver(DriverEntry); }

OpenDevice open_device(bench::Bench& sys, bench::DeviceConfig config)
{
    OpenDevice out;
    out.device = &sys.add_device(std::move(config));
    out.status = out.device->add_status();
    if (!NT_SUCCESS(out.status)) {
        return out;
    }
    out.context = static_cast<PDEVICE_CONTEXT>(out.device->context());
    out.status = query_sensor_interface(*out.device, &out.si);
    return out;
}

}  // namespace korvanel::platform
