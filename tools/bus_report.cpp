// bus_report.cpp - the decoded bus transcript.
#include "bus_report.h"

#include "parse.h"

#include "bench/spb_controller.h"
#include "bench/text.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>

namespace korvanel::tool {

std::string connection_text(uint64_t connection)
{
    char text[24];
    snprintf(text, sizeof text, "0x%" PRIx64, connection);
    return text;
}

std::string hex_bytes(const uint8_t* data, size_t n)
{
    std::string out;
    char b[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(b, sizeof b, "%s%02X", i ? " " : "", data[i]);
        out += b;
    }
    return out;
}

std::vector<std::string> hex_dump(const std::vector<uint8_t>& bytes)
{
    std::vector<std::string> lines;
    bool repeating = false;
    for (size_t at = 0; at < bytes.size(); at += 16) {
        size_t n = std::min<size_t>(16, bytes.size() - at);
        bool same = at >= 16 && n == 16 && std::equal(bytes.begin() + ptrdiff_t(at), bytes.begin() + ptrdiff_t(at + 16),
                                                      bytes.begin() + ptrdiff_t(at - 16));
        if (same && at + 16 < bytes.size()) {
            if (!repeating) {
                lines.push_back("*");
            }
            repeating = true;
            continue;
        }
        repeating = false;
        char head[32];
        snprintf(head, sizeof head, "%06zx  ", at);
        lines.push_back(head + hex_bytes(&bytes[at], n));
    }
    return lines;
}

std::vector<std::string> byte_lines(const std::vector<uint8_t>& bytes)
{
    if (bytes.empty()) {
        return {};
    }
    if (bytes.size() <= kBytesPerLine) {
        return {hex_bytes(bytes.data(), bytes.size())};
    }
    return hex_dump(bytes);
}

std::optional<bench::BusSpeed> parse_bus_speed(const std::string& text)
{
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (t == "100k") {
        return bench::BusSpeed::Standard;
    }
    if (t == "400k") {
        return bench::BusSpeed::Fast;
    }
    if (t == "1m") {
        return bench::BusSpeed::FastPlus;
    }
    return std::nullopt;
}

std::string bus_speed_text(bench::BusSpeed speed)
{
    auto hz = static_cast<uint32_t>(speed);
    if (hz == 0) {
        return "instant";
    }
    return hz >= 1000000 ? std::to_string(hz / 1000000) + " MHz" : std::to_string(hz / 1000) + " kHz";
}

std::string transfer_line(const bench::BusTransfer& t, int64_t origin)
{
    char head[96];
    snprintf(head, sizeof head, "%10s ms  conn %s  %s %3u:", milliseconds(t.time - origin).c_str(),
             connection_text(t.connection).c_str(), t.direction == bench::Direction::Write ? "W" : "R", t.length);
    std::string line = head;
    if (!t.bytes.empty() && t.bytes.size() <= kBytesPerLine) {
        line += " " + hex_bytes(t.bytes.data(), t.bytes.size());
    }
    line += "  " + bench::status_name(t.status);
    return line;
}

std::vector<std::string> transfer_lines(const bench::BusTransfer& t, int64_t origin)
{
    std::vector<std::string> lines = {transfer_line(t, origin)};
    if (t.bytes.size() > kBytesPerLine) {
        for (auto& line : hex_dump(t.bytes)) {
            lines.push_back("                 " + line);
        }
    }
    return lines;
}

std::vector<std::string> transcript_lines(const std::vector<bench::BusTransfer>& transcript, int64_t origin)
{
    std::vector<std::string> lines;
    lines.reserve(transcript.size());
    for (auto& t : transcript) {
        auto more = transfer_lines(t, origin);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

nlohmann::ordered_json transcript_json(const std::vector<bench::BusTransfer>& transcript, int64_t origin)
{
    auto out = nlohmann::ordered_json::array();
    for (auto& t : transcript) {
        out.push_back({{"time_ms", double(t.time - origin) / 10000.0},
                       {"connection", t.connection},
                       {"direction", t.direction == bench::Direction::Write ? "write" : "read"},
                       {"length", t.length},
                       {"bytes", hex_bytes(t.bytes.data(), t.bytes.size())},
                       {"status", bench::status_name(t.status)}});
    }
    return out;
}

}  // namespace korvanel::tool
