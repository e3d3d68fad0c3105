// The master's logic: registry of slaves, reports, and the paced frame cycle.

#include "tests/unit/ConnectionFixture.h"
#include "tests/unit/EndpointFixture.h"

#include <kor/KorLogicServer.h>
#include <support/AtomicLock.h>
#include <support/memInfo.h>

#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <thread>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

struct Master : KorLogicServer {
    std::vector<std::pair<int, double>> updates;
    std::vector<std::string> signalled;
    std::function<void()> atSignal;
    std::function<void()> atUpdate;
    int checks = 0;

    Master() {
        connect(slaveInitSignal, this, &Master::onInit);
        connect(slaveRemoveSignal, this, &Master::onRemove);
    }

    using KorLogicServer::check_slave;
    using KorLogicServer::onConnect;
    using KorLogicServer::onConnectLost;
    using KorLogicServer::onDisConnect;
    using KorLogicServer::onReConnect;
    using KorLogicServer::server;

    void update() override {
        updates.emplace_back(getFrameID(), getFrameTime());
        if (atUpdate)
            atUpdate();
    }
    int wait(double timeout) override {
        ++checks;
        return KorLogicServer::wait(timeout);
    }
    void onInit(const RTAddr& addr) { signal("init", addr); }
    void onRemove(const RTAddr& addr) { signal("remove", addr); }
    void signal(const std::string& what, const RTAddr& addr) {
        signalled.push_back(what + " " + addr.formatString().c_str());
        if (atSignal)
            atSignal();
    }
    std::vector<std::string> slaveList() {
        std::vector<std::string> all;
        for (int i = 0; i < getNumSlaves(); ++i)
            all.emplace_back(getSlave(i)->addr.formatString().c_str());
        return all;
    }
};

struct SlaveRegistry : testing::Test {
    LogRecorder log;
    Master master;
};

TEST_F(SlaveRegistry, FollowsConnectionEvents) {
    master.onConnect(kA, true);
    master.onConnect(kB, true);
    master.onConnect(kC, true);
    master.onConnect(kC, false);
    master.onDisConnect(kB);
    EXPECT_THAT(master.slaveList(), ElementsAre("10.0.0.1:1", "10.0.0.3:3"));
    master.onConnect(kA, true);
    EXPECT_THAT(master.slaveList(), ElementsAre("10.0.0.3:3", "10.0.0.1:1"));
    master.onReConnect(kC);
    master.onConnectLost(kA);
    master.onDisConnect(kA);
    master.onReConnect(kA);
    master.onConnectLost(kA);
    EXPECT_EQ(master.getNumSlaves(), 0);
    EXPECT_THAT(master.signalled, ElementsAre("remove 10.0.0.2:2", "remove 10.0.0.1:1", "remove 10.0.0.3:3",
                                              "remove 10.0.0.1:1"));
    EXPECT_THAT(
        log.lines(),
        ElementsAre("message: KorLogicServer::onConnect:[10.0.0.1:1] new connect, remove old, total:1",
                    "message: KorLogicServer::onConnect:[10.0.0.2:2] new connect, remove old, total:2",
                    "message: KorLogicServer::onConnect:[10.0.0.3:3] new connect, remove old, total:3",
                    "message: KorLogicServer::onDisConnect:[10.0.0.2:2] disconnect, remove it, total:2",
                    "message: KorLogicServer::onConnect:[10.0.0.1:1] re connect, remove old ",
                    "message: KorLogicServer::onConnect:[10.0.0.1:1] new connect, remove old, total:2",
                    "message: KorLogicServer::onReConnect:[10.0.0.3:3] re connect, remove old, total:1",
                    "message: KorLogicServer::onConnectLost:[10.0.0.1:1] connect lost, remove it, total:0"));
}

TEST_F(SlaveRegistry, FindsByAddressAndIndex) {
    EXPECT_EQ(master.getSlave(0), nullptr);
    master.onConnect(kA, true);
    EXPECT_EQ(master.getSlave(0), master.getSlave(kA));
    EXPECT_EQ(master.getSlave(-1), nullptr);
    EXPECT_EQ(master.getSlave(1), nullptr);
    EXPECT_TRUE(master.isSlaveExist(kA));
    EXPECT_FALSE(master.isSlaveExist(kB));
    EXPECT_FALSE(master.isSlaveExist("")) << "a slave without a record has no name";
    EXPECT_FALSE(master.getSlave(0)->isInit);
}

TEST_F(SlaveRegistry, LetsASlotLookSlavesUp) {
    master.onConnect(kA, true);
    int seen = 0;
    master.atSignal = [&] { seen = master.getNumSlaves() + (master.getSlave(kA) ? 10 : 0); };
    master.onDisConnect(kA);
    EXPECT_EQ(seen, 11) << "raised before the slave leaves";
}

/// With an endpoint, whose records get their connections from the test.
struct MasterFrame : testing::Test {
    LogRecorder log;
    FakeUser userA{kA};
    FakeUser userB{kB};
    Master master; // destroyed while open

    void SetUp() override { ASSERT_TRUE(master.init("127.255.255.255", 9, 0, 0)); }

    RTUserHandler& endpoint() { return *master.server; }
    Client& connect(FakeUser& user) {
        endpoint().onConnect(user.getAddr(), true);
        Client* client = master.server->getClientByIndex(master.server->getClientCount() - 1);
        client->setUser(&user);
        master.getSlave(user.getAddr())->client = client;
        return *client;
    }
};

TEST_F(MasterFrame, TakesOverTheCamerasOnce) {
    Client& client = connect(userA);
    master.wait(0);
    EXPECT_FALSE(master.getSlave(kA)->isInit);
    EXPECT_FALSE(master.isSlaveExist("node-a"));
    deliver(client, &userA, introductionOf("node-a", {"left", "", "right"}));
    EXPECT_TRUE(master.isSlaveExist("node-a"));
    log.clear();
    master.wait(0);
    master.wait(0);
    KorLogicServer::Slave* slave = master.getSlave("node-a");
    ASSERT_NE(slave, nullptr);
    EXPECT_TRUE(slave->isInit);
    ASSERT_EQ(slave->cameras.count, 3);
    EXPECT_EQ(slave->cameras[0].index, 0);
    EXPECT_STREQ(slave->cameras[0].name.c_str(), "left");
    EXPECT_TRUE(slave->cameras[1].name.empty());
    EXPECT_EQ(slave->cameras[2].index, 2);
    EXPECT_STREQ(slave->cameras[2].name.c_str(), "right");
    EXPECT_THAT(master.signalled, ElementsAre("init 10.0.0.1:1"));
    EXPECT_THAT(log.lines(),
                ElementsAre("message: KorLogicServer::check_slave:[10.0.0.1:1] new client init, total:1"));
}

TEST_F(MasterFrame, LeavesASlaveWithoutCamerasUninitialised) {
    Client& client = connect(userA);
    deliver(client, &userA, introductionOf("node-a", {}));
    master.wait(0);
    EXPECT_FALSE(master.getSlave("node-a")->isInit);
    EXPECT_THAT(master.signalled, IsEmpty());
}

TEST_F(MasterFrame, KeepsASlaveReadableUntilTheNextWait) {
    Client& client = connect(userA);
    deliver(client, &userA, introductionOf("a name that is too long to be stored inside", {"left"}));
    master.wait(0);
    KorLogicServer::Slave* slave = master.getSlave(kA);
    endpoint().onDisConnect(kA);
    EXPECT_EQ(master.getNumSlaves(), 0);
    EXPECT_STREQ(slave->client->getName().c_str(), "a name that is too long to be stored inside");
    EXPECT_STREQ(slave->cameras[0].name.c_str(), "left");
    master.wait(0);
}

TEST_F(MasterFrame, ForgetsARecordThatTheApplicationRemoved) {
    Client& client = connect(userA);
    deliver(client, &userA, introductionOf("node-a", {"left"}));
    {
        AtomicLock guard(master.server->getLock());
        EXPECT_TRUE(master.server->removeClientByAddr(kA));
    }
    ASSERT_NE(master.getSlave(kA), nullptr);
    EXPECT_STREQ(master.getSlave(kA)->client->getName().c_str(), "node-a");
    EXPECT_EQ(master.getSlave("node-a"), nullptr);
    master.server->wait(0);
    ASSERT_NE(master.getSlave(kA), nullptr);
    EXPECT_EQ(master.getSlave(kA)->client, nullptr);
    EXPECT_EQ(master.getSlave("node-a"), nullptr);
}

TEST_F(MasterFrame, GivesUpWhatHasGoneAtTheEndpointsWaitAlone) {
    std::uint64_t settled = 0;
    for (int i = 0; i < 100; ++i) {
        endpoint().onReConnect(kA);
        endpoint().onConnect(kA, true);
        master.server->wait(0);
        if (i == 10)
            settled = memReport().liveBlocks;
    }
    EXPECT_EQ(memReport().liveBlocks, settled);
}

/// What the lookups show, in words.
std::string shownBy(Master& master) {
    std::string all;
    for (int i = 0; i < master.getNumSlaves(); ++i)
        all += master.getSlave(i) ? master.getSlave(i)->addr.formatString().c_str() : "null";
    for (const char* name : {"a", "b", "c"})
        if (KorLogicServer::Slave* slave = master.getSlave(name))
            all += std::string(" ") + name + "=" + slave->addr.formatString().c_str();
    for (const RTAddr& addr : {kA, kB, kC})
        all += master.isSlaveExist(addr) ? " yes" : " no";
    return all;
}

TEST_F(MasterFrame, ShowsOneRegistryFromWaitToTheLastUpdate) {
    TestClock clock{5.05};
    master.setFrameInterval(0.1);
    master.setFrameID(48);
    Client& clientA = connect(userA);
    Client& clientB = connect(userB);
    deliver(clientA, &userA, introductionOf("a", {}));
    const std::string before = "10.0.0.1:110.0.0.2:2 a=10.0.0.1:1 yes yes no";
    const std::string after = "10.0.0.2:210.0.0.3:3 b=10.0.0.2:2 no yes yes";
    const auto onAnotherThread = [&](const auto& work) { std::thread(work).join(); };
    const KorLogicServer::Slave* slaveA = master.getSlave(kA);
    master.atUpdate = [&] {
        EXPECT_EQ(shownBy(master), before);
        if (master.updates.size() == 1) {
            onAnotherThread([&] {
                endpoint().onDisConnect(kA);
                endpoint().onConnect(kC, true);
                deliver(clientB, &userB, introductionOf("b", {}));
                EXPECT_EQ(shownBy(master), after);
            });
        }
        master.wait(0); // in the midst of a frame
        master.server->wait(0);
        EXPECT_EQ(shownBy(master), before);
        EXPECT_STREQ(slaveA->client->getName().c_str(), "a");
    };
    master.setSwapTime(4.9);
    master.swap();
    EXPECT_EQ(master.updates.size(), 2u);
    EXPECT_EQ(shownBy(master), after) << "between frames the present one";
    master.wait(0);
    EXPECT_EQ(shownBy(master), after);
}

/// Slaves come and go while `onConnect` runs under the endpoint's lock, as an override may have it, and while
/// other threads wait and remove records.
TEST(MasterEvents, NeedOnlyTheRegistrysLock) {
    struct Locking : Master {
        std::atomic<int> connects{0};
        void onConnect(const RTAddr& addr, bool established) override {
            {
                std::optional<AtomicLock> endpoint;
                if (connects % 2 == 0)
                    endpoint.emplace(server->getLock());
                Master::onConnect(addr, established);
            }
            ++connects;
        }
    };
    LogRecorder log;
    Locking master;
    ASSERT_TRUE(master.init("127.255.255.255", 9, 0, 0));
    std::atomic<bool> over{false};
    std::thread remover([&] {
        while (!over) {
            AtomicLock guard(master.server->getLock());
            if (Client* client = master.server->getClientByIndex(0))
                master.server->removeClientByAddr(RTAddr(client->getAddr()));
        }
    });
    for (int i = 1; i <= 20; ++i) {
        Side peer;
        ASSERT_TRUE(peer.open());
        peer.net.connect("127.0.0.1", master.server->getPorts()[0], 1000, 3);
        EXPECT_TRUE(driveUntil([&] { master.wait(0); }, [&] { return master.connects == i; }));
    }
    over = true;
    remover.join();
    master.release();
}

TEST_F(MasterFrame, TakesInTheNewestReport) {
    Client& client = connect(userA);
    Client& other = connect(userB);
    deliver(client, &userA, reportOf(119, 1.0, 119.0));
    deliver(client, &userA, applicationRecordOf(9, 12) + reportOf(120, 2.0, 120.0));
    deliver(other, &userB, slaveTimeOf(7.0, 8.0) + endRecordOf());
    EXPECT_EQ(master.wait(0), 0);
    EXPECT_EQ(client.getIDCheck(), 120.0);
    EXPECT_EQ(client.getTimeCheck(), 2.0);
    EXPECT_TRUE(client.getData().empty());
    EXPECT_EQ(other.getIDCheck(), -1.0) << "no Begin, no report";
    EXPECT_TRUE(other.getData().empty());
}

TEST_F(MasterFrame, SurvivesEveryBadReport) {
    Client& client = connect(userA);
    const std::string whole = reportOf(5, 1.0, 2.0);
    for (std::size_t size = 0; size < whole.size(); ++size)
        deliver(client, &userA, whole.substr(0, size));
    for (const int length : {0, 5, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 7})
        deliver(client, &userA, headOf(length) + whole);
    for (unsigned seed = 1; seed <= 200; ++seed)
        deliver(client, &userA, rubbish(seed, seed));
    master.wait(0);
    EXPECT_TRUE(client.getData().empty());
    deliver(client, &userA, reportOf(6, 3.0, 4.0));
    master.wait(0);
    EXPECT_EQ(client.getTimeCheck(), 3.0);
}

TEST_F(MasterFrame, AllocatesNothingPerFrame) {
    Client& client = connect(userA);
    deliver(client, &userA, introductionOf("node-a", {"left"}));
    master.swap();
    const std::uint64_t before = memReport().totalBlocks;
    for (int i = 0; i < 100; ++i) {
        master.setSwapTime(-1);
        master.swap();
    }
    EXPECT_EQ(memReport().totalBlocks, before);
}

TEST_F(MasterFrame, LosesItsRecordsAtRelease) {
    connect(userA);
    KorLogicServer::Slave* slave = master.getSlave(kA);
    master.release();
    master.release();
    EXPECT_EQ(slave->client, nullptr);
    EXPECT_EQ(master.getNumSlaves(), 1) << "the registry stays";
    EXPECT_EQ(master.wait(0), 0);
    EXPECT_THAT(master.signalled, IsEmpty());
    ASSERT_TRUE(master.init("127.255.255.255", 9, 0, 0));
    EXPECT_EQ(master.getNumSlaves(), 0);
    EXPECT_THAT(master.signalled, ElementsAre("remove 10.0.0.1:1"));
}

TEST_F(MasterFrame, OpensAnewAfterAFailure) {
    connect(userA);
    EXPECT_FALSE(master.init("127.0.0.1", 9, 0, 0));
    EXPECT_EQ(master.server, nullptr);
    EXPECT_EQ(log.count("error: KorLogicServer::init:init KorServer failed"), 1);
    EXPECT_EQ(master.wait(0), 0);
    ASSERT_TRUE(master.init("127.255.255.255", 9, 0, 0));
    ASSERT_TRUE(master.init(master.server->getBroadcastIP(), 9, 0, 0)) << "a text of the endpoint that goes";
    connect(userB);
    deliver(*master.server->getClientByIndex(0), &userB, "freed with the rest");
}

struct MasterPace : testing::Test {
    Master master;
    TestClock clock{5.0};
    Profile profile;

    MasterPace() { master.setFrameInterval(0.1); }
};

TEST_F(MasterPace, OnlyStartsAtTheFirstSwap) {
    EXPECT_TRUE(master.swap());
    EXPECT_EQ(master.checks, 1);
    EXPECT_THAT(profile.labels, ElementsAre("wait"));
    EXPECT_THAT(master.updates, IsEmpty());
    EXPECT_EQ(master.getFrameID(), 0);
    EXPECT_EQ(master.getSwapTime(), 5.0);
}

TEST_F(MasterPace, SpinsUpToTheNextFrame) {
    master.setSwapTime(5.02);
    master.setFrameID(50);
    clock.set(5.05);
    clock.setStep(0.001);
    EXPECT_TRUE(master.swap());
    EXPECT_THAT(master.updates, ElementsAre(std::pair(51, 51 * 0.1)));
    EXPECT_GT(master.getSwapTime(), 5.1);
    EXPECT_LT(master.getSwapTime(), 5.105);
    EXPECT_THAT(profile.labels, ElementsAre("wait", "idle[ms]", "fps"));
    EXPECT_NEAR(profile.values[0], 1.0f, 1e-3f);
    EXPECT_NEAR(profile.values[1], 49.0f, 1.5f);
    EXPECT_NEAR(profile.values[2], 12.35f, 0.2f);
}

TEST_F(MasterPace, CatchesUpWithoutSpinning) {
    master.setSwapTime(5.26);
    master.setFrameID(51);
    clock.set(5.5);
    EXPECT_TRUE(master.swap());
    EXPECT_THAT(master.updates,
                ElementsAre(std::pair(52, 52 * 0.1), std::pair(53, 53 * 0.1), std::pair(54, 54 * 0.1)));
    EXPECT_EQ(profile.values[1], 0.0f);
    EXPECT_EQ(master.getFrameID(), 54);
}

TEST_F(MasterPace, IgnoresAFrameThatItHasAlready) {
    master.setSwapTime(5.26);
    master.setFrameID(54);
    clock.set(5.5);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(master.swap());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ignore id:54\n");
    EXPECT_THAT(master.updates, IsEmpty());
    EXPECT_EQ(master.getSwapTime(), 5.5);
    EXPECT_THAT(profile.labels, ElementsAre("wait"));
}

TEST_F(MasterPace, NeitherPacesNorAdvancesWithoutASoundClock) {
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInfinite = std::numeric_limits<double>::infinity();
    for (const double interval : {0.0, -0.1, kNan, kInfinite, -kInfinite, 1e-12, 5e-324}) {
        master.setFrameInterval(interval);
        master.setSwapTime(5.0);
        EXPECT_TRUE(master.swap()) << interval;
    }
    master.setFrameInterval(0.1);
    for (const double swapTime : {-1.0, 0.0, kNan, kInfinite, 1e300}) {
        master.setSwapTime(swapTime);
        EXPECT_TRUE(master.swap()) << swapTime;
    }
    EXPECT_THAT(master.updates, IsEmpty());
    master.setFrameID(std::numeric_limits<int>::min());
    master.setSwapTime(-1.0);
    EXPECT_TRUE(master.swap());
    EXPECT_THAT(master.updates, IsEmpty());
}

TEST_F(MasterPace, JoinsLateWithoutReplayingTheFramesBefore) {
    clock.set(1000.0);
    master.setFrameID(static_cast<int>(jTimer::getTimeSecond() / master.getFrameInterval()));
    master.swap();
    clock.setStep(0.001);
    master.swap();
    EXPECT_THAT(master.updates, ElementsAre(std::pair(10001, 10001 * 0.1)));
}

} // namespace
