// scenario_report.h - a scenario's run shown as it goes: each step with its
// title, outcome and failures, then how the run ended and its summary, as
// text for people or as one JSON document for programs.
#pragma once

#include "scenario_check.h"
#include "scenario_exec.h"
#include "scenario_model.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace korvanel::tool {

// "vcm setpos:300", "[rear] SelectMode MinWidth=1920 MinHeight=1080",
// "fault nack match={connection=0x50}": the step as the run shows it.
std::string step_title(const Scenario& scenario, const Step& step);

// Keeps the run's tally; the kinds of reporter show it.
class Reporter {
public:
    // `name` is what the run calls the file; times are shown from `origin`.
    Reporter(const Scenario& scenario, const std::string& name, int64_t origin, std::ostream& out);
    virtual ~Reporter() = default;

    // What the run should know before its steps, besides the devices'
    // identities: values the driver passed by.
    void add_notes(const std::vector<std::string>& notes) { notes_.insert(notes_.end(), notes.begin(), notes.end()); }
    virtual void begin() {}
    // A step, what it did, and the expectations it did not meet.
    void step(const Step& step, const Observation& seen, const std::vector<std::string>& failures);
    void finish(const RunEnd& end);
    bool passed() const { return failures_.empty(); }

protected:
    virtual void show_step(const Step& step, const std::string& title, const Observation& seen,
                           const std::vector<std::string>& failures) = 0;
    virtual void show_finish(const RunEnd& end) = 0;

    const Scenario& scenario_;
    std::string name_;
    int64_t origin_;
    std::ostream& out_;
    std::vector<std::string> notes_;
    std::vector<std::string> failures_;  // "step 4 (line 22, title): why", then the end's
    size_t expectations_ = 0;
};

struct ReportOptions {
    bool json = false;
    bool verbose = false;     // text: every step's returned values, transfers and trace events
    bool show_trace = false;  // text: the run's trace after the steps
};

std::unique_ptr<Reporter> make_reporter(const ReportOptions& options, const Scenario& scenario,
                                        const std::string& name, int64_t origin, std::ostream& out);

}  // namespace korvanel::tool
