// Which sensor variant a device is, from its first hardware identifier.
#include "camera_client.h"

#include "driver/driver.h"
#include "sensor/sensor.h"

#include <gmock/gmock.h>

#include <functional>

namespace korvanel::test {
namespace {

using bench::DeviceConfig;

struct Identity {
    const char* guid;
    const char* name;
    uint32_t caps_mode;
    uint8_t variant_code;
};
const Identity kDefault = {"{A255DEF4-F9B7-41E0-BF1E-D273ED0FEDBF}", "HAPS", 5, 0};
const Identity kRgbIr = {"{B343F07D-BF90-4407-A1CA-4E4A5649F5D4}", "RGBIR", 4, 9};
const Identity kDpcT3 = {"{9819C8FA-C5BF-4C0A-88DE-93361C2119F1}", "DPC", 5, 0};

// The identity as the camera driver reads it: module record and capabilities.
class VariantTest : public CameraTest {
protected:
    void expect_identity(const Identity& expected)
    {
        SENSOR_MODULE_INFO info{};
        SENSOR_CAPS caps{};
        ASSERT_EQ(si.GetModuleInfo(ctx, &info), STATUS_SUCCESS);
        ASSERT_EQ(si.GetSensorCaps(ctx, &caps), STATUS_SUCCESS);
        EXPECT_EQ(bench::guid_text(info.SensorGuid), expected.guid);
        EXPECT_STREQ(info.SensorName, expected.name);
        EXPECT_EQ(info.VariantCode, expected.variant_code);
        EXPECT_EQ(caps.ModeFlags, 0x0C41u | expected.caps_mode << 3);
        EXPECT_NE(memchr(ctx->SensorName, 0, sizeof ctx->SensorName), nullptr);
    }
};

TEST_F(VariantTest, TheFirstIdentifierAloneSelectsTheVariant)
{
    struct Case {
        std::vector<std::u16string> ids;
        Identity identity;
    } cases[] = {
        {{u"root\\KORVANEL\\sve"}, {"{FABF11E3-3EE0-4E43-8F42-84562002D424}", "SVE", 5, 0}},
        {{u"root\\KORVANEL\\rgbir"}, kRgbIr},
        {{u"root\\KORVANEL\\mdsve"}, {"{E3C4B9D6-A09E-489D-90F8-820C045AD85A}", "MDSVE", 5, 0}},
        {{u"root\\KORVANEL\\md_T3"}, {"{E774ECB4-18A2-4044-B73E-B5143F8C5153}", "MD", 5, 0}},
        {{u"root\\KORVANEL\\md"}, {"{72FBC71E-4363-469F-A0BB-98489D57A76C}", "MD", 5, 0}},
        {{u"root\\KORVANEL\\dpc"}, {"{4F62CAA7-949E-4C50-8012-B340E35D78E5}", "DPC", 5, 0}},
        {{u"root\\KORVANEL\\dpc_T3"}, kDpcT3},
        {{u"ROOT\\korvanel\\RgBiR"}, kRgbIr},
        {{u"root\\KORVANEL\\DPC_t3"}, kDpcT3},
        {{u"root\\KORVANEL\\svex"}, kDefault},
        {{u"root\\KORVANEL\\md_T", u"root\\KORVANEL\\rgbir"}, kDefault},
        {{u"root\\KORVANEL", u"root\\KORVANEL\\sve"}, kDefault},
        {{u""}, kDefault},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(bench::to_utf8(c.ids[0]));
        open(c.ids);
        expect_identity(c.identity);
    }
}

TEST_F(VariantTest, AFailedQueryLeavesTheDefaultIdentityAndReturnsItsStatus)
{
    struct Case {
        const char* what;
        std::function<void(DeviceConfig&)> configure;  // of a device named as the RGB-IR sensor
        NTSTATUS status;
    } cases[] = {
        {"fails",
         [](DeviceConfig& d) {
             d.id_query = DeviceConfig::IdQuery::Fail;
             d.id_status = STATUS_NO_SUCH_DEVICE;
         },
         STATUS_NO_SUCH_DEVICE},
        {"pends, then fails",
         [](DeviceConfig& d) {
             d.id_query = DeviceConfig::IdQuery::Pending;
             d.id_status = STATUS_DEVICE_NOT_CONNECTED;
         },
         STATUS_DEVICE_NOT_CONNECTED},
        {"unanswered: the request's preset status",
         [](DeviceConfig& d) { d.id_query = DeviceConfig::IdQuery::Unanswered; }, STATUS_NOT_SUPPORTED},
        {"no request", [](DeviceConfig& d) { d.id_request_build_fails = true; }, STATUS_INSUFFICIENT_RESOURCES},
        {"no list", [](DeviceConfig& d) { d.id_list_missing = true; }, STATUS_SUCCESS},
        {"odd, long list", [](DeviceConfig& d) { d.raw_id_list = std::vector<uint8_t>(70001, 'r'); }, STATUS_SUCCESS},
    };
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DeviceConfig config;
        config.hardware_ids = {u"root\\KORVANEL\\rgbir"};
        c.configure(config);
        open(std::move(config));
        expect_identity(kDefault);
        // Again directly, for the status device add ignores.
        sys.traces().clear();
        EXPECT_EQ(IdentifySensorVariant(ctx), c.status);
        expect_identity(kDefault);
        auto exits = sys.traces().find("IdentifySensorVariant exit %!STATUS!");
        ASSERT_EQ(exits.size(), 1u);
        EXPECT_EQ((NTSTATUS)bench::Traces::u32(exits[0], 1), c.status);
    }

    // Without a framework device there is nothing to ask.
    DEVICE_CONTEXT bare{};
    memset(bare.SensorName, 'x', sizeof bare.SensorName);
    EXPECT_EQ(IdentifySensorVariant(&bare), STATUS_INVALID_PARAMETER);
    EXPECT_STREQ(bare.SensorName, "HAPS");
}

// The query completes into the identification routine's own frame; however
// its wait ends, the routine takes the bus driver's answer.
TEST(VariantWaitTest, AFailedWaitForAPendingQueryIsReportedAndWaitedOut)
{
    bench::Bench sys;
    ASSERT_EQ(sys.load_driver(DriverEntry), STATUS_SUCCESS);
    sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL);
    DeviceConfig config;
    config.hardware_ids = {u"root\\KORVANEL\\rgbir"};
    config.id_query = DeviceConfig::IdQuery::Pending;
    auto& dev = sys.add_device(config);
    ASSERT_EQ(dev.add_status(), STATUS_SUCCESS);
    EXPECT_STREQ(static_cast<PDEVICE_CONTEXT>(dev.context())->SensorName, "RGBIR");

    auto report = sys.unload_driver();
    ASSERT_EQ(report.problems.size(), 1u) << report.text();
    EXPECT_THAT(report.problems[0], ::testing::HasSubstr("assertion failed: waitStatus == STATUS_SUCCESS"));
}

}  // namespace
}  // namespace korvanel::test
