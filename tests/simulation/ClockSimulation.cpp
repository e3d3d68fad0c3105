#include "tests/Sanitized.h"
#include "tests/simulation/TwoClocks.h"
#include "tests/TestArguments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace kor::simulation {
namespace {

constexpr std::uint64_t kRuns = testing_support::kSanitized ? 10 : 100;
constexpr double kMicrosecond = 1e3;
constexpr double kMillisecond = 1e6;

/// What the median run keeps, and every single one within three times. Nanoseconds.
struct Limits {
    double p50 = 0;          ///< of the error from two seconds on
    double p99 = 0;          ///< the same
    double afterASecond = 0; ///< the error one second after the offset became known
};
constexpr double kEveryRun = 3;

struct Case {
    ClockScenario scenario;
    Limits limits;
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.scenario.name;
}

PathDelays quiet() {
    return {};
}

/// Every datagram is late by something between these two.
PathDelays jitter(double least, double most) {
    PathDelays path;
    path.base = least;
    path.noise = 0;
    path.loadedFraction = 1;
    path.queue = most - least;
    return path;
}

/// A queue of up to a millisecond before nine of ten datagrams.
PathDelays loaded() {
    PathDelays path;
    path.loadedFraction = 0.9;
    path.queue = kMillisecond;
    return path;
}

Case make(const char* name, double samplesPerSecond, const PathDelays& forth, const PathDelays& back,
          const Limits& limits) {
    Case result;
    result.scenario.name = name;
    result.scenario.samplesPerSecond = samplesPerSecond;
    result.scenario.forth = forth;
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
    lossy.limits.afterASecond = 20 * kMicrosecond;
    all.push_back(lossy);

    Case held = make("HeldLong", 20, quiet(), quiet(), idle);
    held.scenario.heldSeconds = 0.15;
    held.scenario.holdFrom = 1;
    all.push_back(held);

    all.push_back(make("LoadThere", 50, loaded(), quiet(), busy));
    all.push_back(make("LoadBack", 240, quiet(), loaded(), busy));
    all.push_back(make("LoadOnFewProbes", 8, loaded(), quiet(),
                       {2 * kMicrosecond, 200 * kMicrosecond, 300 * kMicrosecond}));

    PathDelays bursts = loaded();
    bursts.burstSeconds = 0.05;
    all.push_back(make("Bursts", 50, quiet(), bursts, busy));

    PathDelays full = loaded();
    full.loadedFraction = 1;
    all.push_back(make("EveryDatagramQueues", 240, full, full, heavy));

    Case begins = make("LoadBegins", 8, full, quiet(), heavy);
    begins.scenario.loadFrom = 20;
    begins.scenario.loadTo = 40;
    begins.limits.afterASecond = idle.afterASecond;
    all.push_back(begins);

    PathDelays far;
    far.base = 5 * kMillisecond;
    far.noise = 0.5 * kMillisecond;
    all.push_back(
        make("FarAway", 8, far, far, {100 * kMicrosecond, 400 * kMicrosecond, 1000 * kMicrosecond}));

    // With stamps on every frame of 60 Hz and its report.
    all.push_back(make("FramesClean", 60, quiet(), quiet(), idle));
    PathDelays late;
    late.loadedFraction = 0.05;
    late.queue = 6 * kMillisecond;
    Case lost =
        make("FramesLateAndLost", 60, late, late, {2 * kMicrosecond, 6 * kMicrosecond, 60 * kMicrosecond});
    lost.scenario.loss = 0.05;
    all.push_back(lost);
    const PathDelays narrow = jitter(0.1 * kMillisecond, 0.2 * kMillisecond);
    all.push_back(make("FramesNarrowJitter", 60, narrow, narrow,
                       {1 * kMicrosecond, 4 * kMicrosecond, 20 * kMicrosecond}));
    const PathDelays wider = jitter(0.1 * kMillisecond, 0.4 * kMillisecond);
    all.push_back(
        make("FramesJitter", 60, wider, wider, {2 * kMicrosecond, 10 * kMicrosecond, 40 * kMicrosecond}));
    const PathDelays wide = jitter(1 * kMillisecond, 5 * kMillisecond);
    all.push_back(make("FramesWideJitter", 60, wide, wide,
                       {20 * kMicrosecond, 120 * kMicrosecond, 300 * kMicrosecond}));
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

/// Draws what the seed decides: the skew, and when the clocks started.
ClockScenario drawn(ClockScenario scenario, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    scenario.seed = seed;
    scenario.skewPpm = std::uniform_real_distribution<double>(-100, 100)(random);
    scenario.wanderPpmPerSecond = 0.01;
    std::uniform_int_distribution<Nanoseconds> upTime(0, 30 * 86400 * detail::kSecond);
    scenario.startHere = upTime(random);
    scenario.startThere = upTime(random);
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
    std::vector<double> medians;
    std::vector<double> tails;
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
        medians.push_back(quantile(errors, 0.5));
        tails.push_back(quantile(errors, 0.99));
        EXPECT_LE(clocks.knownAt, 0.1);
        EXPECT_LE(medians.back(), kEveryRun * limits.p50);
        EXPECT_LE(tails.back(), kEveryRun * limits.p99);
        EXPECT_LE(afterASecond, kEveryRun * limits.afterASecond);
        EXPECT_EQ(outside, 0) << "of " << looks;
        EXPECT_LT(clocks.worstStep, 10);
        EXPECT_LT(clocks.worstRate, 5000);
        EXPECT_EQ(clocks.filter.estimate().breaks, 0U);
    });
    ASSERT_FALSE(medians.empty());
    const double p50 = quantile(medians, 0.5);
    const double p99 = quantile(tails, 0.5);
    EXPECT_LE(p50, limits.p50);
    EXPECT_LE(p99, limits.p99);
    std::printf("median run of %zu: error p50 %.2f us, p99 %.2f us; worst %.2f and %.2f us\n", medians.size(),
                p50 * 1e-3, p99 * 1e-3, std::ranges::max(medians) * 1e-3, std::ranges::max(tails) * 1e-3);
}

INSTANTIATE_TEST_SUITE_P(All, ClockSimulation, testing::ValuesIn(cases()),
                         [](const auto& test) { return std::string(test.param.scenario.name); });

TEST(ClockBreaks, AreLearntFromAFewSamples) {
    forEachSeed([](std::uint64_t seed) {
        ClockScenario scenario;
        scenario.seconds = 30;
        scenario.breakAt = 15;
        scenario.forth.loadedFraction = scenario.back.loadedFraction = 0.1;
        scenario.forth.queue = scenario.back.queue = kMillisecond;
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
        EXPECT_LT(worstLater, 30 * kMicrosecond);
        EXPECT_LT(clocks.worstStep, 10);
        EXPECT_EQ(clocks.filter.estimate().breaks, 0U);
    });
}

} // namespace kor::simulation
