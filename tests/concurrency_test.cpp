// Interface operations called from several camera-driver threads at once on
// one device: no answer and no stored field may ever hold a value the device
// does not have, not even for an instant.
#include "camera_client.h"

#include "sensor/description.h"

#include <atomic>
#include <thread>

namespace korvanel::test {
namespace {

using ConcurrencyTest = CameraTest;

TEST_F(ConcurrencyTest, AnRgbIrDeviceAnswersModeFourToEveryThread)
{
    open({u"root\\KORVANEL\\rgbir"});
    constexpr int kThreads = 8, kCalls = 20000;
    std::atomic<long> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < kCalls; i++) {
                SENSOR_CAPS caps{};
                if (si.GetSensorCaps(ctx, &caps) != STATUS_SUCCESS || GetCapsMode(&caps) != SENSOR_CAPS_MODE_RGBIR) {
                    wrong++;
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong.load(), 0) << "answers without the device's mode, of " << kThreads * kCalls;
    EXPECT_EQ(GetCapsMode(&ctx->SensorCaps), SENSOR_CAPS_MODE_RGBIR);
}

}  // namespace
}  // namespace korvanel::test
