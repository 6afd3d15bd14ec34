// scripted.h - a part that answers from a script, for tests that need exact
// replies or failures: each transfer takes the next step in order; with the
// script used up, writes are acknowledged and reads return the fill byte.
//
//   auto part = std::make_shared<models::ScriptedPeripheral>();
//   part->expect_write({0x03, 0x80}).reply({0x5a});       // a 16-bit register read
//   part->expect_write({}, models::kNack);                    // then a write it refuses
//   sys.bus().attach(0x2a, part);
//   ...
//   EXPECT_EQ(part->pending(), 0u);
//   EXPECT_TRUE(part->mismatches().empty());
#pragma once

#include "peripheral.h"

#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace korvanel::models {

class ScriptedPeripheral : public Peripheral {
public:
    struct Step {
        Direction direction;
        std::vector<uint8_t> bytes;  // write: the bytes expected (none: any); read: the reply
        NTSTATUS status = STATUS_SUCCESS;
        int64_t hold = 0;            // how long the part holds the bus (kHoldForever: never lets go)
    };

    ScriptedPeripheral& expect_write(std::vector<uint8_t> bytes = {}, NTSTATUS status = STATUS_SUCCESS,
                                     int64_t hold = 0);
    // A reply shorter than the read is padded with the fill byte.
    ScriptedPeripheral& reply(std::vector<uint8_t> bytes, NTSTATUS status = STATUS_SUCCESS, int64_t hold = 0);
    void set_fill(uint8_t fill);

    size_t pending() const;  // steps not yet taken
    // One line per transfer that differed from its step (direction, bytes, a
    // reply longer than the read).
    std::vector<std::string> mismatches() const;

    NTSTATUS write(const Transfer& when, std::span<const uint8_t> bytes) override;
    NTSTATUS read(const Transfer& when, std::span<uint8_t> bytes) override;
    int64_t hold_time() const override;

private:
    // The next step, or an unscripted one in `direction`.
    Step take(Direction direction);

    mutable std::mutex mutex_;
    std::deque<Step> steps_;
    std::vector<std::string> mismatches_;
    uint8_t fill_ = 0xFF;
    int64_t hold_ = 0;
    size_t taken_ = 0;
};

}  // namespace korvanel::models
