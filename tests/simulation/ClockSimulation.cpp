#include "tests/Sanitized.h"
#include "tests/simulation/TwoClocks.h"
#include "tests/TestArguments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace kor::simulation {
namespace {

constexpr std::uint64_t kRuns = testing_support::kSanitized ? 10 : 100;
constexpr double kMicrosecond = 1e3;
constexpr double kMillisecond = 1e6;

/// What must hold in every single run. Nanoseconds.
struct Limits {
    double p50 = 0;          ///< of the error from two seconds on
    double p99 = 0;          ///< the same
    double afterASecond = 0; ///< the error one second after the offset became known
};

struct Case {
    ClockScenario scenario;
    Limits limits;
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.scenario.name;
}

Way quiet() {
    return {};
}

/// A queue of up to a millisecond before nine of ten datagrams.
Way loaded() {
    Way way;
    way.loadedFraction = 0.9;
    way.queue = kMillisecond;
    return way;
}

Case make(const char* name, double samplesPerSecond, const Way& there, const Way& back,
          const Limits& limits) {
    Case result;
    result.scenario.name = name;
    result.scenario.samplesPerSecond = samplesPerSecond;
    result.scenario.there = there;
    result.scenario.back = back;
    result.limits = limits;
    return result;
}

std::vector<Case> cases() {
    const Limits idle{1 * kMicrosecond, 3 * kMicrosecond, 10 * kMicrosecond};
    const Limits busy{2 * kMicrosecond, 10 * kMicrosecond, 60 * kMicrosecond};
    const Limits heavy{20 * kMicrosecond, 100 * kMicrosecond, 200 * kMicrosecond};
    std::vector<Case> all;
    all.push_back(make("Idle", 8, quiet(), quiet(), idle));

    Case lossy = make("LostProbes", 8, quiet(), quiet(), idle);
    lossy.scenario.loss = 0.2;
    lossy.limits.afterASecond = 30 * kMicrosecond;
    all.push_back(lossy);

    Case held = make("HeldLong", 20, quiet(), quiet(), idle);
    held.scenario.heldSeconds = 0.15;
    held.scenario.holdFrom = 1;
    all.push_back(held);

    all.push_back(make("LoadThere", 50, loaded(), quiet(), busy));
    all.push_back(make("LoadBack", 240, quiet(), loaded(), busy));
    all.push_back(make("LoadOnFewProbes", 8, loaded(), quiet(),
                       {2 * kMicrosecond, 200 * kMicrosecond, 300 * kMicrosecond}));

    Way bursts = loaded();
    bursts.burstSeconds = 0.05;
    all.push_back(make("Bursts", 50, quiet(), bursts, busy));

    Way full = loaded();
    full.loadedFraction = 1;
    all.push_back(make("EveryDatagramQueues", 240, full, full, heavy));

    Case begins = make("LoadBegins", 8, full, quiet(), heavy);
    begins.scenario.loadFrom = 20;
    begins.scenario.loadTo = 40;
    begins.limits.afterASecond = idle.afterASecond;
    all.push_back(begins);

    Way far;
    far.base = 5 * kMillisecond;
    far.noise = 0.5 * kMillisecond;
    all.push_back(
        make("FarAway", 8, far, far, {100 * kMicrosecond, 400 * kMicrosecond, 1000 * kMicrosecond}));
    return all;
}

/// Calls `run(seed)` for each seed wanted; when it fails, says how to repeat it.
template <class Run>
void forEachSeed(Run run) {
    const std::uint64_t first = numberAfter("--seed", 1);
    const std::uint64_t runs = numberAfter("--runs", kRuns);
    for (std::uint64_t seed = first; seed != first + runs && !testing::Test::HasFailure(); ++seed) {
        const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
        SCOPED_TRACE("to repeat: simulation_ClockSimulation --gtest_filter='" +
                     std::string(test.test_suite_name()) + "." + test.name() + "' --seed " +
                     std::to_string(seed) + " --runs 1");
        run(seed);
    }
}

/// Draws what the seed decides: the skew, and two clocks that both wrap while the scenario runs.
ClockScenario drawn(ClockScenario scenario, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    scenario.seed = seed;
    scenario.skewPpm = std::uniform_real_distribution<double>(-100, 100)(random);
    scenario.wanderPpmPerSecond = 0.01;
    std::uniform_int_distribution<Nanoseconds> beforeWrap(0, std::llround(scenario.seconds * 1e9));
    scenario.startHere = INT64_MAX - beforeWrap(random);
    scenario.startThere = INT64_MAX - beforeWrap(random);
    return scenario;
}

double quantile(std::vector<double>& values, double fraction) {
    const auto rank = static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<std::size_t>(rank)];
}

class ClockSimulation : public testing::TestWithParam<Case> {};

} // namespace

/// `--runs N` makes N runs of each case, `--seed S` begins with that seed.
TEST_P(ClockSimulation, StaysWithinItsLimits) {
    const Limits& limits = GetParam().limits;
    forEachSeed([&](std::uint64_t seed) {
        TwoClocks clocks(drawn(GetParam().scenario, seed));
        std::vector<double> errors;
        int looks = 0;
        int outside = 0;
        double afterASecond = -1;
        clocks.run([&](double t) {
            const detail::ClockEstimate& estimate = clocks.filter.estimate();
            if (!estimate.known)
                return;
            const double error = std::fabs(clocks.errorAt(t));
            ++looks;
            outside += error > estimate.boundAt(clocks.here(t)) ? 1 : 0;
            if (t >= 2)
                errors.push_back(error);
            if (afterASecond < 0 && t >= clocks.knownAt + 1)
                afterASecond = error;
        });
        ASSERT_FALSE(errors.empty());
        EXPECT_LE(clocks.knownAt, 0.1);
        EXPECT_LE(quantile(errors, 0.5), limits.p50);
        EXPECT_LE(quantile(errors, 0.99), limits.p99);
        EXPECT_LE(afterASecond, limits.afterASecond);
        EXPECT_EQ(outside, 0) << "of " << looks;
        EXPECT_LT(clocks.worstStep, 10);
        EXPECT_LT(clocks.worstRate, 5000);
        EXPECT_EQ(clocks.filter.estimate().breaks, 0U);
    });
}

INSTANTIATE_TEST_SUITE_P(All, ClockSimulation, testing::ValuesIn(cases()),
                         [](const auto& test) { return std::string(test.param.scenario.name); });

TEST(ClockBreaks, AreLearntFromAFewSamples) {
    forEachSeed([](std::uint64_t seed) {
        ClockScenario scenario;
        scenario.seconds = 30;
        scenario.breakAt = 15;
        scenario.there.loadedFraction = scenario.back.loadedFraction = 0.1;
        scenario.there.queue = scenario.back.queue = kMillisecond;
        scenario = drawn(scenario, seed);
        std::mt19937_64 random(seed);
        // Between a tenth of a millisecond and some days, either way.
        const double size = std::pow(10.0, std::uniform_real_distribution<double>(5, 14.5)(random));
        scenario.breakBy = seed % 2 == 0 ? size : -size;
        TwoClocks clocks(scenario);
        double worstBefore = 0;
        double worstLater = 0;
        double unbroken = 0;
        clocks.run([&](double t) {
            const double error = std::fabs(clocks.errorAt(t));
            if (clocks.filter.estimate().breaks == 0)
                unbroken = t;
            if (t > 2 && t < scenario.breakAt)
                worstBefore = std::max(worstBefore, error);
            if (t > scenario.breakAt + 4)
                worstLater = std::max(worstLater, error);
        });
        SCOPED_TRACE("broken by " + std::to_string(scenario.breakBy * 1e-6) + " ms");
        EXPECT_LT(worstBefore, 10 * kMicrosecond);
        EXPECT_LT(worstLater, 10 * kMicrosecond);
        EXPECT_LT(clocks.worstStep, 10);
        // Less than a millisecond is slewed.
        if (std::fabs(size - kMillisecond) > 0.1 * kMillisecond) {
            EXPECT_EQ(clocks.filter.estimate().breaks, size > kMillisecond ? 1U : 0U);
            EXPECT_TRUE(size < kMillisecond || unbroken < scenario.breakAt + 0.7)
                << unbroken << ": over 4 samples";
        }
    });
}

TEST(ClockSteered, IsFollowedWithoutAStep) {
    forEachSeed([](std::uint64_t seed) {
        ClockScenario scenario;
        scenario.seconds = 40;
        scenario.steeredFrom = 20;
        std::mt19937_64 random(seed);
        scenario.steeredPpm = std::uniform_real_distribution<double>(-500, 500)(random);
        scenario = drawn(scenario, seed);
        TwoClocks clocks(scenario);
        double worst = 0;
        double worstLater = 0;
        clocks.run([&](double t) {
            const double error = std::fabs(clocks.errorAt(t));
            if (t > scenario.steeredFrom)
                worst = std::max(worst, error);
            if (t > scenario.steeredFrom + 5)
                worstLater = std::max(worstLater, error);
        });
        SCOPED_TRACE("steered by " + std::to_string(scenario.steeredPpm) + " ppm");
        EXPECT_LT(worst, kMillisecond);
        EXPECT_LT(worstLater, 15 * kMicrosecond);
        EXPECT_LT(clocks.worstStep, 10);
        EXPECT_EQ(clocks.filter.estimate().breaks, 0U);
    });
}

} // namespace kor::simulation
