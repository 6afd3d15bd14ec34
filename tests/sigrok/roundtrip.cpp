// sigrok_roundtrip - every kind of bus traffic the driver makes, written as a
// waveform and decoded back by sigrok's I2C decoder (sigrok-cli), must equal
// the bench's transcript: STARTs, repeated STARTs, addresses, R/W, data,
// ACK/NACK and STOPs, transfer by transfer, at 100 kHz, 400 kHz and 1 MHz.
// For the memories with a 16-bit address, sigrok's 24xx EEPROM decoder must
// also read each page write's address and data as the driver sent them.
//
//   sigrok_roundtrip [WORK_DIR]      prints "N runs x 3 speeds, M transfers compared, ... 0 mismatches"
//   ROUNDTRIP_SHOW="time-out at 1m" sigrok_roundtrip   also prints what sigrok decoded of one run
#include "tools/actuator_cli.h"
#include "tools/calls.h"
#include "files/files.h"
#include "tools/memory_cli.h"
#include "wire/capture.h"
#include "wire/waveform.h"

#include "bench/spb_controller.h"
#include "platform/device.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sstream>

using namespace korvanel;

namespace {

struct Run {
    std::string name;
    unsigned lens_bits = 0;
    std::optional<unsigned> memory;  // its type
    // Selects the parts (telling the waveform of them) and drives them.
    std::function<void(bench::Bench&, platform::OpenDevice&, wire::Waveform&)> body;
};

void drive_actuator(bench::Bench& sys, platform::OpenDevice& dev, wire::Waveform& wave, const std::string& chip)
{
    wave.watch(platform::select_actuator(sys, dev.context, {.chip = chip, .low = 100}));
    std::vector<tool::ActuatorOp> ops;
    tool::OpError error;
    if (!tool::parse_actuator_ops("init,setpos:300,getpos,status,hpstatus,advance:10,resetpos", "", ops, error)) {
        throw std::runtime_error(error.what());
    }
    for (auto& op : ops) {
        tool::run_actuator_op(sys, dev.context, op);
    }
}

void drive_memory(bench::Bench& sys, platform::OpenDevice& dev, wire::Waveform& wave, unsigned type,
                  const std::string& ops_text)
{
    auto geometry = platform::memory_geometry(type);
    auto model = platform::select_memory(sys, dev.context, {.type = type, .cache_length = 64});
    wave.watch(model);
    std::vector<tool::MemoryOp> ops;
    tool::OpError error;
    if (!tool::parse_memory_ops(ops_text, "", geometry->size, ops, error)) {
        throw std::runtime_error(error.what());
    }
    for (auto& op : ops) {
        tool::run_memory_op(dev.context, op);
    }
}

// A load, a write that crosses a page and (for block memories) a block, and
// a read of it.
std::string memory_ops(unsigned type)
{
    return type == 7 ? "load,write:5:A1A2A3A4A5A6,read:4:8" : "load,write:250:000102030405060708090A0B,read:248:16";
}

std::vector<Run> runs()
{
    std::vector<Run> out;
    for (auto& chip : models::actuator_chips()) {
        out.push_back({"actuator " + chip.name, chip.max_code > 1023 ? 11u : 10u, std::nullopt,
                       [name = chip.name](auto& sys, auto& dev, auto& wave) { drive_actuator(sys, dev, wave, name); }});
    }
    for (unsigned type = 5; type <= 12; type++) {
        out.push_back({"memory type " + std::to_string(type), 0, type, [type](auto& sys, auto& dev, auto& wave) {
                           drive_memory(sys, dev, wave, type, memory_ops(type));
                       }});
    }
    out.push_back({"report", 0, std::nullopt, [](auto&, auto& dev, auto&) {
                       tool::ArgumentError error;
                       for (const char* call : {"GetModuleInfo", "GetSensorCaps", "GetSensorParameters",
                                                "GetMipiConfig", "GetModeTables", "GetModeInfo"}) {
                           tool::prepare_call(call, nlohmann::ordered_json::object(), error)(dev.si, false);
                       }
                   }});
    // A register read as one sequence request: the write of the register
    // number and the read joined by a repeated START. (The driver sends them
    // as two requests; the bus carries either.)
    out.push_back({"repeated START", 10, std::nullopt, [](auto& sys, auto& dev, auto& wave) {
                       wave.watch(platform::select_actuator(sys, dev.context, {.chip = "DW9719"}));
                       for (uint8_t reg : {0x00, 0x03, 0x05}) {
                           uint8_t out_byte = reg, in_bytes[2] = {};
                           sys.bus().transfer({0x1C, models::Direction::Write, &out_byte, 1, 0, std::nullopt}, nullptr);
                           sys.bus().transfer({0x1C, models::Direction::Read, in_bytes, 2, 0, std::nullopt, true}, nullptr);
                       }
                   }});
    // The second page's write of an M24c64 is not acknowledged at its address...
    out.push_back({"NACKed address", 0, 10u, [](auto& sys, auto& dev, auto& wave) {
                       sys.bus().fail_when({.connection = 0x50, .direction = models::Direction::Write, .prefix = {0x00, 0x20}},
                                           bench::BusFault::nack());
                       drive_memory(sys, dev, wave, 10, "write:16:" + std::string(64, '5'));
                   }});
    // ... or in its last data byte ...
    out.push_back({"NACK in a data byte", 0, 10u, [](auto& sys, auto& dev, auto& wave) {
                       sys.bus().fail_when({.connection = 0x50, .direction = models::Direction::Write, .prefix = {0x00, 0x20}},
                                           bench::BusFault::complete_with(models::kNack));
                       drive_memory(sys, dev, wave, 10, "write:16:" + std::string(64, '5'));
                   }});
    // ... or the part holds the clock until the write's time-out.
    out.push_back({"time-out", 0, 10u, [](auto& sys, auto& dev, auto& wave) {
                       sys.bus().fail_when({.connection = 0x50, .direction = models::Direction::Write, .prefix = {0x00, 0x20}},
                                           bench::BusFault::timeout());
                       drive_memory(sys, dev, wave, 10, "write:16:" + std::string(64, '5') + ",read:16:4");
                   }});
    return out;
}

// sigrok's 24xx decoder on the page writes: "Page write (addr=001E, 2 bytes): 01 02".
std::vector<std::string> eeprom_writes(const std::string& vcd)
{
    std::string cmd = wire::sigrok_cli() + " -i '" + vcd +
                      "' -I vcd -P i2c:scl=scl:sda=sda,eeprom24xx:chip=microchip_24lc64 -A eeprom24xx=ops 2>/dev/null";
    std::vector<std::string> out;
    std::FILE* pipe = popen(cmd.c_str(), "r");
    char line[4096];
    while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text = line;
        auto at = text.find("eeprom24xx-1: ");
        if (at != std::string::npos) {
            out.push_back(text.substr(at + 14, text.find_last_not_of("\r\n ") - at - 13));
        }
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string dir = argc > 1 ? argv[1] : ".";
    const std::pair<bench::BusSpeed, const char*> speeds[] = {
        {bench::BusSpeed::Standard, "100k"}, {bench::BusSpeed::Fast, "400k"}, {bench::BusSpeed::FastPlus, "1m"}};
    auto all = runs();
    size_t compared = 0, mismatches = 0, eeprom_checked = 0;
    for (auto [speed, speed_name] : speeds) {
        for (auto& run : all) {
            std::string label = run.name + " at " + speed_name;
            std::string path = dir + "/roundtrip.vcd";
            std::vector<bench::BusTransfer> transcript;
            files::forget_inputs();  // each run writes the dump the last one read back
            {
                bench::Bench sys;
                sys.bus().set_speed(speed);
                wire::Waveform wave;
                if (auto error = wave.open(sys, path, {true, "", {}}, {run.lens_bits, run.memory.has_value()})) {
                    std::cerr << label << ": " << *error << "\n";
                    return 2;
                }
                platform::load_driver(sys);
                auto dev = platform::open_device(sys);
                wave.watch(dev.device);
                run.body(sys, dev, wave);
                transcript = sys.bus().transcript();
                dev.si.InterfaceHeader.InterfaceDereference(dev.si.InterfaceHeader.Context);
                wave.watch(nullptr);
                sys.unload_driver();
                if (auto error = wave.finish()) {
                    std::cerr << label << ": " << *error << "\n";
                    return 2;
                }
            }
            std::string error;
            auto capture = wire::read_capture(path, {}, error);
            auto bench = wire::wire_transcript(transcript, speed);
            // A run without a transfer draws an idle bus, which is no capture.
            if (bench.empty() && !capture && error.find("holds no transfer the I2C decoder could read") != std::string::npos) {
                continue;
            }
            if (!capture) {
                std::cerr << label << ": " << error << "\n";
                return 2;
            }
            compared += bench.size();
            if (const char* show = std::getenv("ROUNDTRIP_SHOW"); show != nullptr && label == show) {
                for (auto& w : capture->transfers) {
                    std::cout << wire::wire_text(w) << "\n";
                }
            }
            if (auto difference = wire::compare_wire(bench, capture->transfers)) {
                mismatches++;
                std::cerr << label << ": " << *difference << "\n";
            }

            // The 24xx decoder stops at an address-only write (it expects the
            // read to follow with a repeated START), so it is given a run of
            // page writes alone.
            bool address16 = run.memory && (*run.memory == 5 || *run.memory == 7 || *run.memory == 8 ||
                                             *run.memory == 10) && run.name.rfind("memory", 0) == 0;
            if (!address16) {
                continue;
            }
            std::vector<std::string> expected;
            files::forget_inputs();
            {
                bench::Bench sys;
                sys.bus().set_speed(speed);
                wire::Waveform wave;
                wave.open(sys, path, {true, "", {}}, {0, true});
                platform::load_driver(sys);
                auto dev = platform::open_device(sys);
                unsigned type = *run.memory;
                drive_memory(sys, dev, wave, type, type == 7 ? "write:5:A1A2A3A4A5A6" : "write:250:000102030405060708090A0B");
                for (auto& t : sys.bus().transcript()) {
                    char text[64];
                    std::snprintf(text, sizeof text, "Page write (addr=%02X%02X, %zu bytes):", t.bytes[0], t.bytes[1],
                                  t.bytes.size() - 2);
                    std::string line = text;
                    for (size_t i = 2; i < t.bytes.size(); i++) {
                        std::snprintf(text, sizeof text, " %02X", t.bytes[i]);
                        line += text;
                    }
                    expected.push_back(line);
                }
                dev.si.InterfaceHeader.InterfaceDereference(dev.si.InterfaceHeader.Context);
                sys.unload_driver();
                wave.finish();
            }
            auto decoded = eeprom_writes(path);
            eeprom_checked += expected.size();
            if (decoded != expected) {
                mismatches++;
                std::cerr << label << ": the 24xx decoder read\n";
                for (auto& d : decoded) {
                    std::cerr << "    " << d << "\n";
                }
                std::cerr << "  the driver wrote\n";
                for (auto& e : expected) {
                    std::cerr << "    " << e << "\n";
                }
            }
        }
    }
    std::printf("%zu runs x 3 speeds, %zu transfers compared, %zu page writes checked by the 24xx decoder, %zu mismatches\n",
                all.size(), compared, eeprom_checked, mismatches);
    return mismatches == 0 ? 0 : 1;
}
