#include "simulator/Pair.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <vector>

namespace kor::simulation {

TEST(KeepAlive, HoldsWhateverTheTimeoutsOfTheTwoSides) {
    constexpr std::array kTimeouts = {10, 25, 50, 100, 300, 2000};
    for (const int one : kTimeouts)
        for (const int other : kTimeouts) {
            Pair pair({}, {.timeout = one * kMillisecond}, {.timeout = other * kMillisecond});
            pair.world.runFor(5 * kSecond);
            EXPECT_EQ(pair.world.ledger().connections().size(), 1u);
            EXPECT_EQ(pair.world.ledger().ended(detail::NetEvent::Kind::lost), 0u)
                << one << " ms and " << other << " ms";
        }
}

TEST(KeepAlive, HoldsWhenATimeoutIsLowered) {
    for (int phase = 0; phase != 50; ++phase)
        for (const bool masters : {true, false}) {
            Pair pair;
            pair.world.runFor(3 * kSecond + phase * 13 * kMillisecond);
            Host& host = masters ? pair.master : pair.slave;
            host.endpoint().setTimes({100 * kMillisecond, 250 * kMillisecond, kSecond}, host.clock());
            pair.world.inject(host, RTAddr(0x0A0000FF, 1), {}); // wakes it
            pair.world.runFor(kSecond);
            EXPECT_EQ(pair.world.ledger().ended(detail::NetEvent::Kind::lost), 0u) << phase;
        }
}

TEST(KeepAlive, AReportHeldForLongIsNotTakenForARoundTrip) {
    WorldModel model;
    model.seed = 3;
    model.path.delay = 10 * kMicrosecond;
    model.path.loss = 0.2;
    for (const double ppm : {100.0, -100.0}) {
        Pair pair(model, {.driftPpm = ppm}, {.driftPpm = -ppm});
        pair.world.runFor(120 * kSecond);
        ASSERT_NE(pair.master.connectionTo(pair.slave), nullptr);
        ASSERT_NE(pair.slave.connectionTo(pair.master), nullptr);
        EXPECT_LT(pair.master.connectionTo(pair.slave)->statistics(0).roundTripP99, 1) << "ms";
        EXPECT_LT(pair.slave.connectionTo(pair.master)->statistics(0).roundTripP99, 1) << "ms";
    }
}

TEST(KeepAlive, LateReportsOfABusyPeerAreWaitedFor) {
    Pair pair({}, {}, {.wakeLatency = 1500 * kMicrosecond});
    pair.world.runFor(200 * kMillisecond);
    constexpr std::uint64_t kPackets = 500;
    pair.world.flow(pair.master, pair.slave, pair.world.now(), 4 * kMillisecond, kPackets,
                    [] { return 1000u; });
    pair.drive();
    const ConnectionStatistics statistics = pair.master.connectionTo(pair.slave)->statistics(0);
    EXPECT_EQ(statistics.packetsDelivered, kPackets);
    EXPECT_LE(statistics.repairs, kPackets / 100);
}

TEST(KeepAlive, StampsLeaveInAShortDatagramOfTheirOwn) {
    const auto check = [](std::uint32_t packet, std::size_t mtu) {
        WorldModel model;
        model.path.mtu = mtu;
        Pair pair(model);
        pair.world.runFor(500 * kMillisecond);
        std::vector<SentDatagram> record;
        pair.world.onSent = [&](const SentDatagram& sent) { record.push_back(sent); };
        for (int frame = 0; frame != 100; ++frame) {
            for (int i = 0; i != 66; ++i)
                pair.master.send(pair.slave, packet);
            pair.world.runFor(25 * kMillisecond);
        }
        std::size_t stamped = 0;
        detail::DecodedDatagram datagram;
        for (std::size_t i = 0; i != record.size(); ++i) {
            ASSERT_EQ(decodeDatagram(record[i].bytes, datagram), detail::DecodeError::none);
            if (!datagram.time)
                continue;
            ++stamped;
            EXPECT_LE(record[i].bytes.size(), 1472u);
            const bool last = i + 1 == record.size();
            EXPECT_FALSE(!last && record[i + 1].at == record[i].at && record[i + 1].from == record[i].from)
                << "another datagram in the same train";
        }
        EXPECT_GE(stamped, 100u);
    };
    for (const std::uint32_t packet : {20u, 600u, 20'000u})
        for (const std::size_t mtu : {std::size_t{1472}, std::size_t{65507}})
            check(packet, mtu);
}

} // namespace kor::simulation
