// scenario_exec.cpp - performing a scenario's steps on the bench.
#include "scenario_exec.h"

#include "bus_report.h"
#include "lens_chart.h"

#include "platform/checked.h"
#include "platform/device.h"

#include "models/actuator.h"
#include "models/eeprom.h"
#include "trace/trace.h"

#include <cstring>


namespace korvanel::tool {

using namespace files;

using json = nlohmann::ordered_json;

namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;  // clang before 17 does not deduce an aggregate's arguments

}  // namespace

Executor::Executor(const Scenario& scenario, bool verbose, const TraceOptions& trace)
    : scenario_(scenario), verbose_(verbose), trace_options_(trace)
{
    sys_.bus().set_speed(scenario_.speed);
    if (scenario_.real_time) {
        sys_.clock().set_mode(bench::Clock::Mode::Real);
    }
    tracing_ = scenario_.trace || verbose_ || trace_options_.requested();
    if (tracing_) {
        sys_.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    origin_ = sys_.clock().now();
}

Executor::~Executor() = default;

bool Executor::set_up(const OutputRule& outputs)
{
    std::optional<std::string> problem;
    if (!scenario_.vcd.empty()) {
        // Declared before any part is selected: the widest lens code, and
        // the write cycle of any memory.
        wire::Waveform::Signals signals;
        for (auto& d : scenario_.devices) {
            const auto* chip = d.actuator ? models::find_actuator_chip(d.actuator->chip) : nullptr;
            signals.lens_bits = std::max(signals.lens_bits, chip == nullptr ? 0u : chip->max_code > 1023 ? 11u : 10u);
            signals.memory = signals.memory || d.memory.has_value();
        }
        if (auto error = waveform_.open(sys_, scenario_.vcd, outputs, signals)) {
            waveform_refused_ = error;
            end_.failures.push_back("vcd: " + *error);
            return false;
        }
    }
    NTSTATUS status = platform::load_driver(sys_);
    if (!NT_SUCCESS(status)) {
        problem = "DriverEntry failed: " + bench::status_name(status);
    }
    for (size_t i = 0; !problem && i < scenario_.devices.size(); i++) {
        problem = add(scenario_.devices[i]);
    }
    if (problem) {
        end_.failures.push_back(*problem);
        return false;
    }
    // The waveform follows the first device, its actuator and its memory.
    if (waveform_.is_open()) {
        waveform_.watch(devices_.front().device);
        for (auto& d : devices_) {
            if (d.lens) {
                waveform_.watch(d.lens);
                break;
            }
        }
        for (auto& d : devices_) {
            if (d.memory) {
                waveform_.watch(d.memory);
                break;
            }
        }
    }
    // Device add's own events belong to no step.
    collect_trace();
    ready_ = true;
    return true;
}

std::optional<std::string> Executor::add(const DeviceSetup& setup)
{
    // The values in force when this device is added: device add reads them.
    for (auto& v : setup.registry) {
        if (v.remove) {
            sys_.registry().remove(v.name);
        } else {
            sys_.registry().set(v.name, v.type, v.data);
        }
    }
    bench::DeviceConfig config;
    config.hardware_ids = {bench::to_utf16(setup.hwid)};
    auto open = platform::open_device(sys_, config);
    std::string of = setup.name.empty() ? "" : " of '" + setup.name + "'";
    if (open.context == nullptr) {
        return "device add" + of + " failed: " + bench::status_name(open.status);
    }
    if (!NT_SUCCESS(open.status)) {
        return "the interface" + of + " could not be taken: " + bench::status_name(open.status);
    }
    DeviceState d{&setup, open.device, open.context, open.si, 1};
    if (setup.actuator) {
        d.lens = platform::select_actuator(sys_, d.context, *setup.actuator);
    }
    if (setup.memory) {
        d.memory = platform::select_memory(sys_, d.context, *setup.memory);
        d.memory->set_contents(0, setup.contents);
    }
    devices_.push_back(std::move(d));
    return std::nullopt;
}

std::vector<TraceEntry> Executor::collect_trace()
{
    if (!tracing_) {
        return {};
    }
    auto events = sys_.traces().events();
    sys_.traces().clear();
    auto entries = trace_entries(sys_.traces(), events, TraceOptions{});
    for (auto& e : entries) {
        if (trace_options_.requested() && trace_options_.accepts(e)) {
            end_.trace.push_back(e);
        }
    }
    return entries;
}

Observation Executor::perform(const Step& step)
{
    Observation seen;
    DeviceState& d = devices_[step.device];
    sys_.bus().clear_transcript();
    seen.start = sys_.clock().now();
    // A broken rule stops the step as a bugcheck would; the observation
    // carries the report, so the hook stays quiet.
    auto hook = bench::verifier::set_hook([](const bench::Violation&) {});
    try {
        bench::verifier::at_irql(step.irql, [&] { act(step.action, d, seen); });
    } catch (const bench::Bugcheck& stop) {
        seen.violation = stop.violation();
    }
    bench::verifier::set_hook(hook);
    seen.transfers = sys_.bus().transcript();
    seen.trace = collect_trace();
    if (!step.expect.memory.empty() && d.memory) {
        seen.memory = d.memory->bytes(0, d.memory->size());
    }
    if (d.lens) {
        seen.lens = d.lens->code();
    }
    seen.power = d.device->power_state();
    seen.references = d.device->power_references();
    seen.clock = sys_.clock().now() - origin_;
    seen.speed = sys_.bus().speed();
    return seen;
}

void Executor::act(const Action& action, DeviceState& d, Observation& seen)
{
    // A result's status is the step's status; "op" only repeats the action.
    auto take = [&](json result) {
        seen.result = result;
        if (result.contains("status")) {
            seen.status = result["status"].get<std::string>();
            result.erase("status");
        }
        result.erase("op");
        seen.values = std::move(result);
    };
    std::visit(Overloaded{
                   [&](const CallAction& a) { take(a.call(d.si, verbose_)); },
                   [&](const ActuatorAction& a) {
                       d.lens_ops.push_back({{"time_ms", double(sys_.clock().now() - origin_) / 10000.0},
                                             {"op", a.op.text}});
                       take(run_actuator_op(sys_, d.context, a.op));
                   },
                   [&](const MemoryAction& a) { take(run_memory_op(d.context, a.op)); },
                   [&](const AdvanceAction& a) { sys_.clock().advance(a.units); },
                   [&](const BusSpeedAction& a) { sys_.bus().set_speed(a.speed); },
                   [&](const FaultAction& f) {
                       if (f.what == FaultAction::What::Clear) {
                           sys_.bus().clear_faults();
                           sys_.faults().clear();
                       } else if (f.what == FaultAction::What::Routine) {
                           sys_.faults().fail(f.routine, f.status, f.skip, f.times);
                       } else if (f.transfer) {
                           sys_.bus().fail_transfer(sys_.bus().transfer_count() + *f.transfer - 1, f.fault);
                       } else {
                           sys_.bus().fail_when(f.match, f.fault, f.skip, f.times);
                       }
                   },
                   [&](PnpAction a) {
                       seen.status = bench::status_name(a == PnpAction::QueryRemove ? d.device->query_remove()
                                                                                   : d.device->query_stop());
                   },
                   [&](InterfaceAction a) {
                       if (a == InterfaceAction::Take) {
                           SENSOR_INTERFACE si{};
                           NTSTATUS status =
                               platform::query_sensor_interface(*d.device, &si);
                           seen.status = bench::status_name(status);
                           d.held += NT_SUCCESS(status) ? 1 : 0;
                       } else if (d.held == 0) {
                           seen.problems.push_back("the scenario holds no reference on the interface to release");
                       } else {
                           d.si.InterfaceHeader.InterfaceDereference(d.si.InterfaceHeader.Context);
                           d.held--;
                       }
                   },
                   [](CheckAction) {},
               },
               action);
}

RunEnd Executor::finish()
{
    if (!ready_) {
        end_.clock = sys_.clock().now() - origin_;
        return end_;
    }
    sys_.bus().clear_transcript();
    for (auto& d : devices_) {
        for (; d.held > 0; d.held--) {
            d.si.InterfaceHeader.InterfaceDereference(d.si.InterfaceHeader.Context);
        }
        std::string of = scenario_.devices.size() > 1 ? " of " + d.setup->name : "";
        if (!d.setup->plot.empty()) {
            json chart = {{"chip", d.lens->chip().name},
                          {"bus_speed", bus_speed_text(sys_.bus().speed())},
                          {"low", d.context->VcmLowPosition},
                          {"high", d.context->VcmHighPosition},
                          {"module", std::string(d.context->SensorName,
                                                 strnlen(d.context->SensorName, sizeof d.context->SensorName))},
                          {"operations", d.lens_ops}};
            chart.update(lens_trajectory(d.lens.get(), origin_, sys_.clock().now()));
            end_.outputs.push_back({d.setup->plot,
                                    "lens chart" + of + ", " + std::to_string(chart["trajectory"].size()) + " moves",
                                    trajectory_svg(chart)});
        }
        if (!d.setup->save.empty()) {
            auto bytes = d.memory->contents();
            end_.outputs.push_back({d.setup->save, "memory contents" + of + ", " + std::to_string(bytes.size()) +
                                                       " bytes",
                                    std::string(bytes.begin(), bytes.end())});
        }
    }
    waveform_.watch(nullptr);
    auto report = sys_.unload_driver();
    collect_trace();  // unload's own events
    end_.transfers = sys_.bus().transcript();
    if (waveform_.is_open()) {
        end_.outputs.push_back({scenario_.vcd, "waveform of the bus, " + std::to_string(sys_.bus().transfer_count()) +
                                                   " transfers",
                                {}, false, true});
    }
    if (!report.clean()) {
        end_.failures.push_back("unload: " + report.text());
    }
    end_.unload = report.clean() ? "clean" : report.text();
    end_.clock = sys_.clock().now() - origin_;
    return end_;
}

std::optional<std::string> Executor::write_waveform() { return waveform_.finish(); }

}  // namespace korvanel::tool
