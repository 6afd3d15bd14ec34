// parse.cpp - the tool's shared text parsers.
#include "parse.h"

#include "bench/text.h"

#include <cctype>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace korvanel::tool {

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::stringstream ss(text);
    std::string part;
    while (std::getline(ss, part, separator)) {
        parts.push_back(part);
    }
    if (!text.empty() && text.back() == separator) {
        parts.emplace_back();
    }
    return parts;
}

namespace {

// A number as the tool reads them all: an optional sign, then decimal digits,
// or hex digits after 0x. A leading zero is decimal ("010" is ten): a user
// who pads a number means no octal. Nothing past 64 bits of magnitude.
std::optional<__int128> number_value(const std::string& text, bool sign_allowed)
{
    size_t at = 0;
    bool negative = false;
    if (sign_allowed && !text.empty() && (text[0] == '-' || text[0] == '+')) {
        negative = text[0] == '-';
        at = 1;
    }
    bool hex = text.size() > at + 2 && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X');
    at += hex ? 2 : 0;
    if (at >= text.size()) {
        return std::nullopt;
    }
    unsigned __int128 value = 0;
    for (; at < text.size(); at++) {
        int c = uint8_t(text[at]);
        int digit = isdigit(c) ? c - '0' : hex && isxdigit(c) ? tolower(c) - 'a' + 10 : -1;
        if (digit < 0) {
            return std::nullopt;
        }
        value = value * (hex ? 16 : 10) + unsigned(digit);
        if (value > UINT64_MAX) {
            return std::nullopt;
        }
    }
    return negative ? -__int128(value) : __int128(value);
}

}  // namespace

std::optional<long long> parse_integer(const std::string& text, long long low, long long high)
{
    auto value = number_value(text, true);
    if (!value || *value < low || *value > high) {
        return std::nullopt;
    }
    return (long long)*value;
}

std::optional<long long> json_integer(const nlohmann::ordered_json& value, long long low, long long high)
{
    if (value.is_string()) {
        return parse_integer(value.get<std::string>(), low, high);
    }
    long long v;
    if (value.is_number_unsigned()) {
        uint64_t u = value.get<uint64_t>();
        if (u > uint64_t(LLONG_MAX)) {
            return std::nullopt;
        }
        v = (long long)u;
    } else if (value.is_number_integer()) {
        v = value.get<long long>();
    } else {
        return std::nullopt;
    }
    return v >= low && v <= high ? std::optional<long long>(v) : std::nullopt;
}

std::optional<uint64_t> parse_unsigned(const std::string& text)
{
    auto value = number_value(text, false);
    return value ? std::optional<uint64_t>(uint64_t(*value)) : std::nullopt;
}

std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            i++;
            continue;
        }
        if (i + 1 >= text.size() || !isxdigit(uint8_t(text[i])) || !isxdigit(uint8_t(text[i + 1]))) {
            return std::nullopt;
        }
        out.push_back(uint8_t(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    if (out.empty()) {
        return std::nullopt;
    }
    return out;
}

std::optional<NTSTATUS> parse_status(const std::string& text)
{
    if (auto known = bench::status_value(text)) {
        return known;
    }
    if (auto number = parse_integer(text, 0, 0xFFFFFFFFll)) {
        return NTSTATUS(uint32_t(*number));
    }
    return std::nullopt;
}

namespace {

// The length of the UTF-8 sequence at text[at], or 0 when none starts there.
size_t utf8_length(const std::string& text, size_t at)
{
    uint8_t c = uint8_t(text[at]);
    size_t n = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 && c >= 0xC2 ? 2 : (c & 0xF0) == 0xE0 ? 3
                          : (c & 0xF8) == 0xF0 && c <= 0xF4   ? 4
                                                              : 0;
    if (n == 0 || at + n > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < n; i++) {
        if ((uint8_t(text[at + i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Overlong forms and surrogates are no UTF-8 either.
    uint8_t next = uint8_t(text[at + 1 < text.size() ? at + 1 : at]);
    if ((c == 0xE0 && next < 0xA0) || (c == 0xED && next >= 0xA0) || (c == 0xF0 && next < 0x90) ||
        (c == 0xF4 && next >= 0x90)) {
        return 0;
    }
    return n;
}

}  // namespace

std::string printable(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        size_t n = utf8_length(text, i);
        uint8_t c = uint8_t(text[i]);
        if (n == 0 || c < 0x20 || c == 0x7F) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
            i++;
        } else {
            out.append(text, i, n);
            i += n;
        }
    }
    return out;
}

std::string excerpt(const std::string& text)
{
    constexpr size_t kShown = 72;
    if (text.size() <= 80) {
        return printable(text);
    }
    size_t cut = kShown;
    while (cut > 0 && (uint8_t(text[cut]) & 0xC0) == 0x80) {
        cut--;  // not inside a character
    }
    return printable(text.substr(0, cut)) + "... (" + std::to_string(text.size()) + " bytes)";
}

std::string json_dump(const nlohmann::ordered_json& value, int indent)
{
    return value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string milliseconds(int64_t units)
{
    char text[32];
    snprintf(text, sizeof text, "%s%" PRId64 ".%04" PRId64, units < 0 ? "-" : "", int64_t(std::llabs(units) / 10000),
             int64_t(std::llabs(units) % 10000));
    return text;
}

}  // namespace korvanel::tool
