// Peers that mean harm: random bytes, forged handshakes, and such as speak the protocol and lie.

#include "support/Cluster.h"
#include "support/Intruder.h"
#include "support/Rubbish.h"

#include "support/net/Datagram.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kLess = kSanitized ? 4 : 1;
constexpr long long kRoomKib = 48 << 10; // that a process may grow by in a test

class Intruders : public Cluster {
protected:
    void startAndLock(int count, const Arguments& slaveArguments = {}) {
        startMaster(count, {{"payload", "20000"}});
        startSlaves(count, slaveArguments);
        ASSERT_TRUE(awaitAllLockedAnew());
        before_ = marks();
        residentBefore_ = master().last("status").count("resident_kib");
    }

    /// The intruders have not been noticed.
    void expectUndisturbed() {
        EXPECT_TRUE(awaitAllLockedStill(before_));
        EXPECT_TRUE(awaitAllLockedStill(marks()));
        expectCleanTraffic();
        if (!kSanitized) {
            EXPECT_LT(master().last("status").count("resident_kib"), residentBefore_ + kRoomKib);
        }
    }

    bool awaitMaster(const std::string& key, long long value) {
        return await([&] { return master().last("status").count(key) == value; });
    }

    bool heardOf(const std::string& name) {
        return await(
            [&] { return master().last("status").text("names").find(name + ",") != std::string::npos; });
    }

    static bool heardAnnouncement(const SlaveProcess& node) {
        return std::ranges::any_of(node.process().log(), [](const std::string& line) {
            return line.find("recv broadcast") != std::string::npos;
        });
    }

    /// Lets a slave with nothing better to do take the intruder for its master.
    bool seduce(const SlaveProcess& node, int port, Intruder& intruder) {
        const Rubbish sender(1);
        return await([&] {
            if (!heardAnnouncement(node)) {
                sender.send(port, Rubbish::announcement(intruder.port()));
            }
            return intruder.connected();
        });
    }

    std::vector<SlaveProcess::Mark> before_;
    long long residentBefore_ = 0;
};

TEST_F(Intruders, RandomBytesDoNotReachASlaveThatLooksForItsMaster) {
    startSlaves(2);
    Rubbish rubbish(7);
    for (int i = 0; i < 4000 / kLess; ++i) {
        rubbish.send(announcePort(i % 2), rubbish.noise());
        rubbish.send(announcePort(i % 2), rubbish.damaged(Rubbish::announcement(dataPort(0))));
        if (i % 100 == 0) {
            ChildProcess::pump(std::chrono::milliseconds(1));
        }
    }
    EXPECT_FALSE(heardAnnouncement(slave(0)));
    EXPECT_FALSE(heardAnnouncement(slave(1)));
    startMaster(2);
    EXPECT_TRUE(awaitAllLockedAnew());
    expectCleanEnd();
}

TEST_F(Intruders, RandomBytesOnEveryPortWhileFramesFlow) {
    startAndLock(1, {{"port", std::to_string(sparePort(0))}});
    Rubbish rubbish(11);
    for (int i = 0; i < 8000 / kLess; ++i) {
        for (const int port : {dataPort(0), bindPort(0), announcePort(0), sparePort(0)}) {
            rubbish.send(port, rubbish.noise());
        }
        rubbish.send(announcePort(0), Rubbish::announcement(sparePort(5)));
        if (i % 50 == 0) {
            ChildProcess::pump(std::chrono::milliseconds(1));
        }
    }
    expectUndisturbed();
    EXPECT_TRUE(await([&] { return master().last("status").count("malformed") > 1000; }));
    expectCleanEnd();
}

TEST_F(Intruders, ForgedHandshakesLeaveNoTrace) {
    startAndLock(2);
    const long long datagrams = master().last("status").count("datagrams");
    constexpr int kSenders = 200 / kLess;
    constexpr int kEach = 1000;
    for (int i = 0; i < kSenders; ++i) {
        const Rubbish sender(static_cast<unsigned>(i));
        for (int n = 0; n < kEach; ++n) {
            Bytes request(kor::detail::kHandshakeBytes);
            const auto nonce = static_cast<std::uint64_t>(i * kEach + n + 1);
            request.resize(kor::detail::writeRequest(request, nonce));
            sender.send(dataPort(n % 2), request);
        }
        ChildProcess::pump(std::chrono::milliseconds(0));
    }
    expectUndisturbed();
    // What the master's socket has no room for is lost, but not nearly all.
    EXPECT_GT(master().last("status").count("datagrams"), datagrams + kEach);
    EXPECT_EQ(master().last("status").count("connections"), 2);
    for (auto& node : slaves()) {
        EXPECT_TRUE(await([&] {
            return node->offsetError(master()) <= node->status().number("bound_ms") + 0.001;
        })) << node->offsetError(master());
    }
    expectCleanEnd();
}

TEST_F(Intruders, IntroductionsNoneTwiceAndWithUntrueCounts) {
    startAndLock(2);
    Intruder silent;
    Intruder twice;
    Intruder boaster;
    Intruder negative;
    Intruder cutOff;
    for (Intruder* peer : {&silent, &twice, &boaster, &negative, &cutOff}) {
        ASSERT_TRUE(peer->connect(dataPort(0)));
    }
    EXPECT_TRUE(twice.send(PacketBytes::introduction("twice", 1, {"one"})));
    EXPECT_TRUE(heardOf("twice"));
    EXPECT_TRUE(twice.send(PacketBytes::introduction("another", 2, {"one", "two"})));
    EXPECT_TRUE(heardOf("another"));
    for (int i = 0; i < 500; ++i) { // names that are replaced faster than anybody reads them
        EXPECT_TRUE(twice.send(PacketBytes::introduction("n" + std::to_string(i), 1, {"one"})));
    }
    EXPECT_TRUE(boaster.send(PacketBytes::introduction("boaster", 2'000'000'000, {"one"})));
    EXPECT_TRUE(heardOf("boaster"));
    EXPECT_TRUE(negative.send(PacketBytes::introduction("negative", -1, {"one"})));
    Bytes text = PacketBytes::introduction("cut", 1, {"camera"});
    text.resize(text.size() - 4);
    EXPECT_TRUE(cutOff.send(text));
    EXPECT_TRUE(heardOf("cut"));
    EXPECT_TRUE(cutOff.send(PacketBytes::introduction(std::string(16 << 20, 'x'), 1, {"camera"})));
    for (Intruder* peer : {&twice, &boaster, &negative, &cutOff}) {
        EXPECT_TRUE(peer->awaitDelivery());
    }
    EXPECT_TRUE(awaitMaster("slaves", 7));
    EXPECT_TRUE(await([&] { return silent.packetsReceived() > 0; })); // it is sent frames like everybody
    expectUndisturbed();
    for (Intruder* peer : {&silent, &twice, &boaster, &negative, &cutOff}) {
        peer->release();
    }
    EXPECT_TRUE(awaitMaster("slaves", 2));
    expectCleanEnd();
}

TEST_F(Intruders, ReportsThatLieAndFloods) {
    startAndLock(2);
    Intruder peer;
    ASSERT_TRUE(peer.connect(dataPort(0)));
    EXPECT_TRUE(peer.send(PacketBytes::introduction("liar", 1, {"one"})));
    EXPECT_TRUE(heardOf("liar"));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const std::int32_t most = std::numeric_limits<std::int32_t>::max();
    const std::int32_t least = std::numeric_limits<std::int32_t>::min();
    for (const std::int32_t length : {0, 1, 5, 6, 7, -1, most, least}) {
        EXPECT_TRUE(peer.send(PacketBytes().head(4, length)));
        EXPECT_TRUE(peer.send(PacketBytes().head(77, length).begin(1).end()));
        EXPECT_TRUE(peer.send(PacketBytes().begin(length).head(6, 22).real(nan).real(inf).end()));
    }
    for (int size = 1; size < 40; ++size) {
        EXPECT_TRUE(peer.send(PacketBytes().zeros(static_cast<std::size_t>(size))));
    }
    EXPECT_TRUE(peer.send(PacketBytes().begin(1).zeros(std::size_t{32} << 20)));
    Rubbish rubbish(3);
    for (int i = 0; i < 30000 / kLess; ++i) {
        Bytes noise = rubbish.noise();
        noise.resize(std::clamp<std::size_t>(noise.size(), 1, 200));
        peer.send(noise); // refused once too much is on its way, and that is as well
        if (i % 1000 == 0) {
            ChildProcess::pump(std::chrono::milliseconds(1));
        }
    }
    EXPECT_TRUE(peer.awaitDelivery());
    expectUndisturbed();
    peer.release();
    EXPECT_TRUE(awaitMaster("slaves", 2));
    expectCleanEnd();
}

TEST_F(Intruders, PeersThatComeAndGo) {
    startAndLock(1);
    for (int i = 0; i < 40; ++i) {
        Intruder peer;
        ASSERT_TRUE(peer.connect(dataPort(0)));
        EXPECT_TRUE(peer.send(PacketBytes::introduction("guest", 1, {"one"})));
    }
    EXPECT_TRUE(awaitMaster("slaves", 1));
    expectUndisturbed();
    expectCleanEnd();
}

TEST_F(Intruders, AMasterThatSendsNoFrames) {
    startSlaves(1);
    ASSERT_TRUE(await([&] { return slave(0).process().count("status") > 0; }));
    Intruder evil;
    ASSERT_TRUE(seduce(slave(0), announcePort(0), evil));
    ASSERT_TRUE(await([&] { return slave(0).count("connected") == 1; }));
    const std::int32_t most = std::numeric_limits<std::int32_t>::max();
    const std::int32_t least = std::numeric_limits<std::int32_t>::min();
    for (const std::int32_t value : {0, 1, 5, 6, 7, -1, most, least}) {
        EXPECT_TRUE(evil.send(PacketBytes().head(4, value)));
        EXPECT_TRUE(evil.send(PacketBytes().head(99, value).begin(1).end()));
        EXPECT_TRUE(evil.send(PacketBytes().head(99, value, 2).zeros(3)));
        EXPECT_TRUE(evil.send(PacketBytes().end().begin(value)));
        EXPECT_TRUE(evil.send(PacketBytes().begin(value).end()));
        EXPECT_TRUE(evil.send(PacketBytes().begin(value).head(40, most).real(1)));
    }
    Rubbish rubbish(5);
    for (int i = 0; i < 300; ++i) {
        Bytes noise = rubbish.noise();
        noise.resize(std::max<std::size_t>(noise.size(), 1));
        EXPECT_TRUE(evil.send(noise));
    }
    EXPECT_TRUE(evil.send(PacketBytes().zeros(std::size_t{32} << 20)));
    EXPECT_TRUE(evil.awaitDelivery());
    const long long waits = slave(0).count("none");
    EXPECT_TRUE(await([&] { return slave(0).count("none") > waits + 30; })) << "the slave hangs";
    EXPECT_EQ(slave(0).count("connected"), 1);

    evil.release();
    startMaster(1);
    EXPECT_TRUE(awaitAllLockedAnew());
    expectCleanEnd();
}

TEST_F(Intruders, AnAnnouncementOfNobody) {
    startSlaves(1);
    ASSERT_TRUE(await([&] { return slave(0).process().count("status") > 0; }));
    const Rubbish sender(1);
    ASSERT_TRUE(await([&] {
        sender.send(announcePort(0), Rubbish::announcement(sparePort(0)));
        return heardAnnouncement(slave(0));
    }));
    startMaster(1);
    EXPECT_TRUE(awaitAllLockedAnew());
    expectCleanEnd();
}

} // namespace
