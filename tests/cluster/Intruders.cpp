// Peers that mean harm to processes that show frames: random bytes, and such as speak the protocol and lie.
// What single bytes of theirs do is looked at in the unit tests and the simulation.

#include "support/Cluster.h"
#include "support/Rubbish.h"

namespace {

using namespace kor::testing_support;

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
        for (auto& node : slaves()) {
            expectClockWithinBound(*node);
        }
        expectCleanTraffic();
        if (!kSanitized) {
            EXPECT_LT(master().last("status").count("resident_kib"), residentBefore_ + kRoomKib);
        }
    }

    std::vector<SlaveProcess::Mark> before_;
    long long residentBefore_ = 0;
};

TEST_F(Intruders, RandomBytesOnEveryPortWhileFramesFlow) {
    startAndLock(1, {{"port", std::to_string(sparePort(0))}});
    Rubbish rubbish(11);
    for (int i = 0; i < 8000 / kLess; ++i) {
        for (const int port : {dataPort(0), bindPort(0), announcePort(0), sparePort(0)}) {
            rubbish.send(port, rubbish.noise());
        }
        rubbish.send(announcePort(0), broadcastOf(sparePort(5)));
        if (i % 50 == 0) {
            ChildProcess::pump(std::chrono::milliseconds(1));
        }
    }
    expectUndisturbed();
    EXPECT_TRUE(await([&] { return master().last("status").count("malformed") > 1000; }));
    expectCleanEnd();
}

TEST_F(Intruders, PeersThatLieAndFloodAndGo) {
    startAndLock(1);
    for (int i = 0; i < 20; ++i) {
        BarePeer peer;
        peer.net.connect("127.0.0.1", static_cast<unsigned short>(dataPort(0)), 1000, 10);
        ASSERT_TRUE(await([&] { return peer.user != nullptr; }));
        std::uint64_t sent = 0;
        const auto send = [&](const std::string& bytes) {
            sent += peer.user.load()->sendAsyn(bytes.data(), static_cast<int>(bytes.size())) !=
                    kor::RTUser::kRefused;
        };
        send(introductionOf("guest", {"one"}, i % 2 == 0 ? 1 : 2'000'000'000));
        const std::string name = "guest,";
        EXPECT_TRUE(
            await([&] { return master().last("status").text("names").find(name) != std::string::npos; }));
        for (int n = 0; n < 100; ++n) { // names that are replaced faster than anybody reads them
            send(introductionOf(std::to_string(n).c_str(), {"one"}));
        }
        for (std::size_t n = 1; n < 1000; ++n) { // reports that are none
            send(rubbish(1 + n % 200, n));
        }
        send(std::string(i == 0 ? 32 << 20 : 1, '\0'));
        EXPECT_TRUE(await([&] { return peer.delivered == sent; }));
        EXPECT_TRUE(await([&] { return !peer.heard().empty(); })); // it is sent frames like everybody
    }
    EXPECT_TRUE(await([&] { return master().last("status").count("slaves") == 1; }));
    expectUndisturbed();
    expectCleanEnd();
}

} // namespace
