// verifier_test.cpp - the bench stops where Windows under Driver Verifier and
// the framework's verifier stops, at the faulting call and with their stop
// codes: a routine called above its level, pageable code reached at
// DISPATCH_LEVEL, a level or spin lock left changed by a call into the
// driver, pool and handle misuse, a wait nothing can end; waits that honour
// their mode and alerts; and where each operation of the driver may be called.
#include "bus/bus_lock.h"
#include "bus/delay.h"
#include "driver/driver.h"
#include "bench/spb_controller.h"
#include "bench/irql_rules.h"
#include "nvm/nvm.h"
#include "platform/actuator.h"
#include "platform/checked.h"
#include "platform/device.h"
#include "platform/memory.h"
#include "trace/trace.h"
#include "vcm/vcm.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <latch>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

namespace korvanel::test {

constexpr ULONG kTestTag = 0x74736554;  // "Test"

// ---- The verifier's own faults: each fails the test with the report --------------

// Stand-ins for driver routines with a bug in them, as a test build of the
// driver would carry them; each a routine of its own, as the driver's are.
[[gnu::noinline]] void ResidentOperationAllocatingPagedPool()
{
    PVOID p = ExAllocatePoolWithTag(PagedPool, 64, kTestTag);
    ExFreePoolWithTag(p, kTestTag);
}
[[gnu::noinline]] void ResidentOperationWaitingWithATimeout()
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER timeout{};
    timeout.QuadPart = -10000;
    (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
}
[[gnu::noinline]] void ResidentOperationReachingPageableCode() { DelayMilliseconds(1); }
[[gnu::noinline]] static void StaticHelperReadingTheRegistry() { (void)ZwClose(nullptr); }
[[gnu::noinline]] void DriverRoutineThatLeaks() { (void)ExAllocatePoolWithTag(NonPagedPoolNx, 24, kTestTag); }

namespace {

using bench::Violation;
namespace verifier = bench::verifier;

// The violation `f` ends in, collected instead of failing the test; after it
// the thread is back at PASSIVE_LEVEL holding no spin lock.
std::optional<Violation> violation_of(const std::function<void()>& f)
{
    std::optional<Violation> seen;
    auto saved = verifier::set_hook([&](const Violation& v) { seen = v; });
    try {
        f();
    } catch (const bench::Bugcheck&) {
    }
    verifier::set_hook(saved);
    EXPECT_EQ(verifier::irql(), PASSIVE_LEVEL) << "the level is restored after the work stops";
    EXPECT_EQ(verifier::spin_locks_held(), 0);
    return seen;
}

// The verifier in one mode for a scope (the suite may run in the sweep).
struct ModeFor {
    verifier::Mode saved = verifier::mode();
    explicit ModeFor(verifier::Mode m) { verifier::set_mode(m); }
    ~ModeFor() { verifier::set_mode(saved); }
};

// "0xC4/0x13": a stop as the tables below write it; "" for none.
std::string stop_of(const std::optional<Violation>& v)
{
    if (!v) {
        return "";
    }
    char text[32];
    snprintf(text, sizeof text, "0x%X/0x%X", v->stop.code, v->stop.subcode);
    return text;
}

void at_dispatch(void (*f)())
{
    try {
        verifier::at_irql(DISPATCH_LEVEL, f);
    } catch (const bench::Bugcheck&) {
    }
}

TEST(VerifierTest, EachBrokenRuleFailsTheRunningTestWithItsReport)
{
    bench::Bench sys;
    EXPECT_NONFATAL_FAILURE(at_dispatch(ResidentOperationAllocatingPagedPool),
                            "*** STOP 0xC4 DRIVER_VERIFIER_DETECTED_VIOLATION (0x1)\n"
                            "    ExAllocatePoolWithTag called above its IRQL\n"
                            "    routine: ExAllocatePoolWithTag\n"
                            "    called by: korvanel::test::ResidentOperationAllocatingPagedPool");
    EXPECT_NONFATAL_FAILURE(at_dispatch(ResidentOperationWaitingWithATimeout),
                            "*** STOP 0xC4 DRIVER_VERIFIER_DETECTED_VIOLATION (0x122)\n"
                            "    KeWaitForSingleObject called above its IRQL\n"
                            "    routine: KeWaitForSingleObject\n"
                            "    called by: korvanel::test::ResidentOperationWaitingWithATimeout\n"
                            "    IRQL: DISPATCH_LEVEL (2), allowed at most APC_LEVEL (1)");
    EXPECT_NONFATAL_FAILURE(at_dispatch(ResidentOperationReachingPageableCode),
                            "*** STOP 0xD1 DRIVER_IRQL_NOT_LESS_OR_EQUAL\n"
                            "    pageable routine DelayMilliseconds reached above APC_LEVEL\n"
                            "    routine: DelayMilliseconds\n"
                            "    called by: korvanel::test::ResidentOperationReachingPageableCode");
    // A static routine has no exported symbol; the report still names it.
    EXPECT_NONFATAL_FAILURE(at_dispatch(StaticHelperReadingTheRegistry),
                            "    called by: korvanel::test::StaticHelperReadingTheRegistry");
}

TEST(VerifierTest, RoutinesWithConditionsAreJudgedByTheCallNotTheName)
{
    bench::Bench sys;
    static KEVENT event;  // signalled for good: an allowed wait returns at once
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    static LARGE_INTEGER zero{}, later{.QuadPart = -10};
    static UNICODE_STRING text;
    struct Case {
        const char* what;
        KIRQL level;
        void (*call)();
        const char* stop;  // "": allowed
    };
    const Case cases[] = {
        {"a zero time-out polls", DISPATCH_LEVEL,
         [] { (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero); }, ""},
        {"a poll above DISPATCH_LEVEL", HIGH_LEVEL,
         [] { (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero); }, "0xC4/0x120"},
        {"no time-out blocks", DISPATCH_LEVEL,
         [] { (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr); }, "0xC4/0x121"},
        {"a blocking wait at APC_LEVEL", APC_LEVEL,
         [] { (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr); }, ""},
        {"a timed wait above DISPATCH_LEVEL", HIGH_LEVEL,
         [] { (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &later); }, "0xC4/0x120"},
        {"an event set at DISPATCH_LEVEL", DISPATCH_LEVEL, [] { (void)KeSetEvent(&event, 0, FALSE); }, ""},
        {"an event set with a wait to follow", DISPATCH_LEVEL, [] { (void)KeSetEvent(&event, 0, TRUE); },
         "0xC4/0x20016"},
        {"non-paged pool", DISPATCH_LEVEL,
         [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTestTag), kTestTag); }, ""},
        {"non-paged pool above DISPATCH_LEVEL", HIGH_LEVEL,
         [] { (void)ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag); }, "0xC4/0x2"},
        {"paged pool from ExAllocatePool2", DISPATCH_LEVEL,
         [] { (void)ExAllocatePool2(POOL_FLAG_PAGED, 8, kTestTag); }, "0xC4/0x1"},
        {"a stall at any level", HIGH_LEVEL, [] { KeStallExecutionProcessor(5); }, ""},
        {"a sleep", DISPATCH_LEVEL, [] { (void)KeDelayExecutionThread(KernelMode, FALSE, &later); }, "0xC4/0xE5"},
        {"the registry", APC_LEVEL, [] { (void)ZwClose(nullptr); }, "0xC4/0xE6"},
        {"a framework string at DISPATCH_LEVEL", DISPATCH_LEVEL, [] { WdfStringGetUnicodeString(nullptr, &text); },
         "0xA/0x0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto v = violation_of([&] { verifier::at_irql(c.level, c.call); });
        EXPECT_EQ(stop_of(v), c.stop) << (v ? v->text() : "");
    }
}

TEST(VerifierTest, LevelsAndSpinLocksChangeOnlyTheWayWindowsAllows)
{
    bench::Bench sys;
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old = 0;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_EQ(std::string(violation_of([&] { KeAcquireSpinLock(&lock, &old); })->stop.bugcheck),
              "SPIN_LOCK_ALREADY_OWNED");
    // The stop let the lock go: the thread takes it again without a word.
    KeAcquireSpinLock(&lock, &old);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(std::string(violation_of([&] { KeReleaseSpinLock(&lock, PASSIVE_LEVEL); })->stop.bugcheck),
              "SPIN_LOCK_NOT_OWNED");

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(stop_of(violation_of([&] { KeRaiseIrql(APC_LEVEL, &old); })), "0xC4/0x30");
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_EQ(stop_of(violation_of([&] { KeLowerIrql(DISPATCH_LEVEL); })), "0xC4/0x31");
}

TEST(VerifierTest, FaultRulesStillApplyAndTheLevelIsCheckedFirst)
{
    bench::Bench sys;
    sys.faults().fail("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES);
    auto v = violation_of([] { verifier::at_irql(DISPATCH_LEVEL, [] { (void)ExAllocatePoolWithTag(PagedPool, 8, kTestTag); }); });
    ASSERT_TRUE(v.has_value()) << "an injected failure hid the level";
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 8, kTestTag), nullptr) << "the rule is still there for the next call";
}

// Pool tracking: a bad free stops at the call, with Driver Verifier's code.
TEST(VerifierTest, PoolMisuseStopsAtTheFaultingCall)
{
    bench::Bench sys;
    static int not_pool;
    static UNICODE_STRING foreign;
    struct Case {
        const char* what;
        void (*call)();
        const char* stop;
        const char* routine;
    } cases[] = {
        {"its own tag", [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTestTag), kTestTag); }, "", ""},
        {"tag 0 frees any", [] { ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 16, kTestTag), 0); }, "", ""},
        {"ExFreePool", [] { ExFreePool(ExAllocatePool2(POOL_FLAG_NON_PAGED, 16, kTestTag)); }, "", ""},
        {"a second free",
         [] {
             PVOID p = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTestTag);
             ExFreePoolWithTag(p, kTestTag);
             ExFreePoolWithTag(p, kTestTag);
         },
         "0xC4/0x13", "ExFreePoolWithTag"},
        {"an address the pool never handed out", [] { ExFreePool(&not_pool); }, "0xC4/0x10", "ExFreePool"},
        {"another tag", [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTestTag), 0x67727453); },
         "0xC2/0xA", "ExFreePoolWithTag"},
        {"paged pool at DISPATCH_LEVEL",
         [] {
             PVOID p = ExAllocatePoolWithTag(PagedPool, 16, kTestTag);
             verifier::at_irql(DISPATCH_LEVEL, [p] { ExFreePool(p); });
         },
         "0xC4/0x11", "ExFreePool"},
        {"a string RtlAnsiStringToUnicodeString did not allocate",
         [] {
             foreign.Buffer = reinterpret_cast<PWCH>(&not_pool);
             RtlFreeUnicodeString(&foreign);
         },
         "0xC4/0x10", "RtlFreeUnicodeString"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto v = violation_of(c.call);
        EXPECT_EQ(stop_of(v), c.stop) << (v ? v->text() : "");
        EXPECT_EQ(v ? v->routine : "", c.routine);
    }
    // What the stops left allocated (the blocks of the wrong tag and the
    // wrong level) is a leak at unload.
    auto leak = violation_of([&] { sys.unload_driver(); });
    EXPECT_EQ(stop_of(leak), "0xC4/0x62");
    EXPECT_EQ(leak ? leak->details.size() : 0u, 2u);
}

// What a driver leaves allocated stops the unload, once the unload is over,
// naming each allocation and the routine that made it.
TEST(VerifierTest, ALeakStopsTheUnloadNamingWhatWasLeftAndWhoMadeIt)
{
    bench::Bench sys;
    ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS);
    DriverRoutineThatLeaks();
    std::optional<bench::UnloadReport> report;
    auto v = violation_of([&] { report = sys.unload_driver(); });
    EXPECT_EQ(stop_of(v), "0xC4/0x62");
    ASSERT_TRUE(v.has_value());
    ASSERT_EQ(v->details.size(), 1u);
    EXPECT_EQ(v->details[0],
              "pool allocation left: 24 bytes, tag 0x74736554, allocated by korvanel::test::DriverRoutineThatLeaks");
    EXPECT_FALSE(sys.driver_loaded()) << "the unload finished before it stopped";
}

TEST(VerifierTest, HandleMisuseStopsWithTheFrameworksSubcode)
{
    bench::Bench sys;
    ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS);
    static WDFDEVICE device;
    device = platform::open_device(sys).device->handle();
    static WDFSTRING deleted;
    static UNICODE_STRING text;
    ASSERT_EQ(WdfStringCreate(nullptr, WDF_NO_OBJECT_ATTRIBUTES, &deleted), STATUS_SUCCESS);
    WdfObjectDelete(deleted);
    struct Case {
        const char* what;
        void (*call)();
        const char* stop;
    } cases[] = {
        {"a null handle", [] { WdfDeviceSetStaticStopRemove(nullptr, TRUE); }, "0x10D/0x5"},
        {"a value the framework never gave", [] { (void)WdfDeviceWdmGetPhysicalDevice(WDFDEVICE(0x1230)); }, "0x10D/0x5"},
        {"a deleted object's handle", [] { WdfStringGetUnicodeString(deleted, &text); }, "0x10D/0x5"},
        {"a handle of another kind", [] { (void)WdfDeviceWdmGetPhysicalDevice(WDFDEVICE(deleted)); }, "0x10D/0x5"},
        {"the device as a string", [] { WdfStringGetUnicodeString(WDFSTRING(device), nullptr); }, "0x10D/0x5"},
        {"an object deleted twice", [] { WdfObjectDelete(deleted); }, "0x10D/0x7"},
        {"the device, which only the framework deletes", [] { WdfObjectDelete(device); }, "0x10D/0x7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto v = violation_of(c.call);
        EXPECT_EQ(stop_of(v), c.stop) << (v ? v->text() : "");
    }
}

// A call into the driver comes back as it went in, or the stop names it:
// the framework's verifier for its callbacks, IRQL_UNEXPECTED_VALUE for an
// operation the camera driver called.
TEST(VerifierTest, ACallThatReturnsChangedIsStoppedInTheRoutineThatChangedIt)
{
    bench::Bench sys;
    ModeFor on(verifier::Mode::On);
    static KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    SENSOR_INTERFACE record{};
    record.AcceptNotice = [](PSENSOR_CONTEXT) {
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        return STATUS_SUCCESS;
    };
    record.AcceptValue = [](PSENSOR_CONTEXT, PULONG) {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
        return STATUS_SUCCESS;
    };
    SENSOR_INTERFACE si = platform::checked_interface(record);

    auto raised = violation_of([&] { si.AcceptNotice(nullptr); });
    EXPECT_EQ(stop_of(raised), "0xC8/0x20000");  // current DISPATCH_LEVEL, expected PASSIVE_LEVEL
    EXPECT_EQ(raised ? raised->routine : "", "AcceptNotice");
    auto held = violation_of([&] { verifier::at_irql(DISPATCH_LEVEL, [&] { si.AcceptValue(nullptr, nullptr); }); });
    EXPECT_EQ(held ? held->what : "", "AcceptValue returned holding 1 spin lock(s) it was entered without");
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);  // let go by the stop
    KeReleaseSpinLock(&lock, old);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = [](WDFOBJECT) {
        KIRQL ignored;
        KeRaiseIrql(APC_LEVEL, &ignored);
    };
    WDFSTRING string;
    ASSERT_EQ(WdfStringCreate(nullptr, &attributes, &string), STATUS_SUCCESS);
    auto callback = violation_of([&] { WdfObjectDelete(string); });
    EXPECT_EQ(stop_of(callback), "0x10D/0xE");
    EXPECT_EQ(callback ? callback->routine : "", "EvtCleanupCallback");
}

// A wait nothing can end stops, naming the waiters, instead of hanging.
TEST(VerifierTest, AWaitNothingCanEndStopsNamingTheWaiters)
{
    bench::Bench sys;
    static KEVENT a, b;
    KeInitializeEvent(&a, SynchronizationEvent, TRUE);
    KeInitializeEvent(&b, SynchronizationEvent, TRUE);

    // The bus lock taken twice on one thread.
    auto self = violation_of([] {
        EXPECT_EQ(AcquireBusLock(&a), STATUS_SUCCESS);
        (void)AcquireBusLock(&a);
    });
    EXPECT_EQ(stop_of(self), "0xC4/0x1000");
    EXPECT_EQ(self ? self->caller : "", "AcquireBusLock");
    ReleaseBusLock(&a);

    // Two threads, each holding the lock the other waits for.
    EXPECT_EQ(AcquireBusLock(&b), STATUS_SUCCESS);
    std::latch first_taken(1);
    std::optional<Violation> other;
    std::thread t([&] {
        try {
            EXPECT_EQ(AcquireBusLock(&a), STATUS_SUCCESS);
            first_taken.count_down();
            (void)AcquireBusLock(&b);
        } catch (const bench::Bugcheck& stop) {
            other = stop.violation();
        }
    });
    auto cross = violation_of([&] {
        first_taken.wait();
        (void)AcquireBusLock(&a);
    });
    t.join();
    EXPECT_EQ(stop_of(cross), "0xC4/0x1001");
    ASSERT_TRUE(other.has_value()) << "the other waiter stops too";
    EXPECT_EQ(cross ? cross->details.size() : 0u, 2u) << (cross ? cross->text() : "");

    // A thread that ends without setting the event leaves its waiter alone.
    KeInitializeEvent(&a, NotificationEvent, FALSE);
    std::thread quitter([] {
        KEVENT own;
        KeInitializeEvent(&own, NotificationEvent, FALSE);
    });
    auto alone = violation_of([] { (void)KeWaitForSingleObject(&a, Executive, KernelMode, FALSE, nullptr); });
    quitter.join();
    EXPECT_EQ(stop_of(alone), "0xC4/0x1001");

    // A wait another thread ends is no deadlock.
    KeInitializeEvent(&a, SynchronizationEvent, FALSE);
    std::thread setter([] { (void)KeSetEvent(&a, 0, FALSE); });
    EXPECT_FALSE(violation_of([] { EXPECT_EQ(AcquireBusLock(&a), STATUS_SUCCESS); }).has_value());
    setter.join();
}

// An alert ends only an alertable wait, a user APC only an alertable
// user-mode one; a user-mode wait must not wait on its own stack.
TEST(VerifierTest, WaitsHonourTheirModeAndAlertable)
{
    bench::Bench sys;
    static KEVENT signalled;
    KeInitializeEvent(&signalled, NotificationEvent, TRUE);
    struct Case {
        KPROCESSOR_MODE mode;
        BOOLEAN alertable;
        NTSTATUS delivered;
        NTSTATUS result;  // of the wait and of the delay
    } cases[] = {
        {KernelMode, FALSE, STATUS_ALERTED, STATUS_SUCCESS},
        {KernelMode, TRUE, STATUS_ALERTED, STATUS_ALERTED},
        {KernelMode, TRUE, STATUS_USER_APC, STATUS_SUCCESS},
        {UserMode, FALSE, STATUS_USER_APC, STATUS_SUCCESS},
        {UserMode, TRUE, STATUS_USER_APC, STATUS_USER_APC},
    };
    for (auto c : cases) {
        SCOPED_TRACE(std::to_string(c.mode) + (c.alertable ? " alertable " : " not alertable ") +
                     bench::status_name(c.delivered));
        sys.faults().fail("KeWaitForSingleObject", c.delivered);
        EXPECT_EQ(KeWaitForSingleObject(&signalled, Executive, c.mode, c.alertable, nullptr), c.result);
        sys.faults().fail("KeDelayExecutionThread", c.delivered);
        LARGE_INTEGER interval{.QuadPart = -10000};
        int64_t before = sys.clock().now();
        EXPECT_EQ(KeDelayExecutionThread(c.mode, c.alertable, &interval), c.result);
        EXPECT_EQ(sys.clock().now() - before, c.result == STATUS_SUCCESS ? 10000 : 0);
        sys.faults().clear();
    }
    KEVENT on_stack;
    KeInitializeEvent(&on_stack, NotificationEvent, TRUE);
    EXPECT_EQ(stop_of(violation_of([&] { (void)KeWaitForSingleObject(&on_stack, Executive, UserMode, FALSE, nullptr); })),
              "0xC4/0x123");
}

// ZwOpenKey: names compare without regard to case only when asked; a handle
// without OBJ_KERNEL_HANDLE belongs to the calling thread's process, and its
// use from kernel mode stops; a query needs KEY_QUERY_VALUE access.
TEST(VerifierTest, RegistryKeysOpenAsTheirAttributesAndAccessSay)
{
    bench::Bench sys;
    sys.registry().set_dword("MipiLanes", 4);
    static std::u16string exact = bench::Registry::kServiceKey, upper = exact;
    for (auto& c : upper) {
        c = c >= u'a' && c <= u'z' ? char16_t(c - u'a' + u'A') : c;
    }
    struct Case {
        const char* what;
        const std::u16string* path;
        ULONG attributes;
        ACCESS_MASK access;
        NTSTATUS open;
        const char* query;  // the query's status, or its stop
    } cases[] = {
        {"as the driver opens it", &upper, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, KEY_READ, STATUS_SUCCESS,
         "STATUS_SUCCESS"},
        {"case-sensitive, the name as stored", &exact, OBJ_KERNEL_HANDLE, KEY_READ, STATUS_SUCCESS, "STATUS_SUCCESS"},
        {"case-sensitive, another case", &upper, OBJ_KERNEL_HANDLE, KEY_READ, STATUS_OBJECT_NAME_NOT_FOUND, ""},
        {"without KEY_QUERY_VALUE", &exact, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, KEY_ENUMERATE_SUB_KEYS,
         STATUS_SUCCESS, "STATUS_ACCESS_DENIED"},
        {"a user-mode handle", &exact, OBJ_CASE_INSENSITIVE, KEY_READ, STATUS_SUCCESS, "0xC4/0xF6"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        UNICODE_STRING path{USHORT(c.path->size() * 2), USHORT(c.path->size() * 2), const_cast<PWCH>(c.path->data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &path, c.attributes, nullptr, nullptr);
        HANDLE key = nullptr;
        ASSERT_EQ(ZwOpenKey(&key, c.access, &attributes), c.open);
        if (!NT_SUCCESS(c.open)) {
            continue;
        }
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, u"MipiLanes");
        alignas(8) UCHAR buffer[32];
        ULONG length = 0;
        NTSTATUS status = STATUS_PENDING;
        auto stop = violation_of(
            [&] { status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, buffer, sizeof buffer, &length); });
        EXPECT_EQ(stop ? stop_of(stop) : bench::status_name(status), c.query);
        ModeFor off(verifier::Mode::Off);  // the handle goes back however it was opened
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    }
}

// In the sweep every operation runs at the highest level it declares, and
// every callback at the highest its documentation allows.
TEST(VerifierTest, TheSweepCallsEachOperationAtItsDeclaredLevel)
{
    bench::Bench sys;
    static KIRQL seen[2];
    SENSOR_INTERFACE record{};
    record.AcceptNotice = [](PSENSOR_CONTEXT) {
        seen[0] = KeGetCurrentIrql();
        return STATUS_SUCCESS;
    };
    record.PowerUp = [](PSENSOR_CONTEXT) {
        seen[1] = KeGetCurrentIrql();
        return STATUS_SUCCESS;
    };
    SENSOR_INTERFACE si = platform::checked_interface(record);
    {
        ModeFor sweep(verifier::Mode::Sweep);
        si.AcceptNotice(nullptr);
        si.PowerUp(nullptr);
    }
    EXPECT_EQ(seen[0], DISPATCH_LEVEL);
    EXPECT_EQ(seen[1], PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    ModeFor on(verifier::Mode::On);
    si.AcceptNotice(nullptr);
    EXPECT_EQ(seen[0], PASSIVE_LEVEL) << "outside the sweep the caller's level holds";
}

TEST(VerifierTest, AViolationLeavesTheBenchReadableAndItsUnloadReportComplete)
{
    bench::Bench sys;
    ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS);
    auto dev = platform::open_device(sys);
    ASSERT_EQ(dev.status, STATUS_SUCCESS);
    auto v = violation_of([&] { verifier::at_irql(DISPATCH_LEVEL, [&] { dev.si.PowerUp((PSENSOR_CONTEXT)dev.si.InterfaceHeader.Context); }); });
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(v->routine, "WdfDeviceStopIdle");
    EXPECT_EQ(v->caller, "PowerUp");
    dev.si.InterfaceHeader.InterfaceDereference(dev.si.InterfaceHeader.Context);
    auto report = sys.unload_driver();
    EXPECT_TRUE(report.clean()) << report.text();
    EXPECT_EQ(sys.pool().outstanding(), 0u);
}

// ---- Where each operation may be called ----------------------------------------------

struct Operation {
    std::string name;
    std::function<void(const SENSOR_INTERFACE&, PDEVICE_CONTEXT)> call;
    std::function<void(bench::Bench&, PDEVICE_CONTEXT)> set_up = nullptr;
};

std::vector<Operation> operations()
{
    using SI = const SENSOR_INTERFACE&;
    using C = PDEVICE_CONTEXT;
    static ULONG u[16];  // records the driver reads several words of
    static SENSOR_CAPS caps;
    static const SENSOR_PARAMETERS* parameters;
    static const MODE_LIST* lists[4];
    static SENSOR_ENTRY entries[4];
    static SENSOR_MODE_INFO info;
    static SENSOR_MODULE_INFO module;
    static PPDAF_INFO pdaf;
    static USHORT position;
    static UCHAR buffer[NVM_CACHE_SIZE];
    auto x = [](SI si) { return (PSENSOR_CONTEXT)si.InterfaceHeader.Context; };
    auto vcm = [](bench::Bench& sys, C c) { platform::select_actuator(sys, c, {"DW9719"}); };
    auto nvm = [](bench::Bench& sys, C c) { platform::select_memory(sys, c, {10, 0x50, 64}); };
    return {
        {"AcceptRecord", [=](SI si, C) { si.AcceptRecord(x(si), u); }},
        {"GetSensorCaps", [=](SI si, C) { si.GetSensorCaps(x(si), &caps); }},
        {"GetMipiConfig", [=](SI si, C) { si.GetMipiConfig(x(si), u, u, u); }},
        {"GetSensorParameters", [=](SI si, C) { si.GetSensorParameters(x(si), &parameters); }},
        {"GetModeTables", [=](SI si, C) { si.GetModeTables(x(si), &lists[0], &lists[1], &lists[2], &lists[3]); }},
        {"GetPdafTable", [=](SI si, C) { si.GetPdafTable(x(si), &lists[0]); }},
        {"SelectMode", [=](SI si, C) { si.SelectMode(x(si), 2, 1920, 1080, 0); }},
        {"AcceptEntry", [=](SI si, C) { si.AcceptEntry(x(si), &entries[0]); }},
        {"AcceptPointer", [=](SI si, C) { si.AcceptPointer(x(si), u); }},
        {"AcceptValue", [=](SI si, C) { si.AcceptValue(x(si), u); }},
        {"AcceptPair", [=](SI si, C) { si.AcceptPair(x(si), 1, 2); }},
        {"AcceptNotice", [=](SI si, C) { si.AcceptNotice(x(si)); }},
        {"GetModeInfo",
         [=](SI si, C) {
             ULONG size = sizeof info;
             si.GetModeInfo(x(si), &size, &info);
         }},
        {"PowerUp", [=](SI si, C) { si.PowerUp(x(si)); }},
        {"PowerDown", [=](SI si, C) { si.PowerDown(x(si)); }},
        {"GetAuxFlag", [=](SI si, C) { si.GetAuxFlag(x(si), u); }},
        {"GetParameterWord", [=](SI si, C) { si.GetParameterWord(x(si), u); }},
        {"GetModuleInfo", [=](SI si, C) { si.GetModuleInfo(x(si), &module); }},
        {"QueryProperty", [=](SI si, C) { si.QueryProperty(x(si), 1, u); }},
        {"GetPdafInfo", [=](SI si, C) { si.GetPdafInfo(x(si), &pdaf); }},
        {"AcceptEntryList", [=](SI si, C) { si.AcceptEntryList(x(si), entries, 4); }},
        {"InterfaceReference + InterfaceDereference",
         [=](SI si, C) {
             si.InterfaceHeader.InterfaceReference(x(si));
             si.InterfaceHeader.InterfaceDereference(x(si));
         }},
        {"actuator Init", [](SI, C c) { platform::actuator_table()[c->VcmType].Init(c); }, vcm},
        {"actuator SetPos", [](SI, C c) { platform::actuator_table()[c->VcmType].SetPos(c, 300); }, vcm},
        {"actuator GetPos", [](SI, C c) { platform::actuator_table()[c->VcmType].GetPos(c, &position); }, vcm},
        {"actuator GetStatus", [](SI, C c) { platform::actuator_table()[c->VcmType].GetStatus(c, u); }, vcm},
        {"actuator GetHPStatus", [](SI, C c) { platform::actuator_table()[c->VcmType].GetHPStatus(c, u); }, vcm},
        {"actuator ResetPos", [](SI, C c) { platform::actuator_table()[c->VcmType].ResetPos(c); }, vcm},
        {"memory Load",
         [](SI, C c) {
             ULONG size = sizeof buffer;
             platform::memory_table()[c->NvmType].Load(c, &size, buffer);
         },
         nvm},
        {"memory Read", [](SI, C c) { platform::memory_table()[c->NvmType].Read(c, 0, buffer, 16); }, nvm},
        {"memory Write", [](SI, C c) { platform::memory_table()[c->NvmType].Write(c, 0, buffer, 16); }, nvm},
    };
}

// README's table of where each operation may be called: operation name
// ("actuator Init", "memory Load" for the parts' routines) to level.
std::map<std::string, std::string> documented_levels()
{
    std::ifstream readme(KORVANEL_SOURCE_DIR "/README.md");
    std::map<std::string, std::string> levels;
    std::string line;
    while (std::getline(readme, line) && line.rfind("| Operation | Highest level", 0) != 0) {
    }
    std::getline(readme, line);  // the separator row
    while (std::getline(readme, line) && line.rfind("| ", 0) == 0) {
        std::vector<std::string> cells;
        for (std::stringstream row(line.substr(2)); std::getline(row, cells.emplace_back(), '|');) {
        }
        std::stringstream groups(cells[0]);
        for (std::string group; std::getline(groups, group, ';');) {
            std::stringstream names(group);
            std::string prefix;
            for (std::string name; names >> name;) {
                if (name == "actuator" || name == "memory") {
                    prefix = name + " ";
                } else {
                    levels[prefix + name.substr(0, name.find(','))] = cells[1].substr(1, cells[1].size() - 2);
                }
            }
        }
    }
    return levels;
}

// The highest of PASSIVE, APC and DISPATCH at which `op` runs without a
// violation, each on a fresh bench with tracing on (every trace path runs).
std::string highest_level(const Operation& op, std::string& report)
{
    std::string highest = "none";
    for (KIRQL level : {PASSIVE_LEVEL, APC_LEVEL, DISPATCH_LEVEL}) {
        bench::Bench sys;
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
        EXPECT_EQ(platform::load_driver(sys), STATUS_SUCCESS);
        auto dev = platform::open_device(sys);
        if (op.set_up) {
            op.set_up(sys, dev.context);
        }
        auto v = violation_of([&] { verifier::at_irql(level, [&] { op.call(dev.si, dev.context); }); });
        if (v) {
            report = v->text();
            break;
        }
        highest = bench::irql_name(level);
    }
    return highest;
}

TEST(VerifierTest, TheHighestLevelAtWhichEachOperationRuns)
{
    const auto expected = documented_levels();
    std::ostringstream table;
    for (const auto& op : operations()) {
        std::string report;
        std::string highest = highest_level(op, report);
        table << "| " << op.name << " | " << highest << " |\n";
        std::stringstream names(op.name);  // "InterfaceReference + InterfaceDereference": both rows
        for (std::string name; std::getline(names, name, '+');) {
            name = name.substr(name.find_first_not_of(' '), name.find_last_not_of(' ') + 1);
            auto it = expected.find(name);
            ASSERT_NE(it, expected.end()) << name << " has no row in README's table";
            EXPECT_EQ(highest, it->second) << name << " stops above it with\n" << report;
        }
    }
    std::cout << table.str();
}

}  // namespace
}  // namespace korvanel::test
