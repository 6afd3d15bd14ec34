// parse.h - the small text parsers korvanel-sim's options and scenario files
// share: lists, numbers, hex byte strings, and status names.
#pragma once

#include "wdk/wdm.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// "a,b," gives "a", "b" and "": a trailing separator is an empty last item,
// so that a list with a stray comma can be refused.
std::vector<std::string> split(const std::string& text, char separator);

// A whole decimal or 0x-hex integer within [low, high]; nothing otherwise.
std::optional<long long> parse_integer(const std::string& text, long long low, long long high);
// A JSON integer, or a text parse_integer() takes ("0x1C"), within [low, high].
std::optional<long long> json_integer(const nlohmann::ordered_json& value, long long low, long long high);
// A whole non-negative decimal or 0x-hex number up to 64 bits.
std::optional<uint64_t> parse_unsigned(const std::string& text);

// "0102FF" or "01 02 ff": two hex digits a byte, blanks allowed between
// bytes. Nothing for an empty text or a lone digit.
std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text);

// "STATUS_SUCCESS", "STATUS_NO_SUCH_DEVICE", ... as the bench names them, or
// a number ("0xC000000D").
std::optional<NTSTATUS> parse_status(const std::string& text);

// Clock units of 100 ns as milliseconds with four decimals: "12.3450".
std::string milliseconds(int64_t units);

}  // namespace korvanel::tool
