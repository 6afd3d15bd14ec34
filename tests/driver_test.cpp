// Driver entry, device add, the framework records it fills, and interface
// reference counting against stop and remove.
#include "driver_fixture.h"

#include "driver/driver.h"
#include "sensor/registry.h"
#include "sensor/sensor.h"

#include <cstring>
#include <map>

namespace korvanel::test {
namespace {

using bench::DeviceConfig;
using bench::Bench;

// The record as the framework hands it to the camera driver: bytes at fixed
// offsets. Every one of the 43 slots is bound here to the routine it must
// hold, or to null.
TEST_F(DriverTest, PublishesEveryByteOfTheInterfaceRecordWhereTheCameraDriverReadsIt)
{
    auto& dev = sys.add_device();
    ASSERT_EQ(dev.add_status(), STATUS_SUCCESS);
    SENSOR_INTERFACE si{};
    ASSERT_EQ(dev.query_interface(GUID_SENSOR_INTERFACE, &si, SENSOR_INTERFACE_VERSION), STATUS_SUCCESS);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&si);
    auto pointer_at = [bytes](size_t offset) {
        const void* p;
        std::memcpy(&p, bytes + offset, sizeof p);
        return p;
    };
    auto routine = [](auto* fn) { return reinterpret_cast<const void*>(fn); };

    uint16_t size, version;
    std::memcpy(&size, bytes + 0, 2);
    std::memcpy(&version, bytes + 2, 2);
    EXPECT_EQ(size, 376);
    EXPECT_EQ(version, 18);
    EXPECT_EQ(pointer_at(8), dev.context());
    EXPECT_EQ(pointer_at(16), routine(&SensorInterfaceReference));
    EXPECT_EQ(pointer_at(24), routine(&SensorInterfaceDereference));

    const std::map<int, const void*> provided = {
        {0, routine(&AcceptRecord)},      {1, routine(&GetSensorCaps)},    {2, routine(&GetMipiConfig)},
        {3, routine(&GetSensorParameters)}, {4, routine(&GetModeTables)},  {5, routine(&GetPdafTable)},
        {6, routine(&SelectMode)},        {7, routine(&AcceptEntry)},      {8, routine(&AcceptPointer)},
        {9, routine(&AcceptValue)},       {10, routine(&AcceptPair)},      {11, routine(&AcceptNotice)},
        {17, routine(&GetModeInfo)},      {18, routine(&PowerUp)},         {19, routine(&PowerDown)},
        {24, routine(&GetAuxFlag)},       {25, routine(&GetParameterWord)}, {26, routine(&GetModuleInfo)},
        {30, routine(&QueryProperty)},    {37, routine(&GetPdafInfo)},     {41, routine(&AcceptEntryList)},
    };
    ASSERT_EQ(provided.size(), 21u);
    for (int k = 0; k < SENSOR_INTERFACE_SLOTS; k++) {
        auto it = provided.find(k);
        EXPECT_EQ(pointer_at(32 + 8 * size_t(k)), it == provided.end() ? nullptr : it->second) << "slot " << k;
    }

    // The published record is the context's own member.
    auto* ctx = static_cast<PDEVICE_CONTEXT>(dev.context());
    EXPECT_EQ(dev.query_interface_config()->Interface, (PINTERFACE)&ctx->SensorInterface);
    EXPECT_EQ(ctx->Device, dev.handle());

    si.InterfaceHeader.InterfaceDereference(si.InterfaceHeader.Context);
}

TEST_F(DriverTest, ReferencesBlockStopAndRemoveOncePerTransition)
{
    auto& dev = sys.add_device();
    auto query_remove_callback = dev.pnp_callbacks().EvtDeviceQueryRemove;
    EXPECT_EQ(query_remove_callback(dev.handle()), STATUS_SUCCESS);

    SENSOR_INTERFACE first = take_interface(dev);
    SENSOR_INTERFACE second = take_interface(dev);
    auto* ctx = static_cast<PDEVICE_CONTEXT>(dev.context());
    EXPECT_EQ(ctx->InterfaceRefCount, 2);
    // One call at the first reference, none at the second.
    EXPECT_EQ(dev.static_stop_remove_calls(false), 1u);
    EXPECT_EQ(dev.static_stop_remove_calls(true), 0u);
    EXPECT_FALSE(dev.stoppable());
    EXPECT_EQ(query_remove_callback(dev.handle()), STATUS_DEVICE_BUSY);
    EXPECT_FALSE(NT_SUCCESS(dev.query_remove()));

    first.InterfaceHeader.InterfaceDereference(first.InterfaceHeader.Context);
    EXPECT_EQ(dev.static_stop_remove_calls(true), 0u);
    EXPECT_EQ(query_remove_callback(dev.handle()), STATUS_DEVICE_BUSY);

    second.InterfaceHeader.InterfaceDereference(second.InterfaceHeader.Context);
    EXPECT_EQ(dev.static_stop_remove_calls(false), 1u);
    EXPECT_EQ(dev.static_stop_remove_calls(true), 1u);
    EXPECT_TRUE(dev.stoppable());
    EXPECT_EQ(query_remove_callback(dev.handle()), STATUS_SUCCESS);
    EXPECT_EQ(dev.query_remove(), STATUS_SUCCESS);
}

// While the driver blocks stop and remove the framework refuses a query by
// itself; a query that arrives after the first reference counted and before
// the block is the driver's own to refuse.
TEST_F(DriverTest, AQueryRemoveBeforeTheBlockMeetsTheDriversVeto)
{
    auto& dev = sys.add_device();
    NTSTATUS between = STATUS_PENDING;
    sys.faults().at_entry("WdfDeviceSetStaticStopRemove", [&] { between = dev.query_remove(); });
    SENSOR_INTERFACE si = take_interface(dev);
    EXPECT_EQ(between, STATUS_DEVICE_BUSY);
    EXPECT_EQ(dev.query_remove(), STATUS_INVALID_DEVICE_STATE);
    si.InterfaceHeader.InterfaceDereference(si.InterfaceHeader.Context);
    EXPECT_EQ(dev.query_remove(), STATUS_SUCCESS);
}

// A failing framework call during device add, and what device add leaves.
TEST_F(DriverTest, DeviceAddFailuresStopAtTheRightStep)
{
    struct Case {
        const char* routine;
        NTSTATUS injected;
        NTSTATUS add_status;
        bool published;
        bool state_and_idle_applied;
    } cases[] = {
        {"WdfDeviceCreate", STATUS_INSUFFICIENT_RESOURCES, STATUS_INSUFFICIENT_RESOURCES, false, false},
        {"WdfDeviceCreateDeviceInterface", STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_NAME_NOT_FOUND, false, false},
        {"WdfStringCreate", STATUS_INSUFFICIENT_RESOURCES, STATUS_SUCCESS, true, true},
        {"WdfDeviceRetrieveDeviceInterfaceString", STATUS_INVALID_DEVICE_STATE, STATUS_SUCCESS, true, true},
        {"WdfDeviceAddQueryInterface", STATUS_INSUFFICIENT_RESOURCES, STATUS_INSUFFICIENT_RESOURCES, false, false},
        {"WdfDeviceAssignS0IdleSettings", STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.routine);
        sys.faults().fail(c.routine, c.injected);
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
        auto& dev = sys.add_device();
        EXPECT_EQ(dev.add_status(), c.add_status);
        // A failed add leaves no device behind; the others are inspected.
        if (NT_SUCCESS(c.add_status)) {
            EXPECT_EQ(dev.interface_published(GUID_SENSOR_INTERFACE), c.published);
            EXPECT_EQ(dev.device_state().has_value(), c.state_and_idle_applied);
            // The link is traced only when the string could be made and filled.
            bool link_step_failed = std::string(c.routine).find("String") != std::string::npos;
            EXPECT_EQ(sys.traces().find("Symbolic link %wZ").empty(), link_step_failed);
        }
        sys.traces().clear();
        sys.faults().clear();
    }
}

TEST_F(DriverTest, FailedDeviceInterfaceLeavesTheContextZero)
{
    sys.faults().fail("WdfDeviceCreateDeviceInterface", STATUS_INSUFFICIENT_RESOURCES);
    auto& dev = sys.add_device();
    EXPECT_EQ(dev.add_status(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(dev.exists());
    ASSERT_EQ(dev.context_at_failure().size(), sizeof(DEVICE_CONTEXT));
    for (size_t i = 0; i < sizeof(DEVICE_CONTEXT); i++) {
        ASSERT_EQ(dev.context_at_failure()[i], 0) << "context byte " << i << " was written";
    }
    EXPECT_EQ(sys.faults().calls("WdfDeviceAddQueryInterface"), 0u);
    EXPECT_EQ(sys.faults().calls("IoBuildSynchronousFsdRequest"), 0u) << "identification ran on a failed add";
}

TEST(DriverEntryTest, FailedFrameworkDriverCreationSetsNothingUp)
{
    Bench sys;
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    sys.faults().fail("WdfDriverCreate", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(sys.load_driver(DriverEntry), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(sys.traces().registration(), bench::Traces::Registration::None);
    EXPECT_EQ(TraceControl.Flags, 0u);
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_EQ(sys.pool().allocations_made(), 0u) << "the registry path was saved";
    EXPECT_EQ(DriverRegistryPath.Buffer, nullptr);
    EXPECT_TRUE(sys.unload_driver().clean());
}

TEST(DriverEntryTest, SavesTheRegistryPathAndFreesItAtUnload)
{
    Bench sys;
    ASSERT_EQ(sys.load_driver(DriverEntry), STATUS_SUCCESS);
    ASSERT_NE(DriverRegistryPath.Buffer, nullptr);
    std::u16string saved(DriverRegistryPath.Buffer, DriverRegistryPath.Length / 2);
    EXPECT_EQ(saved, bench::Registry::kServiceKey);
    EXPECT_EQ(DriverRegistryPath.MaximumLength, DriverRegistryPath.Length + 2);
    ASSERT_EQ(sys.pool().live().size(), 1u);
    EXPECT_EQ(sys.pool().live()[0].tag, 0x3732564Fu);  // "OV27"
    EXPECT_EQ(sys.pool().live()[0].pool_type, (uint32_t)PagedPool);

    EXPECT_TRUE(sys.unload_driver().clean());
    EXPECT_EQ(DriverRegistryPath.Buffer, nullptr);
}

TEST(DriverEntryTest, APathThatCannotBeCopiedLeavesTheDefaultsAndSaysWhy)
{
    const std::u16string longest(32766, u'k'), too_long(32767, u'k');
    struct Case {
        const char* what;
        const std::u16string* path;
        bool allocation_fails;
        NTSTATUS status;
    } cases[] = {
        {"no pool", nullptr, true, STATUS_INSUFFICIENT_RESOURCES},
        {"32,767 characters", &too_long, false, STATUS_NAME_TOO_LONG},
        {"32,766 characters", &longest, false, STATUS_SUCCESS},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench sys;
        sys.registry().set_dword("MipiLanes", 4);
        if (c.allocation_fails) {
            sys.faults().fail("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES);
        }
        EXPECT_EQ(c.path ? sys.load_driver(DriverEntry, c.path) : sys.load_driver(DriverEntry), STATUS_SUCCESS);
        if (c.path != nullptr) {
            // Again directly, for the status driver entry ignores.
            FreeRegistryPath();
            UNICODE_STRING path{USHORT(c.path->size() * 2), USHORT(c.path->size() * 2), (PWCH)c.path->data()};
            EXPECT_EQ(SaveRegistryPath(&path), c.status);
        }
        if (c.status == STATUS_SUCCESS) {
            EXPECT_EQ(DriverRegistryPath.Length, c.path->size() * 2);
            EXPECT_EQ(DriverRegistryPath.MaximumLength, 65534);
            EXPECT_EQ(std::u16string(DriverRegistryPath.Buffer, c.path->size()), *c.path);
        } else {
            EXPECT_EQ(DriverRegistryPath.Buffer, nullptr);
            EXPECT_EQ(DriverRegistryPath.Length, 0);
            // Every configuration read then fails and the defaults stay.
            auto& dev = sys.add_device();
            EXPECT_EQ(dev.add_status(), STATUS_SUCCESS);
            EXPECT_EQ(static_cast<PDEVICE_CONTEXT>(dev.context())->MipiLaneCount, 2u);
        }
        EXPECT_TRUE(sys.unload_driver().clean());
    }
}

}  // namespace
}  // namespace korvanel::test
