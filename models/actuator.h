// actuator.h - the lens-actuator chips as the I2C bus sees them: one model
// class, driven by a description of each chip.
//
//   auto vcm = std::make_shared<models::ActuatorModel>(models::actuator_chip("DW9719"));
//   sys.bus().attach(0x1c, vcm);
//   ... the driver programs and moves the lens ...
//   vcm->code();          // where the lens is now
//   vcm->trajectory();    // every position the chip latched, with its time
//   vcm->busy(sys.clock().now());  // still settling after the last move
//
// Register chips keep an address pointer: a write sets it (one or two address
// bytes, high byte first) and stores any data bytes from there on; a read
// continues from it; both advance it, as the parts' auto-increment does, and
// the pointer survives the stop condition between an address write and the
// data read. The position is latched when the low code register is written,
// at the transfer's stop condition. DW9714 has no registers: it takes 16-bit
// command words and reads back its position word.
//
// Where no public datasheet fact was at hand, the description says what the
// model assumes.
#pragma once

#include "peripheral.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvanel::models {

struct ActuatorChip {
    std::string name;
    uint32_t vcm_type;  // the driver table row that drives it
    enum class Interface { Reg8, Reg16, CommandWord } interface;
    // Read-only identification registers and what they hold.
    std::vector<std::pair<uint16_t, uint8_t>> identification;
    // The position: code = ((high & high_code_mask) << 8 | low) >> code_shift.
    uint16_t high_reg;
    uint16_t low_reg;
    uint8_t high_code_mask;
    unsigned code_shift;
    uint16_t max_code;
    // Registers that keep only some bits (the others read back 0).
    std::vector<std::pair<uint16_t, uint8_t>> kept_bits;
    // Bit 0 of this read-only register is set while the lens settles.
    std::optional<uint16_t> busy_reg;
    // Settle time after a move of d codes: base + per_code * d (none for d = 0).
    int64_t settle_base_us;
    int64_t settle_per_code_us;
    // After power_on() the part acknowledges nothing for this long.
    int64_t power_up_us;

    int64_t settle_time(unsigned distance) const;  // 100 ns units
    uint32_t register_count() const;
};

// The eight chips, in driver-table order (rows 1 to 8).
const std::vector<ActuatorChip>& actuator_chips();
// By name (any case) or by driver-table row ("4"); null when unknown.
const ActuatorChip* find_actuator_chip(std::string_view name_or_row);
const ActuatorChip& actuator_chip(std::string_view name_or_row);  // throws when unknown

class ActuatorModel : public Peripheral {
public:
    struct Point {
        int64_t time;  // clock time the chip latched the code, 100 ns units
        uint16_t code;
    };

    explicit ActuatorModel(const ActuatorChip& chip);

    // ---- Backend face -----------------------------------------------------
    const ActuatorChip& chip() const { return chip_; }
    uint16_t code() const;                  // the lens code now
    // The latched codes in order; a long run keeps the latest kPointsKept.
    static constexpr size_t kPointsKept = size_t(1) << 16;
    std::vector<Point> trajectory() const;
    bool busy(int64_t now) const;           // still settling at clock time `now`
    int64_t busy_until() const;             // clock time the last move settles
    uint8_t peek(uint16_t reg) const;       // a register as the part stores it (the busy flag is busy())
    void poke(uint16_t reg, uint8_t value); // set a register behind the bus's back
    void power_on(int64_t now);             // starts the power-up time at `now`

    // ---- Bus face ---------------------------------------------------------
    NTSTATUS write(const Transfer& when, std::span<const uint8_t> bytes) override;
    NTSTATUS read(const Transfer& when, std::span<uint8_t> bytes) override;

private:
    uint8_t read_register(uint16_t reg, int64_t now) const;
    void store_register(uint16_t reg, uint8_t value);
    bool command_word(uint16_t word);  // true for a position word
    void latch(uint16_t code, int64_t at);

    const ActuatorChip& chip_;
    mutable std::mutex mutex_;
    std::vector<uint8_t> registers_;
    uint32_t pointer_ = 0;
    uint16_t word_ = 0;        // DW9714 position word
    bool unlocked_ = false;    // DW9714 between the protection-off and -on words
    uint16_t code_ = 0;
    int64_t busy_until_ = 0;
    int64_t ready_at_ = 0;
    std::deque<Point> trajectory_;
};

}  // namespace korvanel::models
