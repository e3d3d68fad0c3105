#include "tests/Sanitized.h"
#include "tests/simulation/world/RandomScenario.h"
#include "tests/simulation/world/World.h"
#include "tests/TestArguments.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace kor::simulation {

namespace {

using testing_support::kSanitized;

/// What all runs together have cost, for those who compare two versions of the protocol.
struct Sum {
    double packets = 0, bytes = 0, wireBytes = 0, datagrams = 0, repairs = 0, repairBytes = 0, spurious = 0,
           delay = 0;

    void add(const ScenarioResult& result) {
        packets += static_cast<double>(result.packets);
        bytes += static_cast<double>(result.packetBytes);
        wireBytes += static_cast<double>(result.wire.bytes);
        datagrams += static_cast<double>(result.wire.datagrams);
        repairs += static_cast<double>(result.wire.repairs);
        repairBytes += static_cast<double>(result.wire.repairBytes);
        spurious += static_cast<double>(result.spurious);
        delay += result.delaySeconds;
    }

    void print() const {
        std::printf(
            "%.0f packets with %.1f MB: %.0f datagrams with %.1f MB, %.0f repairs with %.1f MB, %.0f of them "
            "needless; %.3f ms from sending to receiving\n",
            packets, bytes * 1e-6, datagrams, wireBytes * 1e-6, repairs, repairBytes * 1e-6, spurious,
            delay / packets * 1e3);
    }
};

} // namespace

/// `--runs N` makes N runs, `--seed S` begins with that seed, `--trace` prints every datagram.
TEST(RandomRuns, KeepEveryPromise) {
    const std::uint64_t first = numberAfter("--seed", 1);
    const std::uint64_t runs = numberAfter("--runs", kSanitized ? 500 : 10'000);
    World::trace = hasFlag("--trace");
    Sum sum;
    int failed = 0;
    for (std::uint64_t seed = first; seed != first + runs && failed != 5; ++seed) {
        const ScenarioResult result = runRandomScenario(seed);
        sum.add(result);
        if (result.faults.empty())
            continue;
        ++failed;
        ADD_FAILURE() << "seed " << seed << ":\n"
                      << result.faults << "to repeat: simulation_RandomRuns --seed " << seed << " --runs 1";
    }
    sum.print();
}

} // namespace kor::simulation
