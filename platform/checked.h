// checked.h - the driver's operations as a client on this bench calls them:
// through the verifier. Each operation of SENSOR_INTERFACE, and of the
// actuator and memory table rows, is reached through a stand-in that
//   - in the sweep, runs it at the highest level its declaration allows
//     (_IRQL_requires_max_ in sensor/sensor.h, vcm/vcm.h, nvm/nvm.h), so
//     that every branch a run reaches is also reached at that level;
//   - stops the bench, naming the operation, when it returns at another level
//     or holding other spin locks than it was entered with
//     (IRQL_UNEXPECTED_VALUE, as Windows reports a level left wrong).
// With the verifier off the records are the driver's own, untouched.
#pragma once

#include "bench/bench.h"
#include "nvm/nvm.h"
#include "sensor/device_context.h"
#include "sensor/sensor_interface.h"
#include "vcm/vcm.h"

namespace korvanel::platform {

// The camera driver's query-interface request for SENSOR_INTERFACE: the
// framework's copy of the record, one reference taken, its operations
// reached through the verifier.
NTSTATUS query_sensor_interface(bench::Device& device, SENSOR_INTERFACE* out);

// A copy of `published` whose operations go through the verifier.
SENSOR_INTERFACE checked_interface(const SENSOR_INTERFACE& published);

// VcmDrivers and NvmDriverTable, each routine through the verifier; indexed
// as those are (VCM_TYPE_COUNT and NVM_TYPE_COUNT rows).
const VCM_DRIVER* actuator_table();
const NVM_DRIVER* memory_table();

}  // namespace korvanel::platform
