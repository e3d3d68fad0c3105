#include "support/net/delivery/RoundTrip.h"

#include <gtest/gtest.h>

namespace kor::detail {

TEST(RoundTrip, IsZeroBeforeTheFirstMeasurement) {
    const RoundTrip trip;
    EXPECT_FALSE(trip.known());
    EXPECT_EQ(trip.smoothed(), 0);
    EXPECT_EQ(trip.least(), 0);
    EXPECT_EQ(trip.latest(), 0);
    EXPECT_EQ(trip.p99(), 0);
}

TEST(RoundTrip, IgnoresNegativeAndCutsAbsurdMeasurements) {
    RoundTrip trip;
    trip.add(-1, 0);
    EXPECT_FALSE(trip.known());
    trip.add(INT64_MAX, 0);
    EXPECT_EQ(trip.smoothed(), RoundTrip::kMax);
    trip.add(INT64_MAX, INT64_MIN);
    EXPECT_EQ(trip.variation(), RoundTrip::kMax / 2 - RoundTrip::kMax / 8);
}

TEST(RoundTrip, TakesQuantilesOfTheNewest256) {
    RoundTrip trip;
    for (int i = 0; i < 1000; ++i)
        trip.add(1'000'000, i);
    for (int i = 1; i <= 256; ++i)
        trip.add((i * 37) % 257, 1000 + i); // 1 to 256 in some order
    EXPECT_NEAR(static_cast<double>(trip.p50()), 128.5, 1);
    EXPECT_NEAR(static_cast<double>(trip.p99()), 253, 1);
    EXPECT_EQ(trip.quantile(0), 1);
    EXPECT_EQ(trip.quantile(1), 256);
    EXPECT_EQ(trip.quantile(7), 256);
}

TEST(RoundTrip, ForgetsTheLeastAfterTenSecondsAcrossTheWrap) {
    RoundTrip trip;
    const Nanoseconds start = INT64_MAX - 3 * kSecond;
    trip.add(100, start);
    for (Nanoseconds t = 0; t < 9 * kSecond; t += 100 * kMillisecond)
        trip.add(500, elapsed(start, -t));
    EXPECT_EQ(trip.least(), 100);
    trip.add(500, elapsed(start, -(10 * kSecond + kMillisecond)));
    EXPECT_EQ(trip.least(), 500);
    trip.add(700, elapsed(start, -60 * kSecond)); // after a long silence only the newest counts
    EXPECT_EQ(trip.least(), 700);
}

} // namespace kor::detail
