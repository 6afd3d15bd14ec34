// Eight camera-driver threads on one device at once: interface operations,
// interface references and query-remove, power references while time
// passes, and lens-actuator and memory commands that share BusLock. At the
// end nothing is held, stop and remove calls balance, the device idles to
// D3, and unload is clean. The ThreadSanitizer build runs this to find races.
#include "camera_client.h"

#include "platform/checked.h"

#include "bench/spb_controller.h"
#include "nvm/nvm.h"
#include "platform/actuator.h"
#include "platform/memory.h"
#include "vcm/vcm.h"

#include <map>
#include <mutex>
#include <thread>

namespace korvanel::test {
namespace {

constexpr uint64_t kMemoryConnection = 0x50;

using StressTest = CameraTest;

TEST_F(StressTest, EightThreadsOnOneDevice)
{
    open({u"root\\KORVANEL\\rgbir"});
    auto* context = static_cast<PDEVICE_CONTEXT>(ctx);
    platform::select_actuator(sys, context, {.chip = "DW9719", .low = 100});
    auto memory = platform::select_memory(sys, context, {10, kMemoryConnection, 64});
    ASSERT_NE(memory, nullptr);
    const VCM_DRIVER& lens = platform::actuator_table()[VCM_TYPE_DW9719];
    const NVM_DRIVER& nvm = platform::memory_table()[10];
    ASSERT_EQ(lens.Init(context), STATUS_SUCCESS);

    constexpr int kRounds = 2000;
    // Failures are counted per line of this file, from any thread.
    std::mutex mutex;
    std::map<int, int> failures;
    auto check = [&](bool ok, int line) {
        if (!ok) {
            std::lock_guard lock(mutex);
            failures[line]++;
        }
    };
#define expect(ok) check((ok), __LINE__)
    std::vector<std::thread> threads;
    // Two threads move and read the lens.
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; i++) {
                USHORT position = 0;
                ULONG moving = 0;
                expect(lens.SetPos(context, SHORT(100 + (i * 37 + t * 300) % 900)) == STATUS_SUCCESS);
                expect(lens.GetPos(context, &position) == STATUS_SUCCESS && position <= 1023);
                expect(lens.GetStatus(context, &moving) == STATUS_SUCCESS && moving <= 1);
            }
        });
    }
    // Two threads write and read back their own halves of the memory.
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds / 10; i++) {
                USHORT address = USHORT(t * 4096 + (i * 40) % 4000);
                std::vector<UCHAR> data(40, UCHAR(i + t)), back(40);
                expect(nvm.Write(context, address, data.data(), 40) == STATUS_SUCCESS);
                expect(nvm.Read(context, address, back.data(), 40) == STATUS_SUCCESS && back == data);
            }
        });
    }
    // Two threads ask what the sensor is and take and drop references; one
    // of them turns a trace session on and off meanwhile, as a consumer may
    // while the driver traces on every thread.
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds * 10; i++) {
                if (t == 0 && i % 500 == 0) {
                    if (i % 1000 == 0) {
                        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
                    } else {
                        sys.traces().disable();
                    }
                }
                SENSOR_CAPS caps{};
                SENSOR_MODULE_INFO module{};
                SENSOR_MODE_INFO info{};
                ULONG size = sizeof info;
                expect(si.GetSensorCaps(ctx, &caps) == STATUS_SUCCESS && (caps.ModeFlags >> 3 & 7) == 4);
                expect(si.GetModuleInfo(ctx, &module) == STATUS_SUCCESS);
                NTSTATUS status = si.GetModeInfo(ctx, &size, &info);
                expect(status == STATUS_SUCCESS || status == STATUS_INVALID_DEVICE_STATE);
                si.InterfaceHeader.InterfaceReference(ctx);
                expect(!NT_SUCCESS(dev->query_remove()));
                si.InterfaceHeader.InterfaceDereference(ctx);
            }
        });
    }
    // Two threads hold the device in D0 while time passes.
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds * 10; i++) {
                expect(si.PowerUp(ctx) == STATUS_SUCCESS);
                expect(dev->power_state() == PowerDeviceD0);
                sys.clock().advance_ms(7);
                expect(si.PowerDown(ctx) == STATUS_SUCCESS);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
#undef expect
    EXPECT_TRUE(failures.empty()) << testing::PrintToString(failures) << " (line: failures)";

    // BusLock kept each memory read's address and data phases together.
    auto transcript = sys.bus().transcript();
    for (size_t i = 0; i + 1 < transcript.size(); i++) {
        const auto& t = transcript[i];
        if (t.connection == kMemoryConnection && t.direction == bench::Direction::Write && t.bytes.size() == 2) {
            EXPECT_EQ(transcript[i + 1].connection, kMemoryConnection) << "a transfer between address and data phase";
        }
    }

    EXPECT_EQ(KeReadStateEvent(&context->BusLock), 1);
    EXPECT_EQ(context->InterfaceRefCount, 1);  // the fixture's own
    EXPECT_EQ(dev->power_references(), 0);
    EXPECT_EQ(dev->static_stop_remove_calls(false) - dev->static_stop_remove_calls(true), 1u);
    sys.clock().advance_ms(15000);
    EXPECT_EQ(dev->power_state(), PowerDeviceD3);
    close();
    EXPECT_TRUE(dev->stoppable());
}

}  // namespace
}  // namespace korvanel::test
