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

// A whole decimal or 0x-hex integer within [low, high]; nothing otherwise. A
// leading zero is decimal: "010" is ten, "08" eight.
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

// A user's text as messages and reports show it: valid UTF-8 as it is, a
// control byte or a byte that is no UTF-8 as \xNN, so that no byte the user
// gave can garble the terminal, a line-based log or an SVG chart.
std::string printable(const std::string& text);

// A user's text quoted in a message, whatever its size: printable(), and at
// most about 80 characters of it, cut with "..." and the whole length.
std::string excerpt(const std::string& text);

// JSON as the tool prints and writes it: a byte that is no UTF-8 (from an
// option, a file name) becomes U+FFFD instead of stopping the run.
std::string json_dump(const nlohmann::ordered_json& value, int indent = -1);

// Clock units of 100 ns as milliseconds with four decimals: "12.3450".
std::string milliseconds(int64_t units);
// The same as a JSON number.
inline double ms(int64_t units) { return double(units) / 10000.0; }

}  // namespace korvanel::tool
