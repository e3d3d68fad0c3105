#include "support/platform/SystemClock.h"

#include <support/jKit.h>
#include <support/jTimer.h>
#include <support/Stopwatch.h>

#include <gtest/gtest.h>

#include <cstdint>

using namespace kor;

namespace {

std::int64_t testTime = 0;

class ReplacedClock : public testing::Test {
protected:
    void SetUp() override {
        testTime = 0;
        detail::setClockSource([] { return testTime; });
    }
    void TearDown() override { detail::setClockSource(nullptr); }

    static void passSeconds(std::int64_t seconds) { testTime += seconds * 1'000'000'000; }
};

TEST(Time, IsTheSystemsClockFromTheProcessesZero) {
    const std::int64_t before = detail::systemSteadyNow();
    const double now = jTimer::getTimeSecond() + jTimer::getZeroOnSystemClock();
    const std::int64_t after = detail::systemSteadyNow();
    EXPECT_GE(now, static_cast<double>(before) * 1e-9 - 1e-6);
    EXPECT_LE(now, static_cast<double>(after) * 1e-9 + 1e-6);
    EXPECT_GE(jTimer::getTimeSecond(), 0.0);

    const std::int64_t start = detail::clockNow();
    jKit::sleep(3);
    EXPECT_GE(detail::clockNow() - start, 3'000'000);
}

TEST_F(ReplacedClock, DrivesTheTimer) {
    testTime = 1'500'000'001;
    EXPECT_EQ(detail::clockNow(), 1'500'000'001);
    EXPECT_DOUBLE_EQ(jTimer::getTimeSecond(), 1.500000001);
}

TEST_F(ReplacedClock, StopwatchReadsLaps) {
    passSeconds(5);
    Stopwatch watch;
    EXPECT_EQ(watch.getElapsed(), 0.0);
    watch.start();
    passSeconds(1);
    EXPECT_EQ(watch.getElapsed(), 1.0);
    passSeconds(2);
    Stopwatch copy(watch);
    EXPECT_EQ(watch.getElapsed(), 2.0);
    EXPECT_EQ(watch.getElapsed(), 0.0);
    passSeconds(1);
    watch.stop();
    passSeconds(7);
    watch.stop();
    EXPECT_EQ(watch.getElapsed(), 1.0);
    EXPECT_EQ(watch.getElapsed(), 0.0);
    watch.start();
    passSeconds(4);
    EXPECT_EQ(watch.getElapsed(), 4.0);
    EXPECT_EQ(copy.getElapsed(), 14.0);
}

} // namespace
