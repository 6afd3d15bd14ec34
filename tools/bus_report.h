// bus_report.h - the bus transcript as a camera engineer reads it: one line
// per transfer with its time, connection, direction, bytes and status, and
// the same fields for machine-readable output.
#pragma once

#include "bench/spb_controller.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// Times are printed relative to `origin` (clock units of 100 ns), in
// milliseconds with microsecond digits.
// A transfer of more than kBytesPerLine bytes gives its head line, then its
// bytes as a dump, each line indented under it.
std::string transfer_line(const bench::BusTransfer& transfer, int64_t origin);
std::vector<std::string> transfer_lines(const bench::BusTransfer& transfer, int64_t origin);
std::vector<std::string> transcript_lines(const std::vector<bench::BusTransfer>& transcript, int64_t origin);
nlohmann::ordered_json transcript_json(const std::vector<bench::BusTransfer>& transcript, int64_t origin);

// --bus-speed: "100k", "400k" or "1m" (any case); nothing for anything else.
std::optional<bench::BusSpeed> parse_bus_speed(const std::string& text);
// "400 kHz", "instant".
std::string bus_speed_text(bench::BusSpeed speed);

// "0x1c": a connection id as the transcript shows it.
std::string connection_text(uint64_t connection);

// "03 80 1F", upper-case hex bytes separated by blanks.
std::string hex_bytes(const uint8_t* data, size_t n);
// 16 bytes a line with the address; runs of equal lines are shown as "*".
std::vector<std::string> hex_dump(const std::vector<uint8_t>& bytes);
// Bytes as a report shows them: one line of hex_bytes() when they fit in
// kBytesPerLine, a hex_dump() otherwise; nothing for none.
constexpr size_t kBytesPerLine = 16;
std::vector<std::string> byte_lines(const std::vector<uint8_t>& bytes);

}  // namespace korvanel::tool
