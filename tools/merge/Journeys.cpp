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
    if (arguments == event.end() || !arguments->is_object())
        return false;
    const auto number = arguments->find("frame");
    if (number == arguments->end() || !number->is_number() || !(std::abs(number->get<double>()) < 1e15))
        return false;
    frame = number->get<std::int64_t>();
    return frame >= 0;
}

void keepFirst(const json*& place, const json& event) {
    if (!place)
        place = &event;
}

json arrow(const char* phase, const json& at, double time, const std::string& id) {
    return {{"ph", phase}, {"bp", "e"}, // belongs to the slice that it lies in
            {"id", id},    {"pid", at["pid"]}, {"tid", at["tid"]},
            {"ts", time},  {"cat", "journey"}, {"name", "frame"}};
}

double middleOf(const json& slice) {
    return slice["ts"].get<double>() + slice["dur"].get<double>() / 2;
}

} // namespace

std::vector<json> journeys(const std::vector<json>& events) {
    std::map<std::int64_t, std::map<std::int64_t, Stage>> frames; // by frame, then process
    for (const json& event : events) {
        std::int64_t frame = 0;
        if (event["ph"] != "X" || event.value("cat", json()) != "frame" || !frameOf(event, frame))
            continue;
        Stage& stage = frames[frame][event["pid"].get<std::int64_t>()];
        if (event["name"] == "frame sent")
            keepFirst(stage.sent, event);
        else if (event["name"] == "block arrived")
            keepFirst(stage.arrived, event);
        else if (event["name"] == "block applied")
            keepFirst(stage.applied, event);
    }
    std::vector<json> result;
    for (const auto& [frame, processes] : frames) {
        const json* sent = nullptr;
        for (const auto& [process, stage] : processes)
            sent = sent ? sent : stage.sent;
        for (const auto& [process, stage] : processes) {
            if (!sent || !stage.arrived)
                continue;
            const double start = (*sent)["ts"].get<double>(); // at its end it may have arrived
            const double arrival = middleOf(*stage.arrived);
            if (arrival < start)
                continue; // the clock's error is larger than the whole journey
            const std::string id = std::to_string(frame) + "/" + std::to_string(process);
            result.push_back(arrow("s", *sent, start, id));
            const bool shown = stage.applied && middleOf(*stage.applied) >= arrival;
            result.push_back(arrow(shown ? "t" : "f", *stage.arrived, arrival, id));
            if (shown)
                result.push_back(arrow("f", *stage.applied, middleOf(*stage.applied), id));
        }
    }
    return result;
}
