#include "support/net/clock/Envelope.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace kor::detail {
namespace {

constexpr double kCrystal = 100'000;
constexpr Nanoseconds kInstant = 20 * kSecond;

/// Points over 16 s of a clock whose offset is 1000 ns at the instant of the fit and rises by `slope` per
/// second.
BucketMinima points(double sign, double slope, double delay, double noise, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::exponential_distribution<double> wait(1 / noise);
    BucketMinima result;
    for (int i = 60; i >= 0; --i) {
        const Nanoseconds time = kInstant - i * 260 * kMillisecond;
        result.add({time, sign * (1000 + slope * seconds(time - kInstant)) + delay + wait(random)},
                   sign * slope);
    }
    return result;
}

BucketMinima one(Nanoseconds time, double value) {
    BucketMinima result;
    result.add({time, value}, 0);
    return result;
}

} // namespace

TEST(Envelope, FindsBothLines) {
    const EnvelopeFit fit =
        fitEnvelope(points(1, 30'000, 40'000, 1, 1), points(-1, 30'000, 40'000, 1, 2), kInstant, 0, kCrystal);
    EXPECT_NEAR(fit.slope, 30'000, 1);
    EXPECT_NEAR(fit.offset, 1000, 2);
    EXPECT_NEAR(fit.delay, 80'000, 4);
}

TEST(Envelope, TakesTheSlopeFromTheQuietDirection) {
    const EnvelopeFit fit = fitEnvelope(points(1, 30'000, 40'000, 500'000, 3),
                                        points(-1, 30'000, 40'000, 500, 4), kInstant, 0, kCrystal);
    EXPECT_NEAR(fit.slope, 30'000, 200);
    EXPECT_GE(fit.slopeError(), std::fabs(fit.slope - 30'000));
}

TEST(Envelope, LeavesTheSlopeOpenWhenPointsTellNothing) {
    const EnvelopeFit fit = fitEnvelope(one(kInstant, 5000), one(kInstant, 5000), kInstant, 0, kCrystal);
    EXPECT_NEAR(fit.slope, 0, 1);
    EXPECT_NEAR(fit.slopeError(), kCrystal, 1);
    EXPECT_NEAR(fit.offset, 0, 1e-6);
    EXPECT_NEAR(fit.delay, 10'000, 1e-6);
}

TEST(Envelope, BoundsTheErrorWhateverTheNoise) {
    // Few points over a short time, whose noise happens to look like a skew: queues that build up and vanish.
    std::mt19937_64 random(5);
    for (int run = 0; run < 5000; ++run) {
        const double span = std::pow(10, std::uniform_real_distribution<double>(-2, 1)(random));
        const double skew = std::uniform_real_distribution<double>(-100'000, 100'000)(random);
        const double noise = std::pow(10, std::uniform_real_distribution<double>(2, 5.5)(random));
        std::exponential_distribution<double> wait(1 / noise);
        const int count = 1 + static_cast<int>(random() % 12);
        BucketMinima minima[2];
        for (const int direction : {0, 1}) {
            double queue = 0;
            for (int i = count - 1; i >= 0; --i) {
                const Nanoseconds time = kInstant - std::llround(span * 1e9 * (i + 0.3 * direction) / count);
                queue = random() % 3 == 0 ? 0 : queue + wait(random);
                minima[direction].add(
                    {time, (direction == 0 ? 1 : -1) * skew * seconds(time - kInstant) + 2000 + queue}, 0);
            }
        }
        const EnvelopeFit fit = fitEnvelope(minima[0], minima[1], kInstant, 20, kCrystal);
        ASSERT_TRUE(fit.possible);
        ASSERT_LE(std::fabs(fit.offset), fit.error()) << "run " << run;
        ASSERT_LE(std::fabs(fit.slope - skew), fit.slopeError()) << "run " << run;
    }
}

TEST(Envelope, BoundsAreNoWiderThanThePointsAllow) {
    const EnvelopeFit fit = fitEnvelope(points(1, 30'000, 40'000, 200, 6), points(-1, 30'000, 40'000, 200, 7),
                                        kInstant, 20, kCrystal);
    EXPECT_GE(fit.error(), 40'000);
    EXPECT_LT(fit.error(), 43'000);
    EXPECT_GE(fit.slopeError(), 4'900); // both delays over 15.6 s ...
    EXPECT_LT(fit.slopeError(), 5'600); // ... and what age adds to them
}

TEST(Envelope, BoundsARateThatWanders) {
    const double wander = 20;
    BucketMinima forth;
    BucketMinima back;
    for (int i = 60; i >= 0; --i) {
        const double age = seconds(i * 260 * kMillisecond);
        const double delay = 1000 + 1500 * (i % 3); // the bend stays within them
        forth.add({kInstant - i * 260 * kMillisecond, delay + wander * age * age / 2}, 0);
        back.add({kInstant - i * 260 * kMillisecond, delay - wander * age * age / 2}, 0);
    }
    const EnvelopeFit fit = fitEnvelope(forth, back, kInstant, wander, kCrystal);
    EXPECT_LE(std::fabs(fit.offset), fit.error());
    EXPECT_GT(fit.error(), fitEnvelope(forth, back, kInstant, 0, kCrystal).error());
}

TEST(Envelope, IsSharperThanTheEdgeOfDelaysThatVaryLittle) {
    std::mt19937_64 random(7);
    std::normal_distribution<double> noise(4'000, 500);
    double sum = 0;
    constexpr int kRuns = 50;
    for (int run = 0; run != kRuns; ++run) {
        BucketMinima forth;
        BucketMinima back;
        for (int i = 60; i >= 0; --i) {
            const Nanoseconds time = kInstant - i * 260 * kMillisecond;
            const double early = i > 55 ? -1'500 : 0; // a first burst through warm caches
            forth.add({time, noise(random) + early}, 0);
            back.add({time, noise(random) + early}, 0);
        }
        sum += std::fabs(fitEnvelope(forth, back, kInstant, 0, kCrystal).offset);
    }
    EXPECT_LT(sum / kRuns, 150); // of the line with the widest margin alone: 990
}

TEST(Envelope, ShowsThatNoLineFits) {
    // The clock jumped in the middle by more than both delays.
    BucketMinima forth;
    BucketMinima back;
    for (int i = 15; i >= 0; --i) {
        const double offset = i < 8 ? 1e6 : 0;
        forth.add({kInstant - i * 250 * kMillisecond, offset + 10'000}, 0);
        back.add({kInstant - i * 250 * kMillisecond, -offset + 10'000}, 0);
    }
    const EnvelopeFit fit = fitEnvelope(forth, back, kInstant, 0, kCrystal);
    EXPECT_FALSE(fit.possible);
    EXPECT_GE(fit.error(), 1e5);
}

TEST(BucketMinima, KeepsTheLowestOverTheSlope) {
    BucketMinima minima;
    EXPECT_TRUE(minima.add({0, 100}, 1e6));
    EXPECT_FALSE(minima.add({kMillisecond, 1200}, 1e6)); // 100 over the line through the first
    EXPECT_TRUE(minima.add({2 * kMillisecond, 2000}, 1e6));
    EXPECT_EQ(minima.points().size(), 1U);
    EXPECT_TRUE(minima.add({5 * kMillisecond, 1e9}, 1e6)); // another bucket
    EXPECT_EQ(minima.points().size(), 2U);
    EXPECT_EQ(minima.points()[0].time, 2 * kMillisecond);
}

TEST(BucketMinima, MergesBucketsUntilSixteenSecondsFit) {
    BucketMinima minima;
    for (Nanoseconds t = 0; t < 60 * kSecond; t += 3 * kMillisecond)
        minima.add({t, t % (256 * kMillisecond) == 90 * kMillisecond ? -1.0 : static_cast<double>(t % 7)}, 0);
    const auto points = minima.points();
    ASSERT_EQ(points.size(), 64U);
    EXPECT_NEAR(seconds(60 * kSecond - points[0].time), 16.2, 0.4);
    for (std::size_t i = 1; i < points.size(); ++i) {
        EXPECT_LE(points[i - 1].time + 1, points[i].time);
        EXPECT_LE(points[i].value, 1) << "not the lowest of its bucket";
    }
}

TEST(BucketMinima, MergingKeepsTheLowerOfTwo) {
    BucketMinima minima;
    // 65 buckets of 4 ms, of which one in each pair is low, the first or the second: the pairs are all low.
    for (int i = 0; i <= 64; ++i)
        minima.add({i * 4 * kMillisecond, i % 4 == 0 || i % 4 == 3 ? 10.0 : 1000.0}, 0);
    ASSERT_EQ(minima.points().size(), 33U);
    for (std::size_t i = 0; i != 32; ++i)
        EXPECT_EQ(minima.points()[i].value, 10) << i;
}

TEST(BucketMinima, TakesLatePointsInTheirPlace) {
    BucketMinima minima;
    for (int i = 0; i < 10; ++i)
        minima.add({i * 20 * kMillisecond, 10}, 0);
    EXPECT_TRUE(minima.add({50 * kMillisecond, 5}, 0));
    ASSERT_EQ(minima.points().size(), 11U);
    for (std::size_t i = 1; i < 11; ++i)
        EXPECT_LT(minima.points()[i - 1].time, minima.points()[i].time);
    EXPECT_EQ(minima.points()[3].value, 5);
    minima.dropBefore(kSecond);
    EXPECT_EQ(minima.points().size(), 1U); // the newest stays
}

} // namespace kor::detail
