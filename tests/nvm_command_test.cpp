// The memory commands end to end on the models: the exact bytes on the wire
// and the waits after each engine call, how writes are cut at pages and
// blocks, the texts, what the part stores and what reads back, and the
// answers to bad input.
#include "nvm_fixture.h"

#include <climits>

namespace korvanel::test {
namespace {

// "w50 00 3C " followed by data[from, from + n).
std::string w(const char* head, const std::vector<uint8_t>& data, size_t from, size_t n)
{
    return std::string(head) + " " + hex_bytes(data.data() + from, n);
}

class NvmCommandTest : public NvmTest {
protected:
    int64_t started = 0;

    void begin()
    {
        forget();
        started = sys.clock().now();
    }
    // The clock moved by the transfers' wire time and the recorded waits,
    // nothing else.
    void expect_time_accounted()
    {
        int64_t expected = 0;
        for (auto& t : sys.bus().transcript()) {
            expected += t.duration;
        }
        for (auto& d : sys.clock().delays()) {
            expected += d.kind == bench::Clock::Delay::Kind::Stall ? d.amount * 10 : -d.amount;
        }
        EXPECT_EQ(sys.clock().now() - started, expected);
    }
    void expect_clean_exit()
    {
        EXPECT_TRUE(lock_free());
        EXPECT_TRUE(slots_closed());
    }
};

// Each write cut at its pages, and read back as one address and one data
// phase, each phase with its time-out.
TEST_F(NvmCommandTest, LinearWritesAreCutAtPageBoundariesAndReadBackWhole)
{
    auto d = pattern(130);
    const struct {
        unsigned type;
        USHORT address;
        LONG length;
        std::vector<std::string> wire;
    } cases[] = {
        {5, 60, 10, {w("w50 00 3C", d, 0, 4), "sleep 20", w("w50 00 40", d, 4, 6), "sleep 20"}},
        {5, 0, 130,
         {w("w50 00 00", d, 0, 64), "sleep 20", w("w50 00 40", d, 64, 64), "sleep 20", w("w50 00 80", d, 128, 2),
          "sleep 20"}},
        {5, 64, 64, {w("w50 00 40", d, 0, 64), "sleep 20"}},
        {7, 6, 20,
         {w("w50 00 06", d, 0, 2), "sleep 20", w("w50 00 08", d, 2, 8), "sleep 20", w("w50 00 10", d, 10, 8),
          "sleep 20", w("w50 00 18", d, 18, 2), "sleep 20"}},
        {10, 30, 5, {w("w50 00 1E", d, 0, 2), "spin 5", w("w50 00 20", d, 2, 3), "spin 5"}},
        {10, 0, 5, {w("w50 00 00", d, 0, 5), "spin 5"}},
        {10, 0x1FC0, 64, {w("w50 1F C0", d, 0, 32), "spin 5", w("w50 1F E0", d, 32, 32), "spin 5"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << ", " << c.length << " at " << c.address);
        select(c.type);
        begin();
        EXPECT_EQ(row->Write(ctx, c.address, d.data(), c.length), STATUS_SUCCESS);
        EXPECT_EQ(timeline(), c.wire);
        for (auto& t : sys.bus().transcript()) {
            EXPECT_EQ(t.timeout, -500000) << "50 ms for every write";
        }
        expect_time_accounted();
        expect_clean_exit();

        std::vector<uint8_t> written(d.begin(), d.begin() + c.length);
        EXPECT_EQ(part->bytes(c.address, size_t(c.length)), written);
        std::vector<uint8_t> back(size_t(c.length));
        sys.clock().advance_ms(5);
        begin();
        EXPECT_EQ(row->Read(ctx, c.address, back.data(), c.length), STATUS_SUCCESS);
        EXPECT_EQ(back, written);
        EXPECT_EQ(timeline(), (std::vector<std::string>{c.wire[0].substr(0, 9), "r50 " + std::to_string(c.length)}));
        for (auto& t : sys.bus().transcript()) {
            EXPECT_EQ(t.timeout, -80000000) << "8 s for both phases of a read";
        }
        expect_time_accounted();
    }
}

TEST_F(NvmCommandTest, LinearBadInputEndsWithItsStatusLockFreeAndDataInTheCache)
{
    auto d = pattern(8);
    static UCHAR b[16];  // what a read is given
    const struct {
        const char* what;
        unsigned type;
        std::function<void(PDEVICE_CONTEXT)> setup;
        std::function<NTSTATUS(PDEVICE_CONTEXT, const UCHAR*)> call;
        NTSTATUS status;
        bool locked;  // BusLock was taken (and released)
        bool cached;  // the data reached the cache
    } cases[] = {
        {"page size 0", 5, [](auto c) { c->NvmPageSize = 0; }, [](auto c, auto p) { return CmdWrite(c, 4, p, 8); },
         STATUS_UNSUCCESSFUL, true, true},
        {"read one past the end", 7, nullptr, [](auto c, auto) { return CmdRead(c, 120, b, 9); },
         STATUS_INVALID_PARAMETER, true, false},
        {"write nothing", 5, nullptr, [](auto c, auto p) { return CmdWrite(c, 4, p, 0); }, STATUS_INVALID_PARAMETER,
         true, false},
        {"no connection", 10, [](auto c) { c->I2cConnections[2].Present = 0; },
         [](auto c, auto p) { return Cmd_M24c64Write(c, 4, p, 8); }, STATUS_NOT_SUPPORTED, true, true},
        {"M24c64 read past the end, before the lock", 10, nullptr,
         [](auto c, auto) { return Cmd_M24c64Read(c, 8190, b, 3); }, STATUS_INVALID_PARAMETER, false, false},
        {"null data", 5, nullptr, [](auto c, auto) { return CmdWrite(c, 0, nullptr, 8); }, STATUS_INVALID_PARAMETER,
         false, false},
        {"null M24c64 buffer", 10, nullptr, [](auto c, auto) { return Cmd_M24c64Read(c, 0, nullptr, 8); },
         STATUS_INVALID_PARAMETER, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        select(c.type);
        if (c.setup) {
            c.setup(ctx);
        }
        std::memset(ctx->NvmCache, 0, sizeof ctx->NvmCache);
        unsigned waits = sys.faults().calls("KeWaitForSingleObject");
        begin();
        EXPECT_EQ(c.call(ctx, d.data()), c.status);
        expect_clean_exit();
        EXPECT_TRUE(sys.bus().transcript().empty());
        EXPECT_EQ(sys.faults().calls("KeWaitForSingleObject") - waits, c.locked ? 1u : 0u);
        EXPECT_EQ(std::vector<uint8_t>(ctx->NvmCache + 4, ctx->NvmCache + 12), c.cached ? d : std::vector<uint8_t>(8));
    }
}

// The geometry CmdRead and CmdWrite take from the device: a write page of 1
// to 64 bytes and a memory larger than 64 bytes, each bound and one past;
// then a read of the last byte NvmSize allows and one past it.
TEST_F(NvmCommandTest, TheGeometryCheckAtBothBounds)
{
    const struct {
        LONG page, size;
        USHORT address;
        NTSTATUS status;
    } cases[] = {
        {0, 0x4000, 0, STATUS_UNSUCCESSFUL},   {1, 0x4000, 0, STATUS_SUCCESS},    {64, 0x4000, 0, STATUS_SUCCESS},
        {65, 0x4000, 0, STATUS_UNSUCCESSFUL},  {64, 64, 0, STATUS_UNSUCCESSFUL},  {64, 65, 0, STATUS_SUCCESS},
        {64, 65, 64, STATUS_SUCCESS},         {64, 65, 65, STATUS_INVALID_PARAMETER},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "page " << c.page << ", size " << c.size << ", at " << c.address);
        select(5);
        ctx->NvmPageSize = c.page;
        ctx->NvmSize = c.size;
        UCHAR b = 0;
        begin();
        EXPECT_EQ(CmdRead(ctx, c.address, &b, 1), c.status);
        EXPECT_EQ(sys.bus().transcript().size(), c.status == STATUS_SUCCESS ? 2u : 0u);
        expect_clean_exit();
    }
}

TEST_F(NvmCommandTest, AFailedWaitEndsTheM24c64CommandsButNotCmdReadAndCmdWrite)
{
    auto d = pattern(4);
    select(10);
    sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL, 0, 2);
    UCHAR buffer[4];
    // Through the table row, so that the row must name the M24c64 commands.
    EXPECT_EQ(row->Read(ctx, 0, buffer, 4), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(row->Write(ctx, 0, d.data(), 4), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(sys.bus().transcript().empty());
    EXPECT_EQ(ctx->NvmCache[0], 0) << "no cache copy without the lock";

    select(5);
    sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL);
    EXPECT_EQ(row->Write(ctx, 0, d.data(), 4), STATUS_SUCCESS);
    EXPECT_EQ(part->bytes(0, 4), d);
    expect_clean_exit();
}

TEST_F(NvmCommandTest, BlockWritesArePlannedPerBlockAndChunkedFromThePiecesStart)
{
    auto d = pattern(512);
    select(6);
    begin();
    EXPECT_EQ(Cmd_Brca016Write(ctx, 250, d.data(), 20), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (std::vector<std::string>{w("w50 FA", d, 0, 6), "spin 5", w("w51 00", d, 6, 14), "spin 5"}));
    expect_time_accounted();

    // A range ending on a block boundary takes the whole last block.
    select(12);
    begin();
    EXPECT_EQ(Cmd_Cat24c16Write(ctx, 0, d.data(), 512), STATUS_SUCCESS);
    auto wire = timeline();
    ASSERT_EQ(wire.size(), 64u);
    EXPECT_EQ(wire[30], w("w50 F0", d, 240, 16));
    EXPECT_EQ(wire[62], w("w51 F0", d, 496, 16));
    EXPECT_EQ(part->bytes(0, 512), d);
    expect_clean_exit();
}

TEST_F(NvmCommandTest, TheDW9806BMemoryIsErasedBeforeEveryWriteAndReadPageByPage)
{
    auto d = pattern(2048);
    select(11);
    part->set_contents(0, pattern(8192, 0x33));
    begin();
    EXPECT_EQ(Cmd_DW9806BWrite(ctx, 0x1FFF, d.data(), 1), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (std::vector<std::string>{"w50 81 EE", "sleep 50", w("w50 1F FF", d, 0, 1), "spin 5"}));
    expect_time_accounted();
    // The erase took everything the write did not put back.
    auto expected = std::vector<uint8_t>(8192, 0xFF);
    expected[0x1FFF] = d[0];
    EXPECT_EQ(part->contents(), expected);

    part->set_contents(0, pattern(8192));
    std::vector<uint8_t> buffer(2048);
    begin();
    EXPECT_EQ(Cmd_DW9806BRead(ctx, 1000, buffer.data(), 2048), STATUS_SUCCESS);
    EXPECT_EQ(timeline(),
              (std::vector<std::string>{"w50 03 E8", "r50 24", "w50 04 00", "r50 1024", "w50 08 00", "r50 1000"}));
    EXPECT_EQ(buffer, part->bytes(1000, 2048));
    expect_clean_exit();
}

// The block commands write chunks from the caller's offset (16 bytes for
// the 256-byte families, 32 for type 11); a part stores each chunk within
// its physical write page (16 bytes, and 32 for type 11), so a chunk that
// does not start on a page boundary wraps inside its page. 40 bytes d0..d39
// at 5 land as below; cells 32..36 keep their erased state. The cache keeps
// the data as written.
TEST_F(NvmCommandTest, UnalignedChunksWrapInsideThePartsWritePage)
{
    struct Run {
        size_t cell, from, count;  // d[from, from + count) at cell
    };
    const struct {
        unsigned type;
        std::vector<Run> stored;
    } cases[] = {
        {6, {{0, 11, 5}, {5, 0, 11}, {16, 27, 5}, {21, 16, 11}, {37, 32, 8}}},
        {11, {{0, 27, 5}, {5, 0, 27}, {37, 32, 8}}},
    };
    auto d = pattern(40);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        select(c.type);
        ASSERT_EQ(row->Write(ctx, 5, d.data(), 40), STATUS_SUCCESS);
        std::vector<uint8_t> stored(48, 0xFF);
        for (const auto& r : c.stored) {
            std::copy_n(d.begin() + ptrdiff_t(r.from), r.count, stored.begin() + ptrdiff_t(r.cell));
        }
        EXPECT_EQ(part->bytes(0, 48), stored);

        sys.clock().advance_ms(5);
        std::vector<uint8_t> back(40);
        ASSERT_EQ(row->Read(ctx, 5, back.data(), 40), STATUS_SUCCESS);
        EXPECT_EQ(back, std::vector<uint8_t>(stored.begin() + 5, stored.begin() + 45));
        EXPECT_EQ(std::vector<uint8_t>(ctx->NvmCache + 5, ctx->NvmCache + 45), d);
    }
}

TEST_F(NvmCommandTest, BlockBadInputEndsWithItsStatusLockFreeAndSlotsClosed)
{
    auto d = pattern(1024);
    select(9);
    EXPECT_EQ(Cmd_Cat24cWrite(ctx, 0, nullptr, 5), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Cmd_Cat24cRead(ctx, 0, nullptr, 5), STATUS_INVALID_PARAMETER);
    select(6);
    EXPECT_EQ(Cmd_Brca016Read(ctx, 0, nullptr, 5), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(std::vector<uint8_t>(ctx->NvmCache + 0, ctx->NvmCache + 5), std::vector<uint8_t>(5, 0))
        << "a null write copies nothing";
    EXPECT_TRUE(sys.bus().transcript().empty());
    expect_clean_exit();

    // Block 3's connection cannot be opened: blocks 0 to 2 are written,
    // nothing after.
    select(12);
    forget();
    sys.faults().fail("WdfIoTargetOpen", STATUS_ACCESS_DENIED, 3);
    EXPECT_EQ(Cmd_Cat24c16Write(ctx, 0, d.data(), 1024), STATUS_ACCESS_DENIED);
    auto transfers = sys.bus().transcript();
    EXPECT_EQ(transfers.size(), 48u);
    EXPECT_EQ(transfers.back().connection, kNvmConnection + 2);
    EXPECT_EQ(part->bytes(0, 768), std::vector<uint8_t>(d.begin(), d.begin() + 768));
    EXPECT_EQ(std::vector<uint8_t>(ctx->NvmCache, ctx->NvmCache + NVM_CACHE_SIZE),
              std::vector<uint8_t>(d.begin(), d.begin() + NVM_CACHE_SIZE));
    expect_clean_exit();
}

// ---- One contract over every row of the type table ----
//
// What each type is, as the memory's description gives it: its size, where
// its writes are cut (the write page of the 16-bit parts, the block or page
// of the others) and how many connections its blocks answer on. Each run
// below comes out differently if a row's size, page or routines differ
// from this.
struct TypeFacts {
    unsigned type;
    size_t size;
    size_t cut;     // write page, block or page
    size_t blocks;  // blocks on consecutive connections; 0: one connection
    bool paged;     // type 11: erased before every write
};

void PrintTo(const TypeFacts& f, std::ostream* os) { *os << "type " << f.type; }

class NvmTypeContract : public NvmTest, public ::testing::WithParamInterface<TypeFacts> {
protected:
    void SetUp() override
    {
        NvmTest::SetUp();
        select(GetParam().type, 100);
        forget();
    }
    // The address bytes the part gets for `address`, on its connection.
    std::string at(size_t address) const
    {
        const TypeFacts& f = GetParam();
        char text[32];
        if (f.blocks != 0) {
            snprintf(text, sizeof text, "w%02x %02X", unsigned(0x50 + address / 256), unsigned(address & 0xFF));
        } else {
            snprintf(text, sizeof text, "w50 %02X %02X", unsigned(address >> 8), unsigned(address & 0xFF));
        }
        return text;
    }
    std::vector<std::string> writes()
    {
        std::vector<std::string> out;
        for (auto& line : timeline()) {
            if (line[0] == 'w') {
                out.push_back(line);
            }
        }
        return out;
    }
};

TEST_P(NvmTypeContract, EveryAddressUpToTheLastIsReachedAndNoneBeyond)
{
    const TypeFacts& f = GetParam();
    auto memory = pattern(f.size, 0x21);
    part->set_contents(0, memory);
    std::vector<uint8_t> buffer(f.size + 1);
    std::vector<uint8_t> data(std::max<size_t>(f.size + 1, NVM_CACHE_SIZE), 0x77);

    // The last byte of every block, on the block's own connection.
    size_t block = f.blocks != 0 ? 256 : f.paged ? 1024 : f.size;
    for (size_t last = block - 1; last < f.size; last += block) {
        SCOPED_TRACE(last);
        forget();
        ASSERT_EQ(row->Read(ctx, USHORT(last), buffer.data(), 1), STATUS_SUCCESS);
        EXPECT_EQ(buffer[0], memory[last]);
        EXPECT_EQ(writes(), std::vector<std::string>{at(last)});
    }
    EXPECT_EQ(row->Read(ctx, 0, buffer.data(), LONG(f.size)), STATUS_SUCCESS);
    EXPECT_TRUE(std::equal(memory.begin(), memory.end(), buffer.begin()));

    // One byte past the end, however the sum is formed: no transfer.
    const struct {
        size_t address;
        LONG length;
    } beyond[] = {{f.size - 1, 2}, {f.size, 1}, {0, LONG(f.size + 1)}, {0xFFFF, 2}, {1, INT_MAX}};
    for (const auto& b : beyond) {
        SCOPED_TRACE(testing::Message() << b.length << " at " << b.address);
        forget();
        EXPECT_EQ(row->Read(ctx, USHORT(b.address), buffer.data(), b.length), STATUS_INVALID_PARAMETER);
        // A refused write still copies into the cache what fits there, so
        // the caller's data covers the cache whatever the length claims.
        EXPECT_EQ(row->Write(ctx, USHORT(b.address), data.data(), b.length), STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(sys.bus().transcript().empty());
        EXPECT_TRUE(lock_free());
    }
    UCHAR last = 0x5A;
    EXPECT_EQ(row->Write(ctx, USHORT(f.size - 1), &last, 1), STATUS_SUCCESS);
    EXPECT_EQ(part->bytes(f.size - 1, 1), std::vector<uint8_t>{last});
}

TEST_P(NvmTypeContract, AWriteAcrossTheFirstAndSecondCutsIsSplitThere)
{
    // Across the first cut a page size twice too large would not split;
    // across the second the write moves on to the next block's connection.
    const TypeFacts& f = GetParam();
    for (size_t address : {f.cut - 2, 2 * f.cut - 2}) {
        SCOPED_TRACE(address);
        forget();
        auto d = pattern(4, uint8_t(address));
        ASSERT_EQ(row->Write(ctx, USHORT(address), d.data(), 4), STATUS_SUCCESS);
        std::vector<std::string> expected;
        if (f.paged) {
            expected.push_back("w50 81 EE");
        }
        expected.push_back(at(address) + " " + hex_bytes(d.data(), 2));
        expected.push_back(at(address + 2) + " " + hex_bytes(d.data() + 2, 2));
        EXPECT_EQ(writes(), expected);
        EXPECT_EQ(part->bytes(address, 4), d);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryMemoryType, NvmTypeContract,
                         ::testing::Values(TypeFacts{5, 16384, 64, 0, false}, TypeFacts{6, 2048, 256, 8, false},
                                           TypeFacts{7, 128, 8, 0, false}, TypeFacts{8, 4096, 32, 0, false},
                                           TypeFacts{9, 1024, 256, 4, false}, TypeFacts{10, 8192, 32, 0, false},
                                           TypeFacts{11, 8192, 1024, 0, true}, TypeFacts{12, 2048, 256, 8, false}),
                         [](const auto& info) { return "type" + std::to_string(info.param.type); });

// Types 0 to 4 have no memory: 0 to 2 no operations but the load, 3 and 4
// stubs that accept a call with a context and a buffer and move nothing
// (the length each stub load asks for is in the trace contract).
TEST_F(NvmCommandTest, TypesWithoutAMemory)
{
    UCHAR byte = 0x11;
    for (unsigned type = 0; type < 5; type++) {
        SCOPED_TRACE(type);
        select(type, 100);
        ctx->NvmLoaded = 0;
        bool stub = type >= 3;
        ASSERT_EQ(row->Read == nullptr, !stub);
        ASSERT_EQ(row->Write == nullptr, !stub);
        begin();
        if (stub) {
            EXPECT_EQ(row->Read(ctx, 7, &byte, 1), STATUS_SUCCESS);
            EXPECT_EQ(row->Write(ctx, 7, &byte, 1), STATUS_SUCCESS);
            EXPECT_EQ(row->Read(ctx, 7, nullptr, 1), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(row->Write(ctx, 7, nullptr, 1), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(row->Read(nullptr, 7, &byte, 1), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(row->Write(nullptr, 7, &byte, 1), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(byte, 0x11);
        }
        std::vector<uint8_t> buffer(100, 0xEE);
        ULONG size = 100;
        EXPECT_EQ(row->Load(ctx, &size, buffer.data()), STATUS_SUCCESS);
        EXPECT_EQ(ctx->NvmLoaded, stub);
        EXPECT_EQ(buffer, std::vector<uint8_t>(100, 0xEE));
        EXPECT_TRUE(sys.bus().transcript().empty());
    }
}

}  // namespace
}  // namespace korvanel::test
