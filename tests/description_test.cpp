// What the camera driver learns about the sensor: capabilities, parameters,
// PDAF information and the module identity, compared byte for byte.
#include "camera_client.h"

#include "sensor/description.h"

#include <functional>

namespace korvanel::test {
namespace {

const std::vector<uint8_t> kCaps = {0x82, 0, 0, 0, 0, 0, 0, 0, 0x69, 0x0C, 0, 0, 3, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};

std::vector<uint8_t> caps_with_mode4()
{
    auto b = kCaps;
    b[8] = 0x61;  // bits 3 and 4 cleared, bit 5 kept
    return b;
}

using DescriptionTest = CameraTest;

TEST_F(DescriptionTest, CapabilitiesKeepTheRgbIrModeOnceEitherSideHasIt)
{
    struct Case {
        const char16_t* id;
        ULONG caller_mode_flags;  // the caller's record arrives with this word 8
        std::vector<uint8_t> answer, then;  // then: the answer to a zeroed record afterwards
    } cases[] = {
        {u"root\\KORVANEL", 0, kCaps, kCaps},
        {u"root\\KORVANEL", 5 << 3, kCaps, kCaps},
        {u"root\\KORVANEL", 4 << 3, caps_with_mode4(), caps_with_mode4()},
        {u"root\\KORVANEL\\rgbir", 0, caps_with_mode4(), caps_with_mode4()},
        {u"root\\KORVANEL\\rgbir", 5 << 3, caps_with_mode4(), caps_with_mode4()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(bench::to_utf8(c.id));
        open({c.id});
        SENSOR_CAPS caps = {0xFFFFFFFF, 0xFFFFFFFF, c.caller_mode_flags, 0, 0};
        ASSERT_EQ(si.GetSensorCaps(ctx, &caps), STATUS_SUCCESS);
        EXPECT_EQ(bytes_of(caps), c.answer);
        caps = {};
        ASSERT_EQ(si.GetSensorCaps(ctx, &caps), STATUS_SUCCESS);
        EXPECT_EQ(bytes_of(caps), c.then);
    }
}

TEST_F(DescriptionTest, ParametersAreTheDriversOwnRecord)
{
    open();
    const SENSOR_PARAMETERS* parameters = nullptr;
    ASSERT_EQ(si.GetSensorParameters(ctx, &parameters), STATUS_SUCCESS);
    ASSERT_EQ(parameters, &SensorParameters);
    std::vector<uint8_t> expected(208, 0);
    const uint32_t words[] = {0, 1, 1777, 0, 0, 65000, 1, 800, 50, 2000, 100, 2000, 1, 29, 26};
    for (size_t i = 0; i < std::size(words); i++) {
        put<uint32_t>(expected, 4 * i, words[i]);
    }
    EXPECT_EQ(bytes_of(*parameters), expected);
    ULONG word = 0;
    ASSERT_EQ(si.GetParameterWord(ctx, &word), STATUS_SUCCESS);
    EXPECT_EQ(word, 0x00037530u);
    // With 4 at byte 80 the word's high half says 4.
    const ULONG saved = SensorParameters.HdrWord;
    SensorParameters.HdrWord = 4;
    ASSERT_EQ(si.GetParameterWord(ctx, &word), STATUS_SUCCESS);
    SensorParameters.HdrWord = saved;
    EXPECT_EQ(word, 0x00047530u);
}

// A query given nowhere to put its answer is refused, and nothing is written.
TEST_F(DescriptionTest, EveryQueryRefusesAMissingResult)
{
    open();
    ULONG size = sizeof(SENSOR_MODE_INFO);
    SENSOR_MODE_INFO info{};
    const struct {
        const char* what;
        std::function<NTSTATUS()> call;
    } cases[] = {
        {"GetSensorCaps", [&] { return si.GetSensorCaps(ctx, nullptr); }},
        {"GetSensorParameters", [&] { return si.GetSensorParameters(ctx, nullptr); }},
        {"GetPdafTable", [&] { return si.GetPdafTable(ctx, nullptr); }},
        {"GetModeInfo without a size", [&] { return si.GetModeInfo(ctx, nullptr, &info); }},
        {"GetModeInfo without a record", [&] { return si.GetModeInfo(ctx, &size, nullptr); }},
        {"QueryProperty", [&] { return si.QueryProperty(ctx, 34, nullptr); }},
        {"GetAuxFlag", [&] { return si.GetAuxFlag(ctx, nullptr); }},
        {"GetParameterWord", [&] { return si.GetParameterWord(ctx, nullptr); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.call(), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(size, sizeof(SENSOR_MODE_INFO));
    EXPECT_EQ(bytes_of(info), bytes_of(SENSOR_MODE_INFO{}));
}

TEST_F(DescriptionTest, PdafInformationForEachImageSize)
{
    open();
    struct Case {
        uint32_t w, h;
        NTSTATUS status;
        uint32_t pdaf_w, pdaf_h;
    } cases[] = {
        {4032, 3024, STATUS_SUCCESS, 4032, 756},  {4208, 3120, STATUS_SUCCESS, 256, 148},
        {4608, 3458, STATUS_SUCCESS, 272, 832},   {0, 0, STATUS_SUCCESS, 0, 0},
        {1000, 1000, STATUS_NOT_SUPPORTED, 0, 0}, {3024, 4032, STATUS_NOT_SUPPORTED, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.w << " x " << c.h);
        PDAF_INFO info;
        memset(&info, 0xEE, sizeof info);
        info.Width = c.w;
        info.Height = c.h;
        PPDAF_INFO p = &info;
        EXPECT_EQ(si.GetPdafInfo(ctx, &p), c.status);
        std::vector<uint8_t> expected(40, 0xEE);  // bytes 1-3, and 28-31 without a match, untouched
        expected[0] = 0;
        const uint32_t words[] = {1, 0, c.w, c.h, c.pdaf_w, c.pdaf_h};
        for (size_t i = 0; i < std::size(words); i++) {
            put<uint32_t>(expected, 4 + 4 * i, words[i]);
        }
        if (c.status == STATUS_SUCCESS) {
            put<uint32_t>(expected, 28, 0);
        }
        put<uint32_t>(expected, 32, 0);
        put<uint32_t>(expected, 36, 48);
        EXPECT_EQ(bytes_of(info), expected);
    }
    PPDAF_INFO none = nullptr;
    EXPECT_EQ(si.GetPdafInfo(ctx, &none), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(si.GetPdafInfo(ctx, nullptr), STATUS_INVALID_PARAMETER);
}

// Over a record filled with 0xFF: every byte after a text's terminator stays.
TEST_F(DescriptionTest, ModuleInformationCarriesTheVariant)
{
    const GUID rgbir = {0xB343F07D, 0xBF90, 0x4407, {0xA1, 0xCA, 0x4E, 0x4A, 0x56, 0x49, 0xF5, 0xD4}};
    struct Case {
        const char16_t* id;
        GUID guid;
        uint8_t variant;
        const char* name;
    } cases[] = {{u"root\\KORVANEL", DefaultSensorGuid, 0, "HAPS"}, {u"root\\KORVANEL\\rgbir", rgbir, 9, "RGBIR"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        open({c.id});
        SENSOR_MODULE_INFO info;
        memset(&info, 0xFF, sizeof info);
        ASSERT_EQ(si.GetModuleInfo(ctx, &info), STATUS_SUCCESS);
        std::vector<uint8_t> expected(210, 0xFF);
        memcpy(expected.data(), &c.guid, 16);
        expected[16] = c.variant;
        expected[17] = 12;  // the default data format
        const std::pair<size_t, const char*> texts[] = {{18, "KORVANEL"}, {34, c.name},     {98, "DEFAULT"},
                                                        {162, "HAPS"},    {178, "DEFAULT"}, {194, "ORVEX"}};
        for (const auto& [at, text] : texts) {
            memcpy(&expected[at], text, strlen(text) + 1);
        }
        EXPECT_EQ(bytes_of(info), expected);
    }
    EXPECT_EQ(si.GetModuleInfo(ctx, nullptr), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace korvanel::test
