// The run-time library the driver's text fields and paths rely on: bounded
// copy and wide formatting (capacity rules, truncation, termination), counted
// strings, and the registry access through ZwOpenKey / ZwQueryValueKey.
#include <gtest/gtest.h>

#include "host/system.h"

#include <cstring>

namespace korvanel::test {
namespace {

using host::System;

TEST(HostRtlTest, BoundedCopyKeepsWithinCapacityAndAlwaysTerminates)
{
    System sys;
    struct Case {
        size_t capacity;
        const char* source;
        NTSTATUS status;
        const char* result;  // null: the destination is not touched
    } cases[] = {
        {16, "HAPS", STATUS_SUCCESS, "HAPS"},
        {5, "HAPS", STATUS_SUCCESS, "HAPS"},             // exact fit with the terminator
        {4, "HAPS", STATUS_BUFFER_OVERFLOW, "HAP"},      // cut, still terminated
        {1, "HAPS", STATUS_BUFFER_OVERFLOW, ""},
        {0, "HAPS", STATUS_INVALID_PARAMETER, nullptr},  // no room even for the terminator
        {size_t(NTSTRSAFE_MAX_CCH) + 1, "HAPS", STATUS_INVALID_PARAMETER, ""},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.capacity);
        char buffer[32];
        memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(RtlStringCbCopyA(buffer, c.capacity, c.source), c.status);
        if (c.result == nullptr) {
            EXPECT_EQ(buffer[0], 'x');
        } else {
            EXPECT_STREQ(buffer, c.result);
            EXPECT_EQ(buffer[strlen(c.result) + 1], 'x') << "wrote past the terminator";
        }
    }
}

TEST(HostRtlTest, WideFormatHalvesTheCapacityAndFormatsTheHubPath)
{
    System sys;
    WCHAR path[100];
    EXPECT_EQ(RtlStringCbPrintfW(path, sizeof path, u"\\DosDevices\\RESOURCE_HUB\\%0*I64x", 16, ULONGLONG(42)),
              STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(path), u"\\DosDevices\\RESOURCE_HUB\\000000000000002a");
    EXPECT_EQ(RtlStringCbPrintfW(path, sizeof path, u"%I64x", ULONGLONG(0xFEDCBA9876543210)), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(path), u"fedcba9876543210");

    // 9 bytes hold 4 characters: 3 and the terminator.
    WCHAR small[8];
    for (auto& ch : small) {
        ch = u'x';
    }
    EXPECT_EQ(RtlStringCbPrintfW(small, 9, u"%d-%s", 12345, u"ab"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(small), u"123");
    EXPECT_EQ(small[4], u'x');
    EXPECT_EQ(RtlStringCbPrintfW(small, 1, u"abc"), STATUS_INVALID_PARAMETER);
}

TEST(HostRtlTest, StringsConvertCompareAndCopyAsTheKernelDoes)
{
    System sys;
    EXPECT_EQ(_wcsicmp(u"root\\KORVANEL\\RgbIr", u"ROOT\\korvanel\\rgbir"), 0);
    EXPECT_LT(_wcsicmp(u"root\\KORVANEL\\sv", u"root\\KORVANEL\\sve"), 0);
    EXPECT_GT(_wcsicmp(u"root\\KORVANEL\\svex", u"root\\KORVANEL\\sve"), 0);

    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "MipiLanes");
    UNICODE_STRING wide;
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(wide.Buffer, wide.Length / 2), u"MipiLanes");
    EXPECT_EQ(sys.pool().outstanding(), 1u);
    RtlFreeUnicodeString(&wide);
    EXPECT_EQ(sys.pool().outstanding(), 0u);

    // A copy into a shorter destination is cut at its maximum length.
    WCHAR buffer[4];
    UNICODE_STRING destination{0, sizeof buffer, buffer};
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, u"abcdef");
    RtlCopyUnicodeString(&destination, &source);
    EXPECT_EQ(destination.Length, sizeof buffer);
    EXPECT_EQ(std::u16string(buffer, 4), u"abcd");
}

TEST(HostRegistryTest, ValuesAreReadAsTheyWereStoredWithWindowsStatuses)
{
    System sys;
    sys.registry().set_dword("MipiLanes", 4);
    sys.registry().set("Long", REG_BINARY, std::vector<uint8_t>(10, 0xAB));

    UNICODE_STRING key;
    RtlInitUnicodeString(&key, u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\KORVANEL");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &key, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    ASSERT_EQ(ZwOpenKey(&handle, KEY_READ, &attributes), STATUS_SUCCESS);

    struct Case {
        const char16_t* name;
        ULONG length;
        NTSTATUS status;
        ULONG result_length;
    } cases[] = {
        {u"mipilanes", 64, STATUS_SUCCESS, 16},
        {u"Long", 64, STATUS_SUCCESS, 22},
        {u"Long", 16, STATUS_BUFFER_OVERFLOW, 22},
        {u"Long", 8, STATUS_BUFFER_TOO_SMALL, 22},
        {u"Absent", 64, STATUS_OBJECT_NAME_NOT_FOUND, 0},
    };
    for (auto c : cases) {
        SCOPED_TRACE(host::to_utf8(c.name));
        alignas(8) uint8_t buffer[64];
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, c.name);
        ULONG result = 0;
        EXPECT_EQ(ZwQueryValueKey(handle, &name, KeyValuePartialInformation, buffer, c.length, &result), c.status);
        EXPECT_EQ(result, c.result_length);
    }
    EXPECT_EQ(sys.registry().open_keys(), 1u);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(sys.registry().open_keys(), 0u);

    sys.registry().set_service_key_present(false);
    EXPECT_EQ(ZwOpenKey(&handle, KEY_READ, &attributes), STATUS_OBJECT_NAME_NOT_FOUND);
}

}  // namespace
}  // namespace korvanel::test
