#include "trace/ClockHistory.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using namespace kor::detail;

constexpr std::int64_t kSecond = 1'000'000'000;

TEST(ClockHistory, TimesFollowTheLineBetweenSamples) {
    ClockHistory history;
    history.add({10, 5, 0.001});
    history.add({20, 5.01, 0.003});
    history.add({30, 5.01, 0.002});
    const ClockConversion convert(history.samples());
    EXPECT_EQ(convert(0), 5 * kSecond); // before it was known
    EXPECT_EQ(convert(10 * kSecond), 15 * kSecond);
    EXPECT_EQ(convert(15 * kSecond), 20 * kSecond + 5'000'000);
    EXPECT_EQ(convert(1000 * kSecond), 1005 * kSecond + 10'000'000);
    EXPECT_EQ(convert.worstBound(), 0.003);
    EXPECT_EQ(ClockConversion({})(123), 123);
}

TEST(ClockHistory, MemoryStaysBoundedOverDays) {
    ClockHistory history;
    constexpr double kSkew = 30e-6;
    for (int i = 0; i < 1'000'000; ++i) {
        const double time = i * 0.5;
        history.add({time, -2 + time * kSkew * 0.001, 0});
    }
    EXPECT_LE(history.samples().size(), 4096U);
    EXPECT_EQ(history.samples().back().local, 999'999 * 0.5);
    const ClockConversion convert(history.samples());
    for (std::int64_t time = 0; time < 499'000; time += 997) {
        const double expected = static_cast<double>(time) * (1 + kSkew * 0.001) - 2;
        EXPECT_NEAR(static_cast<double>(convert(time * kSecond)) * 1e-9, expected, 1e-6);
    }
}

TEST(ClockHistory, AnotherMasterBeginsAnew) {
    ClockHistory history;
    history.add({1, 100, 0});
    history.add({2, 100, 0});
    history.add({3, -3, 0});
    history.add({4, std::numeric_limits<double>::quiet_NaN(), 0});
    EXPECT_EQ(history.samples().size(), 1U);
    EXPECT_EQ(ClockConversion(history.samples())(kSecond), -2 * kSecond);
}

TEST(ClockHistory, TheOrderOfTimesIsKept) {
    ClockHistory history;
    for (int i = 0; i < 50; ++i)
        history.add({i * 0.2, 1 + 0.0001 * (i % 2), 0}); // slews by 500 ppm to and fro
    const ClockConversion convert(history.samples());
    std::int64_t before = convert(0);
    for (std::int64_t time = 1; time < 10 * kSecond; time += 99'991) {
        EXPECT_GE(convert(time + 1), convert(time));
        EXPECT_GT(convert(time), before);
        before = convert(time);
    }
}

TEST(ClockHistory, ACorrectionLargerThanTheTimeBetweenSamplesDoesNotTurnTheClockBack) {
    ClockHistory history;
    history.add({1, 5.04, 0.05});
    history.add({1.01, 5, 0.001});
    const ClockConversion convert(history.samples());
    for (std::int64_t time = kSecond / 2; time < 3 * kSecond; time += 999'983)
        EXPECT_GT(convert(time), convert(time - 999'983)) << time;
    EXPECT_EQ(convert(kSecond), 6 * kSecond);
}

} // namespace
