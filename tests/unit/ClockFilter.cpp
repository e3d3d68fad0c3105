#include "support/net/clock/ClockFilter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>

namespace kor::detail {
namespace {

Nanoseconds plus(Nanoseconds a, Nanoseconds b) {
    return elapsed(a, -b);
}

/// A peer whose clock runs by a straight line, and paths of a fixed delay forth and back.
struct Peer {
    Nanoseconds startHere = 0;
    Nanoseconds startThere = 5 * kSecond;
    double skewPpm = 0;
    Nanoseconds delay = 50 * kMicrosecond;

    Nanoseconds here(Nanoseconds t) const { return plus(startHere, t); }
    Nanoseconds there(Nanoseconds t) const {
        return plus(startThere, t + std::llround(static_cast<double>(t) * skewPpm * 1e-6));
    }

    /// An exchange that leaves at `t`, is held there and waits in queues.
    ClockSample exchange(Nanoseconds t, Nanoseconds held = 0, Nanoseconds queueThere = 0,
                         Nanoseconds queueBack = 0) const {
        const Nanoseconds received = t + delay + queueThere;
        const Nanoseconds answered = received + held;
        return {here(t), there(received), there(answered), here(answered + delay + queueBack)};
    }

    double error(const ClockFilter& filter, Nanoseconds t) const {
        return filter.estimate().offsetAt(here(t)) - static_cast<double>(elapsed(there(t), here(t)));
    }
};

void burst(ClockFilter& filter, const Peer& peer, Nanoseconds from = 0) {
    for (int i = 0; i < 8; ++i)
        filter.add(peer.exchange(from + i * 5 * kMillisecond));
}

/// Every 125 ms, as an idle connection does.
void idle(ClockFilter& filter, const Peer& peer, Nanoseconds from, Nanoseconds to, Nanoseconds held = 0) {
    for (Nanoseconds t = from; t < to; t += 125 * kMillisecond)
        filter.add(peer.exchange(t, held));
}

} // namespace

TEST(ClockFilter, IsExactWithoutNoise) {
    ClockFilter filter;
    Peer peer;
    peer.skewPpm = 30;
    burst(filter, peer);
    idle(filter, peer, 100 * kMillisecond, 20 * kSecond);
    EXPECT_NEAR(peer.error(filter, 20 * kSecond), 0, 5);
    EXPECT_NEAR(peer.error(filter, 21 * kSecond), 0, 30);
    EXPECT_NEAR(filter.estimate().skewPpm, 30, 0.02);
    // What could be an asymmetry of the paths stays uncertain.
    EXPECT_GE(filter.estimate().boundAt(peer.here(20 * kSecond)), 50 * kMicrosecond);
    EXPECT_LT(filter.estimate().boundAt(peer.here(20 * kSecond)), 55 * kMicrosecond);
    // A minute of silence adds what 16 s of points leave open of the rate, and 0.5 us a second.
    EXPECT_NEAR(filter.estimate().boundAt(peer.here(80 * kSecond)), 466e3, 15e3);
}

TEST(ClockFilter, PublishesAfterFourSamplesOrFortyMilliseconds) {
    const Peer peer;
    ClockFilter quick;
    for (int i = 0; i < 4; ++i) {
        EXPECT_FALSE(quick.estimate().known) << i;
        quick.add(peer.exchange(i * 5 * kMillisecond));
    }
    EXPECT_TRUE(quick.estimate().known);
    EXPECT_NEAR(peer.error(quick, 20 * kMillisecond), 0, 1);

    ClockFilter lossy;
    lossy.add(peer.exchange(0));
    lossy.add(peer.exchange(10 * kMillisecond));
    EXPECT_FALSE(lossy.estimate().known);
    lossy.add(peer.exchange(41 * kMillisecond));
    EXPECT_TRUE(lossy.estimate().known);

    // One stamp that comes back with every datagram of a train is one sample.
    ClockFilter train;
    for (int i = 0; i < 100; ++i)
        train.add(peer.exchange(0, i * 20 * kMicrosecond));
    EXPECT_FALSE(train.estimate().known);
}

TEST(ClockFilter, RecoversFromASpoiltStartWithinSeconds) {
    // A queue that delivers the first answers together, a third of a second late.
    const Peer peer;
    ClockFilter filter;
    for (int i = 0; i < 8; ++i)
        filter.add(peer.exchange(i * 5 * kMillisecond, 0, 0, (300 - i * 4) * kMillisecond));
    ASSERT_TRUE(filter.estimate().known);
    EXPECT_NEAR(peer.error(filter, 340 * kMillisecond), -140e6, 15e6);
    idle(filter, peer, 350 * kMillisecond, 30 * kSecond);
    EXPECT_NEAR(peer.error(filter, 30 * kSecond), 0, kMillisecond);
    EXPECT_EQ(filter.estimate().breaks, 0U);
}

TEST(ClockFilter, IgnoresImpossibleAndLateSamples) {
    ClockFilter filter;
    filter.setMaxDelay(10 * kMillisecond);
    const Peer peer;
    burst(filter, peer);
    const ClockEstimate before = filter.estimate();
    const ClockSample good = peer.exchange(kSecond, kMillisecond);
    const auto expectIgnored = [&](ClockSample sample, const char* what) {
        for (int i = 0; i < 100; ++i) {
            filter.add(sample);
            sample.sentHere += kMillisecond;
            sample.receivedHere += kMillisecond;
            sample.receivedThere += kMillisecond;
            sample.sentThere += kMillisecond;
        }
        EXPECT_EQ(filter.estimate().at, before.at) << what;
    };
    expectIgnored({good.receivedHere, good.receivedThere, good.sentThere, good.sentHere},
                  "arrived before sent");
    expectIgnored({good.sentHere, good.sentThere, good.receivedThere, good.receivedHere},
                  "answered before arrived");
    expectIgnored({good.sentHere, good.receivedThere, good.sentThere + kMillisecond, good.receivedHere},
                  "held longer than away");
    expectIgnored(peer.exchange(kSecond, 0, 11 * kMillisecond), "over the longest delay");
    expectIgnored(peer.exchange(kSecond, 11 * kSecond), "too long in all");
}

TEST(ClockFilter, KeepsItsCourseThroughStrayContradictions) {
    ClockFilter filter;
    const Peer peer;
    Peer wrong = peer;
    wrong.startThere += 20 * kMillisecond;
    burst(filter, peer);
    for (int i = 0; i < 200; ++i) {
        const Nanoseconds t = kSecond + i * 20 * kMillisecond;
        filter.add((i % 4 == 0 ? peer : wrong).exchange(t));
        ASSERT_NEAR(peer.error(filter, t), 0, kMicrosecond);
    }
    EXPECT_EQ(filter.estimate().breaks, 0U);
}

TEST(ClockFilter, KeepsItsCourseThroughAMomentOfContradictions) {
    // Nine within nine milliseconds are not a new clock, wherever they come from and however early.
    for (const double offBy : {2e6, -2e6, 20e6, -20e6, 3.6e12, -3.6e12})
        for (const Nanoseconds start : {50 * kMillisecond, 200 * kMillisecond, kSecond, 10 * kSecond}) {
            SCOPED_TRACE("off by " + std::to_string(offBy) + " ns from " + std::to_string(start) + " ns on");
            std::mt19937_64 random(3);
            std::exponential_distribution<double> queue(1.0 / 5000);
            const auto wait = [&] { return static_cast<Nanoseconds>(queue(random)); };
            ClockFilter filter;
            Peer peer;
            peer.skewPpm = -40;
            Peer wrong = peer;
            wrong.startThere += static_cast<Nanoseconds>(offBy);
            burst(filter, peer);
            for (Nanoseconds t = 40 * kMillisecond; t < start; t += 125 * kMillisecond)
                filter.add(peer.exchange(t, 0, wait(), wait()));
            ASSERT_TRUE(filter.estimate().known);
            const ClockEstimate before = filter.estimate();
            for (int i = 0; i < 9; ++i) {
                filter.add(wrong.exchange(start + i * kMillisecond, 0, wait(), wait()));
                EXPECT_EQ(filter.estimate().at, before.at) << i;
            }
            idle(filter, peer, start + 20 * kMillisecond, start + 2 * kSecond);
            EXPECT_EQ(filter.estimate().breaks, 0U);
            EXPECT_NEAR(peer.error(filter, start + 2 * kSecond), 0, 20 * kMicrosecond);
        }
}

TEST(ClockFilter, FollowsAClockThatHasJumpedAtOnce) {
    // A step where the difference is over a millisecond, and nothing left of the doubt.
    ClockFilter filter;
    Peer peer;
    burst(filter, peer);
    idle(filter, peer, 100 * kMillisecond, kSecond);
    peer.startThere += 20 * kMillisecond;
    for (int i = 0; i != 4; ++i) {
        EXPECT_EQ(filter.estimate().breaks, 0U) << i;
        filter.add(peer.exchange(kSecond + i * 5 * kMillisecond));
        EXPECT_EQ(filter.doubtful(), i != 3) << i;
    }
    EXPECT_EQ(filter.estimate().breaks, 1U);
    EXPECT_NEAR(peer.error(filter, kSecond + 20 * kMillisecond), 0, kMicrosecond);
    filter.add(peer.exchange(kSecond + 30 * kMillisecond));
    EXPECT_FALSE(filter.doubtful());
}

TEST(ClockFilter, KeepsNanosecondsOfLargeOffsets) {
    const struct {
        Nanoseconds offset;
        double tolerance;
    } cases[] = {{100 * 86400 * kSecond, 5}, {500'000'000 * kSecond, 50}, {-1'000'000'000 * kSecond, 70}};
    for (const auto& test : cases) {
        ClockFilter filter;
        Peer peer;
        peer.skewPpm = 30;
        peer.startThere = test.offset;
        burst(filter, peer);
        idle(filter, peer, 100 * kMillisecond, 20 * kSecond);
        EXPECT_NEAR(peer.error(filter, 20 * kSecond), 0, test.tolerance) << test.offset;
    }
}

TEST(ClockFilter, SurvivesHostileStamps) {
    std::mt19937_64 random(11);
    const auto any = [&] {
        const auto value = static_cast<Nanoseconds>(random());
        const Nanoseconds edges[] = {INT64_MIN, INT64_MAX, 0, -1, value, value >> (random() % 63)};
        return edges[random() % 6];
    };
    ClockFilter filter;
    const auto expectFinite = [&](Nanoseconds now) {
        const ClockEstimate& estimate = filter.estimate();
        ASSERT_TRUE(std::isfinite(estimate.offsetAt(now)) && std::isfinite(estimate.boundAt(now)));
        ASSERT_TRUE(std::isfinite(estimate.skewPpm) && std::fabs(estimate.skewPpm) <= 5000);
        ASSERT_TRUE(std::isfinite(estimate.bound) && estimate.bound >= 0);
    };
    for (int i = 0; i < 200'000; ++i) {
        const Nanoseconds now = i * 100 * kMicrosecond;
        filter.add({any(), any(), any(), now});
        expectFinite(now);
    }
    // The attacker's own stamps fit ours in time and lie otherwise.
    for (int i = 0; i < 20'000; ++i) {
        const Nanoseconds now = 20 * kSecond + i * kMillisecond;
        const Nanoseconds claimed = any();
        const auto held = static_cast<Nanoseconds>(random() % 1000);
        filter.add({now - static_cast<Nanoseconds>(random() % 2'000'000), claimed, plus(claimed, held), now});
        expectFinite(now);
    }
    // Afterwards an honest peer is learnt all the same.
    const Peer peer;
    burst(filter, peer, 41 * kSecond);
    idle(filter, peer, 42 * kSecond, 60 * kSecond);
    EXPECT_NEAR(peer.error(filter, 60 * kSecond), 0, kMicrosecond);
}

TEST(ClockFilter, StraysThatDisagreeNeverJoin) {
    // Four in a row contradict the estimate, but each shows another clock.
    ClockFilter filter;
    const Peer peer;
    burst(filter, peer);
    for (int i = 0; i < 200; ++i) {
        const Nanoseconds t = kSecond + i * 20 * kMillisecond;
        Peer wrong = peer;
        wrong.startThere += (1 + i % 3) * 20 * kMillisecond;
        filter.add(i % 8 == 0 ? peer.exchange(t) : wrong.exchange(t));
        ASSERT_EQ(filter.estimate().breaks, 0U) << i;
    }
    EXPECT_NEAR(peer.error(filter, 5 * kSecond), 0, kMicrosecond);
}

} // namespace kor::detail
