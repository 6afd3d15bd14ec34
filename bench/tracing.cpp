// tracing.cpp - event tracing on the bench: the system side of a provider's
// registration (classic provider routines found by name, or WMI registration
// with a callback), a consumer session that enables flags, WmiTraceMessage
// collecting events, and a decoder that formats them with the call sites'
// message texts.
#include "bench.h"
#include "irql_rules.h"
#include "../wdk/wdk_extras.h"

#include <cstdarg>
#include <cstdio>

// The driver's format table: records the host build of each trace call site
// places in this section (see trace/trace.h for the layout).
struct BenchTraceFormat {
    const GUID* MessageGuid;
    ULONG MessageNumber;
    ULONG Flag;
    const char* Text;
    const char* File;
};
extern "C" const BenchTraceFormat __start_korvanel_trace_formats[] __attribute__((weak));
extern "C" const BenchTraceFormat __stop_korvanel_trace_formats[] __attribute__((weak));

namespace korvanel::bench {

namespace {

TRACEHANDLE session_handle(uint32_t flags, uint8_t level)
{
    TRACE_ENABLE_CONTEXT context{1, level, 0, flags};
    TRACEHANDLE handle;
    static_assert(sizeof context == sizeof handle);
    memcpy(&handle, &context, sizeof handle);
    return handle;
}

// One printf conversion, any length.
template <typename T>
std::string printf_text(const std::string& directive, T value)
{
    int n = snprintf(nullptr, 0, directive.c_str(), value);
    std::string out(n > 0 ? n : 0, '\0');
    snprintf(out.data(), out.size() + 1, directive.c_str(), value);
    return out;
}

typedef VOID(NTAPI* ClassicCallback)(LPCGUID, UCHAR, PVOID, PVOID);
typedef NTSTATUS(NTAPI* WmiCallback)(UCHAR, PVOID, ULONG, PVOID, PVOID, PULONG);

GUID g_provider_guid;

}  // namespace

void Traces::enable(uint32_t flags, uint8_t level)
{
    std::lock_guard lock(mutex_);
    flags_ = flags;
    level_ = level;
    session_ = true;
    session_handle_.store(session_handle(flags_, level_));
    apply_session();
}

void Traces::disable()
{
    std::lock_guard lock(mutex_);
    session_ = false;
    session_handle_.store(0);
    apply_session();
}

uint32_t Traces::enabled_flags() const
{
    std::lock_guard lock(mutex_);
    return session_ ? flags_ : 0;
}

TRACEHANDLE Traces::logger() const { return session_handle_.load(std::memory_order_acquire); }

Traces::Registration Traces::registration() const
{
    std::lock_guard lock(mutex_);
    return registration_;
}

void Traces::set_registration(Registration r, void* callback, void* context)
{
    std::lock_guard lock(mutex_);
    registration_ = r;
    callback_ = callback;
    callback_context_ = context;
    delivered_ = false;
    if (r != Registration::None) {
        apply_session();
    }
}

void Traces::capture_state()
{
    std::lock_guard lock(mutex_);
    if (registration_ != Registration::Classic || callback_ == nullptr || !session_) {
        return;
    }
    call_classic(EVENT_CONTROL_CODE_CAPTURE_STATE);
}

// The classic provider's enable callback with `code`, as the system calls
// it: at passive level, with the session's handle. The caller holds mutex_.
void Traces::call_classic(ULONG code)
{
    TRACEHANDLE handle = session_handle(flags_, level_);
    auto callback = reinterpret_cast<ClassicCallback>(callback_);
    verifier::call_driver(callback_level("the trace enable callback"),
                          [&] { callback(&g_provider_guid, code, &handle, callback_context_); });
}

// Tells the registered provider about the session, as the system does when a
// consumer enables or disables it.
void Traces::apply_session()
{
    std::lock_guard lock(mutex_);
    if (registration_ == Registration::None || callback_ == nullptr || (!session_ && !delivered_)) {
        return;
    }
    if (registration_ == Registration::Classic) {
        call_classic(session_ ? EVENT_CONTROL_CODE_ENABLE_PROVIDER : EVENT_CONTROL_CODE_DISABLE_PROVIDER);
    } else {
        TRACEHANDLE handle = session_handle(flags_, level_);
        WNODE_HEADER wnode{};
        wnode.BufferSize = sizeof wnode;
        wnode.HistoricalContext = handle;
        wnode.Guid = g_provider_guid;
        ULONG size = 0;
        auto callback = reinterpret_cast<WmiCallback>(callback_);
        verifier::call_driver(callback_level("the WMI callback"), [&] {
            return callback(session_ ? IRP_MN_ENABLE_EVENTS : IRP_MN_DISABLE_EVENTS, &g_provider_guid, sizeof wnode,
                            &wnode, callback_context_, &size);
        });
    }
    delivered_ = session_;
}

void Traces::record(const GUID& guid, uint16_t number, uint32_t message_flags, int64_t time, const Argument* args,
                    size_t count)
{
    std::lock_guard lock(mutex_);
    if (!session_ || registration_ == Registration::None) {
        return;
    }
    // Once full, the oldest slot is reused, with what it allocated.
    if (recorded_ < kEventsKept && recorded_ / kChunk == chunks_.size()) {
        chunks_.push_back(std::make_unique_for_overwrite<Stored[]>(kChunk));
    }
    Stored& e = slot(recorded_++);
    e.guid = guid;
    e.number = number;
    e.message_flags = message_flags;
    e.time = time;
    e.count = uint16_t(std::min(count, kMaxArguments));
    size_t total = 0;
    for (size_t i = 0; i < e.count; i++) {
        e.lengths[i] = uint32_t(args[i].length);
        total += args[i].length;
    }
    uint8_t* to = e.inline_bytes;
    if (total > sizeof e.inline_bytes) {
        e.more.resize(total);
        to = e.more.data();
    }
    for (size_t i = 0; i < e.count; i++) {
        if (args[i].length > 0) {
            memcpy(to, args[i].data, args[i].length);
            to += args[i].length;
        }
    }
}

Traces::Event Traces::expand(const Stored& s) const
{
    Event e{s.guid, s.number, s.message_flags, {}, s.time};
    size_t total = 0;
    for (size_t i = 0; i < s.count; i++) {
        total += s.lengths[i];
    }
    const uint8_t* from = total > sizeof s.inline_bytes ? s.more.data() : s.inline_bytes;
    for (size_t i = 0; i < s.count; i++) {
        e.args.emplace_back(from, from + s.lengths[i]);
        from += s.lengths[i];
    }
    return e;
}

std::vector<Traces::Event> Traces::events() const
{
    std::lock_guard lock(mutex_);
    std::vector<Event> out;
    size_t kept = std::min<uint64_t>(recorded_, kEventsKept);
    out.reserve(kept);
    for (uint64_t i = recorded_ - kept; i < recorded_; i++) {
        out.push_back(expand(slot(i)));
    }
    return out;
}

uint64_t Traces::dropped() const
{
    std::lock_guard lock(mutex_);
    return recorded_ - std::min<uint64_t>(recorded_, kEventsKept);
}

void Traces::clear()
{
    std::lock_guard lock(mutex_);
    chunks_.clear();
    recorded_ = 0;
}

void Traces::reset()
{
    std::lock_guard lock(mutex_);
    recorded_ = 0;  // the chunks are written over as the ring fills again
    session_handle_.store(0);
    registration_ = Registration::None;
    callback_ = nullptr;
    callback_context_ = nullptr;
    flags_ = 0;
    level_ = 0;
    session_ = false;
    delivered_ = false;
}

const TraceFormatInfo* Traces::format(const Event& e) const
{
    static std::mutex cache_mutex;
    static std::map<std::pair<std::string, uint16_t>, TraceFormatInfo> cache;
    std::lock_guard lock(cache_mutex);
    auto key = std::make_pair(guid_text(e.guid), e.number);
    auto it = cache.find(key);
    if (it != cache.end()) {
        return &it->second;
    }
    if (__start_korvanel_trace_formats == nullptr) {
        return nullptr;
    }
    for (auto* f = __start_korvanel_trace_formats; f < __stop_korvanel_trace_formats; f++) {
        if (f->MessageNumber == e.number && IsEqualGUID(*f->MessageGuid, e.guid)) {
            return &cache.emplace(key, TraceFormatInfo{f->Text, f->File, f->Flag}).first->second;
        }
    }
    return nullptr;
}

uint32_t Traces::u32(const Event& e, size_t i)
{
    uint32_t v = 0;
    if (i < e.args.size()) {
        memcpy(&v, e.args[i].data(), std::min<size_t>(4, e.args[i].size()));
    }
    return v;
}

uint64_t Traces::u64(const Event& e, size_t i)
{
    uint64_t v = 0;
    if (i < e.args.size()) {
        memcpy(&v, e.args[i].data(), std::min<size_t>(8, e.args[i].size()));
    }
    return v;
}

std::string Traces::text(const Event& e, size_t i)
{
    if (i >= e.args.size()) {
        return {};
    }
    auto& a = e.args[i];
    return std::string(a.begin(), std::find(a.begin(), a.end(), uint8_t(0)));
}

std::u16string Traces::wtext(const Event& e, size_t i)
{
    if (i >= e.args.size()) {
        return {};
    }
    std::u16string s(e.args[i].size() / 2, u'\0');
    if (!s.empty()) {
        memcpy(s.data(), e.args[i].data(), s.size() * 2);
    }
    return s.substr(0, s.find(u'\0'));
}

std::string Traces::decode(const Event& e) const
{
    if (format(e) == nullptr) {
        return module(e) + " #" + std::to_string(e.number) + ": " + message(e);
    }
    return module(e) + ": " + message(e);
}

std::string Traces::module(const Event& e) const
{
    const TraceFormatInfo* f = format(e);
    if (f == nullptr) {
        return guid_text(e.guid);
    }
    std::string file = f->file.substr(f->file.find_last_of('/') + 1);
    return file.substr(0, file.find('.'));
}

std::string Traces::message(const Event& e) const
{
    const TraceFormatInfo* f = format(e);
    std::string out;
    if (f == nullptr) {
        for (size_t i = 1; i < e.args.size(); i++) {
            out += i > 1 ? " " : "";
            for (uint8_t b : e.args[i]) {
                char h[3];
                snprintf(h, sizeof h, "%02x", b);
                out += h;
            }
        }
        return out;
    }
    size_t arg = 1;
    const std::string& t = f->text;
    for (size_t p = 0; p < t.size(); p++) {
        if (t[p] != '%') {
            out += t[p];
            continue;
        }
        size_t start = p++;
        if (p < t.size() && t[p] == '%') {
            out += '%';
            continue;
        }
        if (t.compare(p, 8, "!STATUS!") == 0) {
            out += status_name(NTSTATUS(u32(e, arg++)));
            p += 7;
            continue;
        }
        // Flags and width pass through to snprintf.
        std::string directive = "%";
        while (p < t.size() && strchr("#0-+ ", t[p])) {
            directive += t[p++];
        }
        while (p < t.size() && isdigit(uint8_t(t[p]))) {
            directive += t[p++];
        }
        bool is64 = t.compare(p, 3, "I64") == 0;
        if (is64) {
            p += 3;
        } else if (p < t.size() && (t[p] == 'l' || t[p] == 'h')) {
            p++;  // every number goes out as a 32-bit word at least
        }
        if (t.compare(p, 2, "ws") == 0 || t.compare(p, 2, "wZ") == 0) {
            out += printf_text(directive + "s", to_utf8(wtext(e, arg++)).c_str());
            p++;
        } else if (p < t.size() && t[p] == 's') {
            out += printf_text(directive + "s", text(e, arg++).c_str());
        } else if (p < t.size() && t[p] == 'p') {
            out += printf_text("0x%llx", (unsigned long long)u64(e, arg++));
        } else if (p < t.size() && strchr("duxXc", t[p])) {
            directive += is64 ? "ll" : "";
            directive += t[p];
            if (is64) {
                out += t[p] == 'd' ? printf_text(directive, (long long)u64(e, arg++))
                                   : printf_text(directive, (unsigned long long)u64(e, arg++));
            } else {
                out += t[p] == 'd' ? printf_text(directive, int32_t(u32(e, arg++)))
                                   : printf_text(directive, u32(e, arg++));
            }
        } else {
            out += t.substr(start, p - start + 1);
        }
    }
    return out;
}

std::vector<std::string> Traces::lines() const
{
    std::vector<std::string> out;
    for (auto& e : events()) {
        out.push_back(decode(e));
    }
    return out;
}

std::vector<Traces::Event> Traces::find(const std::string& text) const
{
    std::vector<Event> out;
    for (auto& e : events()) {
        const TraceFormatInfo* f = format(e);
        if (f != nullptr && f->text == text) {
            out.push_back(e);
        }
    }
    return out;
}

}  // namespace korvanel::bench

using korvanel::bench::Bench;
using korvanel::bench::Traces;

namespace {

NTSTATUS NTAPI BenchEtwRegisterClassicProvider(LPCGUID ProviderGuid, ULONG Type, PETW_CLASSIC_CALLBACK EnableCallback,
                                              PVOID CallbackContext, PREGHANDLE RegHandle)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("EtwRegisterClassicProvider"));
    (void)Type;
    if (ProviderGuid == nullptr || RegHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    korvanel::bench::g_provider_guid = *ProviderGuid;
    *RegHandle = 0x5245470000000001ULL;
    Bench::current().traces().set_registration(Traces::Registration::Classic,
                                                reinterpret_cast<void*>(EnableCallback), CallbackContext);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI BenchEtwUnregister(REGHANDLE RegHandle)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("EtwUnregister"));
    auto& sys = Bench::current();
    if (RegHandle != 0x5245470000000001ULL || sys.traces().registration() != Traces::Registration::Classic) {
        sys.faults().note_error("EtwUnregister of a handle that is not registered");
        return STATUS_INVALID_HANDLE;
    }
    sys.traces().set_registration(Traces::Registration::None, nullptr, nullptr);
    return STATUS_SUCCESS;
}

}  // namespace

PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("MmGetSystemRoutineAddress"));
    auto& sys = Bench::current();
    if (SystemRoutineName == nullptr || SystemRoutineName->Buffer == nullptr || !sys.classic_tracing_available()) {
        return nullptr;
    }
    std::u16string name(SystemRoutineName->Buffer, SystemRoutineName->Length / sizeof(WCHAR));
    if (name == u"EtwRegisterClassicProvider") {
        return reinterpret_cast<PVOID>(&BenchEtwRegisterClassicProvider);
    }
    if (name == u"EtwUnregister") {
        return reinterpret_cast<PVOID>(&BenchEtwUnregister);
    }
    return nullptr;
}

NTSTATUS IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("IoWMIRegistrationControl"));
    auto& sys = Bench::current();
    if ((Action & WMIREG_FLAG_CALLBACK) == 0 || DeviceObject == nullptr) {
        return STATUS_INVALID_PARAMETER;  // the driver has no WMI device objects of its own
    }
    auto callback = reinterpret_cast<korvanel::bench::WmiCallback>(DeviceObject);
    switch (Action & ~WMIREG_FLAG_CALLBACK) {
    case WMIREG_ACTION_REGISTER: {
        // The system asks the provider which GUID it controls.
        alignas(8) uint8_t buffer[256] = {};
        ULONG size = 0;
        NTSTATUS status = korvanel::bench::verifier::call_driver(korvanel::bench::callback_level("the WMI callback"), [&] {
            return callback(IRP_MN_REGINFO, nullptr, sizeof buffer, buffer, nullptr, &size);
        });
        auto* info = reinterpret_cast<PWMIREGINFOW>(buffer);
        if (!NT_SUCCESS(status) || info->GuidCount != 1 ||
            (info->WmiRegGuid[0].Flags & WMIREG_FLAG_TRACE_CONTROL_GUID) == 0) {
            sys.faults().note_error("WMI registration without a trace control GUID");
            return STATUS_INVALID_PARAMETER;
        }
        korvanel::bench::g_provider_guid = info->WmiRegGuid[0].Guid;
        sys.traces().set_registration(Traces::Registration::Wmi, reinterpret_cast<void*>(callback), nullptr);
        return STATUS_SUCCESS;
    }
    case WMIREG_ACTION_DEREGISTER:
        if (sys.traces().registration() != Traces::Registration::Wmi) {
            sys.faults().note_error("WMI deregistration without a registration");
            return STATUS_INVALID_PARAMETER;
        }
        sys.traces().set_registration(Traces::Registration::None, nullptr, nullptr);
        return STATUS_SUCCESS;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

extern "C" NTSTATUS KorvanelBenchWmiTraceMessage(TRACEHANDLE LoggerHandle, ULONG MessageFlags, LPGUID MessageGuid,
                                                ULONG MessageNumber, ...)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("WmiTraceMessage"));
    auto& sys = Bench::current();
    if (MessageGuid == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // Only the enabled session's own logger takes events: a stale handle or a
    // registration handle passed by mistake goes nowhere.
    TRACEHANDLE session = sys.traces().logger();
    if (session == 0 || LoggerHandle != session) {
        return STATUS_INVALID_HANDLE;
    }
    Traces::Argument arguments[Traces::kMaxArguments];
    size_t count = 0;
    va_list args;
    va_start(args, MessageNumber);
    for (;;) {
        auto* data = va_arg(args, const uint8_t*);
        if (data == nullptr) {
            break;
        }
        size_t length = va_arg(args, SIZE_T);
        if (count < Traces::kMaxArguments) {
            arguments[count++] = {data, length};
        }
    }
    va_end(args);
    sys.traces().record(*MessageGuid, uint16_t(MessageNumber), MessageFlags, sys.clock().now(), arguments, count);
    return STATUS_SUCCESS;
}
