// trace_view.cpp - the decoded trace, one event a line.
#include "trace_view.h"

#include "parse.h"

#include "trace/trace.h"

#include <algorithm>
#include <cstdio>
#include <strings.h>

namespace korvanel::tool {

bool TraceOptions::accepts(const TraceEntry& entry) const
{
    if (level == "error" && entry.level != "ERROR") {
        return false;
    }
    return modules.empty() || std::any_of(modules.begin(), modules.end(), [&](const std::string& m) {
               return strcasecmp(m.c_str(), entry.module.c_str()) == 0;
           });
}

void add_trace_options(CLI::App& app, TraceOptions& options)
{
    app.add_flag("--trace", options.show, "print the driver's decoded trace");
    app.add_option("--trace-level", options.level, "trace events to print: info (all) or error (failures only)")
        ->check(CLI::IsMember({"info", "error"}));
    app.add_option("--trace-module", options.modules, "print only this module's trace events (repeatable)")
        ->delimiter(',');
}

std::vector<TraceEntry> trace_entries(const host::Traces& traces, const std::vector<host::Traces::Event>& events,
                                      const TraceOptions& options)
{
    std::vector<TraceEntry> out;
    for (auto& e : events) {
        const host::TraceFormatInfo* format = traces.format(e);
        std::string level = format == nullptr            ? "?"
                            : format->flag == TRACE_ERROR ? "ERROR"
                                                          : "INFO";
        TraceEntry entry{e.time, level, traces.module(e), e.number, traces.message(e)};
        if (options.accepts(entry)) {
            out.push_back(std::move(entry));
        }
    }
    return out;
}

std::string trace_line(const TraceEntry& entry, int64_t origin)
{
    char head[96];
    snprintf(head, sizeof head, "%10s ms  %-5s  %-14s #%-3u ", milliseconds(entry.time - origin).c_str(),
             entry.level.c_str(), entry.module.c_str(), unsigned(entry.number));
    return head + entry.text;
}

nlohmann::ordered_json trace_json(const std::vector<TraceEntry>& entries, int64_t origin)
{
    auto out = nlohmann::ordered_json::array();
    for (auto& e : entries) {
        out.push_back({{"time_ms", double(e.time - origin) / 10000.0},
                       {"level", e.level},
                       {"module", e.module},
                       {"number", e.number},
                       {"text", e.text}});
    }
    return out;
}

}  // namespace korvanel::tool
