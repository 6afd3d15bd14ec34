// spb_controller.cpp - the simulated I2C buses: one transfer at a time on the part
// attached to a connection, with wire time on the clock, injected faults,
// the request's time-out and a transcript of everything that went over.
#include "spb_controller.h"
#include "fault_rules.h"
#include "bench.h"

#include <algorithm>
#include <cstdio>

namespace korvanel::bench {

bool BusMatch::matches(const BusTransfer& transfer) const
{
    if (connection && *connection != transfer.connection) {
        return false;
    }
    if (direction && *direction != transfer.direction) {
        return false;
    }
    if (!prefix.empty()) {
        return transfer.direction == Direction::Write && transfer.bytes.size() >= prefix.size() &&
               std::equal(prefix.begin(), prefix.end(), transfer.bytes.begin());
    }
    return true;
}

// ---- Peripherals and speed ------------------------------------------------------

void Bus::attach(uint64_t connection, std::shared_ptr<models::Peripheral> peripheral)
{
    std::lock_guard lock(mutex_);
    peripherals_[connection] = std::move(peripheral);
}

void Bus::detach(uint64_t connection)
{
    std::lock_guard lock(mutex_);
    peripherals_.erase(connection);
}

std::shared_ptr<models::Peripheral> Bus::peripheral(uint64_t connection) const
{
    std::lock_guard lock(mutex_);
    auto it = peripherals_.find(connection);
    return it == peripherals_.end() ? nullptr : it->second;
}

void Bus::set_address(uint64_t connection, uint8_t address)
{
    std::lock_guard lock(mutex_);
    addresses_[connection] = address & 0x7F;
}

uint8_t Bus::address(uint64_t connection) const
{
    std::lock_guard lock(mutex_);
    auto it = addresses_.find(connection);
    return it == addresses_.end() ? uint8_t(connection & 0x7F) : it->second;
}

void Bus::observe(std::function<void(const BusTransfer&)> observer)
{
    std::lock_guard wire(wire_);
    observer_ = std::move(observer);
}

void Bus::set_speed(BusSpeed speed)
{
    std::lock_guard lock(mutex_);
    speed_ = speed;
}

BusSpeed Bus::speed() const
{
    std::lock_guard lock(mutex_);
    return speed_;
}

int64_t Bus::wire_time(BusSpeed speed, size_t bytes)
{
    auto hz = static_cast<int64_t>(speed);
    if (hz == 0) {
        return 0;
    }
    int64_t clocks = 1 + 9 * (1 + static_cast<int64_t>(bytes)) + 1;
    return (clocks * 10'000'000 + hz - 1) / hz;
}

// ---- Faults ---------------------------------------------------------------------

void Bus::fail_transfer(uint64_t index, BusFault fault)
{
    std::lock_guard lock(mutex_);
    indexed_faults_.insert_or_assign(index, fault);
}

void Bus::fail_when(BusMatch match, BusFault fault, unsigned skip, unsigned times)
{
    std::lock_guard lock(mutex_);
    rules_.push_back({std::move(match), fault, skip, times});
}

void Bus::clear_faults()
{
    std::lock_guard lock(mutex_);
    indexed_faults_.clear();
    rules_.clear();
}

// With the records locked.
std::optional<BusFault> Bus::take_fault(const BusTransfer& transfer)
{
    if (auto it = indexed_faults_.find(transfer.index); it != indexed_faults_.end()) {
        BusFault fault = it->second;
        indexed_faults_.erase(it);
        return fault;
    }
    auto rule = take_due_rule(rules_, [&transfer](const Rule& r) { return r.match.matches(transfer); });
    if (rule) {
        return rule->fault;
    }
    return std::nullopt;
}

// ---- Transfers ----------------------------------------------------------------

NTSTATUS Bus::transfer(const Request& request, ULONG_PTR* transferred)
{
    auto& sys = Bench::current();
    auto& clock = sys.clock();
    // The time-out runs from the moment the request is sent, waiting for the
    // bus included.
    int64_t sent = clock.now();
    // One transfer at a time, as on a real bus: a second caller waits for the
    // bus, and its transfer starts when this one has released it.
    std::lock_guard wire(wire_);

    std::optional<int64_t> allowed;
    if (request.timeout) {
        allowed = std::max<int64_t>(0, *request.timeout < 0 ? -*request.timeout : *request.timeout - sent);
    }
    if (request.delay_us > 0) {
        clock.advance_us(request.delay_us);
    }
    // The request waited as long as the bus was busy with earlier transfers
    // after it was sent, not as long as other threads let virtual time run
    // while this one waited for its turn.
    int64_t spent = std::max<int64_t>(0, busy_until_ - sent) + int64_t(request.delay_us) * 10;

    BusTransfer t{0, request.connection, 0, 0, request.direction, request.length, {}, request.timeout, STATUS_SUCCESS,
                  clock.now(), 0};
    bool recorded;
    {
        std::lock_guard lock(mutex_);
        recorded = kept_ > 0 || observer_;
    }
    if (request.direction == Direction::Write && recorded) {
        t.bytes.assign(request.buffer, request.buffer + request.length);
    }
    std::optional<BusFault> fault;
    std::shared_ptr<models::Peripheral> part;
    BusSpeed speed;
    {
        std::lock_guard lock(mutex_);
        t.index = next_index_++;
        if (!request.continues_sequence || next_sequence_ == 0) {
            next_sequence_++;
        }
        t.sequence = next_sequence_ - 1;
        auto address = addresses_.find(request.connection);
        t.address = address == addresses_.end() ? uint8_t(request.connection & 0x7F) : address->second;
        fault = take_fault(t);
        if (auto it = peripherals_.find(request.connection); it != peripherals_.end()) {
            part = it->second;
        }
        speed = speed_;
    }

    // Only the address byte goes out when nobody acknowledges it.
    int64_t address_only = wire_time(speed, 0);
    received_.assign(request.direction == Direction::Read ? request.length : 0, 0);
    NTSTATUS status;
    int64_t duration;
    if (fault && fault->kind == BusFault::Kind::Timeout) {
        status = STATUS_IO_TIMEOUT;
        duration = models::kHoldForever;
    } else if (fault && fault->kind != BusFault::Kind::Complete) {
        status = fault->status;
        duration = address_only;
    } else if (part == nullptr) {
        status = models::kNack;
        duration = address_only;
    } else {
        models::Transfer when{t.time, t.time + wire_time(speed, request.length)};
        status = request.direction == Direction::Write
                     ? part->write(when, std::span<const uint8_t>(request.buffer, request.length))
                     : part->read(when, std::span<uint8_t>(received_));
        int64_t hold = part->hold_time();
        duration = NT_SUCCESS(status) ? wire_time(speed, request.length) : address_only;
        duration = hold == models::kHoldForever ? models::kHoldForever : duration + hold;
        if (fault) {
            status = fault->status;
        }
    }

    // A request that outlasts its time-out is cancelled when the time is up.
    // A part that never lets go hangs a request without one; Windows would
    // hang with it, the bench reports it and gives up.
    if (allowed && duration > *allowed - spent) {
        duration = std::max<int64_t>(0, *allowed - spent);
        status = STATUS_IO_TIMEOUT;
    } else if (duration == models::kHoldForever) {
        char text[160];
        std::snprintf(text, sizeof(text),
                      "a transfer on connection 0x%llx never completes and its request has no time-out",
                      static_cast<unsigned long long>(request.connection));
        sys.faults().note_error(text);
        duration = 0;
        status = STATUS_IO_TIMEOUT;
    }

    if (request.direction == Direction::Read && NT_SUCCESS(status)) {
        std::copy(received_.begin(), received_.end(), request.buffer);
        if (recorded) {
            t.bytes = received_;
        }
    }
    t.status = status;
    t.duration = duration;
    if (observer_) {
        observer_(t);
    }
    {
        std::lock_guard lock(mutex_);
        if (kept_ > 0) {
            while (transcript_.size() >= kept_) {
                transcript_.pop_front();
            }
            transcript_.push_back(std::move(t));
        }
    }
    clock.advance(duration);
    busy_until_ = clock.now();

    if (transferred != nullptr) {
        *transferred = NT_SUCCESS(status) ? request.length : 0;
    }
    return status;
}

// ---- Records ---------------------------------------------------------------------

void Bus::keep_transfers(size_t count)
{
    std::lock_guard lock(mutex_);
    kept_ = count;
    while (transcript_.size() > kept_) {
        transcript_.pop_front();
    }
}

std::vector<BusTransfer> Bus::transcript() const
{
    std::lock_guard lock(mutex_);
    return {transcript_.begin(), transcript_.end()};
}

void Bus::clear_transcript()
{
    std::lock_guard lock(mutex_);
    transcript_.clear();
}

uint64_t Bus::transfer_count() const
{
    std::lock_guard lock(mutex_);
    return next_index_;
}

std::string Bus::last_rejection() const
{
    std::lock_guard lock(mutex_);
    return last_rejection_;
}

void Bus::reject(std::string reason)
{
    std::lock_guard lock(mutex_);
    last_rejection_ = std::move(reason);
}

std::vector<TargetRecord> Bus::targets() const
{
    std::lock_guard lock(mutex_);
    return {targets_.begin(), targets_.end()};
}

size_t Bus::add_target(TargetRecord record)
{
    std::lock_guard lock(mutex_);
    if (targets_.size() == kTargetsKept) {
        targets_.pop_front();
        first_target_++;
    }
    targets_.push_back(std::move(record));
    return first_target_ + targets_.size() - 1;
}

void Bus::update_target(size_t id, const std::function<void(TargetRecord&)>& change)
{
    std::lock_guard lock(mutex_);
    // A target older than the kept ones changes no record.
    if (id >= first_target_) {
        change(targets_.at(id - first_target_));
    }
}

}  // namespace korvanel::bench
