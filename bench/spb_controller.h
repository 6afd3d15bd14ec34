// spb_controller.h - the simulated SPB controller and its I2C buses behind the resource hub.
//
// A connection id names one peripheral on an SPB controller, as the
// resource hub resolves "\DosDevices\RESOURCE_HUB\<16 hex digits>". Tests
// attach a models/ model to a connection id; the driver opens the connection as
// a framework I/O target and sends IOCTL_SPB_EXECUTE_SEQUENCE requests, each
// of which the bus carries out on the attached part:
//
//   auto eeprom = std::make_shared<MyModel>();
//   sys.bus().attach(0x2a, eeprom);
//   sys.bus().set_speed(BusSpeed::Fast);                  // 400 kHz wire time
//   sys.bus().fail_when({.connection = 0x2a, .direction = Direction::Read},
//                       BusFault::nack());                // the next read NACKs
//   ... the driver works ...
//   for (auto& t : sys.bus().transcript()) ...            // what went over the wire
//
// Every transfer that reaches the bus is in the transcript, whatever its
// outcome. Requests the framework or the SPB layer refuse before the bus
// (malformed lists, a closed target) are not transfers; the reason for the
// latest refusal is in last_rejection().
#pragma once

#include "../wdk/wdm.h"
#include "../wdk/kmdf.h"
#include "../models/peripheral.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::bench {

using models::Direction;

// The SCL clock rate of the controller. Instant: transfers take no time.
enum class BusSpeed : uint32_t { Instant = 0, Standard = 100000, Fast = 400000, FastPlus = 1000000 };

// What happens to a chosen transfer instead of its normal course.
struct BusFault {
    enum class Kind {
        Fail,      // the controller fails the request with `status`; the part sees nothing
        Nack,      // the part does not acknowledge its address (models::kNack); it sees nothing
        Timeout,   // the part holds the bus until the request's time-out ends it
        Complete,  // the transfer is carried out, the request completes with `status`
    };
    Kind kind;
    NTSTATUS status;

    static BusFault fail(NTSTATUS status) { return {Kind::Fail, status}; }
    static BusFault nack() { return {Kind::Nack, models::kNack}; }
    static BusFault timeout() { return {Kind::Timeout, STATUS_IO_TIMEOUT}; }
    static BusFault complete_with(NTSTATUS status) { return {Kind::Complete, status}; }
};

// One transfer as it went over the wire.
struct BusTransfer {
    uint64_t index;        // transfers counted from 0 since the bus was made
    uint64_t connection;
    uint8_t address;       // the part's 7-bit bus address behind the connection
    // Transfers of one sequence request share this id; the controller joins
    // them with a repeated START instead of a STOP and a START.
    uint64_t sequence;
    Direction direction;
    uint32_t length;       // bytes the request asked to move
    std::vector<uint8_t> bytes;  // write: the bytes sent; read: the bytes the driver received (none on failure)
    std::optional<int64_t> timeout;  // the request's time-out as given (100 ns units, negative = relative)
    NTSTATUS status;       // what the request completed with
    int64_t time;          // clock time the transfer started (after any DelayInUs)
    int64_t duration;      // how long it held the bus, 100 ns units
};

// Which transfers a fault rule applies to; unset members match anything.
struct BusMatch {
    std::optional<uint64_t> connection = {};
    std::optional<Direction> direction = {};
    std::vector<uint8_t> prefix = {};  // a write whose bytes begin with these
    bool matches(const BusTransfer& transfer) const;
};

// One framework I/O target, as the driver created and used it.
struct TargetRecord {
    struct Open {
        WDF_IO_TARGET_OPEN_PARAMS params;  // as passed; the name's buffer was the caller's
        std::u16string name;               // the name, copied during the call
        NTSTATUS status;
        std::optional<uint64_t> connection;  // what the name resolved to
    };
    enum class State { Created, Open, Closed, Deleted };

    WDFIOTARGET handle;  // may be reused by a later target once this one is deleted
    WDFDEVICE device;    // as passed to WdfIoTargetCreate
    std::optional<WDF_OBJECT_ATTRIBUTES> attributes;  // as passed
    std::vector<Open> opens;
    unsigned closes = 0;  // WdfIoTargetClose calls
    State state = State::Created;
};

class Bus {
public:
    // ---- Peripherals --------------------------------------------------------
    // Attaching to a connection that has a part replaces it.
    void attach(uint64_t connection, std::shared_ptr<models::Peripheral> peripheral);
    void detach(uint64_t connection);
    std::shared_ptr<models::Peripheral> peripheral(uint64_t connection) const;
    // The 7-bit bus address the connection's descriptor names. A connection
    // nobody set answers the low seven bits of its id.
    void set_address(uint64_t connection, uint8_t address);
    uint8_t address(uint64_t connection) const;

    // ---- Speed ---------------------------------------------------------------
    void set_speed(BusSpeed speed);
    BusSpeed speed() const;
    // Wire time of a transfer moving `bytes` data bytes, 100 ns units: a start
    // condition, the address byte and each data byte with its acknowledge
    // (9 clocks each), and a stop condition; each condition counts one clock.
    static int64_t wire_time(BusSpeed speed, size_t bytes);

    // ---- Fault injection ------------------------------------------------------
    // The transfer with this index (see transfer_count()).
    void fail_transfer(uint64_t index, BusFault fault);
    // Matching transfers: `skip` pass first, then `times` fail (0 = all after).
    void fail_when(BusMatch match, BusFault fault, unsigned skip = 0, unsigned times = 1);
    void clear_faults();

    // ---- What happened ------------------------------------------------------
    // A long run keeps the latest kTransfersKept transfers and kTargetsKept
    // targets; the counts go on.
    static constexpr size_t kTransfersKept = size_t(1) << 16;
    static constexpr size_t kTargetsKept = 1024;
    std::vector<BusTransfer> transcript() const;  // the kept transfers, oldest first
    // How many transfers the transcript keeps (kTransfersKept unless set); 0
    // keeps none and copies no bytes, for a run that never reads it (fuzzing).
    void keep_transfers(size_t count);
    void clear_transcript();            // the index count goes on
    uint64_t transfer_count() const;    // transfers so far = the next one's index
    std::string last_rejection() const; // why the latest refused request was refused
    std::vector<TargetRecord> targets() const;  // the kept targets, in the order they were created
    // Called with each transfer as it is recorded, in order, on the thread
    // that made it (the wire is held): a waveform follows a run of any length
    // without the transcript keeping it. One observer; empty removes it.
    void observe(std::function<void(const BusTransfer&)> observer);

    // ---- Used by the framework's I/O target routines ---------------------------
    struct Request {
        uint64_t connection;
        Direction direction;
        uint8_t* buffer;
        uint32_t length;
        uint32_t delay_us;  // wait before the transfer
        std::optional<int64_t> timeout;
        bool continues_sequence = false;  // a later transfer of the request before it
    };
    // Carries out one transfer: time-out, faults, the part, the clock, the
    // transcript. `transferred` gets the bytes moved.
    NTSTATUS transfer(const Request& request, ULONG_PTR* transferred);
    void reject(std::string reason);
    size_t add_target(TargetRecord record);
    void update_target(size_t id, const std::function<void(TargetRecord&)>& change);

private:
    struct Rule {
        BusMatch match;
        BusFault fault;
        unsigned skip;
        unsigned times;
    };
    std::optional<BusFault> take_fault(const BusTransfer& transfer);

    // The wire: held for a whole transfer, clock advance included, so that
    // transfers follow one another. Recursive, because the clock fires timers
    // while a transfer holds it.
    std::recursive_mutex wire_;
    int64_t busy_until_ = 0;  // when the latest transfer ended, under wire_
    // The records below; never held while taking another lock, so that a
    // target deleted under the framework's lock cannot wait on the wire.
    mutable std::mutex mutex_;
    std::map<uint64_t, std::shared_ptr<models::Peripheral>> peripherals_;
    std::map<uint64_t, uint8_t> addresses_;
    std::function<void(const BusTransfer&)> observer_;  // called under wire_ only
    uint64_t next_sequence_ = 0;
    BusSpeed speed_ = BusSpeed::Instant;
    std::map<uint64_t, BusFault> indexed_faults_;
    std::vector<Rule> rules_;
    std::deque<BusTransfer> transcript_;
    size_t kept_ = kTransfersKept;
    std::vector<uint8_t> received_;  // a read's bytes before the driver sees them, under wire_
    uint64_t next_index_ = 0;
    std::string last_rejection_;
    std::deque<TargetRecord> targets_;
    size_t first_target_ = 0;  // the id of targets_.front()
};

}  // namespace korvanel::bench
