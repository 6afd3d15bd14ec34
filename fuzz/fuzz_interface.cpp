// The configuration a platform can give the driver (service-key values of any
// type and size, the hardware identifier, the system's tracing) and every
// operation of SENSOR_INTERFACE called with fuzzed arguments, null pointers
// included, as a careless camera driver would. Whatever the input, nothing
// is read or written out of bounds, the answers are well formed, and the
// driver unloads clean.
#include "fuzz_input.h"

#include "bench/bench.h"
#include "platform/checked.h"
#include "platform/device.h"
#include "sensor/sensor_interface.h"
#include "trace/trace.h"

#include <string>

using korvanel::fuzz::Input;
using korvanel::bench::DeviceConfig;
using korvanel::bench::Bench;

namespace {

const char* const kValueNames[] = {"MipiLanes", "MipiPort", "MipiDataFormat", "MipiMBps", "PDAFInterleaveMode",
                                   "PDAF_Type"};
const char16_t* const kHardwareIds[] = {u"root\\KORVANEL\\sve",   u"root\\KORVANEL\\rgbir", u"root\\KORVANEL\\mdsve",
                                        u"root\\KORVANEL\\md_T3", u"root\\KORVANEL\\md",    u"root\\KORVANEL\\dpc",
                                        u"root\\KORVANEL\\dpc_T3", u"ROOT\\korvanel\\RGBIR"};
const uint32_t kValueTypes[] = {REG_DWORD, REG_SZ, REG_BINARY, REG_QWORD};

void Configure(Input& in, Bench& sys, DeviceConfig& device)
{
    for (const char* name : kValueNames) {
        switch (in.pick(4)) {
        case 0:
            break;  // absent
        case 1:
            sys.registry().set_dword(name, in.number<uint32_t>());
            break;
        default: {
            uint32_t type = kValueTypes[in.pick(4)];
            size_t length = in.flag() ? in.pick(9) : 4090 + in.pick(12);  // around the reader's 4096 bytes
            sys.registry().set(name, type, in.bytes(length));
        }
        }
    }
    sys.set_os_major_version(in.flag() ? 5 : 10);
    sys.set_classic_tracing_available(in.flag());
    if (in.flag()) {
        sys.traces().enable(in.pick(8));
    }

    unsigned id = in.pick(10);
    if (id < 8) {
        device.hardware_ids = {kHardwareIds[id]};
    } else {
        std::u16string text;
        for (unsigned n = in.pick(24); n > 0; n--) {
            text += char16_t(in.number<uint16_t>());
        }
        device.hardware_ids = {text};
    }
    switch (in.pick(4)) {
    case 1:
        device.id_query = DeviceConfig::IdQuery::Pending;
        break;
    case 2:
        device.id_query = DeviceConfig::IdQuery::Fail;
        device.id_status = STATUS_NO_SUCH_DEVICE;
        break;
    default:
        break;
    }
}

// One operation, arguments from the input; null where the input says so.
void Call(Input& in, SENSOR_INTERFACE& si, PSENSOR_CONTEXT device, int& power_references)
{
    PSENSOR_CONTEXT ctx = in.pick(8) == 0 ? nullptr : device;
    auto maybe = [&in](auto* p) { return in.pick(6) == 0 ? nullptr : p; };
    switch (in.pick(21)) {
    case 0: {
        ULONG record[8] = {};
        si.AcceptRecord(ctx, maybe(record));
        break;
    }
    case 1: {
        SENSOR_CAPS caps;
        caps.ModeFlags = in.number<uint32_t>();
        if (si.GetSensorCaps(ctx, maybe(&caps)) == STATUS_SUCCESS && ctx != nullptr) {
            ULONG mode = (caps.ModeFlags & SENSOR_CAPS_MODE_MASK) >> SENSOR_CAPS_MODE_SHIFT;
            FUZZ_CHECK(mode == SENSOR_CAPS_MODE_RGBIR || mode == SENSOR_CAPS_MODE_RGB);
        }
        break;
    }
    case 2: {
        ULONG port, lanes, format;
        si.GetMipiConfig(ctx, maybe(&port), maybe(&lanes), maybe(&format));
        break;
    }
    case 3: {
        const SENSOR_PARAMETERS* p = nullptr;
        si.GetSensorParameters(ctx, maybe(&p));
        break;
    }
    case 4: {
        const MODE_LIST* l[4] = {};
        if (si.GetModeTables(ctx, maybe(&l[0]), maybe(&l[1]), maybe(&l[2]), maybe(&l[3])) == STATUS_SUCCESS) {
            for (auto* list : l) {
                FUZZ_CHECK(list != nullptr && list->Count <= 50);
            }
        }
        break;
    }
    case 5: {
        const MODE_LIST* l = nullptr;
        si.GetPdafTable(ctx, maybe(&l));
        break;
    }
    case 6:
        si.SelectMode(ctx, LONG(in.pick(7)) - 1, in.number<int32_t>() % 9000, in.number<int32_t>() % 9000,
                      in.number<int32_t>() % 200);
        break;
    case 7: {
        SENSOR_ENTRY entry{};
        si.AcceptEntry(ctx, maybe(&entry));
        break;
    }
    case 8:
        si.AcceptPointer(ctx, maybe(&si));
        break;
    case 9: {
        ULONG value = in.number<uint32_t>();
        si.AcceptValue(ctx, maybe(&value));
        break;
    }
    case 10:
        si.AcceptPair(ctx, in.number<uint32_t>(), in.number<uint32_t>());
        break;
    case 11:
        si.AcceptNotice(ctx);
        break;
    case 12: {
        SENSOR_MODE_INFO info;
        memset(&info, 0xA5, sizeof info);
        ULONG size = in.flag() ? sizeof info : in.number<uint32_t>() % 64;
        ULONG asked = size;
        if (si.GetModeInfo(ctx, maybe(&size), maybe(&info)) == STATUS_SUCCESS) {
            FUZZ_CHECK(asked >= sizeof info && size == sizeof info);
            FUZZ_CHECK(info.Signature == 0x09FCD140 && info.Width == info.Width20 && info.Height == info.Height10);
            FUZZ_CHECK(info.Untouched[0] == 0xA5 && info.Untouched[1] == 0xA5);
        }
        break;
    }
    case 13:
        if (si.PowerUp(ctx) == STATUS_SUCCESS && ctx != nullptr) {
            power_references++;
        }
        break;
    case 14:
        // A camera driver releases only what it holds.
        if (power_references > 0) {
            si.PowerDown(device);
            power_references--;
        } else {
            si.PowerDown(nullptr);
        }
        break;
    case 15: {
        ULONG v;
        si.GetAuxFlag(ctx, maybe(&v));
        break;
    }
    case 16: {
        ULONG v;
        if (si.GetParameterWord(ctx, maybe(&v)) == STATUS_SUCCESS) {
            FUZZ_CHECK(v == 0x00037530 || v == 0x00047530);
        }
        break;
    }
    case 17: {
        SENSOR_MODULE_INFO info;
        memset(&info, in.byte(), sizeof info);
        if (si.GetModuleInfo(ctx, maybe(&info)) == STATUS_SUCCESS) {
            FUZZ_CHECK(memchr(info.SensorName, 0, sizeof info.SensorName) != nullptr);
            FUZZ_CHECK(memchr(info.VendorName, 0, sizeof info.VendorName) != nullptr);
        }
        break;
    }
    case 18: {
        ULONG v;
        si.QueryProperty(ctx, in.flag() ? SensorPropertyLinkRate : in.number<int32_t>(), maybe(&v));
        break;
    }
    case 19: {
        PDAF_INFO info{};
        info.Width = in.flag() ? 4208 : in.number<uint32_t>() % 5000;
        info.Height = in.flag() ? 3120 : in.number<uint32_t>() % 5000;
        PPDAF_INFO p = maybe(&info);
        si.GetPdafInfo(ctx, maybe(&p));
        break;
    }
    case 20: {
        USHORT count = USHORT(in.pick(65));
        std::vector<SENSOR_ENTRY> entries(count);
        si.AcceptEntryList(ctx, in.pick(6) == 0 ? nullptr : entries.data(), count);
        break;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    Bench& sys = korvanel::fuzz::bench();
    DeviceConfig device;
    Configure(in, sys, device);
    FUZZ_CHECK(korvanel::platform::load_driver(sys) == STATUS_SUCCESS);
    auto opened = korvanel::platform::open_device(sys, std::move(device));
    FUZZ_CHECK(opened.status == STATUS_SUCCESS);
    auto& dev = *opened.device;
    SENSOR_INTERFACE& si = opened.si;
    auto* ctx = static_cast<PSENSOR_CONTEXT>(si.InterfaceHeader.Context);
    int power_references = 0;
    for (int step = 0; step < 64 && !in.empty(); step++) {
        Call(in, si, ctx, power_references);
        if (in.pick(4) == 0) {
            sys.clock().advance_ms(in.pick(20000));
        }
        FUZZ_CHECK(dev.power_references() == power_references);
        FUZZ_CHECK(power_references == 0 || dev.power_state() == PowerDeviceD0);
    }
    while (power_references-- > 0) {
        si.PowerDown(ctx);
    }
    si.InterfaceHeader.InterfaceDereference(ctx);

    korvanel::fuzz::unload_clean(sys);
    return 0;
}
