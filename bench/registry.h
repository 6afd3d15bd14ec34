// registry.h - the bench's registry: the driver's service key and any other
// key, with typed values.
#pragma once

#include "../wdk/wdm.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::bench {

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

}  // namespace korvanel::bench
