// The run-time library the driver's text fields and paths rely on: bounded
// copy and wide formatting (capacity rules, truncation, termination), counted
// strings, and the registry access through ZwOpenKey / ZwQueryValueKey.
#include <gtest/gtest.h>

#include "bench/bench.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace korvanel::test {
namespace {

using bench::Pool;
using bench::Bench;

TEST(BenchRtlTest, BoundedCopyKeepsWithinCapacityAndAlwaysTerminates)
{
    Bench sys;
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

TEST(BenchRtlTest, WideFormatHalvesTheCapacityAndFormatsTheHubPath)
{
    Bench sys;
// One formatting call of a table row, with the row's capacity.
#define PRINTF(...) [](PWSTR d, size_t n) { return RtlStringCbPrintfW(d, n, __VA_ARGS__); }
    struct Case {
        const char* what;
        size_t capacity;  // bytes
        std::function<NTSTATUS(PWSTR, size_t)> format;
        NTSTATUS status;
        const char16_t* result;  // null: the destination is not touched
    } cases[] = {
        {"hub path", 200, PRINTF(u"\\DosDevices\\RESOURCE_HUB\\%0*I64x", 16, ULONGLONG(42)), STATUS_SUCCESS,
         u"\\DosDevices\\RESOURCE_HUB\\000000000000002a"},
        {"64-bit", 100, PRINTF(u"%I64X", 0xFEDCBA9876543210ULL), STATUS_SUCCESS, u"FEDCBA9876543210"},
        {"texts", 100, PRINTF(u"%S|%hs|%ws|%ls|%s", "a", "b", u"c", u"d", u"e"), STATUS_SUCCESS, u"a|b|c|d|e"},
        {"padding", 100, PRINTF(u"[%5d][%-5d][%05d][%*u][%c%%]", -42, -42, -42, -4, 7u, u'z'), STATUS_SUCCESS,
         u"[  -42][-42  ][-0042][7   ][z%]"},
        {"exact fit", 8, PRINTF(u"abc"), STATUS_SUCCESS, u"abc"},
        {"cut", 9, PRINTF(u"%d-%s", 12345, u"ab"), STATUS_BUFFER_OVERFLOW, u"123"},  // 9 bytes: 4 characters
        {"one character", 3, PRINTF(u"abc"), STATUS_BUFFER_OVERFLOW, u""},
        {"no character", 1, PRINTF(u"abc"), STATUS_INVALID_PARAMETER, nullptr},
        {"zero", 0, PRINTF(u"abc"), STATUS_INVALID_PARAMETER, nullptr},
        {"above the maximum", (size_t(NTSTRSAFE_MAX_CCH) + 1) * sizeof(WCHAR), PRINTF(u"abc"),
         STATUS_INVALID_PARAMETER, u""},
    };
#undef PRINTF
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        WCHAR buffer[64];
        std::fill(std::begin(buffer), std::end(buffer), u'x');
        EXPECT_EQ(c.format(buffer, c.capacity), c.status);
        if (c.result == nullptr) {
            EXPECT_EQ(buffer[0], u'x');
            continue;
        }
        EXPECT_EQ(std::u16string(buffer), c.result);
        for (size_t i = std::min<size_t>(c.capacity / sizeof(WCHAR), 64); i < 64; i++) {
            ASSERT_EQ(buffer[i], u'x') << "wrote past the capacity at " << i;
        }
    }
}

// (The case-blind comparison is seen in the variant tests' identifiers.)
TEST(BenchRtlTest, StringsConvertAndCopyAsTheKernelDoes)
{
    Bench sys;
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "MipiLanes");
    UNICODE_STRING wide;
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(wide.Buffer, wide.Length / 2), u"MipiLanes");
    EXPECT_EQ(sys.pool().outstanding(), 1u);
    RtlFreeUnicodeString(&wide);
    EXPECT_EQ(sys.pool().outstanding(), 0u);
    sys.faults().fail("RtlAnsiStringToUnicodeString", STATUS_NO_MEMORY);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &ansi, TRUE), STATUS_NO_MEMORY);
    EXPECT_EQ(sys.pool().outstanding(), 0u);

    // Into the caller's buffer: the characters need more than their own room.
    struct {
        USHORT maximum;
        NTSTATUS status;
        bool terminated;
    } into[] = {{20, STATUS_SUCCESS, true}, {19, STATUS_SUCCESS, false}, {18, STATUS_BUFFER_OVERFLOW, false}};
    for (auto c : into) {
        SCOPED_TRACE(c.maximum);
        WCHAR room[10];
        std::fill(std::begin(room), std::end(room), u'x');
        UNICODE_STRING out{0, c.maximum, room};
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&out, &ansi, FALSE), c.status);
        EXPECT_EQ(room[9], c.terminated ? u'\0' : u'x');
    }

    // A copy into a shorter destination is cut at its maximum length.
    WCHAR buffer[4];
    UNICODE_STRING destination{0, sizeof buffer, buffer};
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, u"abcdef");
    RtlCopyUnicodeString(&destination, &source);
    EXPECT_EQ(destination.Length, sizeof buffer);
    EXPECT_EQ(std::u16string(buffer, 4), u"abcd");
}

TEST(BenchRegistryTest, ValuesAreReadAsTheyWereStoredWithWindowsStatuses)
{
    Bench sys;
    sys.registry().set_dword("MipiLanes", 4);
    sys.registry().set("Long", REG_BINARY, std::vector<uint8_t>(10, 0xAB));

    UNICODE_STRING key;
    RtlInitUnicodeString(&key, u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\KORVANEL");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &key, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    ASSERT_EQ(ZwOpenKey(&handle, KEY_READ, &attributes), STATUS_SUCCESS);

    // A cut value still reports its type and full length, so the caller can
    // ask again with enough room.
    struct Case {
        const char16_t* name;
        ULONG length;
        NTSTATUS status;
        ULONG result_length;
        ULONG data_length;  // as written in the header; 0: not written
    } cases[] = {
        {u"mipilanes", 64, STATUS_SUCCESS, 16, 4},
        {u"Long", 64, STATUS_SUCCESS, 22, 10},
        {u"Long", 16, STATUS_BUFFER_OVERFLOW, 22, 10},
        {u"Long", 8, STATUS_BUFFER_TOO_SMALL, 22, 0},
        {u"Absent", 64, STATUS_OBJECT_NAME_NOT_FOUND, 0, 0},
        {u"MIPILANE", 64, STATUS_OBJECT_NAME_NOT_FOUND, 0, 0},
        {u"MipiLanes_", 64, STATUS_OBJECT_NAME_NOT_FOUND, 0, 0},
    };
    for (auto c : cases) {
        SCOPED_TRACE(bench::to_utf8(c.name));
        alignas(8) uint8_t buffer[64] = {};
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, c.name);
        ULONG result = 0;
        EXPECT_EQ(ZwQueryValueKey(handle, &name, KeyValuePartialInformation, buffer, c.length, &result), c.status);
        EXPECT_EQ(result, c.result_length);
        EXPECT_EQ(reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer)->DataLength, c.data_length);
    }
    EXPECT_EQ(sys.registry().open_keys(), 1u);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(sys.registry().open_keys(), 0u);

    // Any other key is found by its whole name in any case.
    sys.registry().set_value(u"\\Registry\\Machine\\Other", u"Value", REG_DWORD, {1, 0, 0, 0});
    for (auto [path, status] : {std::pair{u"\\REGISTRY\\machine\\other", STATUS_SUCCESS},
                                std::pair{u"\\REGISTRY\\machine\\othe", STATUS_OBJECT_NAME_NOT_FOUND}}) {
        UNICODE_STRING other;
        RtlInitUnicodeString(&other, path);
        OBJECT_ATTRIBUTES other_attributes;
        InitializeObjectAttributes(&other_attributes, &other, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        HANDLE other_handle;
        EXPECT_EQ(ZwOpenKey(&other_handle, KEY_READ, &other_attributes), status);
        if (NT_SUCCESS(status)) {
            ZwClose(other_handle);
        }
    }

    EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);
    EXPECT_EQ(sys.faults().errors().size(), 1u) << "a second close went unnoticed";

    attributes.Length = 40;
    EXPECT_EQ(ZwOpenKey(&handle, KEY_READ, &attributes), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(sys.registry().open_keys(), 0u);
}

}  // namespace
// The bounded records keep their latest entries, oldest first, once their
// ring has wrapped, and a reset leaves them as a new bench has them.
TEST(BenchRegistryTest, TheLatestOpensAndFreesAreKeptThroughAWrapAndAReset)
{
    Bench sys;
    auto open = [](ACCESS_MASK access) {
        UNICODE_STRING key;
        RtlInitUnicodeString(&key, u"\\Registry\\Machine\\Absent");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &key, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        HANDLE handle;
        EXPECT_EQ(ZwOpenKey(&handle, access, &attributes), STATUS_OBJECT_NAME_NOT_FOUND);
    };
    const size_t kept = bench::Registry::kOpensKept;
    for (ACCESS_MASK access = 1; access <= kept + 3; access++) {
        open(access);
    }
    auto opens = sys.registry().recent_opens();
    ASSERT_EQ(opens.size(), kept);
    for (size_t i = 0; i < kept; i++) {
        EXPECT_EQ(opens[i].access, i + 4) << i;
    }
    sys.registry().reset();
    open(7);
    opens = sys.registry().recent_opens();
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].access, 7u);

    // The pool tells a second free from a stray one for its latest 4096 frees.
    std::vector<void*> blocks(4098);
    for (auto& b : blocks) {
        b = sys.pool().allocate(NonPagedPoolNx, 8, 0x74736554);
    }
    for (auto* b : blocks) {
        ASSERT_EQ(sys.pool().free(b, 0), Pool::Freed::Ok);
    }
    const std::pair<size_t, Pool::Freed> seconds[] = {{0, Pool::Freed::NeverAllocated},
                                                      {1, Pool::Freed::NeverAllocated},
                                                      {2, Pool::Freed::AlreadyFreed},
                                                      {4097, Pool::Freed::AlreadyFreed}};
    for (auto [block, second] : seconds) {
        EXPECT_EQ(sys.pool().free(blocks[block], 0), second) << block;
    }
    sys.pool().reset();
    EXPECT_EQ(sys.pool().free(blocks[4097], 0), Pool::Freed::NeverAllocated);
}

}  // namespace korvanel::test
