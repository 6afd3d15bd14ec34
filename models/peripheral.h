// peripheral.h - the bus face of a simulated I2C part: what the simulated SPB
// controller hands a part attached to a connection, one transfer at a time.
//
// A transfer is one I2C message: a start condition, the part's address, then
// bytes written to the part or read from it, then a stop condition. Between
// two transfers the bus is released, so a register read is a write of the
// register address followed by a separate read.
//
// Models follow the part's datasheet, not what the driver expects: a part
// that would not acknowledge (busy in a write cycle, asked for something it
// does not know) answers kNack, and the driver sees what Windows would.
// Models that keep time (write cycles, settle times) take it from the
// transfer: the bus tells each part when its transfer started and when its
// stop condition came, so a model needs nothing but what the wire shows it.
#pragma once

#include "../wdk/wdm.h"

#include <cstdint>
#include <limits>
#include <span>

namespace korvanel::models {

enum class Direction { Write, Read };

// What an SPB controller completes a request with when the part does not
// acknowledge its address.
constexpr NTSTATUS kNack = STATUS_NO_SUCH_DEVICE;

// hold_time() of a part that never lets go of the clock line: the request
// ends only by its time-out.
constexpr int64_t kHoldForever = std::numeric_limits<int64_t>::max();

// When a transfer was on the wire, on the bench's clock (100 ns units): its
// start condition, and its stop condition if the part acknowledges every
// byte (the start plus the transfer's wire time at the bus speed in force).
struct Transfer {
    int64_t start;
    int64_t stop;
};

class Peripheral {
public:
    virtual ~Peripheral() = default;

    // The part takes `bytes`. STATUS_SUCCESS when it acknowledged them all.
    virtual NTSTATUS write(const Transfer& when, std::span<const uint8_t> bytes) = 0;
    // The part fills `bytes` (the controller asked for bytes.size()). The bus
    // hands them to the driver only when the status is a success.
    virtual NTSTATUS read(const Transfer& when, std::span<uint8_t> bytes) = 0;

    // How long, in 100 ns units, the part held the bus (stretched the clock)
    // during the transfer it just took, beyond the wire time. kHoldForever:
    // it never released it.
    virtual int64_t hold_time() const { return 0; }
};

}  // namespace korvanel::models
