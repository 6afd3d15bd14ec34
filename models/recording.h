// recording.h - wraps a part and records every transfer that reached it,
// with the part's answer and the clock time. Transfers the bus failed before
// the part (injected faults) are only in the bus transcript.
//
//   auto rec = std::make_shared<models::RecordingPeripheral>(std::make_shared<MyModel>());
//   sys.bus().attach(0x2a, rec);
//   ...
//   EXPECT_EQ(rec->writes(), (std::vector<std::vector<uint8_t>>{{0x04, 0x01}, {0x05, 0x00}}));
#pragma once

#include "peripheral.h"

#include <memory>
#include <mutex>
#include <vector>

namespace korvanel::models {

class RecordingPeripheral : public Peripheral {
public:
    struct Record {
        Direction direction;
        std::vector<uint8_t> bytes;  // written, or what the part returned
        NTSTATUS status;
        int64_t time;  // bench clock time the transfer started, 100 ns units
    };

    explicit RecordingPeripheral(std::shared_ptr<Peripheral> inner);
    Peripheral& inner() { return *inner_; }

    std::vector<Record> records() const;
    std::vector<std::vector<uint8_t>> writes() const;  // the bytes of each write, in order
    void clear();

    NTSTATUS write(const Transfer& when, std::span<const uint8_t> bytes) override;
    NTSTATUS read(const Transfer& when, std::span<uint8_t> bytes) override;
    int64_t hold_time() const override { return inner_->hold_time(); }

private:
    void record(const Transfer& when, Direction direction, std::span<const uint8_t> bytes, NTSTATUS status);

    std::shared_ptr<Peripheral> inner_;
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};

}  // namespace korvanel::models
