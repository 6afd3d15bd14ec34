// text.h - the names the bench prints: UTF-8 and UTF-16 text, statuses by
// name, GUIDs in registry form.
#pragma once

#include "../wdk/wdm.h"

#include <optional>
#include <string>

namespace korvanel::bench {

std::string to_utf8(const std::u16string& s);
std::u16string to_utf16(const std::string& s);
std::string status_name(NTSTATUS status);  // "STATUS_SUCCESS", or 0x%08X
std::optional<NTSTATUS> status_value(const std::string& name);  // the status status_name() names so
std::string guid_text(const GUID& guid);   // {XXXXXXXX-XXXX-...}

}  // namespace korvanel::bench
