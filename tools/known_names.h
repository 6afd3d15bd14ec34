// known_names.h - names the tool checks a user's words against that neither
// the bench nor the interface lists: the platform routines the bench can make
// fail (a scenario's "fail_routine"), the hardware identifiers of the
// sensor variants (as the INF lists them) and the actuator chips a model
// exists for.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// In alphabetical order. The bench keeps no list of its own yet; this one
// follows the routines that consult its fault rules, and is the one place to
// change when it does.
const std::vector<std::string>& fault_routines();

// "ExAllocatePoolWithTag, IoBuildSynchronousFsdRequest, ...".
std::string fault_routine_names();

// "AD5823, DW9714, ...": the chips a model exists for, in table order.
std::string actuator_chip_names();

// The variant a hardware identifier names (compared without regard to case,
// as device add compares them): its SensorName. Nothing for an identifier
// no variant has, for which the driver keeps its default identity.
std::optional<std::string> variant_name(const std::string& hardware_id);
// Notes for registry values the driver never asked for (compared without
// regard to case, as the registry compares names), each naming the closest
// name it did ask for by edit distance: "registry value 'MipiLane' is never
// read by the driver (did you mean 'MipiLanes'?)". A stray value is no
// error: a driver meets them on real machines and must pass them by.
std::vector<std::string> unread_registry_notes(const std::vector<std::string>& given,
                                               const std::vector<std::string>& read);

// The SensorName of that default identity.
constexpr const char* kDefaultSensorName = "HAPS";

}  // namespace korvanel::tool
