#include "simulator/Pair.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace kor::simulation {

namespace {

using detail::NetEvent;

/// The slave connects again by itself.
struct LivingPair : Pair {
    explicit LivingPair(const WorldModel& model = {}) : Pair(model, {}, {.reconnects = true}) {
        world.runFor(50 * kMillisecond);
    }

    /// Both directions, like the frames of a display and the reports about them.
    void traffic(int count) {
        const Nanoseconds start = world.now();
        world.flow(master, slave, start, 4 * kMillisecond, count, [] { return 3000u; });
        world.flow(slave, master, start, 16 * kMillisecond, count / 4, [] { return 38u; });
    }

    /// When each host was last told of an end of that kind.
    Nanoseconds ended(bool initiator, NetEvent::Kind kind) {
        Nanoseconds newest = kNever;
        for (const auto& [id, connection] : world.ledger().connections())
            if (connection.sides[initiator].ended && connection.sides[initiator].end == kind)
                newest = connection.sides[initiator].endedAt;
        return newest;
    }

    /// Nothing is owed, nothing goes on, and no promise was broken.
    void expectPeace() {
        drive();
        world.idle();
        EXPECT_TRUE(world.faults().none()) << world.faults().text();
    }
};

} // namespace

TEST(Lifecycle, GoodbyeEndsBothSidesAtOnce) {
    LivingPair pair;
    const Nanoseconds start = pair.world.now();
    pair.slave.model().reconnects = false;
    pair.master.goodbye();
    pair.world.runFor(50 * kMillisecond);
    EXPECT_LT(pair.ended(true, NetEvent::Kind::disconnected) - start, 2 * kMillisecond);
    pair.expectPeace();
}

TEST(Lifecycle, LostGoodbyesAreRepeated) {
    int told = 0;
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        WorldModel model;
        model.seed = seed;
        LivingPair pair(model);
        pair.slave.model().reconnects = false;
        pair.forward().loss = 0.1;
        pair.master.goodbye();
        pair.world.runFor(20 * kMillisecond);
        told += pair.ended(true, NetEvent::Kind::disconnected) != kNever ? 1 : 0;
    }
    EXPECT_GE(told, 197); // three goodbyes: one in a thousand is not heard
}

TEST(Lifecycle, RestartedMasterIsRecognisedByItsFirstAnswer) {
    LivingPair pair;
    pair.traffic(500);
    pair.world.runFor(100 * kMillisecond);
    pair.master.kill();
    pair.world.runFor(30 * kMillisecond);
    pair.master.start();
    const Nanoseconds back = pair.world.now();
    pair.world.runFor(300 * kMillisecond);
    EXPECT_LT(pair.ended(true, NetEvent::Kind::reconnecting) - back, 40 * kMillisecond);
    EXPECT_NE(pair.slave.connectionTo(pair.master), nullptr);
    pair.expectPeace();
}

TEST(Lifecycle, RestartedSlaveReplacesItsConnectionAtOnce) {
    LivingPair pair;
    pair.traffic(500);
    pair.world.runFor(100 * kMillisecond);
    pair.slave.kill();
    pair.slave.start();
    const Nanoseconds back = pair.world.now();
    pair.slave.connect(pair.master);
    pair.world.runFor(100 * kMillisecond);
    EXPECT_LT(pair.ended(false, NetEvent::Kind::reconnecting) - back, 10 * kMillisecond);
    pair.expectPeace();
}

TEST(Lifecycle, KeepAlivesLeaveInSilenceOnlyAndInTurns) {
    LivingPair pair;
    pair.world.runFor(300 * kMillisecond); // the opening burst is over
    const auto sent = [&](Host& host, Host& peer) {
        return host.connectionTo(peer)->statistics(0).datagramsSent;
    };
    const auto pings = [&] { return pair.world.tap().total().pings - pair.world.tap().total().paddings; };
    const Nanoseconds start = pair.world.now();
    pair.world.flow(pair.master, pair.slave, start, 95 * kMillisecond, 21, [] { return 100u; });
    pair.world.runFor(50 * kMillisecond);
    std::uint64_t before = pings();
    pair.world.runUntil(start + 20 * 95 * kMillisecond);
    EXPECT_EQ(pings(), before) << "during traffic, which is answered";
    pair.world.settle();
    before = pings();
    const std::uint64_t fromMaster = sent(pair.master, pair.slave);
    const std::uint64_t fromSlave = sent(pair.slave, pair.master);
    pair.world.runFor(10 * kSecond);
    // Each side 250 ms after the other, the accepting one on a grid of 25 ms; a ping each every 2 s.
    const std::uint64_t pinged = pings() - before;
    EXPECT_GE(pinged, 8u);
    EXPECT_LE(pinged, 10u);
    for (const std::uint64_t keepAlives : {sent(pair.master, pair.slave) - fromMaster - pinged / 2,
                                           sent(pair.slave, pair.master) - fromSlave - pinged / 2}) {
        EXPECT_GE(keepAlives, 10'000u / 526);
        EXPECT_LE(keepAlives, 10'000u / 500);
    }
    EXPECT_TRUE(pair.world.faults().none()) << pair.world.faults().text();
}

TEST(Lifecycle, SilenceEndsTheConnectionAfterTheTimeSet) {
    for (const Nanoseconds timeout : {300 * kMillisecond, 2 * kSecond, 10 * kSecond}) {
        Pair pair({}, {.timeout = timeout}, {.timeout = timeout});
        World& world = pair.world;
        world.runFor(kSecond);
        world.setPath(pair.master, pair.slave, {.cut = true});
        const Nanoseconds start = world.now();
        world.runFor(timeout + kSecond);
        ASSERT_EQ(world.ledger().connections().size(), 1u);
        for (const auto& side : world.ledger().connections().begin()->second.sides) {
            ASSERT_TRUE(side.ended);
            EXPECT_EQ(side.end, NetEvent::Kind::lost);
            EXPECT_GE(side.endedAt - start,
                      timeout - std::min(550 * kMillisecond, timeout / 3)); // since it was last heard
            EXPECT_LE(side.endedAt - start, timeout + kMillisecond);
        }
    }
}

TEST(Lifecycle, ShortStopsKeepTheConnectionAndLoseNothing) {
    for (const bool stopsMaster : {false, true}) {
        LivingPair pair;
        pair.traffic(600);
        pair.world.runFor(50 * kMillisecond);
        Host& stopped = pair.world.host(stopsMaster ? 0 : 1);
        stopped.suspend();
        pair.world.runFor(1500 * kMillisecond);
        stopped.resume();
        pair.expectPeace();
        EXPECT_EQ(pair.world.ledger().connections().size(), 1u);
        EXPECT_EQ(stopped.socketDrops(), 0u);
    }
}

TEST(Lifecycle, LongStopsEndTheConnectionAndItComesBack) {
    for (const bool stopsMaster : {false, true}) {
        LivingPair pair;
        pair.traffic(1200);
        pair.world.runFor(50 * kMillisecond);
        Host& stopped = pair.world.host(stopsMaster ? 0 : 1);
        stopped.suspend();
        pair.world.runFor(3 * kSecond);
        EXPECT_NE(pair.ended(stopsMaster, NetEvent::Kind::lost), kNever);
        stopped.resume();
        pair.world.runFor(500 * kMillisecond);
        EXPECT_NE(pair.slave.connectionTo(pair.master), nullptr) << "stopped master: " << stopsMaster;
        pair.expectPeace();
    }
}

TEST(Lifecycle, BothSidesConnectingMakeOneConnection) {
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        WorldModel model;
        model.seed = seed;
        model.path.jitter = seed % 3 == 0 ? 2 * kMillisecond : 0;
        model.path.keepsOrder = false;
        model.path.loss = seed % 5 == 0 ? 0.1 : 0;
        World world(model);
        Host& a = world.addHost();
        Host& b = world.addHost();
        world.at(world.random().between(0, 3) * kMillisecond, [&] { a.connect(b); });
        world.at(world.random().between(0, 3) * kMillisecond, [&] { b.connect(a); });
        world.runFor(200 * kMillisecond);
        world.settle();
        EXPECT_EQ(world.ledger().connections().size(), 1u) << "seed " << seed;
        EXPECT_NE(a.connectionTo(b), nullptr) << "seed " << seed;
        EXPECT_TRUE(world.faults().none()) << "seed " << seed << ": " << world.faults().text();
    }
}

/// What went over the wire before comes again, all of it, to both sides.
TEST(Lifecycle, ReplayedDatagramsChangeNothing) {
    std::vector<SentDatagram> recorded;
    World world;
    world.onSent = [&](const SentDatagram& sent) { recorded.push_back(sent); };
    Host& master = world.addHost();
    Host& slave = world.addHost();
    slave.connect(master);
    world.runFor(20 * kMillisecond);
    world.flow(master, slave, world.now(), kMillisecond, 30, [] { return 2000u; });
    world.settle();
    slave.kill(); // the master keeps the first connection until the second replaces it
    slave.start();
    slave.connect(master);
    world.runFor(20 * kMillisecond);
    world.flow(master, slave, world.now(), kMillisecond, 300, [] { return 2000u; });
    const std::uint64_t id = slave.connectionTo(master)->config().connectionId;

    const std::vector<SentDatagram> old = recorded;
    for (const SentDatagram& one : old)
        world.after(world.random().between(0, 200) * kMillisecond, [&world, &one] {
            world.inject(world.host(static_cast<std::size_t>(one.to)),
                         world.host(static_cast<std::size_t>(one.from)).addr(), one.bytes);
        });
    world.runFor(250 * kMillisecond);
    world.settle();
    EXPECT_EQ(world.ledger().connections().size(), 2u);
    ASSERT_NE(slave.connectionTo(master), nullptr);
    EXPECT_EQ(slave.connectionTo(master)->config().connectionId, id);
    EXPECT_EQ(master.connectionTo(slave)->config().connectionId, id);
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
}

} // namespace kor::simulation
