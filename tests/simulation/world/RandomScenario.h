#pragma once

#include "WireTap.h"

#include <cstdint>
#include <string>

namespace kor::simulation {

struct ScenarioResult {
    std::string faults; ///< promises broken, one a line; empty when all were kept
    WireCounts wire;
    std::uint64_t packets = 0; ///< delivered
    std::uint64_t packetBytes = 0;
    std::uint64_t spurious = 0; ///< datagrams taken for lost that had arrived, on connections still open
    double delaySeconds = 0;    ///< from sending to receiving, sum over all packets
};

/// Builds a small world from the seed (hosts, network, traffic, mishaps), runs it until it rests, and says
/// what came of it.
ScenarioResult runRandomScenario(std::uint64_t seed);

} // namespace kor::simulation
