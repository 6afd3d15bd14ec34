// device.cpp - loading korvanel and opening a device as the camera driver does.
#include "device.h"
#include "checked.h"

#include "driver/driver.h"
#include "host/device.h"

namespace korvanel::platform {

NTSTATUS load_driver(host::System& sys) { return sys.load_driver(DriverEntry); }

OpenDevice open_device(host::System& sys, host::DeviceConfig config)
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
