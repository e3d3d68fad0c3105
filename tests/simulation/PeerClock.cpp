#include "simulator/Pair.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace kor::simulation {

/// On either side, counted from when that side was told of the connection.
TEST(PeerClock, IsKnownWithinAHundredMilliseconds) {
    for (const double loss : {0.0, 0.02, 0.2}) {
        Nanoseconds longest = 0;
        for (std::uint64_t seed = 1; seed <= 500; ++seed) {
            WorldModel model;
            model.seed = seed;
            model.path.loss = loss;
            model.path.jitter = 100 * kMicrosecond;
            World world(model);
            Host& master = world.addHost();
            Host& slave = world.addHost({.driftPpm = 100, .clockZero = -3 * kSecond});
            const auto watch = [&](Host& host, Host& other) {
                host.onEvent = [&, connected = kNever, known = false](const detail::NetEvent& event) mutable {
                    if (event.kind == detail::NetEvent::Kind::connected)
                        connected = std::min(connected, world.now());
                    if (known || !host.connectionTo(other)->clock().known)
                        return;
                    known = true;
                    longest = std::max(longest, world.now() - connected);
                };
            };
            watch(master, slave);
            watch(slave, master);
            slave.connect(master);
            world.runFor(500 * kMillisecond);
            ASSERT_NE(slave.connectionTo(master), nullptr) << "seed " << seed;
            ASSERT_NE(master.connectionTo(slave), nullptr) << "seed " << seed;
            EXPECT_TRUE(slave.connectionTo(master)->clock().known) << "seed " << seed;
            EXPECT_TRUE(master.connectionTo(slave)->clock().known) << "seed " << seed;
            ASSERT_LE(longest, 100 * kMillisecond) << "seed " << seed << ", loss " << loss;
        }
        std::printf("loss %.2f: known after %.1f ms at the latest\n", loss,
                    static_cast<double>(longest) * 1e-6);
    }
}

TEST(PeerClock, StaysWithinItsBoundUnderDriftAndLoad) {
    for (const double drift : {-100.0, 0.0, 30.0, 100.0}) {
        WorldModel model;
        model.path.jitter = 50 * kMicrosecond;
        Pair pair(model, {}, {.driftPpm = drift, .clockZero = 1000 * kSecond});
        auto& [world, master, slave] = pair;
        world.runFor(2 * kSecond);
        world.flow(master, slave, world.now(), 16 * kMillisecond, 300, [] { return 100'000u; });
        std::vector<double> errors;
        for (int i = 0; i != 600; ++i) {
            world.runFor(10 * kMillisecond);
            const detail::ClockEstimate& clock = slave.connectionTo(master)->clock();
            const double truth = static_cast<double>(master.clock() - slave.clock());
            const double error = std::abs(clock.offsetAt(slave.clock()) - truth);
            EXPECT_LE(error, clock.boundAt(slave.clock()) + 1) // a nanosecond of rounding
                << "drift " << drift;
            errors.push_back(error);
        }
        std::ranges::sort(errors);
        std::printf("drift %+.0f ppm: clock error p50 %.2f us, p99 %.2f us\n", drift, errors[300] * 1e-3,
                    errors[594] * 1e-3);
        EXPECT_LT(errors[594], 100e3) << "nanoseconds, drift " << drift;
        EXPECT_TRUE(world.faults().none()) << world.faults().text();
    }
}

/// Frames of 60 Hz carry stamps where the path makes the bound wide.
TEST(PeerClock, IsSharpOnPathsThatJitter) {
    const struct {
        Nanoseconds delay;
        Nanoseconds jitter;
        double p50; ///< nanoseconds
        double p99;
    } paths[] = {{100 * kMicrosecond, 100 * kMicrosecond, 3e3, 12e3},
                 {100 * kMicrosecond, 300 * kMicrosecond, 6e3, 30e3},
                 {kMillisecond, 4 * kMillisecond, 60e3, 360e3}};
    for (const auto& path : paths)
        for (std::uint64_t seed = 1; seed <= 5; ++seed) {
            WorldModel model;
            model.seed = seed;
            model.path.delay = path.delay;
            model.path.jitter = path.jitter;
            Pair pair(model, {}, {.driftPpm = 50, .clockZero = 1000 * kSecond});
            auto& [world, master, slave] = pair;
            world.flow(master, slave, world.now(), kSecond / 60, 1200, [] { return 2000u; });
            world.runFor(2 * kSecond);
            std::vector<double> errors;
            for (int i = 0; i != 1800; ++i) {
                world.runFor(10 * kMillisecond);
                const detail::ClockEstimate& clock = slave.connectionTo(master)->clock();
                const double truth = static_cast<double>(master.clock() - slave.clock());
                errors.push_back(std::abs(clock.offsetAt(slave.clock()) - truth));
                ASSERT_LE(errors.back(), clock.boundAt(slave.clock()) + 1);
            }
            std::ranges::sort(errors);
            EXPECT_LE(errors[900], path.p50) << "jitter " << path.jitter << ", seed " << seed;
            EXPECT_LE(errors[1782], path.p99) << "jitter " << path.jitter << ", seed " << seed;
            std::printf("jitter %.1f ms: clock error p50 %.2f us, p99 %.2f us\n",
                        static_cast<double>(path.jitter) * 1e-6, errors[900] * 1e-3, errors[1782] * 1e-3);
        }
}

} // namespace kor::simulation
