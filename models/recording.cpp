// recording.cpp - a part wrapper that records the transfers reaching it.
#include "recording.h"

namespace korvanel::models {

RecordingPeripheral::RecordingPeripheral(std::shared_ptr<Peripheral> inner) : inner_(std::move(inner)) {}

std::vector<RecordingPeripheral::Record> RecordingPeripheral::records() const
{
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::vector<uint8_t>> RecordingPeripheral::writes() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::vector<uint8_t>> out;
    for (auto& r : records_) {
        if (r.direction == Direction::Write) {
            out.push_back(r.bytes);
        }
    }
    return out;
}

void RecordingPeripheral::clear()
{
    std::lock_guard lock(mutex_);
    records_.clear();
}

void RecordingPeripheral::record(const Transfer& when, Direction direction, std::span<const uint8_t> bytes,
                                 NTSTATUS status)
{
    std::lock_guard lock(mutex_);
    records_.push_back({direction, {bytes.begin(), bytes.end()}, status, when.start});
}

NTSTATUS RecordingPeripheral::write(const Transfer& when, std::span<const uint8_t> bytes)
{
    NTSTATUS status = inner_->write(when, bytes);
    record(when, Direction::Write, bytes, status);
    return status;
}

NTSTATUS RecordingPeripheral::read(const Transfer& when, std::span<uint8_t> bytes)
{
    NTSTATUS status = inner_->read(when, bytes);
    record(when, Direction::Read, bytes, status);
    return status;
}

}  // namespace korvanel::models
