// Ports that somebody else has.

#include "support/Cluster.h"

#include <csignal>

namespace {

class Ports : public Cluster {
protected:
    static bool awaitInit(ChildProcess& process, long long count, long long result) {
        return await([&] { return process.count("init") == count; }) &&
               process.last("init").count("result") == result;
    }
};

TEST_F(Ports, ASlaveWithATakenPortSaysSoAndStartsOnceThePortIsFree) {
    const Arguments arguments{{"announce", std::to_string(announcePort(0))},
                              {"port", std::to_string(sparePort(0))}};
    auto first = startNode("slave", "first", arguments);
    ASSERT_TRUE(awaitInit(*first, 1, 1));

    Arguments otherPort = arguments;
    otherPort["port"] = "0";
    auto sameAnnouncements = startNode("slave", "same announcements", otherPort);
    Arguments otherAnnouncements = arguments;
    otherAnnouncements["announce"] = std::to_string(announcePort(1));
    auto samePort = startNode("slave", "same port", otherAnnouncements);
    ASSERT_TRUE(awaitInit(*sameAnnouncements, 1, 0));
    ASSERT_TRUE(awaitInit(*samePort, 1, 0));
    EXPECT_FALSE(sameAnnouncements->log().empty());
    EXPECT_FALSE(samePort->log().empty());

    // Another failure, and then success with the same object.
    samePort->tell("init");
    ASSERT_TRUE(awaitInit(*samePort, 2, 0));
    expectCleanEnd(*first);
    samePort->tell("init");
    ASSERT_TRUE(awaitInit(*samePort, 3, 1));
    sameAnnouncements->tell("init");
    ASSERT_TRUE(awaitInit(*sameAnnouncements, 2, 1));
    expectCleanEnd(*samePort);
    expectCleanEnd(*sameAnnouncements);
}

TEST_F(Ports, ASecondMasterOnTheSamePortsDoesNotDisturbTheFirst) {
    startMaster(2);
    startSlaves(2);
    ASSERT_TRUE(awaitAllLockedAnew());
    const auto before = marks();
    auto second = startNode("master", "second", masterArguments(2));
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

} // namespace
