// scripted.cpp - a part that answers from a script.
#include "scripted.h"

#include <algorithm>
#include <cstdio>

namespace korvanel::models {

namespace {

std::string hex(std::span<const uint8_t> bytes)
{
    std::string out;
    char byte[4];
    for (uint8_t b : bytes) {
        std::snprintf(byte, sizeof(byte), out.empty() ? "%02x" : " %02x", b);
        out += byte;
    }
    return "[" + out + "]";
}

const char* name(Direction direction) { return direction == Direction::Write ? "write" : "read"; }

}  // namespace

ScriptedPeripheral& ScriptedPeripheral::expect_write(std::vector<uint8_t> bytes, NTSTATUS status, int64_t hold)
{
    std::lock_guard lock(mutex_);
    steps_.push_back({Direction::Write, std::move(bytes), status, hold});
    return *this;
}

ScriptedPeripheral& ScriptedPeripheral::reply(std::vector<uint8_t> bytes, NTSTATUS status, int64_t hold)
{
    std::lock_guard lock(mutex_);
    steps_.push_back({Direction::Read, std::move(bytes), status, hold});
    return *this;
}

void ScriptedPeripheral::set_fill(uint8_t fill)
{
    std::lock_guard lock(mutex_);
    fill_ = fill;
}

size_t ScriptedPeripheral::pending() const
{
    std::lock_guard lock(mutex_);
    return steps_.size();
}

std::vector<std::string> ScriptedPeripheral::mismatches() const
{
    std::lock_guard lock(mutex_);
    return mismatches_;
}

int64_t ScriptedPeripheral::hold_time() const
{
    std::lock_guard lock(mutex_);
    return hold_;
}

ScriptedPeripheral::Step ScriptedPeripheral::take(Direction direction)
{
    size_t number = taken_++;
    if (steps_.empty()) {
        return {direction, {}, STATUS_SUCCESS, 0};
    }
    Step step = std::move(steps_.front());
    steps_.pop_front();
    if (step.direction != direction) {
        mismatches_.push_back("transfer " + std::to_string(number) + ": a " + name(direction) + " where the script has a " +
                              name(step.direction));
    }
    return step;
}

NTSTATUS ScriptedPeripheral::write(const Transfer&, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    size_t number = taken_;
    Step step = take(Direction::Write);
    if (step.direction == Direction::Write && !step.bytes.empty() &&
        !std::equal(bytes.begin(), bytes.end(), step.bytes.begin(), step.bytes.end())) {
        mismatches_.push_back("transfer " + std::to_string(number) + ": wrote " + hex(bytes) + ", the script expects " +
                              hex(step.bytes));
    }
    hold_ = step.hold;
    return step.status;
}

NTSTATUS ScriptedPeripheral::read(const Transfer&, std::span<uint8_t> bytes)
{
    std::lock_guard lock(mutex_);
    size_t number = taken_;
    Step step = take(Direction::Read);
    std::vector<uint8_t> reply = step.direction == Direction::Read ? step.bytes : std::vector<uint8_t>{};
    if (reply.size() > bytes.size()) {
        mismatches_.push_back("transfer " + std::to_string(number) + ": read " + std::to_string(bytes.size()) +
                              " bytes, the script replies " + hex(reply));
    }
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = i < reply.size() ? reply[i] : fill_;
    }
    hold_ = step.hold;
    return step.status;
}

}  // namespace korvanel::models
