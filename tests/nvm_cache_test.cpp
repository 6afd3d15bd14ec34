// The memory type table and the 750-byte cache: one read of the memory,
// served from the cache afterwards; the size answer, unavailable memories,
// types without a read, and the cache copy of every write.
#include "nvm_fixture.h"

#include <climits>
#include <cstring>

namespace korvanel::test {
namespace {

class NvmCacheTest : public NvmTest {
protected:
    std::vector<uint8_t> buffer = std::vector<uint8_t>(NVM_CACHE_SIZE, 0xEE);
    NTSTATUS load(ULONG capacity, ULONG* size_out = nullptr)
    {
        ULONG size = capacity;
        NTSTATUS status = NvmLoad(ctx, &size, buffer.data());
        if (size_out) {
            *size_out = size;
        }
        return status;
    }
};

TEST_F(NvmCacheTest, ReadsOnceAndHandsTheBytesOutFromTheSecondCallOn)
{
    select(8, 700);
    auto memory = pattern(4096);
    part->set_contents(0, memory);
    const std::vector<uint8_t> untouched(NVM_CACHE_SIZE, 0xEE);

    ULONG size = 0;
    EXPECT_EQ(load(699, &size), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(size, 700u);
    EXPECT_TRUE(sys.bus().transcript().empty());

    EXPECT_EQ(load(NVM_CACHE_SIZE, &size), STATUS_SUCCESS);
    EXPECT_EQ(size, 700u) << "the capacity is cut to the cache length";
    EXPECT_EQ(buffer, untouched) << "the filling load hands nothing out";
    EXPECT_EQ(ctx->NvmLoaded, 1);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 00 00", "r50 700"}));

    part->set_contents(0, {0x00});  // the memory is not read again
    EXPECT_EQ(load(700, &size), STATUS_SUCCESS);
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 700, memory.begin()));
    EXPECT_EQ(buffer[700], 0xEE);
    EXPECT_EQ(sys.bus().transcript().size(), 2u);
    EXPECT_EQ(load(699, &size), STATUS_BUFFER_OVERFLOW) << "also when loaded";
}

TEST_F(NvmCacheTest, LoadsNothingWithoutAMemoryOrARead)
{
    const struct {
        const char* what;
        unsigned type;
        ULONG available;
        UCHAR enabled;
        bool loaded;  // afterwards
    } cases[] = {{"not available", 5, 0, 1, false}, {"not enabled", 5, 1, 0, false}, {"type 2", 2, 1, 1, false},
                 {"past the table", 13, 1, 1, false}, {"type 3 stub", 3, 1, 1, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        select(c.type, 600);
        ctx->NvmAvailable = c.available;
        ctx->NvmEnabled = c.enabled;
        ctx->NvmLoaded = 0;
        std::memset(ctx->NvmCache, 0x5A, sizeof ctx->NvmCache);
        sys.traces().clear();

        ULONG size = 0;
        EXPECT_EQ(load(NVM_CACHE_SIZE, &size), STATUS_SUCCESS);
        EXPECT_EQ(size, 600u);
        EXPECT_EQ(ctx->NvmLoaded, c.loaded);
        EXPECT_EQ(buffer, std::vector<uint8_t>(NVM_CACHE_SIZE, 0xEE));
        EXPECT_EQ(std::vector<uint8_t>(ctx->NvmCache, ctx->NvmCache + NVM_CACHE_SIZE),
                  std::vector<uint8_t>(NVM_CACHE_SIZE, 0x5A));
        auto unavailable = sys.traces().find("NvmLoad: memory not available, type %u, cache length %u");
        EXPECT_EQ(unavailable.size(), c.available && c.enabled ? 0u : 1u);
    }
    EXPECT_TRUE(sys.bus().transcript().empty());
}

TEST_F(NvmCacheTest, ACacheLengthPastTheCacheIsTakenAs750)
{
    select(5, 5000);
    part->set_contents(0, pattern(1000));
    ULONG size = 0;
    EXPECT_EQ(load(NVM_CACHE_SIZE, &size), STATUS_SUCCESS);
    EXPECT_EQ(size, NVM_CACHE_SIZE);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 00 00", "r50 750"}));
    EXPECT_EQ(load(NVM_CACHE_SIZE), STATUS_SUCCESS);
    EXPECT_EQ(buffer, pattern(NVM_CACHE_SIZE));
}

TEST_F(NvmCacheTest, CacheWriteKeepsToTheCache)
{
    const struct {
        USHORT address;
        LONG length;
        int first, last;  // cache positions changed, or none
    } cases[] = {{740, 20, 740, 749}, {750, 5, -1, -1}, {0, 0, -1, -1}, {0, -5, -1, -1}, {10, INT_MAX, 10, 749}};
    auto data = pattern(NVM_CACHE_SIZE);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        std::memset(ctx->NvmCache, 0, sizeof ctx->NvmCache);
        NvmCacheWrite(ctx, c.address, data.data(), c.length);
        for (int i = 0; i < NVM_CACHE_SIZE; i++) {
            uint8_t expected = i >= c.first && i <= c.last && c.first >= 0 ? data[i - c.first] : 0;
            ASSERT_EQ(ctx->NvmCache[i], expected) << i;
        }
    }
    EXPECT_EQ(ctx->NvmLoaded, 0);
}

}  // namespace
}  // namespace korvanel::test
