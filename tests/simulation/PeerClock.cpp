#include "tests/simulation/world/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace kor::simulation {

TEST(PeerClock, IsKnownWithinAHundredMilliseconds) {
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        WorldModel model;
        model.seed = seed;
        model.path.loss = 0.02;
        model.path.jitter = 100 * kMicrosecond;
        World world(model);
        HostModel far;
        far.clockZero = -3 * kSecond;
        far.driftPpm = 100;
        Host& master = world.addHost();
        Host& slave = world.addHost(far);
        slave.connect(master);
        world.runUntil([&] { return slave.connections() == 1 && master.connections() == 1; }, kSecond);
        world.runFor(100 * kMillisecond);
        ASSERT_NE(slave.connectionTo(master), nullptr) << "seed " << seed;
        EXPECT_TRUE(slave.connectionTo(master)->clock().known) << "seed " << seed;
        EXPECT_TRUE(master.connectionTo(slave)->clock().known) << "seed " << seed;
    }
}

TEST(PeerClock, StaysWithinItsBoundUnderDriftAndLoad) {
    for (const double drift : {-100.0, 0.0, 30.0, 100.0}) {
        WorldModel model;
        model.path.jitter = 50 * kMicrosecond;
        World world(model);
        HostModel drifting;
        drifting.driftPpm = drift;
        drifting.clockZero = 1000 * kSecond;
        Host& master = world.addHost();
        Host& slave = world.addHost(drifting);
        slave.connect(master);
        world.runFor(2 * kSecond);
        world.flow(master, slave, world.now(), 16 * kMillisecond, 300, [] { return 100'000u; });
        std::vector<double> errors;
        for (int i = 0; i != 600; ++i) {
            world.runFor(10 * kMillisecond);
            const detail::ClockEstimate& clock = slave.connectionTo(master)->clock();
            const double truth = static_cast<double>(master.clock() - slave.clock());
            const double error = std::abs(clock.offsetAt(slave.clock()) - truth);
            EXPECT_LE(error, clock.boundAt(slave.clock()) + 1) << "drift " << drift;
            errors.push_back(error);
        }
        std::ranges::sort(errors);
        std::printf("drift %+.0f ppm: clock error p50 %.2f us, p99 %.2f us\n", drift, errors[300] * 1e-3,
                    errors[594] * 1e-3);
        EXPECT_LT(errors[594], 100e3) << "nanoseconds, drift " << drift;
        EXPECT_TRUE(world.faults().none()) << world.faults().text();
    }
}

} // namespace kor::simulation
