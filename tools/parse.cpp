// parse.cpp - the tool's shared text parsers.
#include "parse.h"

#include "host/system.h"

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

std::optional<long long> parse_integer(const std::string& text, long long low, long long high)
{
    if (text.empty() || isspace(uint8_t(text[0]))) {
        return std::nullopt;
    }
    try {
        size_t used = 0;
        long long value = std::stoll(text, &used, 0);
        if (used != text.size() || value < low || value > high) {
            return std::nullopt;
        }
        return value;
    } catch (...) {
        return std::nullopt;
    }
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
    // stoull would take "-1" as the largest number.
    if (text.empty() || !isdigit(uint8_t(text[0]))) {
        return std::nullopt;
    }
    try {
        size_t used = 0;
        unsigned long long value = std::stoull(text, &used, 0);
        if (used != text.size()) {
            return std::nullopt;
        }
        return value;
    } catch (...) {
        return std::nullopt;
    }
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
    if (auto known = host::status_value(text)) {
        return known;
    }
    if (auto number = parse_integer(text, 0, 0xFFFFFFFFll)) {
        return NTSTATUS(uint32_t(*number));
    }
    return std::nullopt;
}

std::string milliseconds(int64_t units)
{
    char text[32];
    snprintf(text, sizeof text, "%s%" PRId64 ".%04" PRId64, units < 0 ? "-" : "", int64_t(std::llabs(units) / 10000),
             int64_t(std::llabs(units) % 10000));
    return text;
}

}  // namespace korvanel::tool
