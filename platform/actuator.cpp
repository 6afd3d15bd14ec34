// actuator.cpp - selecting a lens actuator for a device.
#include "actuator.h"

#include "host/bus.h"

#include <cstdio>

namespace korvanel::platform {

std::shared_ptr<sim::ActuatorModel> select_actuator(host::System& sys, PDEVICE_CONTEXT context,
                                                    const ActuatorSelection& selection)
{
    const sim::ActuatorChip* chip = sim::find_actuator_chip(selection.chip);
    if (chip == nullptr || context == nullptr) {
        return nullptr;
    }
    auto model = std::make_shared<sim::ActuatorModel>(*chip);
    sys.bus().attach(selection.connection, model);
    context->I2cConnections[I2C_SLOT_VCM].ConnectionId = selection.connection;
    context->I2cConnections[I2C_SLOT_VCM].Present = 1;
    context->VcmType = LONG(chip->vcm_type);
    context->VcmLowPosition = USHORT(selection.low);
    context->VcmHighPosition = USHORT(selection.high);
    if (selection.module) {
        snprintf(context->SensorName, sizeof context->SensorName, "%s", selection.module->c_str());
    }
    return model;
}

}  // namespace korvanel::platform
