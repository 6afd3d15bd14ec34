// Failures anywhere in a memory command: for every command of every memory
// type, the k-th transfer fails (controller failure, NACK, time-out) for
// every k, and each connection open fails in turn. Every run ends with the
// status the failing step gives, nothing sent after the failure, BusLock
// free, the slots closed, and for writes the caller's data in the cache.
#include "nvm_fixture.h"

#include <cstdio>

namespace korvanel::test {
namespace {

class NvmFaultSweep : public NvmTest {};

TEST_F(NvmFaultSweep, EveryTransferAndEveryOpenOfEveryCommand)
{
    // Ranges that cross pages or blocks, so that every kind of chunk and
    // every per-block connection is in the sweep.
    const struct {
        unsigned type;
        USHORT address;
        LONG length;
    } ranges[] = {{5, 60, 80},  {7, 6, 20},    {8, 30, 40},   {10, 30, 40},
                  {6, 250, 40}, {9, 250, 300}, {12, 250, 40}, {11, 740, 300}};
    const bench::BusFault faults[] = {bench::BusFault::fail(STATUS_UNSUCCESSFUL), bench::BusFault::nack(),
                                     bench::BusFault::timeout()};
    enum class Command { Load, Read, Write };
    const char* const names[] = {"load", "read", "write"};

    unsigned cases = 0;
    unsigned runs = 0;
    for (const auto& r : ranges) {
        select(r.type, std::min<uint32_t>(platform::memory_table()[r.type].Size, NVM_CACHE_SIZE));
        auto data = pattern(size_t(r.length), uint8_t(r.type));
        for (Command command : {Command::Load, Command::Read, Command::Write}) {
            SCOPED_TRACE(testing::Message() << "type " << r.type << " " << names[int(command)]);
            auto run = [&]() {
                std::memset(ctx->NvmCache, 0, sizeof ctx->NvmCache);
                ctx->NvmLoaded = 0;
                sys.clock().advance_ms(10);  // no write cycle left from the run before
                forget();
                std::vector<uint8_t> buffer(NVM_CACHE_SIZE);
                ULONG size = NVM_CACHE_SIZE;
                switch (command) {
                case Command::Load: return NvmLoad(ctx, &size, buffer.data());
                case Command::Read: return row->Read(ctx, r.address, buffer.data(), r.length);
                default: return row->Write(ctx, r.address, data.data(), r.length);
                }
            };
            auto check_after = [&](NTSTATUS status, NTSTATUS expected) {
                EXPECT_EQ(status, expected);
                EXPECT_TRUE(lock_free());
                EXPECT_TRUE(slots_closed());
                EXPECT_EQ(ctx->NvmLoaded, 0);
                if (command == Command::Write) {
                    size_t cached = std::min<size_t>(size_t(r.length), NVM_CACHE_SIZE - r.address);
                    EXPECT_TRUE(std::equal(data.begin(), data.begin() + ptrdiff_t(cached), ctx->NvmCache + r.address));
                }
                runs++;
            };

            auto opens_so_far = [&] {
                size_t n = 0;
                for (auto& t : sys.bus().targets()) {
                    n += t.opens.size();
                }
                return n;
            };
            size_t before = opens_so_far();
            ASSERT_EQ(run(), STATUS_SUCCESS);
            auto clean = sys.bus().transcript();
            size_t opens = opens_so_far() - before;

            for (size_t k = 0; k < clean.size(); k++) {
                SCOPED_TRACE(testing::Message() << "transfer " << k);
                cases++;
                for (const auto& fault : faults) {
                    // Indexes go on across runs: the next run's k-th transfer.
                    sys.bus().fail_transfer(sys.bus().transfer_count() + k, fault);
                    NTSTATUS status = run();
                    EXPECT_EQ(sys.bus().transcript().size(), k + 1) << "transfers after the failed one";
                    // A failed address phase, write or erase is a parameter
                    // error; a failed data phase reports the bus's status.
                    check_after(status, clean[k].direction == bench::Direction::Read ? fault.status
                                                                                    : STATUS_INVALID_PARAMETER);
                }
            }
            // Each connection open of the clean run fails in turn.
            for (size_t j = 0; j < opens; j++) {
                SCOPED_TRACE(testing::Message() << "open " << j);
                cases++;
                sys.faults().fail("WdfIoTargetOpen", STATUS_ACCESS_DENIED, unsigned(j));
                check_after(run(), STATUS_ACCESS_DENIED);
            }
        }
    }
    printf("memory fault sweep: %u (type, command, k) cases in %u runs\n", cases, runs);
    RecordProperty("cases", int(cases));
}

}  // namespace
}  // namespace korvanel::test
