// traces.h - event tracing as the bench records it: the driver's trace
// calls and the session's enable state.
#pragma once

#include "../wdk/wdm.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace korvanel::bench {

// A trace call site's format text, the file it is in and its flag, as the
// decoder finds it in the image's format table.
struct TraceFormatInfo {
    std::string text;
    std::string file;
    uint32_t flag;
};

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

}  // namespace korvanel::bench
