// bench_reset_test.cpp - a bench reset after any work answers as a new bench:
// the same work on a new Bench and on one reset after other work gives the
// same statuses, outputs, bus transcript, trace, delays, pool figures and
// unload report, byte for byte.
#include "driver_fixture.h"

#include "bench/spb_controller.h"
#include "platform/actuator.h"
#include "platform/memory.h"

#include <random>
#include <sstream>

namespace korvanel::test {
namespace {

std::string hex(uint64_t v)
{
    char text[24];
    snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(v));
    return text;
}

// Work chosen by `seed`, as a camera driver and a platform would do it, and
// all that can be seen of it, as text.
std::string work(bench::Bench& sys, uint32_t seed)
{
    std::mt19937 random(seed);
    auto pick = [&](unsigned n) { return unsigned(random() % n); };
    std::ostringstream seen;

    if (pick(2) != 0) {
        sys.registry().set_dword("MipiLanes", 1 + pick(4));
    }
    if (pick(2) != 0) {
        sys.registry().set_dword("PDAF_Type", pick(3));
    }
    if (pick(4) == 0) {
        sys.set_os_major_version(5);
    }
    if (pick(2) != 0) {
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    }
    if (pick(4) == 0) {
        sys.faults().fail("ZwQueryValueKey", STATUS_INSUFFICIENT_RESOURCES, pick(4));
    }
    seen << "load " << bench::status_name(platform::load_driver(sys)) << "\n";
    static const std::u16string kIds[] = {u"root\\KORVANEL\\rgbir", u"root\\KORVANEL\\md", u"root\\OTHER"};
    bench::DeviceConfig config;
    config.hardware_ids = {kIds[pick(3)]};
    auto dev = platform::open_device(sys, config);
    seen << "open " << bench::status_name(dev.status) << " " << dev.device->handle() << " registration "
         << int(sys.traces().registration()) << "\n";
    if (NT_SUCCESS(dev.status)) {
        auto* ctx = static_cast<PSENSOR_CONTEXT>(dev.si.InterfaceHeader.Context);
        platform::select_actuator(sys, dev.context, {std::to_string(1 + pick(8))});
        platform::select_memory(sys, dev.context, {5 + pick(8), 0x50, 64});
        if (pick(2) != 0) {
            sys.bus().set_speed(bench::BusSpeed::Fast);
        }
        if (pick(2) != 0) {
            sys.bus().fail_transfer(pick(30), bench::BusFault::nack());
        }
        const VCM_DRIVER& lens = platform::actuator_table()[dev.context->VcmType];
        const NVM_DRIVER& memory = platform::memory_table()[dev.context->NvmType];
        UCHAR data[64];
        for (auto& b : data) {
            b = UCHAR(pick(256));
        }
        for (int step = 0; step < 24; step++) {
            NTSTATUS status = STATUS_SUCCESS;
            ULONG value = 0;
            USHORT position = 0;
            switch (pick(10)) {
            case 0: status = dev.si.SelectMode(ctx, LONG(pick(5)), LONG(pick(4000)), LONG(pick(3000)), 0); break;
            case 1: {
                SENSOR_MODE_INFO info{};
                ULONG size = sizeof info;
                status = dev.si.GetModeInfo(ctx, &size, &info);
                value = info.Width;
                break;
            }
            case 2: status = pick(2) != 0 ? dev.si.PowerUp(ctx) : dev.si.PowerDown(ctx); break;
            case 3: sys.clock().advance_ms(pick(20000)); break;
            case 4: status = lens.Init(dev.context); break;
            case 5: status = lens.SetPos(dev.context, SHORT(pick(1024))); break;
            case 6: status = lens.GetPos(dev.context, &position); break;
            case 7: status = memory.Write(dev.context, USHORT(pick(200)), data, LONG(1 + pick(64))); break;
            case 8: status = memory.Read(dev.context, USHORT(pick(200)), data, LONG(1 + pick(64))); break;
            default: {
                SENSOR_MODULE_INFO info{};
                status = dev.si.GetModuleInfo(ctx, &info);
                value = info.SensorName[0];
                break;
            }
            }
            seen << step << " " << bench::status_name(status) << " " << value << " " << position << "\n";
        }
        dev.si.InterfaceHeader.InterfaceDereference(ctx);
        for (const auto& target : sys.bus().targets()) {
            seen << "target " << target.handle << " " << target.opens.size() << " " << target.closes << "\n";
        }
        for (const auto& t : sys.bus().transcript()) {
            seen << "bus " << t.index << " " << hex(t.connection) << " " << int(t.direction) << " "
                 << hex_bytes(t.bytes.data(), t.bytes.size()) << " " << bench::status_name(t.status) << " " << t.time
                 << "\n";
        }
    }
    for (const auto& line : sys.traces().lines()) {
        seen << "trace " << line << "\n";
    }
    for (const auto& d : sys.clock().delays()) {
        seen << "delay " << int(d.kind) << " " << d.amount << " " << d.at << "\n";
    }
    seen << "clock " << sys.clock().now() << " calls " << sys.faults().calls("ExAllocatePoolWithTag") << " "
         << sys.faults().calls("KeWaitForSingleObject") << "\n";
    seen << "unload " << sys.unload_driver().text() << "pool " << sys.pool().allocations_made() << "\n";
    return seen.str();
}

TEST(BenchResetTest, AResetBenchAnswersAsANewOne)
{
    for (uint32_t seed = 1; seed <= 48; seed++) {
        SCOPED_TRACE(seed);
        std::string fresh;
        {
            bench::Bench sys;
            fresh = work(sys, seed);
        }
        bench::Bench sys;
        // Other work first, left in any state: the driver loaded or not,
        // references and power references held, rules and parts in place.
        std::mt19937 other(seed);
        if (other() % 2 != 0) {
            (void)work(sys, seed + 1000);
        } else {
            ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS);
            auto dev = platform::open_device(sys);
            dev.si.PowerUp(dev.context);
            sys.faults().fail("WdfIoTargetOpen", STATUS_UNSUCCESSFUL, 0, 0);
            sys.clock().advance_ms(40000);
        }
        sys.reset();
        EXPECT_EQ(work(sys, seed), fresh);
    }
}

}  // namespace
}  // namespace korvanel::test
