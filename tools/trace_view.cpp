// trace_view.cpp - the decoded trace, one event a line.
#include "trace_view.h"

#include "parse.h"

#include "trace/trace.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <strings.h>

// Every call site's format record, in the section the driver's trace macro
// fills; the bench's decoder reads the same records.
extern "C" const TRACE_FORMAT __start_korvanel_trace_formats[] __attribute__((weak));
extern "C" const TRACE_FORMAT __stop_korvanel_trace_formats[] __attribute__((weak));

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
        ->delimiter(',')
        ->allow_extra_args(false);
}

namespace {

// Pointer arguments are host addresses that change from run to run: each
// prints as <pointer> (a null one as 0x0), so that the same run prints the
// same bytes. The pointers are found by walking the format's directives as
// the decoder does, swapped for marker values, and the markers replaced in
// the decoded text.
std::string stable_message(const bench::Traces& traces, const bench::Traces::Event& event)
{
    const bench::TraceFormatInfo* format = traces.format(event);
    if (format == nullptr) {
        return traces.message(event);
    }
    const uint64_t marker = 0x7e57ab1efeed0000ull;
    bench::Traces::Event copy = event;
    std::vector<std::string> markers;
    const std::string& t = format->text;
    size_t arg = 1;
    for (size_t p = 0; p < t.size(); p++) {
        if (t[p] != '%' || ++p >= t.size() || t[p] == '%') {
            continue;
        }
        if (t.compare(p, 8, "!STATUS!") == 0) {
            arg++;
            p += 7;
            continue;
        }
        while (p < t.size() && (strchr("#0-+ ", t[p]) != nullptr || isdigit(uint8_t(t[p])))) {
            p++;
        }
        p += t.compare(p, 3, "I64") == 0 ? 3 : p < t.size() && (t[p] == 'l' || t[p] == 'h') ? 1 : 0;
        if (p < t.size() && t[p] == 'p' && arg < copy.args.size() && bench::Traces::u64(event, arg) != 0) {
            uint64_t value = marker + markers.size();
            copy.args[arg].assign(reinterpret_cast<const uint8_t*>(&value),
                                  reinterpret_cast<const uint8_t*>(&value) + sizeof value);
            char text[24];
            snprintf(text, sizeof text, "0x%llx", (unsigned long long)value);
            markers.push_back(text);
        }
        arg++;
    }
    std::string message = traces.message(copy);
    for (auto& m : markers) {
        if (auto at = message.find(m); at != std::string::npos) {
            message.replace(at, m.size(), "<pointer>");
        }
    }
    return message;
}

}  // namespace

std::vector<std::string> trace_modules()
{
    std::vector<std::string> modules;
    for (auto* f = __start_korvanel_trace_formats; f != nullptr && f < __stop_korvanel_trace_formats; f++) {
        // Named as the decoder names them: the source file without folder or extension.
        std::string file = f->File;
        file = file.substr(file.find_last_of('/') + 1);
        modules.push_back(file.substr(0, file.find('.')));
    }
    std::sort(modules.begin(), modules.end());
    modules.erase(std::unique(modules.begin(), modules.end()), modules.end());
    return modules;
}

std::optional<std::string> check_trace_options(const TraceOptions& options)
{
    auto modules = trace_modules();
    for (auto& m : options.modules) {
        if (std::none_of(modules.begin(), modules.end(),
                         [&](const std::string& known) { return strcasecmp(known.c_str(), m.c_str()) == 0; })) {
            std::string list;
            for (auto& known : modules) {
                list += (list.empty() ? "" : ", ") + known;
            }
            return "--trace-module: the driver has no trace module '" + excerpt(m) + "' (" + list + ")";
        }
    }
    return std::nullopt;
}

std::vector<TraceEntry> trace_entries(const bench::Traces& traces, const std::vector<bench::Traces::Event>& events,
                                      const TraceOptions& options)
{
    std::vector<TraceEntry> out;
    for (auto& e : events) {
        const bench::TraceFormatInfo* format = traces.format(e);
        std::string level = format == nullptr            ? "?"
                            : format->flag == TRACE_ERROR ? "ERROR"
                                                          : "INFO";
        TraceEntry entry{e.time, level, traces.module(e), e.number, stable_message(traces, e)};
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
