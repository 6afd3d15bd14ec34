// waveform.h - a run of korvanel-sim as a Value Change Dump: the bus drawn as
// it happens (vcd.h), with the lens code the actuator latched, the
// device's power state and the memory's write cycle beside it.
//
//   Waveform wave;
//   if (auto error = wave.open(sys, "run.vcd", rule, {.lens_bits = 10, .memory = true})) ...
//   wave.watch(device);  wave.watch(actuator_model);  wave.watch(eeprom);
//   ... the run ...
//   if (auto error = wave.finish()) ...   // the file appears only now
#pragma once

#include "vcd.h"

#include "bench/bench.h"
#include "models/actuator.h"
#include "models/eeprom.h"

#include <memory>
#include <optional>
#include <string>

namespace korvanel::wire {

class Waveform {
public:
    struct Signals {
        unsigned lens_bits = 0;  // lens_code's width: 10, 11 for a chip with codes past 1023; 0: none
        bool memory = false;  // nvm_busy
    };
    Waveform() = default;
    Waveform(const Waveform&) = delete;
    Waveform& operator=(const Waveform&) = delete;
    ~Waveform();

    // Starts following the bus into a new file for `path` under `rule`; the
    // error text (an instant bus, a path that cannot be written) otherwise.
    // The signals are declared here, before any part is selected.
    std::optional<std::string> open(bench::Bench& sys, const std::string& path, const files::OutputRule& rule,
                                    Signals signals);
    bool is_open() const { return sys_ != nullptr; }

    void watch(bench::Device* device);                       // d0, sampled at every transfer and at the end
    void watch(std::shared_ptr<models::ActuatorModel> actuator);
    void watch(std::shared_ptr<models::Eeprom> memory);

    // Stops following the bus, draws up to the clock's time now and moves
    // the file into place; "PATH: reason" when it cannot be.
    std::optional<std::string> finish();

private:
    void follow(const bench::BusTransfer& t);
    void sample_power(int64_t now);

    bench::Bench* sys_ = nullptr;
    files::OutputFile file_;  // before the writer, which writes into it
    VcdWriter vcd_;
    int d0_ = -1, lens_ = -1, busy_ = -1;
    bench::Device* device_ = nullptr;
    std::shared_ptr<models::ActuatorModel> actuator_;
    std::shared_ptr<models::Eeprom> memory_;
    uint64_t d0_value_ = 1;
    uint16_t code_ = 0;
    int64_t busy_until_ = 0;
};

// --vcd FILE for korvanel-sim; the speed check is the caller's.
const char* waveform_option_help();

}  // namespace korvanel::wire
