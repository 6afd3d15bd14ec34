// actuator.cpp - selecting a lens actuator for a device.
#include "actuator.h"

#include "bench/spb_controller.h"

#include <cstdio>
#include <utility>

namespace korvanel::platform {

uint8_t usual_actuator_address(const models::ActuatorChip& chip)
{
    // From the chips' datasheets (write address 0x18 is 7-bit 0x0C).
    static const std::pair<const char*, uint8_t> kAddresses[] = {
        {"AD5823", 0x0C}, {"DW9714", 0x0C}, {"AD5816", 0x0E}, {"DW9719", 0x0C},
        {"DW9718", 0x0C}, {"DW9806B", 0x0C}, {"WV517S", 0x0C}, {"LC898122XA", 0x24},
    };
    for (auto [name, address] : kAddresses) {
        if (chip.name == name) {
            return address;
        }
    }
    return 0;
}

std::shared_ptr<models::ActuatorModel> select_actuator(bench::Bench& sys, PDEVICE_CONTEXT context,
                                                    const ActuatorSelection& selection)
{
    const models::ActuatorChip* chip = models::find_actuator_chip(selection.chip);
    if (chip == nullptr || context == nullptr) {
        return nullptr;
    }
    auto model = std::make_shared<models::ActuatorModel>(*chip);
    sys.bus().attach(selection.connection, model);
    sys.bus().set_address(selection.connection, selection.address.value_or(usual_actuator_address(*chip)));
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
