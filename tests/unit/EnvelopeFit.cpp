#include "support/net/EnvelopeFit.h"
#include "support/net/BucketMinima.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace kor::detail {
namespace {

constexpr SlopePrior kCrystal{0, 50'000};

/// Points over 16 s of a clock whose offset is 1000 ns now and rises by `slope` per second.
std::vector<EnvelopePoint> points(double sign, double slope, double delay, double noise, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::exponential_distribution<double> wait(1 / noise);
    std::vector<EnvelopePoint> result;
    for (int i = 63; i >= 0; --i) {
        const double time = -0.25 * i;
        result.push_back({time, sign * (1000 + slope * time) + delay + wait(random), 0});
    }
    return result;
}

} // namespace

TEST(EnvelopeFit, FindsBothLines) {
    const EnvelopeFit fit =
        fitEnvelopes(points(1, 30'000, 40'000, 1, 1), points(-1, 30'000, 40'000, 1, 2), kCrystal, 0, 0);
    EXPECT_NEAR(fit.slope, 30'000, 1);
    EXPECT_NEAR(fit.offset, 1000, 2);
    EXPECT_NEAR(fit.halfDelay, 40'000, 2);
}

TEST(EnvelopeFit, TakesTheSlopeFromTheQuietDirection) {
    const EnvelopeFit fit = fitEnvelopes(points(1, 30'000, 40'000, 500'000, 3),
                                         points(-1, 30'000, 40'000, 500, 4), kCrystal, 0, 0);
    EXPECT_NEAR(fit.slope, 30'000, 100);
    EXPECT_GE(fit.slopeError, std::fabs(fit.slope - 30'000));
}

TEST(EnvelopeFit, KeepsToThePriorWhenPointsTellNothing) {
    const std::vector<EnvelopePoint> one{{0, 5000, 0}};
    const EnvelopeFit fit = fitEnvelopes(one, one, {12'000, 2'000}, 0, 0);
    EXPECT_NEAR(fit.slope, 12'000, 1);
    EXPECT_GT(fit.slopeError, 4'000);
    EXPECT_NEAR(fit.offset, 0, 1e-6);
    EXPECT_NEAR(fit.halfDelay, 5000, 1e-6);
}

TEST(EnvelopeFit, BelievesClearPointsMoreThanThePrior) {
    std::vector<EnvelopePoint> there;
    std::vector<EnvelopePoint> back;
    for (double time : {-0.5, -0.375, -0.25, -0.125, 0.0}) {
        there.push_back({time, 800'000 * time + 15'000, 0});
        back.push_back({time, -800'000 * time + 15'000, 0});
    }
    EXPECT_NEAR(fitEnvelopes(there, back, kCrystal, 0, 0).slope, 800'000, 10'000);
}

TEST(EnvelopeFit, BoundsTheErrorWhateverTheNoise) {
    // Few points over a short time, whose noise happens to look like a skew: queues that build up and vanish.
    std::mt19937_64 random(5);
    for (int run = 0; run < 5000; ++run) {
        const double span = std::pow(10, std::uniform_real_distribution<double>(-2, 1)(random));
        const double skew = std::uniform_real_distribution<double>(-100'000, 100'000)(random);
        const double noise = std::pow(10, std::uniform_real_distribution<double>(2, 5.5)(random));
        std::exponential_distribution<double> wait(1 / noise);
        const int count = 1 + static_cast<int>(random() % 12);
        std::vector<EnvelopePoint> way[2];
        for (const int direction : {0, 1}) {
            double queue = 0;
            for (int i = count - 1; i >= 0; --i) {
                const double time = -span * (i + 0.3 * direction) / count;
                queue = random() % 3 == 0 ? 0 : queue + wait(random);
                way[direction].push_back({time, (direction == 0 ? 1 : -1) * skew * time + 2000 + queue, 0});
            }
        }
        const EnvelopeFit fit = fitEnvelopes(way[0], way[1], kCrystal, 0, 20);
        ASSERT_LE(std::fabs(fit.offset), fit.offsetError) << "run " << run;
        ASSERT_LE(std::fabs(fit.slope - skew), fit.slopeError) << "run " << run;
    }
}

TEST(EnvelopeFit, BoundIsHalfTheDelayWhenPointsAreClean) {
    const EnvelopeFit fit =
        fitEnvelopes(points(1, 30'000, 40'000, 200, 6), points(-1, 30'000, 40'000, 200, 7), kCrystal, 0, 20);
    EXPECT_GE(fit.offsetError, 40'000);
    EXPECT_LT(fit.offsetError, 43'000);
    EXPECT_LT(fit.slopeError, 6'000); // both delays over 16 s
    EXPECT_LT(fit.slopeSpread, 100);
}

TEST(EnvelopeFit, ShowsLinesThatCross) {
    // The clock jumped in the middle by more than both delays.
    std::vector<EnvelopePoint> there;
    std::vector<EnvelopePoint> back;
    for (int i = 15; i >= 0; --i) {
        const double offset = i < 8 ? 1e6 : 0;
        there.push_back({-0.25 * i, offset + 10'000, 0});
        back.push_back({-0.25 * i, -offset + 10'000, 0});
    }
    EXPECT_LT(fitEnvelopes(there, back, {0, 1'000}, 0, 0).halfDelay, 0);
}

TEST(BucketMinima, KeepsTheLowestOverTheSlope) {
    BucketMinima minima;
    minima.reset(0);
    EXPECT_TRUE(minima.add(0, 100, 1e6));
    EXPECT_FALSE(minima.add(kMillisecond, 1200, 1e6)); // 100 over the line through the first
    EXPECT_TRUE(minima.add(2 * kMillisecond, 2000, 1e6));
    EXPECT_EQ(minima.size(), 1U);
    EXPECT_TRUE(minima.add(5 * kMillisecond, 1e9, 1e6)); // another bucket
    EXPECT_EQ(minima.size(), 2U);
    EXPECT_EQ(minima.oldestTime(), 2 * kMillisecond);
}

TEST(BucketMinima, LengthensBucketsUntilSixteenSecondsFit) {
    BucketMinima minima;
    minima.reset(INT64_MAX - kSecond);
    for (Nanoseconds t = 0; t < 60 * kSecond; t += 3 * kMillisecond)
        minima.add(elapsed(INT64_MAX - kSecond, -t), static_cast<double>(t % 7), 0);
    EXPECT_EQ(minima.bucketLength(), BucketMinima::kLongestBucket);
    EXPECT_EQ(minima.size(), 64U);
    const Nanoseconds newest = elapsed(INT64_MAX - kSecond, -60 * kSecond);
    EXPECT_NEAR(static_cast<double>(elapsed(newest, minima.oldestTime())), 16.2e9, 0.4e9);
}

TEST(BucketMinima, TakesLatePointsInTheirPlace) {
    BucketMinima minima;
    minima.reset(0);
    for (int i = 0; i < 10; ++i)
        minima.add(i * 20 * kMillisecond, 10, 0);
    EXPECT_TRUE(minima.add(50 * kMillisecond, 5, 0));
    std::array<EnvelopePoint, kMaxEnvelopePoints> out;
    ASSERT_EQ(minima.copyTo(out, 180 * kMillisecond, 0), 11U);
    for (std::size_t i = 1; i < 11; ++i)
        EXPECT_LT(out[i - 1].time, out[i].time);
    EXPECT_EQ(out[3].value, 5);
    minima.dropBefore(kSecond);
    EXPECT_EQ(minima.size(), 1U); // the newest stays
}

} // namespace kor::detail
