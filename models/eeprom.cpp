// eeprom.cpp - the module memories: address pointer, sequential read, page
// writes with roll-over, the write cycle, erase commands, contents files.
#include "eeprom.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace korvanel::models {

namespace {

// The DW9806B memory's commands: a first byte with bit 7 set is not an
// address (the array has 13 address bits), and 0xEE confirms the erase. The
// page goes into the command by OR: 0x81 | page is the macro erase (every
// page), 0x82 | page the erase of one page, whose number the part takes from
// the byte's low three bits. So 0x83 erases page 3 and 0x86 page 6; as bit 1
// is the page-erase mark, a byte with it set is a page erase, and a macro
// erase is sent with a page of 0 (0x81), or 4 (0x85).
constexpr uint8_t kMacroErase = 0x81;
constexpr uint8_t kPageErase = 0x82;
constexpr uint8_t kPageBits = 0x07;
constexpr uint8_t kEraseConfirm = 0xEE;
constexpr size_t kPagedPageSize = 1024;
constexpr size_t kPagedPages = 8;
// Assumed, as no datasheet figure was at hand: an erase (page or macro)
// keeps the part busy for 10 ms.
constexpr int64_t kEraseCycle = 10 * 10000;

}  // namespace

// One connection of the part: block `block_` of a block part, else block 0.
class Eeprom::Connection : public Peripheral {
public:
    Connection(std::shared_ptr<Eeprom> part, size_t block) : part_(std::move(part)), block_(block) {}
    NTSTATUS write(const Transfer& when, std::span<const uint8_t> bytes) override
    {
        return part_->take_write(when, block_, bytes);
    }
    NTSTATUS read(const Transfer& when, std::span<uint8_t> bytes) override { return part_->take_read(when, bytes); }

private:
    std::shared_ptr<Eeprom> part_;
    size_t block_;
};

Eeprom::Eeprom(Geometry geometry) : geometry_(geometry), cells_(geometry.size, 0xFF)
{
    if (geometry.write_page == 0 || geometry.write_page > kMaxWritePage ||
        (geometry.write_page & (geometry.write_page - 1)) != 0) {
        throw std::invalid_argument("an EEPROM's write page is a power of two of at most 256 bytes");
    }
}

std::vector<std::shared_ptr<Peripheral>> Eeprom::connections()
{
    size_t count = geometry_.kind == Kind::Blocks ? geometry_.size / kBlockSize : 1;
    std::vector<std::shared_ptr<Peripheral>> out;
    for (size_t b = 0; b < count; b++) {
        out.push_back(std::make_shared<Connection>(shared_from_this(), b));
    }
    return out;
}

// ---- Bus face ---------------------------------------------------------------

bool Eeprom::busy(int64_t now) const
{
    std::lock_guard lock(mutex_);
    return now < busy_until_;
}

int64_t Eeprom::busy_until() const
{
    std::lock_guard lock(mutex_);
    return busy_until_;
}

// The cycle runs from the stop condition.
void Eeprom::start_cycle(const Transfer& when, int64_t duration)
{
    busy_until_ = when.stop + duration;
    cycles_++;
}

bool Eeprom::take_erase(const Transfer& when, std::span<const uint8_t> bytes)
{
    if (geometry_.kind != Kind::Paged || bytes.size() != 2 || bytes[1] != kEraseConfirm) {
        return false;
    }
    uint8_t command = bytes[0] & uint8_t(~kPageBits);
    size_t page = bytes[0] & kPageBits;
    static_assert(kPageBits + 1 == kPagedPages);
    if (command != 0x80) {
        return false;  // bits 6..3 name no command of this part
    }
    if ((bytes[0] & kPageErase) == kPageErase) {
        auto first = cells_.begin() + ptrdiff_t(page * kPagedPageSize);
        std::fill(first, first + ptrdiff_t(kPagedPageSize), 0xFF);
    } else if ((bytes[0] & kMacroErase) == kMacroErase) {
        std::fill(cells_.begin(), cells_.end(), 0xFF);
    } else {
        return false;
    }
    start_cycle(when, kEraseCycle);
    return true;
}

NTSTATUS Eeprom::take_write(const Transfer& when, size_t block, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    // In its write cycle the part does not acknowledge its address.
    if (when.start < busy_until_) {
        return kNack;
    }
    size_t n = address_bytes();
    if (geometry_.kind == Kind::Paged && !bytes.empty() && (bytes[0] & 0x80)) {
        // A command byte: an erase, or something the part does not know and
        // does not acknowledge.
        return take_erase(when, bytes) ? STATUS_SUCCESS : kNack;
    }
    if (bytes.size() < n) {
        // An address cut short leaves the pointer where it was.
        return STATUS_SUCCESS;
    }
    size_t address = 0;
    for (size_t i = 0; i < n; i++) {
        address = address << 8 | bytes[i];
    }
    if (geometry_.kind == Kind::Blocks) {
        address += block * kBlockSize;
    }
    pointer_ = address & (geometry_.size - 1);  // address bits past the array are ignored
    auto data = bytes.subspan(n);
    if (data.empty()) {
        return STATUS_SUCCESS;  // an address phase: only the pointer moves
    }

    // The data goes into the part's page buffer: past the end of the
    // physical write page it wraps to the page's start and overwrites what
    // came first. At the stop condition the buffer's loaded cells are
    // programmed, so only the last page's worth of bytes reaches the cells,
    // each to its own one (the page is a power of two).
    size_t mask = geometry_.write_page - 1;
    size_t base = pointer_ & ~mask;
    size_t start = pointer_ - base;
    size_t first = data.size() > mask ? data.size() - mask - 1 : 0;
    for (size_t i = first; i < data.size(); i++) {
        // Flash cells of the DW9806B memory only program ones to zeros; the
        // erase sets them back to 0xFF.
        uint8_t& cell = cells_[base + ((start + i) & mask)];
        cell = geometry_.kind == Kind::Paged ? uint8_t(cell & data[i]) : data[i];
    }
    pointer_ = base + ((start + data.size()) & mask);
    start_cycle(when, kWriteCycle);
    return STATUS_SUCCESS;
}

NTSTATUS Eeprom::take_read(const Transfer& when, std::span<uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    if (when.start < busy_until_) {
        return kNack;
    }
    // Sequential read: on from the pointer, across pages and blocks, rolling
    // over from the last cell to the first.
    for (auto& b : bytes) {
        b = cells_[pointer_];
        pointer_ = (pointer_ + 1) % geometry_.size;
    }
    return STATUS_SUCCESS;
}

// ---- Backend face -------------------------------------------------------------

std::vector<uint8_t> Eeprom::contents() const
{
    std::lock_guard lock(mutex_);
    return cells_;
}

std::vector<uint8_t> Eeprom::bytes(size_t address, size_t count) const
{
    std::lock_guard lock(mutex_);
    address = std::min(address, cells_.size());
    count = std::min(count, cells_.size() - address);
    return {cells_.begin() + ptrdiff_t(address), cells_.begin() + ptrdiff_t(address + count)};
}

void Eeprom::set_contents(size_t address, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < bytes.size() && address + i < cells_.size(); i++) {
        cells_[address + i] = bytes[i];
    }
}

void Eeprom::erase()
{
    std::lock_guard lock(mutex_);
    std::fill(cells_.begin(), cells_.end(), 0xFF);
}

std::optional<std::string> Eeprom::load_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return "cannot read " + path;
    }
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        return "cannot read " + path;
    }
    if (data.size() > size()) {
        return path + " holds " + std::to_string(data.size()) + " bytes, more than the memory's " +
               std::to_string(size());
    }
    set_contents(0, data);
    return std::nullopt;
}

std::optional<std::string> Eeprom::save_file(const std::string& path) const
{
    auto data = contents();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
    if (!out) {
        return "cannot write " + path;
    }
    return std::nullopt;
}

size_t Eeprom::pointer() const
{
    std::lock_guard lock(mutex_);
    return pointer_;
}

unsigned Eeprom::write_cycles() const
{
    std::lock_guard lock(mutex_);
    return cycles_;
}

}  // namespace korvanel::models
