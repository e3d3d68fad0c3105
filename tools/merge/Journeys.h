#pragma once

#include <nlohmann/json.hpp>

#include <vector>

/// Makes the arrows that lead each frame from where the master sent it to where each slave received it and
/// then first applied it, as flow events. `events` are all processes', in order of time, each with its pid.
std::vector<nlohmann::json> journeys(const std::vector<nlohmann::json>& events);
