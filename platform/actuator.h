// actuator.h - giving a device a lens actuator as a platform would: the
// chip's model on a connection, connection slot 1 pointing at it, VcmType
// naming the chip's driver-table row and the module's low and high positions
// (and, for module-specific behaviour, the module's name in SensorName).
#pragma once

#include "sensor/device_context.h"
#include "models/actuator.h"

#include "bench/bench.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace korvanel::platform {

struct ActuatorSelection {
    std::string chip;                   // a name of models::actuator_chips() (any case) or its row
    uint64_t connection = 0x1C;         // resource-hub connection id of slot 1
    unsigned low = 0;                   // VcmLowPosition
    unsigned high = 1023;               // VcmHighPosition
    std::optional<std::string> module = {};  // into SensorName
    std::optional<uint8_t> address = {};     // 7-bit bus address; the chip's usual one when unset
};

// The 7-bit bus address the chip answers on when its address pins are left
// as module makers usually leave them; 0 for an unknown chip.
uint8_t usual_actuator_address(const models::ActuatorChip& chip);

// The model attached and selected; null for an unknown chip.
std::shared_ptr<models::ActuatorModel> select_actuator(bench::Bench& sys, PDEVICE_CONTEXT context,
                                                    const ActuatorSelection& selection);

}  // namespace korvanel::platform
