// A long simulation: a million power and interface references, and a long
// lens and memory workload. The bench's records stay at their bounds and its
// heap stays flat once they are full, so a run of any length holds up.
#include "camera_client.h"

#include "platform/checked.h"

#include "bench/spb_controller.h"
#include "nvm/nvm.h"
#include "models/actuator.h"
#include "platform/actuator.h"
#include "platform/memory.h"
#include "vcm/vcm.h"

#include <malloc.h>

namespace korvanel::test {
namespace {

// Bytes in use on the heap; not meaningful under AddressSanitizer, whose
// allocator keeps its own books.
size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__)
    return 0;
#else
    return mallinfo2().uordblks;
#endif
}

constexpr size_t kHeapSlack = 256 * 1024;

using SoakTest = CameraTest;

TEST_F(SoakTest, AMillionReferencesLeaveTheHostFlat)
{
    open();
    auto cycle = [this](int n) {
        for (int i = 0; i < n; i++) {
            si.PowerUp(ctx);
            si.PowerDown(ctx);
            si.InterfaceHeader.InterfaceReference(ctx);
            si.InterfaceHeader.InterfaceDereference(ctx);
        }
    };
    cycle(100000);
    size_t heap = heap_in_use();
    cycle(900000);
    EXPECT_LE(heap_in_use(), heap + kHeapSlack);
    EXPECT_EQ(dev->idle_calls().size(), 64u);
    EXPECT_EQ(dev->power_references(), 0);
    EXPECT_EQ(ctx->InterfaceRefCount, 1);
}

TEST_F(SoakTest, ALongLensAndMemoryWorkloadLeavesTheHostFlat)
{
    open();
    sys.bus().set_speed(bench::BusSpeed::Fast);
    auto lens = platform::select_actuator(sys, ctx, {"DW9719"});
    auto memory = platform::select_memory(sys, ctx, {10, 0x50, 64});
    const VCM_DRIVER& chip = platform::actuator_table()[VCM_TYPE_DW9719];
    const NVM_DRIVER& nvm = platform::memory_table()[10];
    ASSERT_EQ(chip.Init(ctx), STATUS_SUCCESS);

    auto work = [&](int first, int rounds) {
        for (int i = first; i < first + rounds; i++) {
            UCHAR data[32], back[32];
            memset(data, i, sizeof data);
            USHORT address = USHORT(i % 256 * 32);
            ASSERT_EQ(chip.SetPos(ctx, SHORT(i % 1000)), STATUS_SUCCESS);
            ASSERT_EQ(nvm.Write(ctx, address, data, sizeof data), STATUS_SUCCESS);
            ASSERT_EQ(nvm.Read(ctx, address, back, sizeof back), STATUS_SUCCESS);
            ASSERT_EQ(memcmp(data, back, sizeof data), 0);
        }
    };
    work(0, 15000);  // every record past its bound
    size_t heap = heap_in_use();
    work(15000, 15000);
    EXPECT_LE(heap_in_use(), heap + kHeapSlack);

    EXPECT_EQ(sys.bus().transcript().size(), bench::Bus::kTransfersKept);
    EXPECT_GT(sys.bus().transfer_count(), 4 * bench::Bus::kTransfersKept / 2);
    EXPECT_EQ(sys.bus().targets().size(), bench::Bus::kTargetsKept);
    EXPECT_EQ(sys.clock().delays().size(), bench::Clock::kDelaysKeptPerThread);
    EXPECT_EQ(sys.clock().stall_count(), 30000u * 100);
    EXPECT_LE(lens->trajectory().size(), models::ActuatorModel::kPointsKept);
    EXPECT_EQ(lens->trajectory().back().code, 29999 % 1000);
}

}  // namespace
}  // namespace korvanel::test
