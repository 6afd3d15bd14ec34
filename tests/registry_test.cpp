// Configuration from the service key: the typed value reader, and what each
// value does to the link settings and the PDAF records the camera driver reads.
#include "camera_client.h"

#include "sensor/registry.h"

namespace korvanel::test {
namespace {

const auto dword = bench::Registry::dword_data;

using RegistryTest = CameraTest;

TEST_F(RegistryTest, EachValueTakesEffectWhereTheCameraDriverReadsIt)
{
    struct Case {
        const char* what;
        std::vector<std::tuple<const char*, uint32_t, std::vector<uint8_t>>> values;
        std::vector<ULONG> link;            // port, lanes, format, link rate
        std::vector<ULONG> pdaf;            // InterleaveMode, FormatFlagA, FormatFlagB, PdafType
    } cases[] = {
        {"none", {}, {0, 2, 12, 0}, {1, 0, 0, 0}},
        {"lanes alone", {{"MipiLanes", REG_DWORD, dword(4)}}, {0, 4, 0, 0}, {1, 0, 0, 0}},
        {"no lanes", {{"MipiPort", REG_DWORD, dword(1)}, {"MipiDataFormat", REG_DWORD, dword(13)},
                      {"MipiMBps", REG_DWORD, dword(1500)}}, {0, 2, 12, 0}, {1, 1, 1, 0}},
        {"all four", {{"MipiLanes", REG_DWORD, dword(4)}, {"MipiPort", REG_DWORD, dword(1)},
                      {"MipiDataFormat", REG_DWORD, dword(10)}, {"MipiMBps", REG_DWORD, dword(1500)}},
         {1, 4, 10, 1500000000}, {1, 0, 0, 0}},
        {"0x104 lanes", {{"MipiLanes", REG_DWORD, dword(0x104)}}, {0, 4, 0, 0}, {1, 0, 0, 0}},
        {"0x100 lanes", {{"MipiLanes", REG_DWORD, dword(0x100)}, {"MipiPort", REG_DWORD, dword(3)}},
         {0, 2, 12, 0}, {1, 0, 0, 0}},
        {"4295 MBps wraps", {{"MipiLanes", REG_DWORD, dword(2)}, {"MipiMBps", REG_DWORD, dword(4295)}},
         {0, 2, 0, 32704}, {1, 0, 0, 0}},
        {"format 0x10D", {{"MipiLanes", REG_DWORD, dword(4)}, {"MipiDataFormat", REG_DWORD, dword(0x10D)}},
         {0, 4, 13, 0}, {1, 1, 1, 0}},
        {"a string", {{"MipiLanes", REG_SZ, {'4', 0}}}, {0, 2, 12, 0}, {1, 0, 0, 0}},
        {"short values", {{"MipiLanes", REG_DWORD, {3}}, {"MipiMBps", REG_DWORD, {0xDC, 0x05}}},
         {0, 3, 0, 1500000000}, {1, 0, 0, 0}},
        {"too long", {{"MipiLanes", REG_DWORD, {4, 0, 0, 0, 0}}}, {0, 2, 12, 0}, {1, 0, 0, 0}},
        {"PDAF values", {{"PDAFInterleaveMode", REG_DWORD, dword(0x80000002)}, {"PDAF_Type", REG_DWORD, dword(2)}},
         {0, 2, 12, 0}, {0x80000002, 0, 0, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        sys.registry().clear();
        PdafInfoTemplate = savedPdaf;
        for (const auto& [name, type, data] : c.values) {
            sys.registry().set(name, type, data);
        }
        open();
        ULONG port = 0, lanes = 0, format = 0, rate = 0;
        si.GetMipiConfig(ctx, &port, &lanes, &format);
        EXPECT_EQ(si.QueryProperty(ctx, SensorPropertyLinkRate, &rate), STATUS_SUCCESS);
        EXPECT_EQ(std::vector<ULONG>({port, lanes, format, rate}), c.link);
        SENSOR_MODULE_INFO module{};
        ASSERT_EQ(si.GetModuleInfo(ctx, &module), STATUS_SUCCESS);
        EXPECT_EQ(module.MipiFormat, c.link[2]);

        PDAF_INFO info{};
        PPDAF_INFO p = &info;
        const SENSOR_PARAMETERS* parameters = nullptr;
        EXPECT_EQ(si.GetPdafInfo(ctx, &p), STATUS_SUCCESS);
        ASSERT_EQ(si.GetSensorParameters(ctx, &parameters), STATUS_SUCCESS);
        EXPECT_EQ(std::vector<ULONG>({info.InterleaveMode, info.FormatFlagA, info.FormatFlagB, parameters->PdafType}),
                  c.pdaf);
    }

    // Other properties are not answered, and nothing is written for them.
    ULONG value = 99;
    for (LONG id : {33, 35, 0}) {
        EXPECT_EQ(si.QueryProperty(ctx, id, &value), STATUS_NOT_SUPPORTED);
    }
    EXPECT_EQ(value, 99u);
    EXPECT_EQ(si.GetAuxFlag(ctx, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0u);
}

// The flags are driver-wide: a later device add changes them only with a
// format that sets them.
TEST_F(RegistryTest, FormatFlagsKeepTheLastFormatThatSetThem)
{
    for (auto [format, flags] : {std::pair{13u, 1u}, {14u, 1u}, {0u, 1u}, {12u, 0u}, {11u, 0u}}) {
        sys.registry().clear();
        if (format != 0) {
            sys.registry().set_dword("MipiDataFormat", format);
        }
        open();
        EXPECT_EQ(PdafInfoTemplate.FormatFlagA + PdafInfoTemplate.FormatFlagB, 2 * flags) << format;
    }
}

TEST_F(RegistryTest, TheReaderReturnsOnlyAValueOfTheRightTypeThatFits)
{
    sys.registry().set("Two", REG_DWORD, {0x34, 0x12});
    sys.registry().set("Empty", REG_DWORD, {});
    sys.registry().set("Five", REG_DWORD, {1, 2, 3, 4, 5});
    sys.registry().set_string("Text", "4");
    sys.registry().set_dword("Number", 0x11223344);
    const std::vector<uint8_t> untouched = {0xEE, 0xEE, 0xEE, 0xEE};
    struct Case {
        const char* name;
        const char* fault;  // platform routine made to fail
        NTSTATUS status;
        ULONG length;
        std::vector<uint8_t> buffer;
    } cases[] = {
        {"Number", nullptr, STATUS_SUCCESS, 4, {0x44, 0x33, 0x22, 0x11}},
        {"Two", nullptr, STATUS_SUCCESS, 2, {0x34, 0x12, 0xEE, 0xEE}},
        {"Empty", nullptr, STATUS_SUCCESS, 0, untouched},
        {"Five", nullptr, STATUS_INVALID_PARAMETER, 4, untouched},
        {"Text", nullptr, STATUS_UNSUCCESSFUL, 4, untouched},
        {"Number", "ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES, 4, untouched},
        {"Number", "ZwOpenKey", STATUS_ACCESS_DENIED, 4, untouched},
        {"Number", "ZwQueryValueKey", STATUS_INSUFFICIENT_RESOURCES, 4, untouched},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.name << " " << (c.fault ? c.fault : ""));
        size_t outstanding = sys.pool().outstanding();
        if (c.fault != nullptr) {
            sys.faults().fail(c.fault, c.status);
        }
        std::vector<uint8_t> buffer = untouched;
        ULONG length = 4;
        EXPECT_EQ(ReadRegistryValue(&DriverRegistryPath, c.name, REG_DWORD, buffer.data(), &length), c.status);
        EXPECT_EQ(length, c.length);
        EXPECT_EQ(buffer, c.buffer);
        // Key, work buffer and converted name are given back on every path.
        EXPECT_EQ(sys.registry().open_keys(), 0u);
        EXPECT_EQ(sys.pool().outstanding(), outstanding);
        sys.faults().clear();
    }
    ULONG length = 4;
    EXPECT_FALSE(NT_SUCCESS(ReadRegistryValue(&DriverRegistryPath, "Absent", REG_DWORD, &length, &length)));
    // Every open was for reading only, as a kernel handle, the name compared
    // without regard to case.
    auto opens = sys.registry().recent_opens();
    ASSERT_FALSE(opens.empty());
    for (const auto& o : opens) {
        EXPECT_EQ(o.attributes, ULONG(OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE));
        EXPECT_EQ(o.access, ACCESS_MASK(KEY_READ));
    }

    // Windows may name the key in another case ("\REGISTRY\MACHINE\..."):
    // it is opened without regard to case.
    std::u16string upper = bench::Registry::kServiceKey;
    for (auto& ch : upper) {
        ch = ch >= u'a' && ch <= u'z' ? char16_t(ch - u'a' + u'A') : ch;
    }
    UNICODE_STRING path{USHORT(upper.size() * 2), USHORT(upper.size() * 2), upper.data()};
    ULONG number = 0;
    length = 4;
    EXPECT_EQ(ReadRegistryValue(&path, "Number", REG_DWORD, &number, &length), STATUS_SUCCESS);
    EXPECT_EQ(number, 0x11223344u);
}

}  // namespace
}  // namespace korvanel::test
