// actuator.cpp - the lens-actuator models and the description of each chip.
#include "actuator.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace korvanel::models {

namespace {

using Interface = ActuatorChip::Interface;

// What the models assume where no datasheet fact was at hand:
// - identification values: the drivers only trace them; any value will do,
//   so each chip gets a distinct one;
// - settle times: the parts' slew and ringing control make the real figure
//   depend on the module; a fixed part plus a part per code moved stands in;
// - bits a register keeps: the code-MSB registers keep the two code bits (and
//   AD5823 its ring-control bit 2); other bits read back 0. LC898122XA keeps
//   its 16-bit target whole.
// - acknowledge: the parts acknowledge every byte once powered; DW9714 needs
//   12 ms after power-on for its offset calibration and answers nothing
//   before (its datasheet's power-up time). The register chips have no
//   power-up time in the model.
const std::vector<ActuatorChip> kChips = {
    {"AD5823", 1, Interface::Reg8, {}, 0x04, 0x05, 0x03, 0, 1023, {{0x04, 0x07}}, std::nullopt, 1000, 20, 0},
    {"DW9714", 2, Interface::CommandWord, {}, 0, 0, 0, 0, 1023, {}, std::nullopt, 1000, 20, 12000},
    {"AD5816", 3, Interface::Reg8, {{0x00, 0x24}, {0x01, 0x02}}, 0x03, 0x04, 0x03, 0, 1023, {{0x03, 0x03}},
     std::nullopt, 1000, 20, 0},
    {"DW9719", 4, Interface::Reg8, {{0x00, 0xF1}}, 0x03, 0x04, 0x03, 0, 1023, {{0x03, 0x03}}, 0x05, 2000, 20, 0},
    {"DW9718", 5, Interface::Reg8, {}, 0x02, 0x03, 0x03, 0, 1023, {{0x02, 0x03}}, std::nullopt, 1000, 20, 0},
    {"DW9806B", 6, Interface::Reg8, {{0x00, 0xD1}}, 0x03, 0x04, 0x03, 0, 1023, {{0x03, 0x03}}, 0x05, 2000, 20, 0},
    {"WV517S", 7, Interface::Reg8, {}, 0x41, 0x42, 0x03, 0, 1023, {{0x41, 0x03}}, std::nullopt, 1000, 20, 0},
    {"LC898122XA", 8, Interface::Reg16, {{0x027E, 0x42}}, 0x0380, 0x0381, 0xFF, 5, 2047, {}, 0x0335, 2000, 10, 0},
};

// DW9714 command words: protection off, two timing settings, protection on.
// Only between off and on are the setting words settings; otherwise a word
// is a position word (and these all have the power-down bit set).
constexpr uint16_t kDw9714Unlock = 0xECA3;
constexpr uint8_t kDw9714Lock = 0xDC;
constexpr uint8_t kDw9714Settings[] = {0xA1, 0xF2};
constexpr uint16_t kDw9714PowerDown = 0x8000;

}  // namespace

int64_t ActuatorChip::settle_time(unsigned distance) const
{
    return distance == 0 ? 0 : (settle_base_us + settle_per_code_us * int64_t(distance)) * 10;
}

uint32_t ActuatorChip::register_count() const { return interface == Interface::Reg16 ? 0x10000 : 0x100; }

const std::vector<ActuatorChip>& actuator_chips() { return kChips; }

const ActuatorChip* find_actuator_chip(std::string_view name_or_row)
{
    auto same = [](std::string_view a, std::string_view b) {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
                   return std::toupper(uint8_t(x)) == std::toupper(uint8_t(y));
               });
    };
    for (auto& chip : kChips) {
        if (same(chip.name, name_or_row) || std::to_string(chip.vcm_type) == name_or_row) {
            return &chip;
        }
    }
    return nullptr;
}

const ActuatorChip& actuator_chip(std::string_view name_or_row)
{
    const ActuatorChip* chip = find_actuator_chip(name_or_row);
    if (chip == nullptr) {
        throw std::invalid_argument("no actuator chip '" + std::string(name_or_row) + "'");
    }
    return *chip;
}

// ---- The model ---------------------------------------------------------------

ActuatorModel::ActuatorModel(const ActuatorChip& chip) : chip_(chip), registers_(chip.register_count(), 0)
{
    for (auto [reg, value] : chip_.identification) {
        registers_[reg] = value;
    }
}

uint16_t ActuatorModel::code() const
{
    std::lock_guard lock(mutex_);
    return code_;
}

std::vector<ActuatorModel::Point> ActuatorModel::trajectory() const
{
    std::lock_guard lock(mutex_);
    return {trajectory_.begin(), trajectory_.end()};
}

bool ActuatorModel::busy(int64_t now) const
{
    std::lock_guard lock(mutex_);
    return now < busy_until_;
}

int64_t ActuatorModel::busy_until() const
{
    std::lock_guard lock(mutex_);
    return busy_until_;
}

uint8_t ActuatorModel::peek(uint16_t reg) const
{
    std::lock_guard lock(mutex_);
    return registers_[reg % registers_.size()];
}

void ActuatorModel::poke(uint16_t reg, uint8_t value)
{
    std::lock_guard lock(mutex_);
    registers_[reg % registers_.size()] = value;
}

void ActuatorModel::power_on(int64_t now)
{
    std::lock_guard lock(mutex_);
    ready_at_ = now + chip_.power_up_us * 10;
}

// With the model locked; `now` is when the register is read.
uint8_t ActuatorModel::read_register(uint16_t reg, int64_t now) const
{
    if (chip_.busy_reg && reg == *chip_.busy_reg) {
        return now < busy_until_ ? 1 : 0;
    }
    return registers_[reg];
}

void ActuatorModel::store_register(uint16_t reg, uint8_t value)
{
    if (chip_.busy_reg && reg == *chip_.busy_reg) {
        return;
    }
    for (auto [id, ignored] : chip_.identification) {
        if (id == reg) {
            return;
        }
    }
    for (auto [kept, mask] : chip_.kept_bits) {
        if (kept == reg) {
            value &= mask;
        }
    }
    registers_[reg] = value;
}

void ActuatorModel::latch(uint16_t code, int64_t at)
{
    unsigned distance = code > code_ ? code - code_ : code_ - code;
    code_ = code;
    busy_until_ = std::max(busy_until_, at + chip_.settle_time(distance));
    if (trajectory_.size() == kPointsKept) {
        trajectory_.pop_front();
    }
    trajectory_.push_back({at, code});
}

bool ActuatorModel::command_word(uint16_t word)
{
    uint8_t high = uint8_t(word >> 8);
    if (word == kDw9714Unlock) {
        unlocked_ = true;
        return false;
    }
    bool setting = high == kDw9714Lock ||
                   std::find(std::begin(kDw9714Settings), std::end(kDw9714Settings), high) != std::end(kDw9714Settings);
    if (unlocked_ && setting) {
        registers_[high] = uint8_t(word);
        unlocked_ = high != kDw9714Lock;
        return false;
    }
    word_ = word;
    return true;
}

NTSTATUS ActuatorModel::write(const Transfer& when, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    if (when.start < ready_at_) {
        return kNack;
    }
    // A new code takes effect at the stop condition.
    int64_t at = when.stop;

    if (chip_.interface == Interface::CommandWord) {
        // Acted on word by word; a trailing half word is dropped.
        for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
            if (command_word(uint16_t(bytes[i] << 8 | bytes[i + 1]))) {
                // Power-down releases the lens; otherwise it goes to the code.
                latch(word_ & kDw9714PowerDown ? 0 : uint16_t((word_ >> 4) & 0x3FF), at);
            }
        }
        return STATUS_SUCCESS;
    }

    size_t address_bytes = chip_.interface == Interface::Reg16 ? 2 : 1;
    if (bytes.size() < address_bytes) {
        return STATUS_SUCCESS;  // half an address: acknowledged, the pointer left as it was
    }
    pointer_ = address_bytes == 2 ? uint32_t(bytes[0] << 8 | bytes[1]) : bytes[0];
    bool latched = false;
    for (size_t i = address_bytes; i < bytes.size(); i++) {
        uint16_t reg = uint16_t(pointer_);
        store_register(reg, bytes[i]);
        latched = latched || reg == chip_.low_reg;
        pointer_ = (pointer_ + 1) % registers_.size();
    }
    if (latched) {
        uint32_t value = uint32_t(registers_[chip_.high_reg] & chip_.high_code_mask) << 8 | registers_[chip_.low_reg];
        latch(uint16_t(value >> chip_.code_shift), at);
    }
    return STATUS_SUCCESS;
}

NTSTATUS ActuatorModel::read(const Transfer& when, std::span<uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    if (when.start < ready_at_) {
        return kNack;
    }
    if (chip_.interface == Interface::CommandWord) {
        for (size_t i = 0; i < bytes.size(); i++) {
            bytes[i] = i % 2 == 0 ? uint8_t(word_ >> 8) : uint8_t(word_);
        }
        return STATUS_SUCCESS;
    }
    for (auto& b : bytes) {
        b = read_register(uint16_t(pointer_), when.start);
        pointer_ = (pointer_ + 1) % registers_.size();
    }
    return STATUS_SUCCESS;
}

}  // namespace korvanel::models
