#include "Journeys.h"

#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace {

using nlohmann::json;

/// Where a frame was, in one process.
struct Stage {
    const json* sent = nullptr;
    const json* arrived = nullptr;
    const json* applied = nullptr;
};

bool frameOf(const json& event, std::int64_t& frame) {
    const auto arguments = event.find("args");
    if (arguments == event.end() || !arguments->is_object()) {
        return false;
    }
    const auto number = arguments->find("frame");
    if (number == arguments->end() || !number->is_number() || !(std::abs(number->get<double>()) < 1e15)) {
        return false;
    }
    frame = number->get<std::int64_t>();
    return frame >= 0;
}

void keepFirst(const json*& place, const json& event) {
    if (!place) {
        place = &event;
    }
}

json arrow(const char* phase, const json& at, const std::string& id) {
    return {{"ph", phase},      {"bp", "e"}, // belongs to the slice that it lies in
            {"id", id},         {"pid", at["pid"]},
            {"tid", at["tid"]}, {"ts", at["ts"].get<double>() + at["dur"].get<double>() / 2},
            {"cat", "journey"}, {"name", "frame"}};
}

} // namespace

std::vector<json> journeys(const std::vector<json>& events) {
    std::map<std::int64_t, std::map<std::int64_t, Stage>> frames; // by frame, then process
    for (const json& event : events) {
        std::int64_t frame = 0;
        if (event["ph"] != "X" || event.value("cat", json()) != "frame" || !frameOf(event, frame)) {
            continue;
        }
        Stage& stage = frames[frame][event["pid"].get<std::int64_t>()];
        if (event["name"] == "frame sent") {
            keepFirst(stage.sent, event);
        } else if (event["name"] == "block arrived") {
            keepFirst(stage.arrived, event);
        } else if (event["name"] == "block applied") {
            keepFirst(stage.applied, event);
        }
    }
    std::vector<json> result;
    for (const auto& [frame, processes] : frames) {
        const json* sent = nullptr;
        for (const auto& [process, stage] : processes) {
            sent = sent ? sent : stage.sent;
        }
        for (const auto& [process, stage] : processes) {
            if (!sent || !stage.arrived) {
                continue;
            }
            const std::string id = std::to_string(frame) + "/" + std::to_string(process);
            result.push_back(arrow("s", *sent, id));
            result.push_back(arrow(stage.applied ? "t" : "f", *stage.arrived, id));
            if (stage.applied) {
                result.push_back(arrow("f", *stage.applied, id));
            }
        }
    }
    return result;
}
