// memory.h - giving a device a module memory as a platform would: the
// memory type's part on the bus (one connection, or one per 256-byte block
// on consecutive connection ids), NvmType, the geometry the driver is told
// (NvmSize, NvmPageSize), NvmCacheLength and NvmAvailable, and connection
// slot 2 (slots 2 to 9 for a block part) pointing at the part.
#pragma once

#include "sensor/device_context.h"
#include "models/eeprom.h"

#include "bench/bench.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace korvanel::platform {

// What a memory type is: the part that carries it and what the driver's
// table row says of it.
struct MemoryGeometry {
    size_t size;         // bytes: the part's size, and NvmSize
    size_t page_size;    // NvmPageSize: the row's write page or block
    size_t connections;  // one, or one per 256-byte block
    models::Eeprom::Geometry part;
};

// Types 5 to 12 have a part; nothing for the others.
std::optional<MemoryGeometry> memory_geometry(unsigned type);

struct MemorySelection {
    unsigned type = 0;
    uint64_t first_connection = 0x50;  // slot 2's id; a block part's block b is on first + b
    uint32_t cache_length = 0;         // NvmCacheLength
    // 7-bit bus address (block 0's for a block part, whose block b answers
    // on address + b); kUsualMemoryAddress when unset.
    std::optional<uint8_t> address = {};
};

// Where serial EEPROMs answer with their address pins tied low.
constexpr uint8_t kUsualMemoryAddress = 0x50;

// The part attached and the context set; the part starts erased. Null for a
// type without a part.
std::shared_ptr<models::Eeprom> select_memory(bench::Bench& sys, PDEVICE_CONTEXT context,
                                           const MemorySelection& selection);

}  // namespace korvanel::platform
