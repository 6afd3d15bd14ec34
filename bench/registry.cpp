// registry.cpp - an in-memory registry hive: keys and value names compare
// without regard to case, values have any type and length, and the driver
// reaches them through ZwOpenKey / ZwQueryValueKey / ZwClose.
#include "bench.h"
#include "irql_rules.h"

#include <algorithm>
#include <cstdio>

namespace korvanel::bench {

namespace {

char16_t upper(char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - u'a' + u'A') : c; }

bool same_name(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char16_t x, char16_t y) { return upper(x) == upper(y); });
}

std::u16string_view from_unicode_string(const UNICODE_STRING* s)
{
    if (s == nullptr || s->Buffer == nullptr) {
        return {};
    }
    return {s->Buffer, s->Length / sizeof(WCHAR)};
}

}  // namespace

bool Registry::NoCase::operator()(std::u16string_view a, std::u16string_view b) const
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char16_t x, char16_t y) { return upper(x) < upper(y); });
}

// Reached by the kernel entry points below.
//
// Handles: a kernel handle (OBJ_KERNEL_HANDLE) has the top bit set, as on
// Windows; without the attribute the handle is one of the process the
// calling thread runs in. Every thread of this bench is a thread of such a
// process, not of the System process, so a driver that opens a key without
// OBJ_KERNEL_HANDLE gets a handle that process's user mode could use, and
// Driver Verifier's handle check stops its first use from kernel mode.
struct RegistryAccess {
    static constexpr uintptr_t kKernelHandle = uintptr_t(0xFFFFFFFF80000000ULL);

    static NTSTATUS open(Registry& r, std::u16string_view key, ULONG attributes, ACCESS_MASK access, HANDLE* handle)
    {
        std::lock_guard lock(r.mutex_);
        if (r.opens_next_ == r.opens_.size()) {
            r.opens_.emplace_back();
        }
        auto& open = r.opens_[r.opens_next_];
        open.key.assign(key);
        open.attributes = attributes;
        open.access = access;
        r.opens_next_ = (r.opens_next_ + 1) % Registry::kOpensKept;
        r.opens_kept_ = std::min(r.opens_kept_ + 1, Registry::kOpensKept);
        // Names compare without regard to case only when the caller asks so.
        if (!r.exists(key, (attributes & OBJ_CASE_INSENSITIVE) == 0)) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        bool kernel = (attributes & OBJ_KERNEL_HANDLE) != 0;
        uintptr_t h = (r.next_handle_ += 4) | (kernel ? kKernelHandle : 0);
        auto& opened = r.spare_handles_.at(r.handles_, h);
        opened.key.assign(key);
        opened.access = access;
        opened.kernel = kernel;
        *handle = reinterpret_cast<HANDLE>(h);
        return STATUS_SUCCESS;
    }

    // A handle the caller passes back, with the mutex held: null when it is
    // not open. A user-mode handle stops the bench (Zw routines reference
    // handles in kernel mode); the lock is let go first.
    static Registry::Handle* find(Registry& r, std::unique_lock<std::mutex>& lock, HANDLE handle, const char* routine,
                                  const void* caller)
    {
        auto h = r.handles_.find(reinterpret_cast<uintptr_t>(handle));
        if (h == r.handles_.end()) {
            return nullptr;
        }
        if (!h->second.kernel) {
            lock.unlock();
            Violation v{stops::kUserHandleFromKernel, routine, verifier::symbol(caller),
                        std::string(routine) + " with a handle opened without OBJ_KERNEL_HANDLE"};
            char text[64];
            snprintf(text, sizeof text, "handle: %p", handle);
            v.details.push_back(text);
            verifier::violate(std::move(v));
            lock.lock();  // the verifier is off: the handle works as Windows without it lets it
        }
        return &h->second;
    }

    static NTSTATUS query(Registry& r, HANDLE handle, std::u16string_view value_name, Registry::Value* out,
                          const void* caller)
    {
        std::unique_lock lock(r.mutex_);
        Registry::Handle* h = find(r, lock, handle, "ZwQueryValueKey", caller);
        if (h == nullptr) {
            return STATUS_INVALID_HANDLE;
        }
        // "The KeyHandle passed to ZwQueryValueKey must have been opened with
        // KEY_QUERY_VALUE access."
        if ((h->access & KEY_QUERY_VALUE) == 0) {
            return STATUS_ACCESS_DENIED;
        }
        if (r.asked_.find(value_name) == r.asked_.end()) {
            r.asked_.emplace(value_name);
        }
        auto key = r.keys_.find(h->key);
        if (key == r.keys_.end()) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        auto value = key->second.find(value_name);
        if (value == key->second.end()) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        *out = value->second;
        return STATUS_SUCCESS;
    }

    static NTSTATUS close(Registry& r, HANDLE handle, const void* caller)
    {
        std::unique_lock lock(r.mutex_);
        if (find(r, lock, handle, "ZwClose", caller) == nullptr) {
            return STATUS_INVALID_HANDLE;
        }
        // Found above; the lock may have been let go since.
        if (auto h = r.handles_.find(reinterpret_cast<uintptr_t>(handle)); h != r.handles_.end()) {
            r.spare_handles_.erase(r.handles_, h);
        }
        return STATUS_SUCCESS;
    }
};

void Registry::set_value(const std::u16string& key, const std::u16string& name, uint32_t type,
                         std::vector<uint8_t> data)
{
    std::lock_guard lock(mutex_);
    keys_[key][name] = {type, std::move(data)};
}

void Registry::set(const std::string& name, uint32_t type, std::vector<uint8_t> data)
{
    set_value(kServiceKey, to_utf16(name), type, std::move(data));
}

std::vector<uint8_t> Registry::dword_data(uint32_t value)
{
    return {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
}

void Registry::set_dword(const std::string& name, uint32_t value) { set(name, REG_DWORD, dword_data(value)); }

void Registry::set_string(const std::string& name, const std::string& value)
{
    std::u16string wide = to_utf16(value);
    std::vector<uint8_t> data((wide.size() + 1) * sizeof(char16_t));
    memcpy(data.data(), wide.c_str(), data.size());
    set(name, REG_SZ, std::move(data));
}

void Registry::remove(const std::string& name)
{
    std::lock_guard lock(mutex_);
    auto key = keys_.find(kServiceKey);
    if (key != keys_.end()) {
        auto value = key->second.find(to_utf16(name));
        if (value != key->second.end()) {
            key->second.erase(value);
        }
    }
}

std::vector<std::string> Registry::asked_names() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (auto& name : asked_) {
        names.push_back(to_utf8(name));
    }
    return names;
}

void Registry::clear()
{
    std::lock_guard lock(mutex_);
    keys_.clear();
}

void Registry::reset()
{
    std::lock_guard lock(mutex_);
    keys_.clear();
    spare_handles_.clear(handles_);
    opens_kept_ = 0;
    opens_next_ = 0;
    asked_.clear();
    next_handle_ = 0x100;
    service_key_present_ = true;
}

void Registry::set_service_key_present(bool present)
{
    std::lock_guard lock(mutex_);
    service_key_present_ = present;
}

bool Registry::key_exists(const std::u16string& key) const
{
    std::lock_guard lock(mutex_);
    return exists(key, false);
}

bool Registry::exists(std::u16string_view key, bool case_sensitive) const
{
    if (same_name(key, kServiceKey)) {
        return service_key_present_ && (!case_sensitive || key == kServiceKey);
    }
    auto it = keys_.find(key);
    return it != keys_.end() && (!case_sensitive || it->first == key);
}

std::optional<Registry::Value> Registry::value(const std::u16string& key, const std::u16string& name) const
{
    std::lock_guard lock(mutex_);
    auto k = keys_.find(key);
    if (k == keys_.end()) {
        return std::nullopt;
    }
    auto v = k->second.find(name);
    if (v == k->second.end()) {
        return std::nullopt;
    }
    return v->second;
}

size_t Registry::open_keys() const
{
    std::lock_guard lock(mutex_);
    return handles_.size();
}

std::vector<Registry::Open> Registry::recent_opens() const
{
    std::lock_guard lock(mutex_);
    // Until the ring is full its first entries are the opens, oldest first.
    size_t oldest = opens_kept_ < kOpensKept ? 0 : opens_next_;
    std::vector<Open> oldest_first;
    for (size_t i = 0; i < opens_kept_; i++) {
        oldest_first.push_back(opens_[(oldest + i) % kOpensKept]);
    }
    return oldest_first;
}

}  // namespace korvanel::bench

using korvanel::bench::Registry;
using korvanel::bench::RegistryAccess;
using korvanel::bench::Bench;

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("ZwOpenKey"));
    if (KeyHandle == nullptr || ObjectAttributes == nullptr || ObjectAttributes->Length != sizeof(OBJECT_ATTRIBUTES) ||
        ObjectAttributes->ObjectName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    if (!NT_SUCCESS(injected)) {
        return injected;
    }
    return RegistryAccess::open(sys.registry(), korvanel::bench::from_unicode_string(ObjectAttributes->ObjectName),
                                ObjectAttributes->Attributes, DesiredAccess, KeyHandle);
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                         ULONG Length, PULONG ResultLength)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("ZwQueryValueKey"));
    if (ValueName == nullptr || ResultLength == nullptr || KeyValueInformationClass != KeyValuePartialInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    if (!NT_SUCCESS(injected)) {
        return injected;
    }
    Registry::Value value;
    NTSTATUS status = RegistryAccess::query(sys.registry(), KeyHandle, korvanel::bench::from_unicode_string(ValueName),
                                            &value, __builtin_return_address(0));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // As Windows: the header must fit; data that does not fit is cut and
    // reported with STATUS_BUFFER_OVERFLOW.
    const ULONG header = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    *ResultLength = header + ULONG(value.data.size());
    if (Length < header || KeyValueInformation == nullptr) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(KeyValueInformation);
    info->TitleIndex = 0;
    info->Type = value.type;
    info->DataLength = ULONG(value.data.size());
    size_t room = Length - header;
    if (!value.data.empty()) {
        memcpy(info->Data, value.data.data(), std::min(room, value.data.size()));
    }
    return room < value.data.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("ZwClose"));
    auto& sys = Bench::current();
    NTSTATUS status = RegistryAccess::close(sys.registry(), Handle, __builtin_return_address(0));
    if (!NT_SUCCESS(status)) {
        sys.faults().note_error("ZwClose on a handle that is not open");
    }
    return status;
}
