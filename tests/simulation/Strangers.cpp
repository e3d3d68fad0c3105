#include "simulator/Pair.h"

#include "support/net/wire/Datagram.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>

namespace kor::simulation {

TEST(Strangers, ForgedRequestsLeaveConnectionsAndClockAlone) {
    Pair pair({}, {}, {.driftPpm = 30});
    auto& [world, master, slave] = pair;
    world.runFor(500 * kMillisecond);
    world.flow(master, slave, world.now(), 4 * kMillisecond, 250, [] { return 1000u; });

    // 200,000 from as many ports and addresses, a tenth of them with a cookie that nobody has made.
    Random random(7);
    std::array<std::uint8_t, detail::kHandshakeBytes> bytes{};
    for (int i = 0; i != 200'000; ++i) {
        const RTAddr from(0xC0A80000u + static_cast<std::uint32_t>(random.below(65536)),
                          static_cast<std::uint16_t>(1 + random.below(65535)));
        const std::size_t size =
            i % 10 == 0 ? detail::writeResponse(bytes, random.next(), random.next(), master.clock(), {})
                        : detail::writeRequest(bytes, random.next());
        world.inject(master, from, {bytes.data(), size});
        world.runFor(5 * kMicrosecond);
    }
    world.settle();
    NetStatistics statistics;
    master.endpoint().addStatistics(statistics);
    EXPECT_EQ(statistics.connections, 1u);
    EXPECT_EQ(statistics.badCookies, 20'000u);
    EXPECT_EQ(master.endpoint().events().size(), 0u);
    EXPECT_EQ(world.ledger().connections().size(), 1u);
    const detail::ClockEstimate& clock = slave.connectionTo(master)->clock();
    ASSERT_TRUE(clock.known);
    const auto truth = static_cast<double>(master.clock() - slave.clock());
    EXPECT_LT(std::abs(clock.offsetAt(slave.clock()) - truth), 20e3) << "nanoseconds";
    world.idle();
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
}

TEST(Strangers, FullTableRefusesAndKeepsWhatStands) {
    World world;
    Host& master = world.addHost({.maxPeers = 3});
    for (int i = 0; i != 6; ++i)
        world.addHost().connect(master, 50 * kMillisecond, 2);
    world.runFor(500 * kMillisecond);
    NetStatistics statistics;
    master.endpoint().addStatistics(statistics);
    EXPECT_EQ(statistics.connections, 3u);
    EXPECT_GE(statistics.refusedConnections, 3u);
    std::uint64_t failed = 0;
    for (std::size_t i = 1; i != world.hostCount(); ++i)
        failed += world.host(i).failedAttempts();
    EXPECT_EQ(failed, 3u);
    world.settle();
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
}

TEST(Strangers, TwoHundredAndFiftyIdlePeersCostLittle) {
    World world;
    Host& master = world.addHost();
    for (int i = 0; i != 250; ++i)
        world.addHost().connect(master);
    world.runFor(kSecond);
    ASSERT_EQ(master.connections(), 250u);
    const std::uint64_t before = world.tap().total().datagrams;
    const std::uint64_t turns = master.turns();
    world.runFor(2 * kSecond);
    const auto perPeer = static_cast<double>(world.tap().total().datagrams - before) / 250 / 2;
    EXPECT_LE(perPeer, 20) << "datagrams per peer and second, both directions";
    EXPECT_LE(static_cast<double>(master.turns() - turns) / 2, 250 * 16) << "turns per second";
    world.idle();
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
}

} // namespace kor::simulation
