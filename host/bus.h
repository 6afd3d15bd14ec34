// bus.h - the simulated I2C buses behind the resource hub.
#pragma once

namespace korvanel::host {

class Bus {
public:
    Bus() = default;
};

}  // namespace korvanel::host
