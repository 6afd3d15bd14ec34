// What the driver's own trace says, event by event: whoever reads a trace of
// the device (the camera stack's engineers, their scripts) matches each
// event by its text, its level and the numbers it carries. Every event of
// driver entry, device add, the interface operations, the registry reader and
// the bus connections is reached here by the operation and the condition that
// emits it. (The actuator and memory texts have contracts of their own.)
#include "bench.h"

#include "bus/i2c.h"
#include "driver/driver.h"
#include "platform/actuator.h"
#include "sensor/description.h"
#include "sensor/registry.h"
#include "sensor/sensor.h"

#include <functional>
#include <regex>

namespace korvanel::test {
namespace {

// A bench with tracing on before the driver loads, so that every event from
// DriverEntry on is seen.
struct Bench {
    host::System sys;
    host::Device* dev = nullptr;
    PDEVICE_CONTEXT ctx = nullptr;

    Bench() { sys.traces().enable(TRACE_INFO | TRACE_ERROR); }
    void load() { ASSERT_EQ(platform::load_driver(sys), STATUS_SUCCESS); }
    void add(host::DeviceConfig config = {})
    {
        dev = &sys.add_device(std::move(config));
        ctx = static_cast<PDEVICE_CONTEXT>(dev->context());
    }
};

std::vector<uint8_t> dword(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

struct Pinned {
    const char* event;    // the format text at the call site
    uint32_t flag;        // TRACE_INFO or TRACE_ERROR
    const char* decoded;  // the event as decoded; a pointer other than null reads "<p>"
    const char* how;      // the operation and condition that emit it
    std::function<void(Bench&)> reach;  // from a bench with tracing on, nothing loaded
    const char* unreachable = nullptr;  // why the bench cannot emit it, if it cannot
};

std::string with_pointers_hidden(const std::string& text)
{
    static const std::regex pointer("0x[0-9a-f]{5,}");
    return std::regex_replace(text, pointer, "<p>");
}

void added(Bench& b) { b.load(), b.add(); }

host::DeviceConfig named(const char16_t* id)
{
    host::DeviceConfig config;
    config.hardware_ids = {id};
    return config;
}

host::DeviceConfig unanswered()
{
    host::DeviceConfig config;
    config.id_query = host::DeviceConfig::IdQuery::Unanswered;
    return config;
}

const Pinned kContract[] = {
    // Driver entry and unload.
    {"DriverEntry exit %!STATUS!", TRACE_INFO, "DriverEntry exit STATUS_SUCCESS", "a load", [](Bench& b) { b.load(); }},
    {"SaveRegistryPath: allocation of %u bytes failed", TRACE_ERROR, "SaveRegistryPath: allocation of 122 bytes failed",
     "a load whose path copy is refused",
     [](Bench& b) {
         b.sys.faults().fail("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES);
         b.load();
     }},
    {"SaveRegistryPath: a path of %u bytes leaves no room for its terminator %!STATUS!", TRACE_ERROR,
     "SaveRegistryPath: a path of 65534 bytes leaves no room for its terminator STATUS_NAME_TOO_LONG",
     "a load with a path of 32767 characters",
     [](Bench& b) {
         std::u16string path(32767, u'a');
         (void)b.sys.load_driver(DriverEntry, &path);
     }},
    {"SensorEvtDriverUnload", TRACE_INFO, "SensorEvtDriverUnload", "an unload",
     [](Bench& b) { b.load(), (void)b.sys.unload_driver(); }},
    {"SensorEvtDriverCleanup", TRACE_INFO, "SensorEvtDriverCleanup", "an unload",
     [](Bench& b) { b.load(), (void)b.sys.unload_driver(); }},

    // Device add, its failures, and the PnP and power callbacks.
    {"SensorEvtDeviceAdd entry", TRACE_INFO, "SensorEvtDeviceAdd entry", "a device add", added},
    {"SensorEvtDeviceAdd exit %!STATUS!", TRACE_INFO, "SensorEvtDeviceAdd exit STATUS_SUCCESS", "a device add", added},
    {"Symbolic link %wZ", TRACE_INFO, "Symbolic link \\??\\ROOT#KORVANEL#0000#{db53be49-6227-48fa-a2f9-9524d27c03d7}",
     "a device add", added},
    {"WdfDeviceCreate failed %!STATUS!", TRACE_ERROR, "WdfDeviceCreate failed STATUS_INSUFFICIENT_RESOURCES",
     "a device add whose device is not created",
     [](Bench& b) { b.load(), b.sys.faults().fail("WdfDeviceCreate", STATUS_INSUFFICIENT_RESOURCES), b.add(); }},
    {"WdfDeviceCreateDeviceInterface failed %!STATUS!", TRACE_ERROR,
     "WdfDeviceCreateDeviceInterface failed STATUS_INSUFFICIENT_RESOURCES", "a device add whose interface fails",
     [](Bench& b) {
         b.load(), b.sys.faults().fail("WdfDeviceCreateDeviceInterface", STATUS_INSUFFICIENT_RESOURCES), b.add();
     }},
    {"WdfDeviceAddQueryInterface failed %!STATUS!", TRACE_ERROR,
     "WdfDeviceAddQueryInterface failed STATUS_INSUFFICIENT_RESOURCES", "a device add whose publication fails",
     [](Bench& b) {
         b.load(), b.sys.faults().fail("WdfDeviceAddQueryInterface", STATUS_INSUFFICIENT_RESOURCES), b.add();
     }},
    {"WdfDeviceAssignS0IdleSettings failed %!STATUS!", TRACE_ERROR,
     "WdfDeviceAssignS0IdleSettings failed STATUS_INVALID_DEVICE_REQUEST", "a device add whose idle policy fails",
     [](Bench& b) {
         b.load(), b.sys.faults().fail("WdfDeviceAssignS0IdleSettings", STATUS_INVALID_DEVICE_REQUEST), b.add();
     }},
    {"SensorEvtPrepareHardware", TRACE_INFO, "SensorEvtPrepareHardware", "a device start", added},
    {"SensorEvtD0Entry from framework power state %d", TRACE_INFO, "SensorEvtD0Entry from framework power state 5",
     "a device start, from D3Final", added},
    {"SensorEvtD0Exit to framework power state %d", TRACE_INFO, "SensorEvtD0Exit to framework power state 5",
     "a removal, to D3Final", [](Bench& b) { added(b), b.dev->remove(); }},
    {"SensorEvtReleaseHardware", TRACE_INFO, "SensorEvtReleaseHardware", "a removal",
     [](Bench& b) { added(b), b.dev->remove(); }},
    {"SensorEvtQueryRemove references %d", TRACE_INFO, "SensorEvtQueryRemove references 0",
     "a query-remove with no reference", [](Bench& b) { added(b), (void)b.dev->query_remove(); }},
    {"SensorInterfaceReference references %d", TRACE_INFO, "SensorInterfaceReference references 1",
     "the camera driver's query-interface", [](Bench& b) { added(b), SensorInterfaceReference(b.ctx); }},
    {"SensorInterfaceDereference references %d", TRACE_INFO, "SensorInterfaceDereference references 0",
     "the camera driver's release",
     [](Bench& b) { added(b), SensorInterfaceReference(b.ctx), SensorInterfaceDereference(b.ctx); }},

    // Variant identification and context set-up at device add.
    {"IdentifySensorVariant entry", TRACE_INFO, "IdentifySensorVariant entry", "a device add", added},
    {"IdentifySensorVariant hardware identifier %ws", TRACE_INFO,
     "IdentifySensorVariant hardware identifier root\\KORVANEL\\md", "a device add of the md variant",
     [](Bench& b) { b.load(), b.add(named(u"root\\KORVANEL\\md")); }},
    {"IdentifySensorVariant: hardware identifier query failed %!STATUS!", TRACE_ERROR,
     "IdentifySensorVariant: hardware identifier query failed STATUS_NOT_SUPPORTED",
     "a device add whose bus driver leaves the query unanswered (the request's preset status)",
     [](Bench& b) { b.load(), b.add(unanswered()); }},
    {"IdentifySensorVariant exit %!STATUS!", TRACE_INFO, "IdentifySensorVariant exit STATUS_SUCCESS", "a device add",
     added},
    {"InitSensorContext entry", TRACE_INFO, "InitSensorContext entry", "a device add", added},
    {"InitSensorContext: GetSensorCaps failed %!STATUS!", TRACE_ERROR, "", "", nullptr,
     "the capability operation fails only for null arguments, and device add passes its own context and record"},
    {"InitSensorInterface entry", TRACE_INFO, "InitSensorInterface entry", "a device add", added},
    {"%s mode list: %u entries", TRACE_INFO, "Video mode list: 23 entries", "a device add", added},
    {"mode %u x %u (%u/%u) at %u, %u %u", TRACE_INFO, "mode 4208 x 3120 (1000/1000) at 30, 0 1",
     "a device add, first row of each table", added},
    {"%s list: %u entries", TRACE_INFO, "PDAF list: 2 entries", "a device add", added},
    {"%s mode table has %u rows, more than its list holds", TRACE_ERROR, "", "", nullptr,
     "every shipped table ends before its list's capacity, which the build checks"},

    // Configuration from the service key.
    {"ReadRegistryConfiguration PDAF_Type %u", TRACE_INFO, "ReadRegistryConfiguration PDAF_Type 2",
     "a device add with PDAF_Type 2",
     [](Bench& b) { b.load(), b.sys.registry().set("PDAF_Type", REG_DWORD, dword(2)), b.add(); }},
    {"ReadRegistryValue: %s query failed %!STATUS!", TRACE_ERROR,
     "ReadRegistryValue: MipiLanes query failed STATUS_OBJECT_NAME_NOT_FOUND", "a device add, the value absent",
     added},
    {"ReadRegistryValue: %s has type %u", TRACE_ERROR, "ReadRegistryValue: MipiLanes has type 1",
     "a device add with MipiLanes a string",
     [](Bench& b) { b.load(), b.sys.registry().set("MipiLanes", REG_SZ, {'4', 0, 0, 0}), b.add(); }},
    {"ReadRegistryValue: %s does not fit %u bytes", TRACE_ERROR, "ReadRegistryValue: MipiLanes does not fit 4 bytes",
     "a device add with MipiLanes five bytes long",
     [](Bench& b) { b.load(), b.sys.registry().set("MipiLanes", REG_DWORD, {4, 0, 0, 0, 0}), b.add(); }},
    {"ReadRegistryValue: opening %wZ failed %!STATUS!", TRACE_ERROR,
     "ReadRegistryValue: opening \\Registry\\Machine\\System\\CurrentControlSet\\Services\\korvanel failed "
     "STATUS_OBJECT_NAME_NOT_FOUND",
     "a device add without the service key",
     [](Bench& b) { b.load(), b.sys.registry().set_service_key_present(false), b.add(); }},
    {"ReadRegistryValue: %s query buffer %!STATUS!", TRACE_ERROR,
     "ReadRegistryValue: MipiLanes query buffer STATUS_INSUFFICIENT_RESOURCES",
     "a device add whose query buffer is refused",
     [](Bench& b) { b.load(), b.sys.faults().fail("ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES), b.add(); }},
    {"ReadRegistryValue: %s name conversion failed %!STATUS!", TRACE_ERROR,
     "ReadRegistryValue: MipiLanes name conversion failed STATUS_NO_MEMORY",
     "a device add whose value name is not converted",
     [](Bench& b) { b.load(), b.sys.faults().fail("RtlAnsiStringToUnicodeString", STATUS_NO_MEMORY), b.add(); }},

    // The interface operations.
    {"GetModeTables %p %p %p %p %!STATUS!", TRACE_INFO, "GetModeTables <p> <p> <p> 0x0 STATUS_INVALID_PARAMETER",
     "GetModeTables without a Raw result",
     [](Bench& b) {
         const MODE_LIST *s, *v, *p;
         added(b), (void)GetModeTables(b.ctx, &s, &v, &p, nullptr);
     }},
    {"GetPdafTable %p %!STATUS!", TRACE_INFO, "GetPdafTable <p> STATUS_SUCCESS", "GetPdafTable",
     [](Bench& b) {
         const MODE_LIST* l;
         added(b), (void)GetPdafTable(b.ctx, &l);
     }},
    {"SelectMode %d x %d at %d", TRACE_INFO, "SelectMode 1920 x 1080 at 30", "SelectMode",
     [](Bench& b) { added(b), (void)SelectMode(b.ctx, 1, 1920, 1080, 30); }},
    {"SelectMode exit %d x %d %!STATUS!", TRACE_INFO, "SelectMode exit 1920 x 1080 STATUS_SUCCESS",
     "SelectMode that finds a mode", [](Bench& b) { added(b), (void)SelectMode(b.ctx, 1, 1920, 1080, 30); }},
    {"SelectMode exit %!STATUS!", TRACE_INFO, "SelectMode exit STATUS_INVALID_PARAMETER", "SelectMode without a context",
     [](Bench& b) { added(b), (void)SelectMode(nullptr, 1, 1920, 1080, 30); }},
    {"SelectMode: no mode table %d %!STATUS!", TRACE_ERROR, "SelectMode: no mode table 4 STATUS_INVALID_PARAMETER",
     "SelectMode of table 4", [](Bench& b) { added(b), (void)SelectMode(b.ctx, 4, 640, 480, 0); }},
    {"SelectMode: no mode in table %d fits %!STATUS!", TRACE_ERROR,
     "SelectMode: no mode in table 2 fits STATUS_UNSUCCESSFUL", "SelectMode larger than every mode",
     [](Bench& b) { added(b), (void)SelectMode(b.ctx, 2, 9000, 9000, 0); }},
    {"GetModeInfo table %d row %d: %u x %u", TRACE_INFO, "GetModeInfo table 2 row 0: 640 x 512",
     "GetModeInfo after device add",
     [](Bench& b) {
         SENSOR_MODE_INFO info{};
         ULONG size = sizeof info;
         added(b), (void)GetModeInfo(b.ctx, &size, &info);
     }},
    {"GetModeInfo: %u bytes is too small %!STATUS!", TRACE_ERROR,
     "GetModeInfo: 16 bytes is too small STATUS_BUFFER_TOO_SMALL", "GetModeInfo with 16 bytes",
     [](Bench& b) {
         SENSOR_MODE_INFO info{};
         ULONG size = 16;
         added(b), (void)GetModeInfo(b.ctx, &size, &info);
     }},
    {"GetModeInfo: table %d row %d is no mode %!STATUS!", TRACE_ERROR,
     "GetModeInfo: table 7 row 0 is no mode STATUS_INVALID_DEVICE_STATE", "GetModeInfo after SelectMode of table 7",
     [](Bench& b) {
         SENSOR_MODE_INFO info{};
         ULONG size = sizeof info;
         added(b), (void)SelectMode(b.ctx, 7, 0, 0, 0), (void)GetModeInfo(b.ctx, &size, &info);
     }},
    {"GetSensorCaps mode %u", TRACE_INFO, "GetSensorCaps mode 4", "GetSensorCaps of the rgbir variant",
     [](Bench& b) {
         SENSOR_CAPS caps{};
         b.load(), b.add(named(u"root\\KORVANEL\\rgbir")), (void)GetSensorCaps(b.ctx, &caps);
     }},
    {"GetSensorParameters %p %!STATUS!", TRACE_INFO, "GetSensorParameters 0x0 STATUS_INVALID_PARAMETER",
     "GetSensorParameters without a result", [](Bench& b) { added(b), (void)GetSensorParameters(b.ctx, nullptr); }},
    {"GetParameterWord %u", TRACE_INFO, "GetParameterWord 3", "GetParameterWord",
     [](Bench& b) {
         ULONG v;
         added(b), (void)GetParameterWord(b.ctx, &v);
     }},
    {"GetPdafInfo %p %!STATUS!", TRACE_INFO, "GetPdafInfo <p> STATUS_NOT_SUPPORTED", "GetPdafInfo of a size not listed",
     [](Bench& b) {
         PDAF_INFO info{};
         info.Width = 1000, info.Height = 1000;
         PPDAF_INFO p = &info;
         added(b), (void)GetPdafInfo(b.ctx, &p);
     }},
    {"GetModuleInfo entry", TRACE_INFO, "GetModuleInfo entry", "GetModuleInfo",
     [](Bench& b) {
         SENSOR_MODULE_INFO info{};
         added(b), (void)GetModuleInfo(b.ctx, &info);
     }},
    {"GetModuleInfo %s %s", TRACE_INFO, "GetModuleInfo HAPS DEFAULT", "GetModuleInfo of the default variant",
     [](Bench& b) {
         SENSOR_MODULE_INFO info{};
         added(b), (void)GetModuleInfo(b.ctx, &info);
     }},
    {"GetMipiConfig port %u lanes %u format %u", TRACE_INFO, "GetMipiConfig port 0 lanes 2 format 12",
     "GetMipiConfig with no configuration",
     [](Bench& b) {
         ULONG port, lanes, format;
         added(b), GetMipiConfig(b.ctx, &port, &lanes, &format);
     }},
    {"GetMipiConfig: missing result %p %p %p", TRACE_INFO, "GetMipiConfig: missing result <p> 0x0 <p>",
     "GetMipiConfig without a lane result",
     [](Bench& b) {
         ULONG port, format;
         added(b), GetMipiConfig(b.ctx, &port, nullptr, &format);
     }},
    {"QueryProperty link rate %u", TRACE_INFO, "QueryProperty link rate 1500000000",
     "QueryProperty 34 with 4 lanes at 1500 MBps",
     [](Bench& b) {
         ULONG v;
         b.load(), b.sys.registry().set("MipiLanes", REG_DWORD, dword(4));
         b.sys.registry().set("MipiMBps", REG_DWORD, dword(1500)), b.add(), (void)QueryProperty(b.ctx, 34, &v);
     }},
    {"QueryProperty %d %!STATUS!", TRACE_INFO, "QueryProperty 33 STATUS_NOT_SUPPORTED", "QueryProperty 33",
     [](Bench& b) {
         ULONG v;
         added(b), (void)QueryProperty(b.ctx, 33, &v);
     }},
    {"GetAuxFlag %u %!STATUS!", TRACE_INFO, "GetAuxFlag 0 STATUS_SUCCESS", "GetAuxFlag",
     [](Bench& b) {
         ULONG v;
         added(b), (void)GetAuxFlag(b.ctx, &v);
     }},
    {"PowerUp entry", TRACE_INFO, "PowerUp entry", "PowerUp", [](Bench& b) { added(b), (void)PowerUp(b.ctx); }},
    {"PowerUp exit %!STATUS!", TRACE_INFO, "PowerUp exit STATUS_SUCCESS", "PowerUp",
     [](Bench& b) { added(b), (void)PowerUp(b.ctx); }},
    {"PowerUp: WdfDeviceStopIdle failed %!STATUS!, interface references %d", TRACE_ERROR,
     "PowerUp: WdfDeviceStopIdle failed STATUS_DEVICE_NOT_CONNECTED, interface references 1",
     "PowerUp refused by the framework, one interface reference held",
     [](Bench& b) {
         added(b), SensorInterfaceReference(b.ctx);
         b.sys.faults().fail("WdfDeviceStopIdle", STATUS_DEVICE_NOT_CONNECTED), (void)PowerUp(b.ctx);
     }},
    {"PowerDown entry", TRACE_INFO, "PowerDown entry", "PowerDown after PowerUp",
     [](Bench& b) { added(b), (void)PowerUp(b.ctx), (void)PowerDown(b.ctx); }},
    {"PowerDown exit %!STATUS!", TRACE_INFO, "PowerDown exit STATUS_SUCCESS", "PowerDown after PowerUp",
     [](Bench& b) { added(b), (void)PowerUp(b.ctx), (void)PowerDown(b.ctx); }},
    {"AcceptRecord word 3 %u %!STATUS!", TRACE_INFO, "AcceptRecord word 3 44 STATUS_SUCCESS", "AcceptRecord",
     [](Bench& b) {
         ULONG record[4] = {11, 22, 33, 44};
         added(b), (void)AcceptRecord(b.ctx, record);
     }},
    {"AcceptEntry %u %u %u %!STATUS!", TRACE_INFO, "AcceptEntry 2 3 4 STATUS_INVALID_PARAMETER",
     "AcceptEntry without a context",
     [](Bench& b) {
         SENSOR_ENTRY entry{1, 2, 3, 4, 0};
         added(b), (void)AcceptEntry(nullptr, &entry);
     }},
    {"AcceptEntry no entry %!STATUS!", TRACE_INFO, "AcceptEntry no entry STATUS_SUCCESS", "AcceptEntry without an entry",
     [](Bench& b) { added(b), (void)AcceptEntry(b.ctx, nullptr); }},
    {"AcceptPointer %!STATUS!", TRACE_INFO, "AcceptPointer STATUS_SUCCESS", "AcceptPointer",
     [](Bench& b) { added(b), (void)AcceptPointer(b.ctx, b.ctx); }},
    {"AcceptValue %u %!STATUS!", TRACE_INFO, "AcceptValue 7 STATUS_SUCCESS", "AcceptValue",
     [](Bench& b) {
         ULONG v = 7;
         added(b), (void)AcceptValue(b.ctx, &v);
     }},
    {"AcceptPair entry", TRACE_INFO, "AcceptPair entry", "AcceptPair",
     [](Bench& b) { added(b), (void)AcceptPair(b.ctx, 5, 6); }},
    {"AcceptPair %u %u %!STATUS!", TRACE_INFO, "AcceptPair 5 6 STATUS_INVALID_PARAMETER", "AcceptPair without a context",
     [](Bench& b) { added(b), (void)AcceptPair(nullptr, 5, 6); }},
    {"AcceptNotice entry", TRACE_INFO, "AcceptNotice entry", "AcceptNotice",
     [](Bench& b) { added(b), (void)AcceptNotice(b.ctx); }},
    {"AcceptNotice %!STATUS!", TRACE_INFO, "AcceptNotice STATUS_SUCCESS", "AcceptNotice",
     [](Bench& b) { added(b), (void)AcceptNotice(b.ctx); }},
    {"AcceptEntryList entry %u: %u %u %u %!STATUS!", TRACE_INFO, "AcceptEntryList entry 1: 6 7 8 STATUS_SUCCESS",
     "AcceptEntryList of two entries",
     [](Bench& b) {
         SENSOR_ENTRY entries[2] = {{1, 2, 3, 4, 0}, {5, 6, 7, 8, 0}};
         added(b), (void)AcceptEntryList(b.ctx, entries, 2);
     }},

    // Bus connections.
    {"OpenI2cTarget InfoB %u InfoA %u", TRACE_INFO, "OpenI2cTarget InfoB 0 InfoA 0", "an actuator's Init",
     [](Bench& b) {
         added(b), (void)platform::select_actuator(b.sys, b.ctx, {"DW9714", 0x0C});
         (void)InitI2c(b.ctx, 1);
     }},
    {"CloseI2cTarget InfoB %u InfoA %u", TRACE_INFO, "CloseI2cTarget InfoB 0 InfoA 0", "the close after it",
     [](Bench& b) {
         added(b), (void)platform::select_actuator(b.sys, b.ctx, {"DW9714", 0x0C});
         (void)InitI2c(b.ctx, 1), DeinitI2c(b.ctx, 1);
     }},
    {"InitI2c: no connection in slot %u", TRACE_ERROR, "InitI2c: no connection in slot 1",
     "an open of a slot no platform filled", [](Bench& b) { added(b), (void)InitI2c(b.ctx, 1); }},
    {"InitI2c: opening slot %u failed %!STATUS!", TRACE_ERROR,
     "InitI2c: opening slot 1 failed STATUS_INSUFFICIENT_RESOURCES", "an open the bus refuses",
     [](Bench& b) {
         added(b), (void)platform::select_actuator(b.sys, b.ctx, {"DW9714", 0x0C});
         b.sys.faults().fail("WdfIoTargetOpen", STATUS_INSUFFICIENT_RESOURCES), (void)InitI2c(b.ctx, 1);
     }},
    {"DeinitI2c: closing slot %u failed %!STATUS!", TRACE_ERROR, "", "", nullptr,
     "closing a framework I/O target cannot fail; the close step reports a failure only of a target it did not open"},
};

TEST(TraceContractTest, EveryEventAtItsLevelWithItsNumbers)
{
    const ULONG savedPdafType = SensorParameters.PdafType;
    for (const auto& row : kContract) {
        SCOPED_TRACE(std::string(row.event) + " (" + row.how + ")");
        if (row.reach == nullptr) {
            EXPECT_NE(row.unreachable, nullptr);
            continue;
        }
        Bench b;
        row.reach(b);
        std::vector<std::string> seen;
        bool found = false;
        for (const auto& e : b.sys.traces().find(row.event)) {
            std::string decoded = with_pointers_hidden(b.sys.traces().message(e));
            seen.push_back(decoded);
            const host::TraceFormatInfo* f = b.sys.traces().format(e);
            found |= decoded == row.decoded && f != nullptr && f->flag == row.flag;
        }
        EXPECT_TRUE(found) << "expected \"" << row.decoded << "\" at " << (row.flag == TRACE_ERROR ? "error" : "info")
                           << " level; seen: " << testing::PrintToString(seen);
        SensorParameters.PdafType = savedPdafType;
    }
}

}  // namespace
}  // namespace korvanel::test
