// trace_view.h - the driver's trace as a trace-format tool prints it: one
// event a line with its time on the bench's clock, its level, its source
// module, its message number and its formatted text; filtered by level and
// by module.
//
//       0.0000 ms  INFO   sensor          #12  SelectMode 1920 x 1080 at 0
//       0.0000 ms  ERROR  sensor          #15  SelectMode failed STATUS_UNSUCCESSFUL
#pragma once

#include "bench/traces.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

struct TraceEntry {
    int64_t time;        // bench clock, 100 ns units
    std::string level;   // "INFO", "ERROR", or "?" for an event no format names
    std::string module;  // source module ("sensor", "vcm_pair")
    uint16_t number;     // message number within the module
    std::string text;
};

struct TraceOptions {
    bool show = false;            // --trace
    std::string level = "info";   // --trace-level: info (everything) or error
    std::vector<std::string> modules;  // --trace-module: only these (any case); empty: all
    // Any of the options asks for the trace.
    bool requested() const { return show || level != "info" || !modules.empty(); }
    bool accepts(const TraceEntry& entry) const;
};

void add_trace_options(CLI::App& app, TraceOptions& options);
// A message naming the module --trace-module gives that the driver has not
// (with the list of those it has), or nothing.
std::optional<std::string> check_trace_options(const TraceOptions& options);

// The driver's trace modules, sorted: the names events carry.
std::vector<std::string> trace_modules();

// The events decoded, oldest first, those the options accept.
std::vector<TraceEntry> trace_entries(const bench::Traces& traces, const std::vector<bench::Traces::Event>& events,
                                      const TraceOptions& options);
// Times from `origin`, in milliseconds.
std::string trace_line(const TraceEntry& entry, int64_t origin);
nlohmann::ordered_json trace_json(const std::vector<TraceEntry>& entries, int64_t origin);

}  // namespace korvanel::tool
