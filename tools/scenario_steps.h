// scenario_steps.h - one step of a scenario file read into the model: its
// action, checked against the device it works on, and its expectations.
#pragma once

#include "scenario_fields.h"
#include "scenario_model.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace korvanel::tool {

// Step `index` of the file; throws FieldError at the first problem.
Step read_step(const nlohmann::ordered_json& step, size_t index, const std::vector<DeviceSetup>& devices,
               const std::string& base_dir);

}  // namespace korvanel::tool
