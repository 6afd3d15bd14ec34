// What the driver's own trace says, event by event: whoever reads a trace of
// the device (the camera stack's engineers, their scripts) matches each
// event by its text, its level and the numbers it carries. Every event of
// driver entry, device add, the interface operations, the registry reader and
// the bus connections is reached here by the operation and the condition that
// emits it. (The actuator and memory texts have contracts of their own.)
#include "driver_fixture.h"

#include "bus/i2c.h"
#include "driver/driver.h"
#include "platform/actuator.h"
#include "sensor/description.h"
#include "sensor/registry.h"
#include "sensor/sensor.h"

#include <algorithm>
#include <functional>
#include <regex>

namespace korvanel::test {
namespace {

// A bench with tracing on before the driver loads, so that every event from
// DriverEntry on is seen.
struct TraceRun {
    bench::Bench sys;
    bench::Device* dev = nullptr;
    PDEVICE_CONTEXT ctx = nullptr;

    TraceRun() { sys.traces().enable(TRACE_INFO | TRACE_ERROR); }
    void load() { ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS); }
    void add(bench::DeviceConfig config = {})
    {
        dev = &sys.add_device(std::move(config));
        ctx = static_cast<PDEVICE_CONTEXT>(dev->context());
    }
};


bench::DeviceConfig named(const char16_t* id)
{
    bench::DeviceConfig config;
    config.hardware_ids = {id};
    return config;
}

// Device add with one platform routine failing.
std::function<void(TraceRun&)> failing(const char* routine, NTSTATUS status)
{
    return [=](TraceRun& b) { b.load(), b.sys.faults().fail(routine, status), b.add(); };
}

// Every interface operation as the camera driver calls it, each path that
// traces something of its own; GetModeInfo first, on the selection a new
// device starts with.
void every_operation(TraceRun& b)
{
    b.load(), b.add();
    SENSOR_MODE_INFO info{};
    ULONG size = sizeof info, small = 16, v = 7, record[4] = {11, 22, 33, 44};
    (void)GetModeInfo(b.ctx, &size, &info), (void)GetModeInfo(b.ctx, &small, &info);
    (void)SelectMode(b.ctx, 1, 1920, 1080, 30), (void)SelectMode(nullptr, 1, 1920, 1080, 30);
    (void)SelectMode(b.ctx, 4, 640, 480, 0), (void)SelectMode(b.ctx, 2, 9000, 9000, 0);
    (void)SelectMode(b.ctx, 7, 0, 0, 0), (void)GetModeInfo(b.ctx, &size, &info);
    const MODE_LIST *s, *vl, *p;
    (void)GetModeTables(b.ctx, &s, &vl, &p, nullptr), (void)GetPdafTable(b.ctx, &s);
    (void)GetSensorParameters(b.ctx, nullptr), (void)GetParameterWord(b.ctx, &size);
    PDAF_INFO pdaf{};
    pdaf.Width = 1000, pdaf.Height = 1000;
    PPDAF_INFO pp = &pdaf;
    (void)GetPdafInfo(b.ctx, &pp);
    SENSOR_MODULE_INFO module{};
    (void)GetModuleInfo(b.ctx, &module);
    ULONG port, lanes, format;
    GetMipiConfig(b.ctx, &port, &lanes, &format), GetMipiConfig(b.ctx, &port, nullptr, &format);
    (void)QueryProperty(b.ctx, 33, &size), (void)GetAuxFlag(b.ctx, &size);
    (void)PowerUp(b.ctx), (void)PowerDown(b.ctx);
    SENSOR_ENTRY entries[2] = {{1, 2, 3, 4, 0}, {5, 6, 7, 8, 0}};
    (void)AcceptRecord(b.ctx, record), (void)AcceptEntry(nullptr, &entries[0]), (void)AcceptEntry(b.ctx, nullptr);
    (void)AcceptPointer(b.ctx, b.ctx), (void)AcceptValue(b.ctx, &v);
    (void)AcceptPair(b.ctx, 5, 6), (void)AcceptPair(nullptr, 5, 6), (void)AcceptNotice(b.ctx);
    (void)AcceptEntryList(b.ctx, entries, 2);
}

// An event as decoded (a pointer other than null reads "<p>"), at error
// ('E') or information ('I') level.
struct Seen {
    char level;
    const char* decoded;
};

struct Reach {
    const char* how;                  // the operation and condition
    std::function<void(TraceRun&)> run;  // from a bench with tracing on, nothing loaded
    std::vector<Seen> events;
};

const Reach kContract[] = {
    {"a device's life: load, add and start, a query-remove, the camera driver's reference pair, removal, unload",
     [](TraceRun& b) {
         b.load(), b.add(), (void)b.dev->query_remove();
         SensorInterfaceReference(b.ctx), SensorInterfaceDereference(b.ctx);
         b.dev->remove(), (void)b.sys.unload_driver();
     },
     {{'I', "DriverEntry exit STATUS_SUCCESS"},
      {'I', "SensorEvtDeviceAdd entry"},
      {'E', "ReadRegistryValue: MipiLanes query failed STATUS_OBJECT_NAME_NOT_FOUND"},
      {'I', "InitSensorContext entry"},
      {'I', "GetSensorCaps mode 5"},
      {'I', "mode 4208 x 3120 (1000/1000) at 30, 0 1"},
      {'I', "Video mode list: 23 entries"},
      {'I', "PDAF list: 2 entries"},
      {'I', "InitSensorInterface entry"},
      {'I', "IdentifySensorVariant entry"},
      {'I', "IdentifySensorVariant hardware identifier root\\KORVANEL"},
      {'I', "IdentifySensorVariant exit STATUS_SUCCESS"},
      {'I', "Symbolic link \\??\\ROOT#KORVANEL#0000#{db53be49-6227-48fa-a2f9-9524d27c03d7}"},
      {'I', "SensorEvtDeviceAdd exit STATUS_SUCCESS"},
      {'I', "SensorEvtPrepareHardware"},
      {'I', "SensorEvtD0Entry from framework power state 5"},
      {'I', "SensorEvtQueryRemove references 0"},
      {'I', "SensorInterfaceReference references 1"},
      {'I', "SensorInterfaceDereference references 0"},
      {'I', "SensorEvtD0Exit to framework power state 5"},
      {'I', "SensorEvtReleaseHardware"},
      {'I', "SensorEvtDriverUnload"},
      {'I', "SensorEvtDriverCleanup"}}},
    {"a load whose path copy is refused", [](TraceRun& b) {
         b.sys.faults().fail("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES), b.load();
     },
     {{'E', "SaveRegistryPath: allocation of 122 bytes failed"}}},
    {"a load with a path of 32767 characters",
     [](TraceRun& b) {
         std::u16string path(32767, u'a');
         (void)b.sys.load_driver(DriverEntry, &path);
     },
     {{'E', "SaveRegistryPath: a path of 65534 bytes leaves no room for its terminator STATUS_NAME_TOO_LONG"}}},
    {"a device add whose device is not created", failing("WdfDeviceCreate", STATUS_INSUFFICIENT_RESOURCES),
     {{'E', "WdfDeviceCreate failed STATUS_INSUFFICIENT_RESOURCES"}}},
    {"a device add whose interface fails", failing("WdfDeviceCreateDeviceInterface", STATUS_INSUFFICIENT_RESOURCES),
     {{'E', "WdfDeviceCreateDeviceInterface failed STATUS_INSUFFICIENT_RESOURCES"}}},
    {"a device add whose publication fails", failing("WdfDeviceAddQueryInterface", STATUS_INSUFFICIENT_RESOURCES),
     {{'E', "WdfDeviceAddQueryInterface failed STATUS_INSUFFICIENT_RESOURCES"}}},
    {"a device add whose idle policy fails", failing("WdfDeviceAssignS0IdleSettings", STATUS_INVALID_DEVICE_REQUEST),
     {{'E', "WdfDeviceAssignS0IdleSettings failed STATUS_INVALID_DEVICE_REQUEST"}}},
    {"a device add whose registry query buffer is refused",
     failing("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES),
     {{'E', "ReadRegistryValue: MipiLanes query buffer STATUS_INSUFFICIENT_RESOURCES"}}},
    {"a device add whose value name is not converted", failing("RtlAnsiStringToUnicodeString", STATUS_NO_MEMORY),
     {{'E', "ReadRegistryValue: MipiLanes name conversion failed STATUS_NO_MEMORY"}}},
    {"a device add of the md variant", [](TraceRun& b) { b.load(), b.add(named(u"root\\KORVANEL\\md")); },
     {{'I', "IdentifySensorVariant hardware identifier root\\KORVANEL\\md"}}},
    {"a device add whose bus driver leaves the identifier query unanswered (the request's preset status)",
     [](TraceRun& b) {
         bench::DeviceConfig config;
         config.id_query = bench::DeviceConfig::IdQuery::Unanswered;
         b.load(), b.add(config);
     },
     {{'E', "IdentifySensorVariant: hardware identifier query failed STATUS_NOT_SUPPORTED"}}},
    {"GetSensorCaps of the rgbir variant",
     [](TraceRun& b) {
         SENSOR_CAPS caps{};
         b.load(), b.add(named(u"root\\KORVANEL\\rgbir")), (void)GetSensorCaps(b.ctx, &caps);
     },
     {{'I', "GetSensorCaps mode 4"}}},
    {"a device add with PDAF_Type 2",
     [](TraceRun& b) { b.load(), b.sys.registry().set_dword("PDAF_Type", 2), b.add(); },
     {{'I', "ReadRegistryConfiguration PDAF_Type 2"}}},
    {"a device add with MipiLanes a string",
     [](TraceRun& b) { b.load(), b.sys.registry().set("MipiLanes", REG_SZ, {'4', 0, 0, 0}), b.add(); },
     {{'E', "ReadRegistryValue: MipiLanes has type 1"}}},
    {"a device add with MipiLanes five bytes long",
     [](TraceRun& b) { b.load(), b.sys.registry().set("MipiLanes", REG_DWORD, {4, 0, 0, 0, 0}), b.add(); },
     {{'E', "ReadRegistryValue: MipiLanes does not fit 4 bytes"}}},
    {"a device add without the service key",
     [](TraceRun& b) { b.load(), b.sys.registry().set_service_key_present(false), b.add(); },
     {{'E', "ReadRegistryValue: opening \\Registry\\Machine\\System\\CurrentControlSet\\Services\\korvanel failed "
            "STATUS_OBJECT_NAME_NOT_FOUND"}}},
    {"every interface operation", every_operation,
     {{'I', "GetModeInfo table 2 row 0: 640 x 512"},
      {'E', "GetModeInfo: 16 bytes is too small STATUS_BUFFER_TOO_SMALL"},
      {'I', "SelectMode 1920 x 1080 at 30"},
      {'I', "SelectMode exit 1920 x 1080 STATUS_SUCCESS"},
      {'I', "SelectMode exit STATUS_INVALID_PARAMETER"},
      {'E', "SelectMode: no mode table 4 STATUS_INVALID_PARAMETER"},
      {'E', "SelectMode: no mode in table 2 fits STATUS_UNSUCCESSFUL"},
      {'E', "GetModeInfo: table 7 row 0 is no mode STATUS_INVALID_DEVICE_STATE"},
      {'I', "GetModeTables <p> <p> <p> 0x0 STATUS_INVALID_PARAMETER"},
      {'I', "GetPdafTable <p> STATUS_SUCCESS"},
      {'I', "GetSensorParameters 0x0 STATUS_INVALID_PARAMETER"},
      {'I', "GetParameterWord 3"},
      {'I', "GetPdafInfo <p> STATUS_NOT_SUPPORTED"},
      {'I', "GetModuleInfo entry"},
      {'I', "GetModuleInfo HAPS DEFAULT"},
      {'I', "GetMipiConfig port 0 lanes 2 format 12"},
      {'I', "GetMipiConfig: missing result <p> 0x0 <p>"},
      {'I', "QueryProperty 33 STATUS_NOT_SUPPORTED"},
      {'I', "GetAuxFlag 0 STATUS_SUCCESS"},
      {'I', "PowerUp entry"},
      {'I', "PowerUp exit STATUS_SUCCESS"},
      {'I', "PowerDown entry"},
      {'I', "PowerDown exit STATUS_SUCCESS"},
      {'I', "AcceptRecord word 3 44 STATUS_SUCCESS"},
      {'I', "AcceptEntry 2 3 4 STATUS_INVALID_PARAMETER"},
      {'I', "AcceptEntry no entry STATUS_SUCCESS"},
      {'I', "AcceptPointer STATUS_SUCCESS"},
      {'I', "AcceptValue 7 STATUS_SUCCESS"},
      {'I', "AcceptPair entry"},
      {'I', "AcceptPair 5 6 STATUS_INVALID_PARAMETER"},
      {'I', "AcceptNotice entry"},
      {'I', "AcceptNotice STATUS_SUCCESS"},
      {'I', "AcceptEntryList entry 1: 6 7 8 STATUS_SUCCESS"}}},
    {"QueryProperty 34 with 4 lanes at 1500 MBps",
     [](TraceRun& b) {
         b.load(), b.sys.registry().set_dword("MipiLanes", 4);
         b.sys.registry().set_dword("MipiMBps", 1500), b.add();
         ULONG v;
         (void)QueryProperty(b.ctx, 34, &v);
     },
     {{'I', "QueryProperty link rate 1500000000"}}},
    {"PowerUp refused by the framework, one interface reference held",
     [](TraceRun& b) {
         b.load(), b.add(), SensorInterfaceReference(b.ctx);
         b.sys.faults().fail("WdfDeviceStopIdle", STATUS_DEVICE_NOT_CONNECTED), (void)PowerUp(b.ctx);
     },
     {{'E', "PowerUp: WdfDeviceStopIdle failed STATUS_DEVICE_NOT_CONNECTED, interface references 1"}}},
    {"an actuator's connection opened and closed",
     [](TraceRun& b) {
         b.load(), b.add(), (void)platform::select_actuator(b.sys, b.ctx, {"DW9714", 0x0C});
         (void)InitI2c(b.ctx, 1), DeinitI2c(b.ctx, 1);
     },
     {{'I', "OpenI2cTarget InfoB 0 InfoA 0"}, {'I', "CloseI2cTarget InfoB 0 InfoA 0"}}},
    {"an open of a slot no platform filled", [](TraceRun& b) { b.load(), b.add(), (void)InitI2c(b.ctx, 1); },
     {{'E', "InitI2c: no connection in slot 1"}}},
    {"an open the bus refuses",
     [](TraceRun& b) {
         b.load(), b.add(), (void)platform::select_actuator(b.sys, b.ctx, {"DW9714", 0x0C});
         b.sys.faults().fail("WdfIoTargetOpen", STATUS_INSUFFICIENT_RESOURCES), (void)InitI2c(b.ctx, 1);
     },
     {{'E', "InitI2c: opening slot 1 failed STATUS_INSUFFICIENT_RESOURCES"}}},
};

// Texts the bench cannot make the driver emit, and why.
const std::pair<const char*, const char*> kUnreachable[] = {
    {"InitSensorContext: GetSensorCaps failed %!STATUS!",
     "the capability operation fails only for null arguments, and device add passes its own context and record"},
    {"%s mode table has %u rows, more than its list holds",
     "every shipped table ends before its list's capacity, which the build checks"},
    {"DeinitI2c: closing slot %u failed %!STATUS!",
     "closing a framework I/O target cannot fail; the close step reports a failure only of a target it did not open"},
};

std::string with_pointers_hidden(const std::string& text)
{
    static const std::regex pointer("0x[0-9a-f]{5,}");
    return std::regex_replace(text, pointer, "<p>");
}

TEST(TraceContractTest, EveryEventAtItsLevelWithItsNumbers)
{
    const ULONG savedPdafType = SensorParameters.PdafType;
    for (const auto& reach : kContract) {
        SCOPED_TRACE(reach.how);
        TraceRun b;
        reach.run(b);
        std::vector<std::string> seen;
        for (const auto& e : b.sys.traces().events()) {
            const bench::TraceFormatInfo* f = b.sys.traces().format(e);
            char level = f == nullptr ? '?' : f->flag == TRACE_ERROR ? 'E' : 'I';
            seen.push_back(level + (" " + with_pointers_hidden(b.sys.traces().message(e))));
            for (const auto& [text, why] : kUnreachable) {
                EXPECT_FALSE(f != nullptr && f->text == text) << "reached after all: " << text << " (" << why << ")";
            }
        }
        for (const auto& expected : reach.events) {
            std::string line = expected.level + (" " + std::string(expected.decoded));
            EXPECT_NE(std::find(seen.begin(), seen.end(), line), seen.end())
                << "expected \"" << line << "\"; seen:\n" << testing::PrintToString(seen);
        }
        SensorParameters.PdafType = savedPdafType;
    }
}

}  // namespace
}  // namespace korvanel::test
