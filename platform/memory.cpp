// memory.cpp - the parts behind the memory types, and selecting one for a device.
#include "memory.h"

#include "bench/spb_controller.h"
#include "nvm/nvm.h"

namespace korvanel::platform {

std::optional<MemoryGeometry> memory_geometry(unsigned type)
{
    using Kind = models::Eeprom::Kind;
    // How each memory type's part is addressed and its physical write page;
    // its size is the driver's row's. The DW9806B's physical write page is
    // assumed to be 32 bytes, the chunk its driver writes; no datasheet
    // figure was at hand.
    Kind kind;
    size_t page;
    switch (type) {
    case 5: kind = Kind::Serial16, page = 64; break;
    case 7: kind = Kind::Serial16, page = 8; break;
    case 8:
    case 10: kind = Kind::Serial16, page = 32; break;
    case 6:
    case 9:
    case 12: kind = Kind::Blocks, page = 16; break;
    case 11: kind = Kind::Paged, page = 32; break;
    default: return std::nullopt;
    }
    models::Eeprom::Geometry part{kind, NvmDriverTable[type].Size, page};
    size_t connections = part.kind == Kind::Blocks ? part.size / models::Eeprom::kBlockSize : 1;
    return MemoryGeometry{part.size, NvmDriverTable[type].PageSize, connections, part};
}

std::shared_ptr<models::Eeprom> select_memory(bench::Bench& sys, PDEVICE_CONTEXT context,
                                           const MemorySelection& selection)
{
    auto geometry = memory_geometry(selection.type);
    if (!geometry || context == nullptr) {
        return nullptr;
    }
    auto model = std::make_shared<models::Eeprom>(geometry->part);
    const NVM_DRIVER& row = NvmDriverTable[selection.type];
    context->NvmType = selection.type;
    context->NvmSize = LONG(row.Size);
    context->NvmPageSize = LONG(row.PageSize);
    context->NvmCacheLength = selection.cache_length;
    context->NvmAvailable = 1;
    auto connections = model->connections();
    for (size_t i = 0; i < connections.size(); i++) {
        I2C_CONNECTION& slot = context->I2cConnections[I2C_SLOT_NVM + i];
        slot.ConnectionId = selection.first_connection + i;
        slot.Present = 1;
        sys.bus().attach(slot.ConnectionId, connections[i]);
        sys.bus().set_address(slot.ConnectionId, uint8_t(selection.address.value_or(kUsualMemoryAddress) + i));
    }
    return model;
}

}  // namespace korvanel::platform
