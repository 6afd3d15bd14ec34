// eeprom.h - the module memories on the simulated I2C bus, as the parts
// behave by their datasheets:
//
//   - a serial EEPROM with a 16-bit address (two address bytes, most
//     significant first), parameterised by size and write page: the parts
//     of memory types 5, 7, 8 and 10;
//   - a part of 256-byte blocks seen through one connection per block, an
//     8-bit address within the block and a 16-byte write page: types 6, 9
//     and 12 (connection b selects block b, as the part's device address
//     bits do);
//   - the memory inside the DW9806B actuator: eight 1024-byte pages behind a
//     two-byte address with the page folded in (page x 1024 + offset), macro
//     erase (0x81 OR page, 0xEE) and page erase (0x82 OR page, 0xEE: the
//     page is the byte's low three bits), cells that program only ones to
//     zeros until erased: type 11. Assumed where no datasheet figure was at
//     hand: the physical write page is 32 bytes, an erase takes 10 ms.
//
// Each has an address pointer (address bytes first, then data; a read with
// no address continues from the pointer), sequential reads that roll over at
// the end of the array, page writes that roll over within the physical write
// page, and an internal write cycle of 5 ms from the stop condition during
// which the part does not acknowledge. Contents start erased (0xFF).
//
// Three faces: the bus face (connections(), one Peripheral per connection,
// in slot order), the backend face below for tests and tools (contents,
// files), and faults, which come from the bus's rules before the part.
//
//   auto eeprom = std::make_shared<models::Eeprom>(models::Eeprom::Geometry{models::Eeprom::Kind::Serial16, 16384, 64});
//   sys.bus().attach(0x50, eeprom->connections()[0]);
//   eeprom->set_contents(0, {0x12, 0x34});
#pragma once

#include "peripheral.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korvanel::models {

class Eeprom : public std::enable_shared_from_this<Eeprom> {
public:
    enum class Kind {
        Serial16,  // 16-bit address on one connection
        Blocks,    // one connection per 256-byte block, 8-bit address
        Paged,     // the DW9806B's memory: two-byte paged address, erase commands, flash cells
    };
    struct Geometry {
        Kind kind;
        size_t size;        // bytes, a power of two
        size_t write_page;  // physical write page, bytes
    };

    static constexpr size_t kBlockSize = 256;
    static constexpr int64_t kWriteCycle = 5 * 10000;  // 5 ms, 100 ns units

    static constexpr size_t kMaxWritePage = 256;
    explicit Eeprom(Geometry geometry);

    const Geometry& geometry() const { return geometry_; }
    size_t size() const { return geometry_.size; }

    // ---- Bus face ---------------------------------------------------------
    // One per connection: block b's for a block part, else one.
    std::vector<std::shared_ptr<Peripheral>> connections();

    // ---- Backend face -------------------------------------------------------
    std::vector<uint8_t> contents() const;
    std::vector<uint8_t> bytes(size_t address, size_t count) const;
    void set_contents(size_t address, std::span<const uint8_t> bytes);
    void set_contents(size_t address, std::initializer_list<uint8_t> bytes)
    {
        set_contents(address, std::span<const uint8_t>(bytes.begin(), bytes.size()));
    }
    void erase();  // every cell 0xFF
    // The file's bytes from address 0 on; cells past a shorter file keep
    // their value. Errors (unreadable, longer than the memory) are returned.
    std::optional<std::string> load_file(const std::string& path);
    std::optional<std::string> save_file(const std::string& path) const;
    size_t pointer() const;            // the address pointer
    bool busy(int64_t now) const;      // in a write or erase cycle at clock time `now`
    int64_t busy_until() const;        // clock time the latest write or erase cycle ends
    unsigned write_cycles() const;     // cycles started, erases included

private:
    class Connection;
    NTSTATUS take_write(const Transfer& when, size_t block, std::span<const uint8_t> bytes);
    NTSTATUS take_read(const Transfer& when, std::span<uint8_t> bytes);
    bool take_erase(const Transfer& when, std::span<const uint8_t> bytes);  // with the lock held
    void start_cycle(const Transfer& when, int64_t duration);
    size_t address_bytes() const { return geometry_.kind == Kind::Blocks ? 1 : 2; }

    Geometry geometry_;
    mutable std::mutex mutex_;
    std::vector<uint8_t> cells_;
    size_t pointer_ = 0;
    int64_t busy_until_ = 0;
    unsigned cycles_ = 0;
};

}  // namespace korvanel::models
