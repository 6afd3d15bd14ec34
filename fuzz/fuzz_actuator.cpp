// The lens-actuator operations of a chosen table row (out-of-range rows
// included) with fuzzed positions, module bounds and names, SetConfig arrays
// and a bus that fails, NACKs or times out chosen transfers, with lock waits
// that fail. After every operation BusLock is free, the status outputs are
// flags, and nothing was touched out of bounds; the driver unloads clean.
#include "fuzz_input.h"

#include "platform/checked.h"

#include "platform/actuator.h"
#include "bench/spb_controller.h"
#include "bench/bench.h"
#include "sensor/device_context.h"
#include "trace/trace.h"
#include "vcm/vcm.h"

#include <array>
#include <string>

using korvanel::fuzz::Input;
using korvanel::bench::Bench;

namespace {

// The driver-wide settings tables SetConfig replaces; each run starts from
// the defaults, as a freshly loaded driver would.
struct SettingsTable {
    VCM_REG_DATA* table;
    size_t count;
};
const SettingsTable kTables[] = {
    {AD5823_Settings, AD5823_SETTINGS_COUNT}, {DW9714_Settings, DW9714_SETTINGS_COUNT},
    {AD5816_Settings, AD5816_SETTINGS_COUNT}, {DW9719_Settings, DW9719_SETTINGS_COUNT},
    {DW9718_Settings, DW9718_SETTINGS_COUNT}, {DW9806B_Settings, DW9806B_SETTINGS_COUNT},
    {WV517S_Settings, WV517S_SETTINGS_COUNT}, {LC898122XA_Settings, LC898122XA_SETTINGS_COUNT},
};

struct Defaults {
    std::vector<std::vector<VCM_REG_DATA>> saved;
    Defaults()
    {
        for (auto& t : kTables) {
            saved.emplace_back(t.table, t.table + t.count);
        }
    }
    void restore() const
    {
        for (size_t i = 0; i < std::size(kTables); i++) {
            std::copy(saved[i].begin(), saved[i].end(), kTables[i].table);
        }
    }
};

const char* const kModules[] = {"START2REAR", "CM500RF05SW700", "start2rear", "HAPS", "CM500RF05SW70"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const Defaults defaults;
    defaults.restore();

    Input in(data, size);
    Bench& sys = korvanel::fuzz::bench();
    PDEVICE_CONTEXT ctx = korvanel::fuzz::part_device(in, sys);

    unsigned row = 1 + in.pick(VCM_TYPE_COUNT - 1);
    korvanel::platform::ActuatorSelection options;
    options.chip = std::to_string(row);
    options.low = in.pick(1100);
    options.high = in.pick(1100);
    if (in.flag()) {
        options.module = kModules[in.pick(5)];
    }
    korvanel::platform::select_actuator(sys, ctx, options);
    const VCM_DRIVER& chip = korvanel::platform::actuator_table()[row];
    switch (in.pick(8)) {
    case 0:
        ctx->VcmType = LONG(VCM_TYPE_COUNT + in.pick(3));  // no chip: traces and transfers stop
        break;
    case 1:
        ctx->VcmType = 0;
        break;
    default:
        break;
    }
    korvanel::fuzz::fault_bus(in, sys, 120);
    if (in.pick(4) == 0) {
        sys.faults().fail("KeWaitForSingleObject", STATUS_UNSUCCESSFUL, in.pick(8));
    }
    if (in.pick(8) == 0) {
        sys.faults().fail("WdfIoTargetOpen", STATUS_OBJECT_NAME_NOT_FOUND);
    }

    for (int step = 0; step < 32 && !in.empty(); step++) {
        PDEVICE_CONTEXT target = in.pick(16) == 0 ? nullptr : ctx;
        switch (in.pick(8)) {
        case 0:
            chip.Init(target);
            break;
        case 1:
            chip.SetPos(target, SHORT(in.number<uint16_t>()));
            break;
        case 2: {
            USHORT position = 0xA5A5;
            chip.GetPos(target, in.pick(8) == 0 ? nullptr : &position);
            break;
        }
        case 3:
        case 4: {
            ULONG flag = 7;
            NTSTATUS status = (in.flag() ? chip.GetStatus : chip.GetHPStatus)(target, in.pick(8) == 0 ? nullptr : &flag);
            FUZZ_CHECK(!NT_SUCCESS(status) || flag <= 1 || flag == 7);
            break;
        }
        case 5: {
            // The count first, then the pairs; the array is long enough for
            // any count a chip accepts.
            std::array<ULONG, 1 + 2 * LC898122XA_SETTINGS_COUNT> config{};
            config[0] = in.flag() ? ULONG(kTables[row - 1].count) : in.pick(40);
            for (size_t i = 0; i < kTables[row - 1].count; i++) {
                config[1 + 2 * i] = in.flag() ? kTables[row - 1].table[i].Reg : in.byte();
                config[2 + 2 * i] = in.byte();
            }
            chip.SetConfig(target, in.pick(16) == 0 ? nullptr : config.data());
            break;
        }
        case 6:
            chip.ResetPos(target);
            break;
        case 7:
            sys.clock().advance_ms(in.pick(50));
            break;
        }
        FUZZ_CHECK(KeReadStateEvent(&ctx->BusLock) == 1);
    }

    korvanel::fuzz::unload_clean(sys);
    defaults.restore();
    return 0;
}
