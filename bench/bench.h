// bench.h - the test bench: one simulated Windows kernel, framework and I2C
// bus on which the driver is loaded, devices are added and the camera driver's
// calls are made. Tests, benchmarks, fuzz targets and korvanel-sim load the
// driver, open devices and select parts through platform/, which drives this
// API as a platform would; they use it directly for what they set up and look
// at: the clock, the registry, the bus, the traces and the fault rules.
//
//   korvanel::bench::Bench sys;
//   sys.registry().set_dword("MipiLanes", 4);
//   sys.load_driver(DriverEntry);
//   auto& dev = sys.add_device({.hardware_ids = {u"root\\KORVANEL\\rgbir"}});
//   SENSOR_INTERFACE si{};
//   dev.query_interface(GUID_SENSOR_INTERFACE, &si);
//   sys.clock().advance_ms(15000);
//   auto report = sys.unload_driver();   // leaks and unbalanced state listed here
//
// One Bench exists at a time: the kernel's entry points reach it through
// Bench::current().
#pragma once

#include "../wdk/wdm.h"
#include "../wdk/kmdf.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace korvanel::bench {

class Bus;
class Object;
class DeviceObject;

std::string to_utf8(const std::u16string& s);
std::u16string to_utf16(const std::string& s);
std::string status_name(NTSTATUS status);  // "STATUS_SUCCESS", or 0x%08X
std::optional<NTSTATUS> status_value(const std::string& name);  // the status status_name() names so
std::string guid_text(const GUID& guid);   // {XXXXXXXX-XXXX-...}

// The nodes of a std::map's erased entries, kept for its next inserts. The
// bench's own bookkeeping (pool blocks, open handles) then allocates nothing
// once a run is under way, and a fuzzing run spends its allocations, and the
// sanitizer's checks on them, on the driver's memory. A kept node comes back
// with its old value: the caller assigns every field.
template <typename Map>
class SpareNodes {
public:
    // map[key], in a kept node when the key is new.
    typename Map::mapped_type& at(Map& map, const typename Map::key_type& key)
    {
        auto it = map.lower_bound(key);
        if (it != map.end() && !map.key_comp()(key, it->first)) {
            return it->second;
        }
        if (spare_.empty()) {
            return map.emplace_hint(it, key, typename Map::mapped_type{})->second;
        }
        auto node = std::move(spare_.back());
        spare_.pop_back();
        node.key() = key;
        return map.insert(it, std::move(node))->second;
    }
    void erase(Map& map, typename Map::iterator it) { spare_.push_back(map.extract(it)); }
    void clear(Map& map)
    {
        while (!map.empty()) {
            erase(map, map.begin());
        }
    }

private:
    std::vector<typename Map::node_type> spare_;
};

// ---- Clock ----------------------------------------------------------------
// System time, thread delays and processor stalls. Virtual (default): time
// moves only when the driver waits or stalls, the bus transfers, or a test
// advances it; delays and stalls are recorded. Real: delays sleep and stalls
// spin.
//
// A stall or a sleep is the hot path of a long simulation (a 5 ms wait is a
// hundred 50 us stalls), so each thread keeps its own hand on the virtual
// clock and its own delay record: a delay is a few plain loads and stores,
// with no lock and no locked instruction. The clock reads the latest of all
// hands; two threads stalling at the same time advance it once, as real time
// would pass. Each thread keeps its latest kDelaysKeptPerThread records, so a
// long run's record stays bounded; the counts cover every delay.
class Clock {
public:
    enum class Mode { Virtual, Real };
    struct Delay {
        enum class Kind { Stall, Sleep } kind;
        int64_t amount;  // Stall: microseconds; Sleep: the interval as passed (100 ns units, negative = relative)
        int64_t at;      // clock time when it started, 100 ns units
    };
    static constexpr size_t kDelaysKeptPerThread = size_t(1) << 16;

    Clock();
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    Mode mode() const;
    void set_mode(Mode mode);
    int64_t now() const;  // system time, 100 ns units
    void advance(int64_t units_100ns);
    void advance_ms(int64_t ms) { advance(ms * 10000); }
    void advance_us(int64_t us) { advance(us * 10); }

    // The kept records of every thread, in time order.
    std::vector<Delay> delays() const;
    void clear_delays();
    // Back to a new clock's state (time, timers, records), keeping what it
    // has allocated: the bench's reset.
    void reset();
    size_t stall_count() const;  // since the last clear_delays, kept or not
    size_t sleep_count() const;

    // Timers fire, in due order, while the clock passes their time.
    uint64_t add_timer(int64_t due, std::function<void()> fn);
    // Moves a pending timer to another time; false when it has fired or was
    // cancelled.
    bool move_timer(uint64_t id, int64_t due);
    void cancel_timer(uint64_t id);

    // Used by the kernel entry points.
    void stall_us(uint32_t us);
    void sleep(int64_t interval);  // KeDelayExecutionThread semantics

private:
    friend class Bench;
    struct Lane;
    Lane& lane();
    Lane& new_lane();
    int64_t virtual_now() const;
    void pass(Lane& lane, Delay::Kind kind, int64_t amount, int64_t duration);
    void stall_other(uint32_t us);
    void record(Lane& lane, Delay::Kind kind, int64_t amount, int64_t at);
    void raise_base(int64_t time);
    void fire_timers(int64_t until);
    void update_next_due();  // with mutex_ held

    static constexpr size_t kMaxLanes = 256;
    const uint64_t generation_;  // tells this clock's thread records from an earlier clock's
    std::atomic<Mode> mode_{Mode::Virtual};
    // The time advance() and the timers set; the threads' hands run ahead of it.
    static constexpr int64_t kStartTime = 132000000000000000LL;  // a fixed date, so runs repeat exactly
    std::atomic<int64_t> base_{kStartTime};
    std::unique_ptr<Lane> lanes_[kMaxLanes];
    std::atomic<size_t> lane_count_{0};
    const std::unique_ptr<Lane> shared_lane_;  // for threads beyond kMaxLanes, under mutex_

    mutable std::recursive_mutex mutex_;  // timers, lane creation, the real clock's base
    int64_t real_base_ = 0;
    // Pending timers by id, and their (due, id) in due order: adding, moving,
    // cancelling and finding the next are logarithmic however many devices
    // keep an idle timer.
    struct Timer {
        int64_t due;
        std::function<void()> fn;
    };
    std::map<uint64_t, Timer> timers_;
    std::set<std::pair<int64_t, uint64_t>> due_order_;
    std::atomic<int64_t> next_due_{INT64_MAX};  // earliest pending timer
    uint64_t next_timer_ = 1;
    void fire_due_timers();
};

// ---- Registry -------------------------------------------------------------
// The driver's service key and any other key, with typed values of any type
// and length.
class Registry {
public:
    static constexpr const char16_t* kServiceKey =
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\korvanel";

    // A REG_DWORD's data: four bytes, least significant first.
    static std::vector<uint8_t> dword_data(uint32_t value);
    void set_dword(const std::string& name, uint32_t value);
    void set_string(const std::string& name, const std::string& value);  // REG_SZ
    void set(const std::string& name, uint32_t type, std::vector<uint8_t> data);
    void remove(const std::string& name);
    void clear();
    void reset();  // a new hive's state: no values, no handles, the service key present
    // The service key exists unless removed; values then fail to open.
    void set_service_key_present(bool present);

    // Generic access by key path (case-insensitive).
    void set_value(const std::u16string& key, const std::u16string& name, uint32_t type, std::vector<uint8_t> data);
    bool key_exists(const std::u16string& key) const;
    struct Value {
        uint32_t type;
        std::vector<uint8_t> data;
    };
    std::optional<Value> value(const std::u16string& key, const std::u16string& name) const;

    size_t open_keys() const;  // handles not yet closed

    // The latest opens, oldest first, as the caller asked for them.
    struct Open {
        std::u16string key;
        uint32_t attributes;  // OBJ_*
        uint32_t access;      // KEY_*
    };
    static constexpr size_t kOpensKept = 64;
    std::vector<Open> recent_opens() const;

    // Every value name queried under any key since the hive was reset, in
    // the registry's order: what a tool can tell a stray value from.
    std::vector<std::string> asked_names() const;

    // Orders names as the registry compares them: without regard to case.
    struct NoCase {
        using is_transparent = void;
        bool operator()(std::u16string_view a, std::u16string_view b) const;
    };

private:
    friend struct RegistryAccess;
    mutable std::mutex mutex_;
    std::map<std::u16string, std::map<std::u16string, Value, NoCase>, NoCase> keys_;
    // An open handle: the key it names, the access granted, and whether it is
    // a kernel handle (OBJ_KERNEL_HANDLE) or one of the caller's process.
    struct Handle {
        std::u16string key;
        uint32_t access;
        bool kernel;
    };
    std::map<uintptr_t, Handle> handles_;
    SpareNodes<std::map<uintptr_t, Handle>> spare_handles_;
    // A ring of the latest opens: opens_kept_ of its entries hold one, and
    // opens_next_ is the entry the next one takes. A reset keeps the entries
    // (and the room their names have) for the next run's opens.
    std::vector<Open> opens_;
    size_t opens_kept_ = 0;
    size_t opens_next_ = 0;
    std::set<std::u16string, NoCase> asked_;
    bool exists(std::u16string_view key, bool case_sensitive) const;  // with the mutex held
    uintptr_t next_handle_ = 0x100;
    bool service_key_present_ = true;
};

// ---- Pool -----------------------------------------------------------------
// Allocations by tag with the routine that made each, so that a leak at
// unload names it; frees are checked as Driver Verifier's pool tracking
// checks them (an address freed twice, one the pool never handed out, a
// tag that is not the allocation's) and stop at the faulting call.
class Pool {
public:
    struct Allocation {
        uint32_t tag;
        uint32_t pool_type;
        size_t size;
        const void* allocated_by = nullptr;  // a return address in the allocating routine
    };
    Pool() = default;
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    // What a driver left allocated was reported at its unload; the bench
    // releases it with itself.
    ~Pool() { reset(); }
    size_t outstanding() const;
    std::vector<Allocation> live() const;
    size_t allocations_made() const;
    uint32_t type_of(void* p) const;  // the pool type of a live allocation (0 for none)
    // Whether [p, p + size) lies in a live paged allocation.
    bool in_paged_pool(const void* p, size_t size) const;
    // Bytes the pool hands out start with this pattern, so code that reads
    // memory it never wrote is caught.
    static constexpr uint8_t kFill = 0xCD;

    void* allocate(uint32_t pool_type, size_t size, uint32_t tag, const void* allocated_by = nullptr);
    void reset();  // a new pool's state; what is still allocated is released
    enum class Freed { Ok, AlreadyFreed, NeverAllocated, WrongTag };
    // Frees a live allocation; tag 0 frees any. Anything else leaves the pool
    // as it was and says why.
    Freed free(void* p, uint32_t tag, Allocation* found = nullptr);
    // Frees as the platform routine `routine` called from `caller` would,
    // stopping at a bad free.
    void free_checked(void* p, uint32_t tag, const char* routine, const void* caller);

private:
    mutable std::mutex mutex_;
    std::map<void*, Allocation> live_;
    // Addresses freed lately, oldest first, so that a second free of one is
    // told from a free of an address the pool never handed out. Bounded:
    // kFreedKept addresses, each dropped when the address is handed out again.
    static constexpr size_t kFreedKept = 4096;
    std::vector<std::pair<void*, uint64_t>> freed_order_;  // a ring of (address, which free)
    size_t freed_oldest_ = 0;                              // its oldest, once full
    std::map<void*, uint64_t> freed_;                      // address -> its latest free
    SpareNodes<std::map<void*, Allocation>> spare_live_;
    SpareNodes<std::map<void*, uint64_t>> spare_freed_;
    uint64_t frees_ = 0;
    size_t made_ = 0;
};

// ---- Fault injection -------------------------------------------------------
// Every platform routine that can fail asks check() first. A rule names the
// routine, the status to return, how many matching calls to let through first
// and how many to fail (0 = every one after that).
//
// check() is on the path of every platform call, power references included:
// it counts without a lock or an allocation, and takes the lock only while
// rules exist.
class Faults {
public:
    struct Rule {
        std::string routine;
        NTSTATUS status;
        unsigned skip = 0;
        unsigned times = 1;
    };
    Faults();
    ~Faults();
    void fail(const std::string& routine, NTSTATUS status, unsigned skip = 0, unsigned times = 1);
    void clear();
    void reset();  // no rules, hooks or errors, every count back to 0
    NTSTATUS check(const char* routine);  // STATUS_SUCCESS, or the injected status
    // A wait's check: a rule with STATUS_ALERTED (an alert) ends only an
    // alertable wait and one with STATUS_USER_APC only an alertable user-mode
    // one, as on Windows; a rule that cannot end this wait stays for the next.
    // Any other status ends the wait only where `others` is true.
    NTSTATUS check_wait(const char* routine, bool alertable, bool user_apc, bool others);
    unsigned calls(const std::string& routine) const;  // how often the routine asked

    // Runs `fn` once, at the next entry of `routine` on any thread, before
    // the routine does anything: what another thread or the PnP manager does
    // at that instant (a query-remove between two steps of the driver).
    void at_entry(const std::string& routine, std::function<void()> fn);
    void run_entry_hooks(const char* routine);

    // Misuse of the platform that Windows would catch (a bad free, an unknown
    // handle, an unbalanced reference); the unload report lists them.
    void note_error(const std::string& error);
    std::vector<std::string> errors() const;

private:
    // Call counts by the routine name's address (each caller passes its own
    // literal); names at other addresses with the same text add up in calls().
    // Every thread counts in a table of its own, which only it writes: a
    // count is a plain increment, with no locked instruction on the path of
    // every platform call, and calls() adds the tables up. Threads past the
    // first kThreadTables share one table, counted with atomic increments.
    struct Counter {
        std::atomic<const char*> routine{nullptr};
        std::atomic<unsigned> calls{0};
    };
    static constexpr size_t kCounters = 256;
    struct ThreadCounters {
        std::thread::id thread;
        Counter counters[kCounters];
    };
    static constexpr size_t kThreadTables = 64;
    const uint64_t id_;  // never reused, so a thread's cached table is this one's
    // The shared table, then one per thread that called, up to kThreadTables; under mutex_.
    std::vector<std::unique_ptr<ThreadCounters>> thread_counters_;
    Counter* thread_table(bool* shared);
    void count(const char* routine);
    [[gnu::cold, gnu::noinline]] void count_overflow(const char* routine);

    NTSTATUS take(const char* routine, bool alertable, bool user_apc, bool others);
    mutable std::mutex mutex_;
    std::atomic<size_t> rule_count_{0};
    std::vector<Rule> rules_;
    std::vector<std::pair<std::string, std::function<void()>>> entry_hooks_;
    std::map<std::string, unsigned> overflow_calls_;  // beyond kCounters names, under mutex_
    std::vector<std::string> errors_;
};

// ---- Tracing --------------------------------------------------------------
struct TraceFormatInfo {
    std::string text;
    std::string file;
    uint32_t flag;
};

//
// An event is recorded under one lock with its arguments copied into a slot
// of a ring (inline when they are short, as they nearly always are), so a
// traced operation costs no allocation per argument and a long traced run
// keeps its latest kEventsKept events.
class Traces {
public:
    struct Event {
        GUID guid;
        uint16_t number;
        uint32_t message_flags;
        std::vector<std::vector<uint8_t>> args;  // args[0] is "KORVANEL\0"
        int64_t time;
    };
    static constexpr size_t kEventsKept = size_t(1) << 16;
    static constexpr size_t kMaxArguments = 16;
    enum class Registration { None, Classic, Wmi };

    // A consumer session: enable before or after the driver registers.
    void enable(uint32_t flags, uint8_t level = 5);
    void disable();
    uint32_t enabled_flags() const;
    TRACEHANDLE logger() const;  // the enabled session's logger handle, 0 when none

    Registration registration() const;
    std::vector<Event> events() const;  // the kept events, oldest first
    uint64_t dropped() const;           // events recorded but no longer kept
    void clear();
    void reset();  // no session, no registration, no events; the ring's memory is kept

    // Decoding with the call sites' format texts.
    const TraceFormatInfo* format(const Event& e) const;
    std::string decode(const Event& e) const;  // "<module>: <text with arguments>"
    std::string module(const Event& e) const;   // the source module, or the message GUID when unknown
    std::string message(const Event& e) const;  // the text with its arguments, or the arguments in hex
    std::vector<std::string> lines() const;
    // Events whose format text is exactly `text`.
    std::vector<Event> find(const std::string& text) const;

    // Argument helpers.
    static uint32_t u32(const Event& e, size_t i);
    static uint64_t u64(const Event& e, size_t i);
    static std::string text(const Event& e, size_t i);
    static std::u16string wtext(const Event& e, size_t i);

    // Used by the kernel entry points.
    struct Argument {
        const void* data;
        size_t length;
    };
    void record(const GUID& guid, uint16_t number, uint32_t message_flags, int64_t time, const Argument* args,
                size_t count);
    void set_registration(Registration r, void* callback, void* context);
    void apply_session();  // calls the driver's enable callback with the session
    // A consumer's request that a classic provider log its state
    // (EVENT_CONTROL_CODE_CAPTURE_STATE): neither an enable nor a disable.
    void capture_state();

private:
    void call_classic(ULONG code);  // the classic enable callback with this control code
    struct Stored {
        GUID guid;
        uint16_t number;
        uint16_t count;
        uint32_t message_flags;
        int64_t time;
        uint32_t lengths[kMaxArguments];
        uint8_t inline_bytes[96];
        std::vector<uint8_t> more;  // when the arguments do not fit inline
    };
    Event expand(const Stored& s) const;

    mutable std::recursive_mutex mutex_;
    // The ring, in chunks made as it fills: it grows without moving what it
    // holds and allocates once per kChunk events.
    static constexpr size_t kChunk = 64;
    std::vector<std::unique_ptr<Stored[]>> chunks_;
    Stored& slot(uint64_t n) { return chunks_[(n % kEventsKept) / kChunk][n % kChunk]; }
    const Stored& slot(uint64_t n) const { return chunks_[(n % kEventsKept) / kChunk][n % kChunk]; }
    uint64_t recorded_ = 0;
    std::atomic<TRACEHANDLE> session_handle_{0};  // 0 while no session is enabled
    Registration registration_ = Registration::None;
    void* callback_ = nullptr;
    void* callback_context_ = nullptr;
    uint32_t flags_ = 0;
    uint8_t level_ = 0;
    bool session_ = false;
    bool delivered_ = false;
};

// ---- Devices --------------------------------------------------------------
struct DeviceConfig {
    // The PDO's answer to the hardware-identifier query.
    std::vector<std::u16string> hardware_ids = {u"root\\KORVANEL"};
    // Unanswered: a bus driver that does not handle the query completes it
    // with the status the sender preset, as a PDO does with a PnP request
    // it does not know.
    enum class IdQuery { Synchronous, Pending, Fail, Unanswered } id_query = IdQuery::Synchronous;
    // Fail: the status returned; Pending: the status the completion carries.
    NTSTATUS id_status = STATUS_SUCCESS;
    bool id_request_build_fails = false;
    // Exact bytes of the identifier list instead of hardware_ids (malformed lists).
    std::optional<std::vector<uint8_t>> raw_id_list;
    // A successful query whose Information holds no list.
    bool id_list_missing = false;
};

class Device {
public:
    NTSTATUS add_status() const { return add_status_; }
    bool exists() const { return object_ != nullptr; }
    WDFDEVICE handle() const;
    // The typed context the driver declared ("DEVICE_CONTEXT"); null if none.
    void* context() const;
    const WDF_OBJECT_CONTEXT_TYPE_INFO* context_type() const;

    // As the camera driver's query-interface request: copies the published
    // record into `out` (its Size bytes) and calls InterfaceReference once on
    // success.
    NTSTATUS query_interface(const GUID& type, INTERFACE* out, USHORT size, USHORT version);
    template <typename T>
    NTSTATUS query_interface(const GUID& type, T* out, USHORT version = 0)
    {
        return query_interface(type, reinterpret_cast<INTERFACE*>(out), sizeof(T), version);
    }
    bool interface_published(const GUID& type) const;

    NTSTATUS query_remove();  // refused while not stoppable, or by the driver's veto
    NTSTATUS query_stop();
    void remove();            // D0 exit, release hardware, deletion with cleanup

    // PnP state the driver set.
    std::u16string symbolic_link() const;
    std::vector<GUID> device_interfaces() const;
    bool stoppable() const;
    unsigned static_stop_remove_calls(bool stoppable) const;
    std::optional<WDF_DEVICE_STATE> device_state() const;
    std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS> idle_settings() const;
    WDF_PNPPOWER_EVENT_CALLBACKS pnp_callbacks() const;
    WDF_OBJECT_ATTRIBUTES device_attributes() const;
    std::optional<WDF_QUERY_INTERFACE_CONFIG> query_interface_config() const;

    // Power.
    DEVICE_POWER_STATE power_state() const;
    int power_references() const;
    struct IdleCall {
        bool stop;
        bool wait_for_d0;
        void* tag;
        long line;
        std::string file;
    };
    std::vector<IdleCall> idle_calls() const;  // the latest 64, oldest first
    unsigned d0_entries() const;
    unsigned d0_exits() const;

    DeviceObject* object() const { return object_; }

    // When device add failed after creating the device: its context as the
    // framework found it before deleting it.
    const std::vector<uint8_t>& context_at_failure() const { return context_at_failure_; }

private:
    friend class Bench;
    DeviceObject* object_ = nullptr;
    NTSTATUS add_status_ = STATUS_UNSUCCESSFUL;
    std::vector<uint8_t> context_at_failure_;
};

struct UnloadReport {
    std::vector<std::string> problems;  // leaks, open handles, unbalanced references
    bool clean() const { return problems.empty(); }
    std::string text() const;
};

class Bench {
public:
    Bench();
    ~Bench();
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;
    static Bench& current();  // inline below: every kernel entry point asks
    static Bench* current_or_null();

    Registry& registry() { return registry_; }
    Pool& pool() { return pool_; }
    Clock& clock() { return clock_; }
    Traces& traces() { return traces_; }
    Faults& faults() { return faults_; }
    Bus& bus() { return *bus_; }

    // What RtlGetVersion reports, and whether the classic tracing routines are
    // found by name; together they choose the driver's trace registration.
    void set_os_major_version(uint32_t major) { os_major_ = major; }
    uint32_t os_major_version() const { return os_major_; }
    void set_classic_tracing_available(bool available) { classic_tracing_ = available; }
    bool classic_tracing_available() const { return classic_tracing_; }

    // Loads a driver image: calls its entry point with the service key's path
    // (or the path given; null passes no path at all).
    NTSTATUS load_driver(DRIVER_INITIALIZE* entry);
    NTSTATUS load_driver(DRIVER_INITIALIZE* entry, const std::u16string* registry_path);
    bool driver_loaded() const;
    NTSTATUS entry_status() const { return entry_status_; }
    std::optional<WDF_DRIVER_CONFIG> driver_config() const;
    std::optional<WDF_OBJECT_ATTRIBUTES> driver_attributes() const;

    Device& add_device(DeviceConfig config = {});
    std::vector<Device*> devices();

    // Removes the devices still present, unloads the driver and lists what was
    // left behind.
    UnloadReport unload_driver();

    // Unloads the driver if it is loaded (its report is not looked at) and
    // puts every service back in the state a new Bench starts in: clock,
    // pool, handles and objects, registry, bus and parts, trace, fault rules
    // and call counts, the calling thread's level. What was allocated stays,
    // so a reset costs microseconds where a new Bench costs a fresh heap:
    // the fuzz targets reset one Bench between inputs.
    void reset();

    // Internal: the framework's driver object.
    Object* driver_object() const { return driver_; }
    void set_driver_object(Object* d) { driver_ = d; }
    DRIVER_OBJECT* wdm_driver() { return &wdm_driver_; }

private:
    Registry registry_;
    Pool pool_;
    Clock clock_;
    Traces traces_;
    Faults faults_;
    std::unique_ptr<Bus> bus_;
    uint32_t os_major_ = 10;
    bool classic_tracing_ = true;
    DRIVER_OBJECT wdm_driver_{};
    std::u16string registry_path_;
    UNICODE_STRING registry_path_us_{};
    Object* driver_ = nullptr;
    NTSTATUS entry_status_ = STATUS_UNSUCCESSFUL;
    bool loaded_ = false;
    std::vector<std::unique_ptr<Device>> devices_;
};

// The Bench the kernel entry points reach; a call with none alive is a
// bench bug and stops the process.
extern Bench* g_current;
[[noreturn]] void no_current_system();
inline Bench& Bench::current()
{
    Bench* system = g_current;
    if (system == nullptr) [[unlikely]] {
        no_current_system();
    }
    return *system;
}

}  // namespace korvanel::bench
