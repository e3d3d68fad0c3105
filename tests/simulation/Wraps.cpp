#include "tests/simulation/world/World.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>

namespace kor::simulation {

/// Packet ids, datagram numbers and the stamps of both sides wrap within the same tenth of a second, while
/// datagrams are lost, doubled and overtake each other.
TEST(Wraps, OfEverythingOnTheWireAtOnceLoseNothing) {
    constexpr std::uint64_t kPacketsBefore = 100;
    constexpr std::uint64_t kNumbersBefore = 680;
    constexpr Nanoseconds kHour = 3600 * kSecond;
    for (std::uint64_t seed = 1; seed <= 50 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        WorldModel model;
        model.seed = seed;
        model.path.jitter = 300 * kMicrosecond;
        model.path.keepsOrder = false;
        model.path.reordered = 0.1;
        model.path.mtu = 1472;
        model.path.loss = 0.05;
        model.path.duplicated = 0.02;
        model.firstPacketId = (1ull << 32) - kPacketsBefore;
        model.firstNumber = (1ull << 32) - kNumbersBefore;
        World world(model);
        HostModel host;
        host.clockZero = INT64_MAX - kHour;
        host.driftPpm = -40;
        host.stampsAhead = kHour - 500 * kMillisecond;
        Host& master = world.addHost(host);
        host.driftPpm = 60;
        host.stampsAhead = kHour - 520 * kMillisecond;
        Host& slave = world.addHost(host);
        const std::array sides{std::pair{&master, &slave}, std::pair{&slave, &master}};
        slave.connect(master);
        world.runFor(100 * kMillisecond);
        const Nanoseconds start = world.now();
        const auto size = [&world] { return world.random().size(100, 20'000); };
        for (const auto& [from, to] : sides) {
            EXPECT_GT(from->stamp(), 0);
            world.flow(*from, *to, start, 4 * kMillisecond, 200, size);
        }

        std::array<double, 2> errors{};
        while (world.now() < start + 900 * kMillisecond) {
            world.runFor(kMillisecond);
            for (std::size_t i = 0; i != sides.size(); ++i) {
                Host& here = *sides[i].first;
                Host& there = *sides[i].second;
                ASSERT_NE(here.connectionTo(there), nullptr);
                const detail::ClockEstimate& clock = here.connectionTo(there)->clock();
                ASSERT_TRUE(clock.known);
                const auto truth = static_cast<double>(detail::elapsed(there.stamp(), here.clock()));
                const double error = clock.offsetAt(here.clock()) - truth;
                EXPECT_LE(std::abs(error), clock.boundAt(here.clock()) + 1); // a nanosecond of rounding
                // Slewed, beside the drift, by 2000 ppm at most.
                EXPECT_TRUE(errors[i] == 0 || std::abs(error - errors[i]) < 2.2e3) << "nanoseconds";
                EXPECT_EQ(clock.breaks, 0u);
                errors[i] = error;
            }
        }
        world.settle();
        EXPECT_EQ(world.ledger().packetsDelivered(), 400u);
        ASSERT_EQ(world.ledger().connections().size(), 1u);
        const std::uint64_t id = world.ledger().connections().begin()->first;
        for (const auto& [from, to] : sides) {
            EXPECT_LT(from->stamp(), 0);
            EXPECT_GT(world.tap().counts(id, from == &slave).datagrams, kNumbersBefore);
            EXPECT_GT(from->connectionTo(*to)->statistics(from->clock()).packetsDelivered, kPacketsBefore);
        }
        // An echo of a stamp from before the wrap would have served for ten seconds more.
        for (const auto& [from, to] : sides)
            world.flow(*from, *to, world.now(), 50 * kMillisecond, 300, [] { return 100u; });
        world.settle();
        for (const auto& [from, to] : sides)
            EXPECT_LT(from->connectionTo(*to)->clock().boundAt(from->clock()), 500e3) << "nanoseconds";
        world.rest();
        EXPECT_TRUE(world.faults().none()) << world.faults().text();
    }
}

} // namespace kor::simulation
