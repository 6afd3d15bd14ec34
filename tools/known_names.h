// known_names.h - names the tool checks a user's words against that neither
// the bench nor the interface lists: the platform routines the bench can make
// fail (a scenario's "fail_routine") and the hardware identifiers of the
// sensor variants (as the INF lists them).
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

// The variant a hardware identifier names (compared without regard to case,
// as device add compares them): its SensorName. Nothing for an identifier
// no variant has, for which the driver keeps its default identity.
std::optional<std::string> variant_name(const std::string& hardware_id);
// The SensorName of that default identity.
constexpr const char* kDefaultSensorName = "HAPS";

}  // namespace korvanel::tool
