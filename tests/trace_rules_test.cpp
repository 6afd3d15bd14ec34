// The driver's trace events: how the provider registers, when an event goes
// out, and what it carries (message GUID and number, "KORVANEL" first, the
// arguments' encodings).
#include "driver_fixture.h"

#include "driver/driver.h"

namespace korvanel::test {
namespace {

using bench::Bench;
using bench::Traces;

// Events emitted from this file, numbered from 10 in order of appearance.
// {0E2A7C6B-3F15-4B8D-A1E9-7C40D5B2F863}
const GUID TestTraceGuid = {0x0e2a7c6b, 0x3f15, 0x4b8d, {0xa1, 0xe9, 0x7c, 0x40, 0xd5, 0xb2, 0xf8, 0x63}};
TRACE_MODULE(TestTraceGuid);

void EmitTexts(const char* text, const CHAR (&field)[8], const WCHAR* wide)
{
    TraceEvents(TRACE_INFO, "texts %s %s %ws", text, field, wide);
}

void EmitNumbers(UCHAR byte, USHORT word, LONG64 wide, PVOID pointer)
{
    TraceEvents(TRACE_ERROR, "numbers %u %u %I64d %p", byte, word, wide, pointer);
}

// One call site per line of the decoder's specifiers.
void EmitFormats(LONG negative, ULONG small, LONG64 wide_negative, ULONG64 wide, const char* text,
                 const WCHAR* wide_text, const UNICODE_STRING& counted)
{
    TraceEvents(TRACE_INFO, "%d %u %x %X %#x %08x", negative, small, small, small, small, small);
    TraceEvents(TRACE_INFO, "%I64d %I64u %I64x", wide_negative, wide, wide);
    TraceEvents(TRACE_INFO, "[%s] [%-4s] [%ws] [%wZ]", text, text, wide_text, counted);
    TraceEvents(TRACE_ERROR, "%!STATUS! %!STATUS! 100%%", STATUS_DEVICE_BUSY, (NTSTATUS)0xC0001234);
    UNICODE_STRING empty{0, 0, NULL};
    TraceEvents(TRACE_INFO, "[%wZ]", empty);
}

TEST(TraceTest, RegistrationFollowsTheSystemVersionAndTheRoutinesFound)
{
    struct Case {
        uint32_t major;
        bool classic_routines;
        Traces::Registration expected;
    } cases[] = {
        {10, true, Traces::Registration::Classic},
        {6, true, Traces::Registration::Classic},
        {5, true, Traces::Registration::Wmi},
        {10, false, Traces::Registration::Wmi},
    };
    for (auto c : cases) {
        SCOPED_TRACE(testing::Message() << "major " << c.major << ", classic routines " << c.classic_routines);
        Bench sys;
        sys.set_os_major_version(c.major);
        sys.set_classic_tracing_available(c.classic_routines);
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
        ASSERT_EQ(sys.load_driver(DriverEntry), STATUS_SUCCESS);
        EXPECT_EQ(sys.traces().registration(), c.expected);
        sys.add_device();

        // Every event, whichever way it was registered, starts with the
        // component name and its terminator.
        auto events = sys.traces().events();
        ASSERT_FALSE(events.empty());
        for (auto& e : events) {
            ASSERT_GE(e.args.size(), 1u);
            EXPECT_EQ(e.args[0], std::vector<uint8_t>({'K', 'O', 'R', 'V', 'A', 'N', 'E', 'L', 0}));
            EXPECT_NE(sys.traces().format(e), nullptr) << "an event without a message text";
        }
        // A request to capture state is neither an enable nor a disable.
        sys.traces().capture_state();
        EXPECT_EQ(TraceControl.Flags, uint32_t(TRACE_INFO | TRACE_ERROR));
        // The consumer's disable reaches the driver by either path.
        sys.traces().disable();
        sys.traces().clear();
        EXPECT_EQ(TraceControl.Flags, 0u);
        sys.add_device();
        EXPECT_TRUE(sys.traces().events().empty());
        EXPECT_TRUE(sys.unload_driver().clean());
        EXPECT_EQ(sys.traces().registration(), Traces::Registration::None);
        EXPECT_EQ(TraceControl.Flags, 0u);
    }
}

// The driver loaded with no session on.
using TraceSessionTest = DriverTest;

TEST_F(TraceSessionTest, OnlyEnabledFlagsGoOutAndOnlyWhileASessionIsOn)
{
    sys.faults().fail("WdfDeviceAssignS0IdleSettings", STATUS_INVALID_DEVICE_REQUEST);
    sys.add_device();
    EXPECT_TRUE(sys.traces().events().empty()) << "events went out with no consumer";

    struct Case {
        uint32_t flags;
        bool info, error;
    } cases[] = {{TRACE_INFO, true, false}, {TRACE_ERROR, false, true}, {TRACE_INFO | TRACE_ERROR, true, true}};
    for (auto c : cases) {
        SCOPED_TRACE(c.flags);
        sys.traces().enable(c.flags);
        sys.traces().clear();
        sys.faults().fail("WdfDeviceAssignS0IdleSettings", STATUS_INVALID_DEVICE_REQUEST);
        sys.add_device();
        bool saw_info = false, saw_error = false;
        for (auto& e : sys.traces().events()) {
            auto* f = sys.traces().format(e);
            ASSERT_NE(f, nullptr);
            saw_info |= f->flag == TRACE_INFO;
            saw_error |= f->flag == TRACE_ERROR;
        }
        EXPECT_EQ(saw_info, c.info);
        EXPECT_EQ(saw_error, c.error);
    }
}

// Each module numbers its call sites from 10 under its own GUID; a missing
// text goes out as "NULL", a text field stops at its terminator, small
// numbers widen to 32 bits, 64-bit numbers and pointers keep 8 bytes.
TEST(TraceTest, MessagesAreNumberedPerModuleAndArgumentsKeepTheirWidths)
{
    Bench sys;
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    ASSERT_EQ(sys.load_driver(DriverEntry), STATUS_SUCCESS);
    sys.add_device();

    // The first two call sites of the driver module.
    auto entry_exit = sys.traces().find("DriverEntry exit %!STATUS!");
    auto add_entry = sys.traces().find("SensorEvtDeviceAdd entry");
    ASSERT_EQ(entry_exit.size(), 1u);
    ASSERT_EQ(add_entry.size(), 1u);
    EXPECT_EQ(entry_exit[0].number, 10);
    EXPECT_EQ(add_entry[0].number, 11);
    EXPECT_TRUE(IsEqualGUID(entry_exit[0].guid, add_entry[0].guid));
    EXPECT_EQ(entry_exit[0].message_flags, 0x2Bu);  // sequence, GUID, system information, time stamp

    sys.traces().clear();
    CHAR field[8] = {'a', 'b', 0, 'z', 'z', 'z', 'z', 'z'};
    EmitTexts(nullptr, field, nullptr);
    EmitNumbers(0xFE, 0xBEEF, -2, &field);
    auto events = sys.traces().events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].number, 10);
    EXPECT_EQ(events[1].number, 11);
    EXPECT_TRUE(IsEqualGUID(events[0].guid, TestTraceGuid));
    EXPECT_FALSE(IsEqualGUID(events[0].guid, entry_exit[0].guid));

    auto& texts = events[0].args;
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[1], std::vector<uint8_t>({'N', 'U', 'L', 'L', 0}));
    EXPECT_EQ(texts[2], std::vector<uint8_t>({'a', 'b', 0}));
    EXPECT_EQ(texts[3], std::vector<uint8_t>({'N', 0, 'U', 0, 'L', 0, 'L', 0, 0, 0}));

    auto& numbers = events[1];
    ASSERT_EQ(numbers.args.size(), 5u);
    EXPECT_EQ(numbers.args[1].size(), 4u);
    EXPECT_EQ(Traces::u32(numbers, 1), 0xFEu);
    EXPECT_EQ(numbers.args[2].size(), 4u);
    EXPECT_EQ(Traces::u32(numbers, 2), 0xBEEFu);
    EXPECT_EQ(numbers.args[3].size(), 8u);
    EXPECT_EQ(int64_t(Traces::u64(numbers, 3)), -2);
    EXPECT_EQ(numbers.args[4].size(), 8u);
    EXPECT_EQ(Traces::u64(numbers, 4), uint64_t(uintptr_t(&field)));
    EXPECT_TRUE(sys.unload_driver().clean());
}

TEST_F(TraceSessionTest, OnlyTheEnabledSessionsLoggerTakesEvents)
{
    sys.traces().enable(TRACE_INFO, 4);
    TRACEHANDLE earlier = TraceLogger();
    sys.traces().enable(TRACE_INFO | TRACE_ERROR, 4);
    TRACE_ENABLE_CONTEXT context;
    TRACEHANDLE logger = TraceLogger();
    memcpy(&context, &logger, sizeof context);
    EXPECT_EQ(context.LoggerId, 1);
    EXPECT_EQ(context.Level, 4);
    EXPECT_EQ(context.EnableFlags, ULONG(TRACE_INFO | TRACE_ERROR));
    EXPECT_EQ(TraceControl.Flags, ULONG(TRACE_INFO | TRACE_ERROR));

    GUID guid = TestTraceGuid;
    struct Case {
        const char* what;
        TRACEHANDLE logger;
        NTSTATUS status;
    } cases[] = {
        {"session", logger, STATUS_SUCCESS},
        {"earlier session", earlier, STATUS_INVALID_HANDLE},
        {"registration handle", TraceControl.RegHandle, STATUS_INVALID_HANDLE},
        {"none", 0, STATUS_INVALID_HANDLE},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.what);
        sys.traces().clear();
        EXPECT_EQ(WmiTraceMessage(c.logger, 0, &guid, 99, "KORVANEL", SIZE_T(9), nullptr, SIZE_T(0)), c.status);
        EXPECT_EQ(sys.traces().events().size(), c.status == STATUS_SUCCESS ? 1u : 0u);
    }
    TRACEHANDLE last = TraceControl.Logger;
    sys.traces().disable();
    EXPECT_EQ(TraceControl.Flags, 0u);
    EXPECT_EQ(WmiTraceMessage(last, 0, &guid, 99, "KORVANEL", SIZE_T(9), nullptr, SIZE_T(0)), STATUS_INVALID_HANDLE);
}

void EmitCount(ULONG i)
{
    TraceEvents(TRACE_INFO, "count %u", i);
}

// A long traced run keeps its latest events and says how many it let go.
TEST_F(TraceSessionTest, TheRecordKeepsTheLatestEvents)
{
    sys.traces().enable(TRACE_INFO);
    const ULONG total = ULONG(Traces::kEventsKept) + 10;
    for (ULONG i = 0; i < total; i++) {
        EmitCount(i);
    }
    auto events = sys.traces().events();
    ASSERT_EQ(events.size(), Traces::kEventsKept);
    EXPECT_EQ(sys.traces().dropped(), 10u);
    EXPECT_EQ(Traces::u32(events.front(), 1), 10u);
    EXPECT_EQ(Traces::u32(events.back(), 1), total - 1);
    EXPECT_EQ(Traces::text(events.back(), 0), "KORVANEL");
}

TEST_F(TraceSessionTest, DecodedLinesFormatEachSpecifier)
{
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);

    // The counted string has no terminator; the decoder stops at its length.
    WCHAR characters[] = WIDE("countedXX");
    UNICODE_STRING counted{14, sizeof characters, characters};
    EmitFormats(-42, 0xAB, -5, 0x123456789AULL, "cam", WIDE("wide"), counted);
    EXPECT_EQ(sys.traces().lines(), std::vector<std::string>({
                                        "trace_rules_test: -42 171 ab AB 0xab 000000ab",
                                        "trace_rules_test: -5 78187493530 123456789a",
                                        "trace_rules_test: [cam] [cam ] [wide] [counted]",
                                        "trace_rules_test: STATUS_DEVICE_BUSY 0xC0001234 100%",
                                        "trace_rules_test: []",
                                    }));
}

}  // namespace
}  // namespace korvanel::test
