// checked.cpp - the stand-ins through which a client calls the driver's
// operations: one per operation (and per table row), each knowing the
// operation's name and declared level and holding the driver's routine.
#include "checked.h"

#include "bench/irql_rules.h"

#include <atomic>
#include <utility>

namespace korvanel::platform {

namespace {

namespace verifier = bench::verifier;

// A name as a template argument.
template <size_t N>
struct Name {
    char text[N];
    constexpr Name(const char (&s)[N])
    {
        for (size_t i = 0; i < N; i++) {
            text[i] = s[i];
        }
    }
};

// The stand-in for one operation: `Row` tells apart the rows of a table,
// whose routines share a type.
template <Name Operation, KIRQL Highest, typename Routine, size_t Row = 0>
struct Checked;

template <Name Operation, KIRQL Highest, typename R, typename... A, size_t Row>
struct Checked<Operation, Highest, R (*)(A...), Row> {
    using Routine = R (*)(A...);
    static inline std::atomic<Routine> driver{nullptr};

    // The camera driver's hot path: a load of the thread's state before the
    // call and one after, and a compare. A stop inside resets the thread's
    // state (a caller that raised the level puts its own back).
    static R call(A... arguments)
    {
        uint32_t entered = verifier::t_state;
        if (verifier::sweeping()) [[unlikely]] {
            return swept(entered, arguments...);
        }
        Routine routine = driver.load(std::memory_order_relaxed);
        if constexpr (std::is_void_v<R>) {
            routine(arguments...);
            returned(entered);
        } else {
            R result = routine(arguments...);
            returned(entered);
            return result;
        }
    }

    // In the sweep: at the operation's highest level, back at the caller's after.
    [[gnu::noinline]] static R swept(uint32_t caller, A... arguments)
    {
        uint32_t entered = verifier::operation_state(caller, Highest);
        verifier::t_state = entered;
        Routine routine = driver.load(std::memory_order_relaxed);
        if constexpr (std::is_void_v<R>) {
            routine(arguments...);
            returned(entered);
            verifier::t_state = caller;
        } else {
            R result = routine(arguments...);
            returned(entered);
            verifier::t_state = caller;
            return result;
        }
    }

    [[gnu::always_inline]] static void returned(uint32_t entered)
    {
        if (verifier::t_state != entered) {
            verifier::returned_changed(Operation.text, entered, bench::stops::kIrqlUnexpectedValue);
        }
    }

    // The stand-in for `routine`; a null slot stays null.
    static Routine wrap(Routine routine)
    {
        if (routine == nullptr) {
            return nullptr;
        }
        driver.store(routine, std::memory_order_relaxed);
        return &call;
    }
};

// Wraps one member of a record in place.
template <Name Operation, KIRQL Highest, size_t Row = 0, typename Record, typename Routine>
void wrap(Record& record, Routine Record::*member)
{
    record.*member = Checked<Operation, Highest, Routine, Row>::wrap(record.*member);
}

template <size_t Row>
void wrap_actuator(VCM_DRIVER& row)
{
    wrap<"actuator Init", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::Init);
    wrap<"actuator ResetPos", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::ResetPos);
    wrap<"actuator SetPos", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::SetPos);
    wrap<"actuator GetPos", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::GetPos);
    wrap<"actuator GetStatus", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::GetStatus);
    wrap<"actuator GetHPStatus", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::GetHPStatus);
    wrap<"actuator SetConfig", PASSIVE_LEVEL, Row>(row, &VCM_DRIVER::SetConfig);
}

template <size_t Row>
void wrap_memory(NVM_DRIVER& row)
{
    wrap<"memory Write", PASSIVE_LEVEL, Row>(row, &NVM_DRIVER::Write);
    wrap<"memory Read", PASSIVE_LEVEL, Row>(row, &NVM_DRIVER::Read);
    wrap<"memory Load", PASSIVE_LEVEL, Row>(row, &NVM_DRIVER::Load);
}

template <typename Row, size_t Count, typename Wrap, size_t... Rows>
void wrap_rows(Row (&rows)[Count], const Row* driver, Wrap, std::index_sequence<Rows...>)
{
    ((rows[Rows] = driver[Rows], Wrap::template apply<Rows>(rows[Rows])), ...);
}

struct WrapActuator {
    template <size_t R>
    static void apply(VCM_DRIVER& row) { wrap_actuator<R>(row); }
};
struct WrapMemory {
    template <size_t R>
    static void apply(NVM_DRIVER& row) { wrap_memory<R>(row); }
};

}  // namespace

SENSOR_INTERFACE checked_interface(const SENSOR_INTERFACE& published)
{
    SENSOR_INTERFACE si = published;
    if (!verifier::enabled()) {
        return si;
    }
    // The levels of sensor/sensor.h and driver/driver.h.
    wrap<"InterfaceReference", DISPATCH_LEVEL>(si.InterfaceHeader, &INTERFACE::InterfaceReference);
    wrap<"InterfaceDereference", DISPATCH_LEVEL>(si.InterfaceHeader, &INTERFACE::InterfaceDereference);
    wrap<"AcceptRecord", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptRecord);
    wrap<"GetSensorCaps", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetSensorCaps);
    wrap<"GetMipiConfig", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetMipiConfig);
    wrap<"GetSensorParameters", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetSensorParameters);
    wrap<"GetModeTables", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetModeTables);
    wrap<"GetPdafTable", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetPdafTable);
    wrap<"SelectMode", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::SelectMode);
    wrap<"AcceptEntry", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptEntry);
    wrap<"AcceptPointer", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptPointer);
    wrap<"AcceptValue", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptValue);
    wrap<"AcceptPair", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptPair);
    wrap<"AcceptNotice", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptNotice);
    wrap<"GetModeInfo", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetModeInfo);
    wrap<"PowerUp", PASSIVE_LEVEL>(si, &SENSOR_INTERFACE::PowerUp);
    wrap<"PowerDown", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::PowerDown);
    wrap<"GetAuxFlag", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetAuxFlag);
    wrap<"GetParameterWord", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetParameterWord);
    wrap<"GetModuleInfo", PASSIVE_LEVEL>(si, &SENSOR_INTERFACE::GetModuleInfo);
    wrap<"QueryProperty", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::QueryProperty);
    wrap<"GetPdafInfo", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::GetPdafInfo);
    wrap<"AcceptEntryList", DISPATCH_LEVEL>(si, &SENSOR_INTERFACE::AcceptEntryList);
    return si;
}

NTSTATUS query_sensor_interface(bench::Device& device, SENSOR_INTERFACE* out)
{
    NTSTATUS status = device.query_interface(GUID_SENSOR_INTERFACE, out, SENSOR_INTERFACE_VERSION);
    if (NT_SUCCESS(status)) {
        *out = checked_interface(*out);
    }
    return status;
}

namespace {
// A table's rows with their routines wrapped, made once; the driver's own
// table while the verifier is off.
template <typename Row, size_t Count, typename Wrap>
const Row* checked_table(const Row (&driver)[Count], Wrap wrap)
{
    static Row checked[Count];
    static const bool made = (wrap_rows(checked, driver, wrap, std::make_index_sequence<Count>{}), true);
    (void)made;
    return verifier::enabled() ? checked : driver;
}
}  // namespace

const VCM_DRIVER* actuator_table() { return checked_table(VcmDrivers, WrapActuator{}); }
const NVM_DRIVER* memory_table() { return checked_table(NvmDriverTable, WrapMemory{}); }

}  // namespace korvanel::platform
