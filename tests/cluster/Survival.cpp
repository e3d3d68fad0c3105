// Slaves and masters that die, stop for a while, and come back.

#include "support/Cluster.h"

#include <csignal>

#include <algorithm>
#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class Survival : public Cluster {
protected:
    /// Stops a process for that long at least.
    static void stopFor(ChildProcess& process, milliseconds time) {
        const Clock::time_point begin = Clock::now();
        process.signal(SIGSTOP);
        while (Clock::now() < begin + time) {
            ChildProcess::pump(milliseconds(20));
        }
        process.signal(SIGCONT);
    }

    void startAndLock(int count, const Arguments& extra = {}) {
        startMaster(count, extra);
        startSlaves(count, extra);
        ASSERT_TRUE(awaitAllLockedAnew());
    }
};

TEST_F(Survival, AKilledSlaveIsForgottenAndTheOthersDoNotNotice) {
    startAndLock(3);
    ASSERT_TRUE(awaitSlaves(3));
    const auto before = marks();
    slave(1).kill();
    EXPECT_TRUE(awaitSlaves(2));
    EXPECT_EQ(master().last("status").text("names").find("slave1"), std::string::npos);
    EXPECT_TRUE(await([&] {
        return slave(0).lockedStill(master(), before[0]) && slave(2).lockedStill(master(), before[2]);
    }));

    slave(1).start();
    EXPECT_TRUE(await([&] { return slave(1).lockedAnew(master()); }));
    EXPECT_TRUE(awaitSlaves(3));
    EXPECT_EQ(slave(0).count("sessions"), 1);
    EXPECT_EQ(slave(2).count("sessions"), 1);
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Survival, ASlaveStoppedForASecondKeepsItsConnectionAndLosesNothing) {
    // Nothing is lost before the timeout; a minute of it, since a busy machine stops processes for long, too.
    startAndLock(2, {{"timeout", "60000"}});
    for (int i = 0; i < 2; ++i) {
        const auto before = marks();
        stopFor(slave(0).process(), milliseconds(1000));
        EXPECT_TRUE(awaitAllLockedStill(before));
    }
    EXPECT_EQ(slave(0).count("sessions"), 1);
    EXPECT_EQ(slave(1).count("sessions"), 1);
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Survival, AStoppedMasterIsFoundAgain) {
    startAndLock(2);
    const auto before = marks();
    stopFor(master(), milliseconds(4000));
    EXPECT_TRUE(awaitAllLockedAnew(before));
    EXPECT_TRUE(awaitSlaves(2));
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Survival, SlavesLockAgainOnAMasterThatWasKilledAndStartedAgain) {
    startAndLock(3);
    for (int i = 0; i < 2; ++i) {
        const auto before = marks();
        master().signal(SIGKILL);
        ASSERT_TRUE(await([&] { return master().ended(); }));
        startMaster(3);
        EXPECT_TRUE(awaitAllLockedAnew(before));
        EXPECT_TRUE(awaitSlaves(3));
    }
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Survival, ASecondMasterOnTheSamePortsWaitsForItsTurn) {
    startAndLock(2);
    const auto before = marks();
    auto second = startNode("master", "second", ports_.ofMaster(2));
    ASSERT_TRUE(await([&] { return second->last("status").count("errors") >= 2; }));
    EXPECT_TRUE(awaitAllLockedStill(before));
    EXPECT_TRUE(awaitAllLockedStill(marks()));
    EXPECT_EQ(second->last("status").count("slaves"), 0);

    // Where the first has been killed, the second opens the ports and takes over.
    const auto then = marks();
    master().signal(SIGKILL);
    ASSERT_TRUE(await([&] { return master().ended(); }));
    second->tell("release");
    second->tell("init");
    master_ = std::move(second);
    EXPECT_TRUE(awaitAllLockedAnew(then));
    expectCleanTraffic();
    expectCleanEnd();
}

// The slave shuts its ears while it has a master, and what was sent meanwhile must not reach it afterwards.
TEST_F(Survival, ADeadMastersLastAnnouncementIsNeverTaken) {
    startAndLock(1);
    ChildProcess& node = slave(0).process();
    const auto heard = [&] {
        std::vector<std::string> lines = node.log();
        std::erase_if(lines, [](const std::string& line) { return !line.ends_with("recv broadcast"); });
        return lines;
    };
    ASSERT_EQ(heard().size(), 1u);
    const auto before = marks();
    const long long announced = master().last("status").count("frame");
    ASSERT_TRUE(await([&] { return master().last("status").count("frame") > announced + 60; }));
    master().signal(SIGKILL);
    ASSERT_TRUE(await([&] { return slave(0).count("connected") == 0 && slave(0).count("clears") > 1; }));

    // A master with other ports is the first that it hears after that.
    Arguments arguments = ports_.ofMaster(1, 1);
    arguments["announce"] = std::to_string(announcePort(0));
    master_ = startNode("master", "master", arguments);
    EXPECT_TRUE(awaitAllLockedAnew(before));
    ASSERT_EQ(heard().size(), 2u);
    EXPECT_NE(heard()[1].find(":" + std::to_string(dataPort(1)) + "]"), std::string::npos) << heard()[1];
    expectCleanEnd();
}

} // namespace
