// The published mode lists, mode selection and the mode information record.
#include "camera_client.h"

#include "sensor/mode_tables.h"

#include <algorithm>
#include <climits>

namespace korvanel::test {
namespace {

// The "Raw" table as the camera driver knows it: width, height, frame rate.
const uint32_t kRaw[22][3] = {
    {640, 512, 30},   {1280, 512, 30},  {1312, 816, 30},   {1920, 1120, 30}, {4032, 3024, 30}, {4208, 3120, 30},
    {4096, 3072, 30}, {8064, 3024, 30}, {4032, 2272, 60},  {2016, 1136, 120}, {4224, 3136, 30}, {644, 364, 60},
    {1364, 768, 120}, {2036, 1404, 30}, {2112, 1568, 30},  {4076, 2806, 30}, {1296, 798, 30},  {1296, 798, 60},
    {4032, 1136, 30}, {3844, 2182, 30}, {2048, 1152, 60},  {4608, 3458, 30},
};
// Each table's rows as rows of "Raw": Still, Video, Preview, Raw.
const std::vector<int> kRows[4] = {
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 15, 16, 17, 18, 19, 20, 21},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 6, 19, 20, 21},
    {0, 1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 6, 19, 20, 21},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21},
};

using ModeTest = CameraTest;

TEST_F(ModeTest, PublishesEveryRowOfTheFourTablesAndThePdafSizes)
{
    open();
    const MODE_LIST* lists[4] = {};
    ASSERT_EQ(si.GetModeTables(ctx, &lists[0], &lists[1], &lists[2], &lists[3]), STATUS_SUCCESS);
    for (int t = 0; t < 4; t++) {
        ASSERT_EQ(lists[t]->Count, kRows[t].size()) << "table " << t;
        for (size_t i = 0; i < kRows[t].size(); i++) {
            const uint32_t* m = kRaw[kRows[t][i]];
            const uint32_t expected[8] = {m[0], m[1], 1000, 1000, m[2], 0, 0, 1};
            EXPECT_EQ(memcmp(static_cast<const MODE_ENTRY*>(lists[t]->Entries) + i, expected, 32), 0)
                << "table " << t << " entry " << i;
        }
    }
    const MODE_LIST* pdaf = nullptr;
    ASSERT_EQ(si.GetPdafTable(ctx, &pdaf), STATUS_SUCCESS);
    const uint32_t pdafRows[4][3] = {{128, 24, 30}, {4032, 756, 30}, {272, 832, 30}, {256, 384, 30}};
    ASSERT_EQ(pdaf->Count, 4u);
    EXPECT_EQ(pdaf->Entries, (const void*)PdafModes);
    EXPECT_EQ(memcmp(pdaf->Entries, pdafRows, sizeof pdafRows), 0);
}

// The record GetModeInfo writes for a W x H mode; bytes 38 and 39 keep `tail`.
std::vector<uint8_t> mode_info(uint16_t w, uint16_t h, uint8_t tail)
{
    std::vector<uint8_t> b(40, 0);
    put<uint32_t>(b, 0, 0x09FCD140);
    for (size_t at : {4, 20, 24, 30}) put<uint16_t>(b, at, w);
    for (size_t at : {6, 10, 22, 26, 32}) put<uint16_t>(b, at, h);
    put<uint16_t>(b, 12, 1);
    put<uint16_t>(b, 14, 4);
    b[28] = b[29] = 1;
    b[38] = b[39] = tail;
    return b;
}

TEST_F(ModeTest, SelectsTheCoveringModeWithTheSmallestSurplus)
{
    open();
    SENSOR_MODE_INFO info{};
    ULONG size = 100;
    ASSERT_EQ(si.GetModeInfo(ctx, &size, &info), STATUS_SUCCESS);  // device add: Preview row 0
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(bytes_of(info), mode_info(640, 512, 0));

    struct Case {
        int table, width, height, rate;
        NTSTATUS status;
        int row;
    } cases[] = {
        {2, 1920, 1080, 0, STATUS_SUCCESS, 3},    {2, 4000, 3000, 0, STATUS_SUCCESS, 4},
        {2, 1296, 798, 0, STATUS_SUCCESS, 15},    {2, 1296, 798, 60, STATUS_SUCCESS, 16},  // ties: earlier row
        {2, 1280, 720, 60, STATUS_SUCCESS, 16},   {2, 1280, 720, 120, STATUS_SUCCESS, 11},
        {2, 4096, 3072, 0, STATUS_SUCCESS, 18},   {1, 4096, 3072, 0, STATUS_SUCCESS, 6},
        {0, 4076, 2806, 0, STATUS_SUCCESS, 15},   {3, 8000, 3000, 0, STATUS_SUCCESS, 7},
        {3, 0, 0, 25, STATUS_UNSUCCESSFUL, 0},    {2, 9000, 100, 0, STATUS_UNSUCCESSFUL, 0},
        {3, -70000, 0, 0, STATUS_UNSUCCESSFUL, 0},  // every surplus 65535 or more
        {3, INT_MIN, -2147482639, 0, STATUS_SUCCESS, 0},  // 644 x 364 wraps to -1 and is skipped
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.table << ": " << c.width << " x " << c.height << " at " << c.rate);
        ASSERT_EQ(si.SelectMode(ctx, 3, 4600, 3400, 0), STATUS_SUCCESS);  // a selection to replace
        EXPECT_EQ(si.SelectMode(ctx, c.table, c.width, c.height, c.rate), c.status);
        EXPECT_EQ(ctx->ModeTableIndex, c.table);
        EXPECT_EQ(ctx->ModeIndex, c.row);
        memset(&info, 0xAB, sizeof info);
        size = 40;
        ASSERT_EQ(si.GetModeInfo(ctx, &size, &info), STATUS_SUCCESS);
        const uint32_t* m = kRaw[kRows[c.table][c.row]];
        EXPECT_EQ(bytes_of(info), mode_info(uint16_t(m[0]), uint16_t(m[1]), 0xAB));
    }
}

// Nothing is indexed or written past a table or the caller's record.
TEST_F(ModeTest, RefusesSelectionsAndBuffersThatDoNotFit)
{
    open();
    SENSOR_MODE_INFO info;
    memset(&info, 0xAB, sizeof info);
    const auto untouched = bytes_of(info);
    struct Case {
        int table, row;  // the selection stored before GetModeInfo
        ULONG size;
        NTSTATUS status;
    } cases[] = {
        {4, 0, 40, STATUS_INVALID_DEVICE_STATE},  {-1, 0, 40, STATUS_INVALID_DEVICE_STATE},
        {2, 22, 40, STATUS_INVALID_DEVICE_STATE}, {2, -1, 40, STATUS_INVALID_DEVICE_STATE},
        {2, 0, 39, STATUS_BUFFER_TOO_SMALL},      {2, 0, 0, STATUS_BUFFER_TOO_SMALL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.table << "/" << c.row << " size " << c.size);
        EXPECT_EQ(si.SelectMode(ctx, c.table, 0, 0, 0),
                  c.table >= 0 && c.table < 4 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ctx->ModeTableIndex, c.table);
        ctx->ModeIndex = c.row;
        ULONG size = c.size;
        EXPECT_EQ(si.GetModeInfo(ctx, &size, &info), c.status);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(bytes_of(info), untouched);
    }
}

// Tables longer than their lists, swapped in through ModeTables and put back.
class ModeCapacityTest : public ModeTest {
protected:
    const SENSOR_MODE* saved[MODE_TABLE_COUNT];
    void SetUp() override
    {
        ModeTest::SetUp();
        std::copy_n(ModeTables, MODE_TABLE_COUNT, saved);
    }
    void TearDown() override
    {
        std::copy_n(saved, MODE_TABLE_COUNT, ModeTables);
        EXPECT_EQ(BuildModeLists(ctx), STATUS_SUCCESS);
        ModeTest::TearDown();
    }
};

TEST_F(ModeCapacityTest, ATableLongerThanItsListStopsTheBuildThere)
{
    open();
    sys.traces().enable(TRACE_ERROR);
    struct Case {
        int table;
        size_t used, rows;
        NTSTATUS status;
        uint32_t counts[4];  // lists cleared before the build
    } cases[] = {
        {0, 26, 27, STATUS_UNSUCCESSFUL, {0, 0, 0, 0}},   {2, 26, 27, STATUS_UNSUCCESSFUL, {23, 23, 0, 0}},
        {3, 50, 51, STATUS_SUCCESS, {23, 23, 22, 50}},    {3, 60, 60, STATUS_UNSUCCESSFUL, {23, 23, 22, 0}},  // no end row
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "table " << c.table << " with " << c.used << " rows");
        std::vector<SENSOR_MODE> rows(c.rows);
        for (size_t i = 0; i < c.used; i++) {
            rows[i].Width = LONG(100 + i);
            rows[i].SettingList = &EmptySettingList;
        }
        std::copy_n(saved, MODE_TABLE_COUNT, ModeTables);
        ModeTables[c.table] = rows.data();
        memset(ModeLists, 0, sizeof(MODE_LIST) * MODE_TABLE_COUNT);
        sys.traces().clear();

        EXPECT_EQ(BuildModeLists(ctx), c.status);
        for (int t = 0; t < 4; t++) {
            EXPECT_EQ(ModeLists[t].Count, c.counts[t]) << "list " << t;
        }
        auto errors = sys.traces().find("%s mode table has %u rows, more than its list holds");
        ASSERT_EQ(errors.size(), c.status == STATUS_SUCCESS ? 0u : 1u);
        if (!errors.empty()) {
            const char* names[] = {"Still", "Video", "Preview", "Raw"};
            EXPECT_EQ(bench::Traces::text(errors[0], 1), names[c.table]);
            EXPECT_EQ(bench::Traces::u32(errors[0], 2), std::min<size_t>(c.used, 51));
        }
    }
}

}  // namespace
}  // namespace korvanel::test
