// waveform.cpp - following a run on the bus into a Value Change Dump.
#include "waveform.h"

namespace korvanel::wire {

Waveform::~Waveform()
{
    if (sys_ != nullptr) {
        sys_->bus().observe(nullptr);
    }
}

std::optional<std::string> Waveform::open(bench::Bench& sys, const std::string& path, const files::OutputRule& rule,
                                          Signals signals)
{
    if (sys.bus().speed() == bench::BusSpeed::Instant) {
        return "a waveform needs wire time: give --bus-speed 100k, 400k or 1m";
    }
    if (auto error = file_.open(path, rule)) {
        return error;
    }
    vcd_.start(file_, sys.bus().speed(), sys.clock().now());
    sys_ = &sys;
    d0_ = vcd_.add_signal("d0", 1, 0);
    d0_value_ = 0;
    if (signals.lens_bits > 0) {
        lens_ = vcd_.add_signal("lens_code", signals.lens_bits, 0);
    }
    if (signals.memory) {
        busy_ = vcd_.add_signal("nvm_busy", 1, 0);
    }
    sys.bus().observe([this](const bench::BusTransfer& t) { follow(t); });
    return std::nullopt;
}

// A device about to be removed is watched no more: it leaves D0 for good.
void Waveform::watch(bench::Device* device)
{
    device_ = device;
    if (sys_ != nullptr) {
        sample_power(sys_->clock().now());
    }
}

void Waveform::watch(std::shared_ptr<models::ActuatorModel> actuator) { actuator_ = std::move(actuator); }

void Waveform::watch(std::shared_ptr<models::Eeprom> memory) { memory_ = std::move(memory); }

void Waveform::sample_power(int64_t now)
{
    uint64_t d0 = device_ != nullptr && device_->power_state() == PowerDeviceD0;
    if (d0 != d0_value_) {
        vcd_.change(d0_, now, d0);
        d0_value_ = d0;
    }
}

void Waveform::follow(const bench::BusTransfer& t)
{
    sample_power(t.time);
    vcd_.transfer(t);
    // Both latch at the transfer's stop condition.
    int64_t stop = t.time + bench::Bus::wire_time(sys_->bus().speed(), t.length);
    if (actuator_ && lens_ >= 0 && actuator_->code() != code_) {
        code_ = actuator_->code();
        vcd_.change(lens_, stop, code_);
    }
    if (memory_ && busy_ >= 0 && memory_->busy_until() != busy_until_) {
        busy_until_ = memory_->busy_until();
        vcd_.change(busy_, stop, 1);
        vcd_.change(busy_, busy_until_, 0);
    }
}

std::optional<std::string> Waveform::finish()
{
    if (sys_ == nullptr) {
        return std::nullopt;
    }
    sys_->bus().observe(nullptr);
    int64_t now = sys_->clock().now();
    sample_power(now);
    vcd_.finish(std::max(now, busy_until_));
    sys_ = nullptr;
    return file_.commit();
}

const char* waveform_option_help()
{
    return "write the run's bus (SCL, SDA), lens code, power state and memory write cycle as a VCD waveform "
           "(needs --bus-speed)";
}

}  // namespace korvanel::wire
