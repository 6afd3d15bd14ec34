// scenario_exec.h - a scenario performed on a fresh bench: the devices set
// up as the camera driver and a platform would (driver loaded, devices
// added, interfaces taken, actuators and memories selected), then one step's
// action at a time, each giving what it did. It prints nothing.
#pragma once

#include "scenario_check.h"
#include "files/files.h"
#include "scenario_model.h"
#include "trace_view.h"
#include "wire/waveform.h"

#include "bench/bench.h"
#include "sensor/device_context.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::models {
class ActuatorModel;
class Eeprom;
}  // namespace korvanel::models

namespace korvanel::tool {

// How the run ends: what unloading the driver found, the files the run
// would write (the runner writes them when it passed), and what went wrong
// at set-up or at the end.
struct RunEnd {
    struct Output {
        std::string file;   // as the runner resolved it
        std::string what;   // "lens chart of rear, 9 moves"
        std::string bytes;
        bool written = false;
        bool waveform = false;  // drawn during the run: write_waveform() moves it into place
    };
    std::string unload = "not reached";
    std::vector<Output> outputs;
    std::vector<bench::BusTransfer> transfers;  // the end's own: releasing and unloading
    std::vector<std::string> failures;
    int64_t clock = 0;               // since the run began, 100 ns units
    std::vector<TraceEntry> trace;   // the run's events the trace options accept
};

class Executor {
public:
    // `verbose`: calls hand back their records' bytes too. `trace`: the
    // events kept for the run's trace. The driver traces when the scenario,
    // `verbose` or these options ask for events.
    Executor(const Scenario& scenario, bool verbose, const TraceOptions& trace);
    ~Executor();

    // The registry value names the driver asked for so far.
    std::vector<std::string> registry_read() { return sys_.registry().asked_names(); }
    int64_t origin() const { return origin_; }
    int64_t now() { return sys_.clock().now(); }
    // Loads the driver and sets up every device, the waveform's file created
    // under `outputs`; false when one cannot be, the reason then the first
    // of finish()'s failures.
    bool set_up(const files::OutputRule& outputs);
    // Why the waveform file could not be opened, when that stopped set_up().
    const std::optional<std::string>& waveform_refused() const { return waveform_refused_; }
    Observation perform(const Step& step);
    // A device as set up, for a caller that reports on its parts: valid
    // from set_up() to finish() (the models stay until the executor goes).
    struct DeviceView {
        PDEVICE_CONTEXT context;
        const SENSOR_INTERFACE* si;
        const models::ActuatorModel* lens;
        const models::Eeprom* memory;
    };
    DeviceView device(size_t index) const
    {
        const DeviceState& d = devices_[index];
        return {d.context, &d.si, d.lens.get(), d.memory.get()};
    }
    // Releases what the scenario holds, draws charts and takes the memories'
    // contents for the files the scenario names, unloads.
    RunEnd finish();
    // Moves the run's waveform into place (after finish(), when the run
    // passed); without it the waveform is dropped with the executor.
    std::optional<std::string> write_waveform();

private:
    struct DeviceState {
        const DeviceSetup* setup;
        bench::Device* device = nullptr;
        PDEVICE_CONTEXT context = nullptr;
        SENSOR_INTERFACE si{};
        int held = 0;  // interface references the scenario holds
        std::shared_ptr<models::ActuatorModel> lens = {};
        std::shared_ptr<models::Eeprom> memory = {};
        nlohmann::ordered_json lens_ops = nlohmann::ordered_json::array();  // where the chart labels them
    };

    const Scenario& scenario_;
    bool verbose_;
    TraceOptions trace_options_;
    bench::Bench sys_;
    int64_t origin_ = 0;
    bool tracing_ = false;
    bool ready_ = false;
    std::vector<DeviceState> devices_;
    RunEnd end_;
    wire::Waveform waveform_;
    std::optional<std::string> waveform_refused_;

    std::optional<std::string> add(const DeviceSetup& setup);
    void act(const Action& action, DeviceState& d, Observation& seen);
    // The trace events since the last call, decoded; those the options
    // accept are kept for the run's trace.
    std::vector<TraceEntry> collect_trace();
};

}  // namespace korvanel::tool
