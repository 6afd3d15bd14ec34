// lens_chart.h - the lens trajectory of a run, as data and as an SVG chart.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace korvanel::models {
class ActuatorModel;
}

namespace korvanel::tool {

// Every code the model latched, with times in ms from `origin`, the run's
// end and the chip's largest code: what trajectory_svg() draws.
nlohmann::ordered_json lens_trajectory(const models::ActuatorModel* model, int64_t origin, int64_t end);

// A step chart of the trajectory: time on x (ms, or s for a long run), code
// on y fitted to the moves and the module's low and high positions (both
// marked), a dot per move, each operation labelled at its time ("operations":
// {"time_ms", "op"}), the chip, module and low/high in the title; an empty
// run says it has no moves.
std::string trajectory_svg(const nlohmann::ordered_json& chart);

}  // namespace korvanel::tool
