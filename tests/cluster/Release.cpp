// Endpoints that are released and opened again while traffic runs.

#include "support/Cluster.h"

namespace {

class Release : public Cluster {
protected:
    static constexpr int kPayload = kSanitized ? 20000 : 300000;

    void SetUp() override {
        startMaster(3, {{"payload", std::to_string(kPayload)}});
        startSlaves(3);
        ASSERT_TRUE(awaitAllLockedAnew());
    }

    static void restart(ChildProcess& process) {
        const long long released = process.count("released");
        const long long opened = process.count("init");
        process.tell("release");
        process.tell("release");
        process.tell("init");
        EXPECT_TRUE(await(
            [&] { return process.count("released") == released + 2 && process.count("init") > opened; }));
        EXPECT_EQ(process.last("init").count("result"), 1);
    }
};

TEST_F(Release, ASlaveMayReleaseWhileFramesPourIn) {
    for (int i = 0; i < 3; ++i) {
        const auto before = marks();
        restart(slave(1).process());
        EXPECT_TRUE(await([&] { return slave(1).lockedAnew(master(), before[1]); }));
        EXPECT_TRUE(await([&] { return slave(0).lockedStill(master(), before[0]); }));
    }
    EXPECT_EQ(slave(1).count("largest"), kPayload);
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Release, AMasterMayReleaseWhileItsSlavesAnswer) {
    for (int i = 0; i < 3; ++i) {
        const auto before = marks();
        restart(master());
        EXPECT_TRUE(awaitAllLockedAnew(before));
    }
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Release, EverybodyMayLeaveAtOnce) {
    for (auto& node : slaves()) {
        node->process().tell("quit");
    }
    expectCleanEnd();
}

} // namespace
