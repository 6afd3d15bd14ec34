// The memory models as parts: one contract every model keeps (erased start,
// address pointer, sequential read with roll-over, page writes wrapping in
// the physical page, no acknowledge during the write cycle, contents files),
// then what only the DW9806B memory does (erase commands, flash cells).
#include <gtest/gtest.h>

#include "platform/memory.h"
#include "models/eeprom.h"

#include <cstdio>
#include <fstream>

namespace korvanel::test {
namespace {

using models::Eeprom;

// Each transfer takes kWire on the wire, from `now`; the part needs no bus
// to be driven, only the times a bus would give it.
constexpr int64_t kWire = 1000;

class EepromContract : public ::testing::TestWithParam<unsigned> {
protected:
    int64_t now = 0;
    models::Transfer when() const { return {now, now + kWire}; }
    std::shared_ptr<Eeprom> part = std::make_shared<Eeprom>(platform::memory_geometry(GetParam())->part);
    std::vector<std::shared_ptr<models::Peripheral>> conns = part->connections();

    // The address bytes that put the pointer on `address`, and the
    // connection that takes them.
    std::vector<uint8_t> at(size_t address, models::Peripheral** conn)
    {
        if (part->geometry().kind == Eeprom::Kind::Blocks) {
            *conn = conns.at(address / Eeprom::kBlockSize).get();
            return {uint8_t(address)};
        }
        *conn = conns.at(0).get();
        return {uint8_t(address >> 8), uint8_t(address)};
    }
    NTSTATUS write(size_t address, std::vector<uint8_t> data)
    {
        models::Peripheral* conn;
        auto bytes = at(address, &conn);
        bytes.insert(bytes.end(), data.begin(), data.end());
        return conn->write(when(), bytes);
    }
    std::vector<uint8_t> read(size_t address, size_t n)
    {
        models::Peripheral* conn;
        auto bytes = at(address, &conn);
        EXPECT_EQ(conn->write(when(), bytes), STATUS_SUCCESS);
        std::vector<uint8_t> out(n);
        EXPECT_EQ(conns.back()->read(when(), out), STATUS_SUCCESS);  // a bare read goes on from the pointer
        return out;
    }
};

TEST_P(EepromContract, SequentialReadRollsOverAtTheEndOfTheArray)
{
    part->set_contents(0, {0xA0, 0xA1});
    part->set_contents(part->size() - 2, {0xB0, 0xB1});
    EXPECT_EQ(read(part->size() - 2, 4), (std::vector<uint8_t>{0xB0, 0xB1, 0xA0, 0xA1}));
    EXPECT_EQ(part->pointer(), 2u);
}

TEST_P(EepromContract, APageWriteWrapsWithinItsPhysicalPage)
{
    EXPECT_EQ(part->contents(), std::vector<uint8_t>(part->size(), 0xFF)) << "a part starts erased";
    size_t page = part->geometry().write_page;
    size_t base = part->size() - page;  // the last page
    std::vector<uint8_t> data(page + 2);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = uint8_t(i + 1);
    }
    ASSERT_EQ(write(base + 1, data), STATUS_SUCCESS);
    // Byte page-1 lands on the page's first cell, the last two overwrite
    // cells 1 and 2; the next page (the array's start) is untouched.
    EXPECT_EQ(part->bytes(base, 4), (std::vector<uint8_t>{uint8_t(page), uint8_t(page + 1), uint8_t(page + 2), 3}));
    EXPECT_EQ(part->bytes(0, 1), std::vector<uint8_t>{0xFF});
}

TEST_P(EepromContract, DoesNotAcknowledgeForFiveMillisecondsAfterTheStopCondition)
{
    now = 123456;
    std::vector<uint8_t> data = {1, 2, 3, 4};
    ASSERT_EQ(write(64, data), STATUS_SUCCESS);
    int64_t ready = now + kWire + Eeprom::kWriteCycle;

    now = ready - 1;
    std::vector<uint8_t> one(1);
    EXPECT_EQ(conns[0]->read(when(), one), models::kNack);
    EXPECT_EQ(write(0, {9}), models::kNack);
    EXPECT_TRUE(part->busy(now));
    EXPECT_EQ(part->bytes(0, 1), std::vector<uint8_t>{0xFF}) << "a refused write stored data";

    now = ready;
    EXPECT_FALSE(part->busy(now));
    EXPECT_EQ(read(64, 4), data);
    EXPECT_EQ(part->write_cycles(), 1u) << "address phases start no write cycle";
}

TEST_P(EepromContract, ContentsLoadFromAndSaveToAFile)
{
    std::string path = ::testing::TempDir() + "eeprom_contract_" + std::to_string(GetParam()) + ".bin";
    part->set_contents(3, {0xC3, 0xC4});
    ASSERT_FALSE(part->save_file(path));
    auto copy = std::make_shared<Eeprom>(platform::memory_geometry(GetParam())->part);
    ASSERT_FALSE(copy->load_file(path));
    EXPECT_EQ(copy->contents(), part->contents());

    std::ofstream(path, std::ios::binary | std::ios::trunc) << std::string(part->size() + 1, 'x');
    EXPECT_TRUE(copy->load_file(path).has_value()) << "a file larger than the memory";
    EXPECT_TRUE(copy->load_file(path + ".missing").has_value());
    EXPECT_EQ(copy->contents(), part->contents()) << "a refused file changed the contents";
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(EveryMemoryType, EepromContract, ::testing::Values(5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u),
                         [](const auto& info) { return "type" + std::to_string(info.param); });

TEST(EepromPaged, ErasesByCommandAndProgramsOnlyOnesToZeros)
{
    int64_t now = 0;
    auto part = std::make_shared<Eeprom>(platform::memory_geometry(11)->part);
    auto conn = part->connections().at(0);
    auto settle = [&] { now += 10 * 10000 + kWire; };
    auto write = [&](std::vector<uint8_t> bytes) { return conn->write({now, now + kWire}, bytes); };
    // Cells around every page boundary, as page p's first and last cell.
    auto edges = [&] {
        std::vector<uint8_t> out;
        for (size_t p = 0; p < 8; p++) {
            out.push_back(part->bytes(p * 1024, 1)[0]);
            out.push_back(part->bytes(p * 1024 + 1023, 1)[0]);
        }
        return out;
    };
    part->set_contents(0, std::vector<uint8_t>(8192, 0x00));

    // The page erase is 0x82 OR page, then 0xEE: 0x83 erases page 3 and
    // 0x86 page 6, each whole and nothing else.
    ASSERT_EQ(write({0x83, 0xEE}), STATUS_SUCCESS);
    EXPECT_TRUE(part->busy(now));
    settle();
    ASSERT_EQ(write({0x86, 0xEE}), STATUS_SUCCESS);
    settle();
    EXPECT_EQ(edges(), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0}));
    EXPECT_EQ(part->bytes(3072, 1024), std::vector<uint8_t>(1024, 0xFF));

    // Programming clears bits and never sets them.
    ASSERT_EQ(write({0x0C, 0x00, 0xF0, 0x0F}), STATUS_SUCCESS);
    settle();
    ASSERT_EQ(write({0x0C, 0x00, 0x3C, 0xFF}), STATUS_SUCCESS);
    settle();
    EXPECT_EQ(part->bytes(3072, 2), (std::vector<uint8_t>{0x30, 0x0F}));

    // The macro erase, 0x81 OR page 0, takes every page.
    ASSERT_EQ(write({0x81, 0xEE}), STATUS_SUCCESS);
    settle();
    EXPECT_EQ(part->contents(), std::vector<uint8_t>(8192, 0xFF));

    // Without its confirmation, or with bits no command has, the part does
    // not acknowledge.
    EXPECT_EQ(write({0x81, 0x00}), models::kNack);
    EXPECT_EQ(write({0x84, 0xEE}), models::kNack);
    EXPECT_EQ(write({0x8A, 0xEE}), models::kNack);
}

}  // namespace
}  // namespace korvanel::test
