// Several hosts: network namespaces joined by a bridge, with addresses and a broadcast address of their own.

#include "support/Namespaces.h"
#include "support/Cluster.h"

#include <algorithm>

namespace {

class Hosts : public Cluster {
protected:
    static constexpr int kSlaves = 4;

    /// Host 0 is the master's; slave i is on host i + 1.
    bool build(int lossy = -1) {
        network_ = std::make_unique<Namespaces>(kSlaves + 1, lossy);
        return network_->failure().empty();
    }

    void startAll(std::optional<long long> lastSlavesClockAhead = {}) {
        // Every host has the whole range of ports to itself.
        const Arguments arguments{{"broadcast", Namespaces::broadcastAddress()},
                                  {"announce", "7100"},
                                  {"bind", "7200"},
                                  {"data", "7300"},
                                  {"payload", "5000"}};
        master_ = startNode("master", "master", arguments, network_->on(0));
        for (int i = 0; i < kSlaves; ++i) {
            Surroundings host = network_->on(i + 1);
            if (i == kSlaves - 1) {
                host.steadyClockAhead = lastSlavesClockAhead;
            }
            const Arguments slaveArguments{{"announce", "7100"}, {"phase", std::to_string(0.2 * i)}};
            slaves_.push_back(
                std::make_unique<SlaveProcess>("slave" + std::to_string(i), slaveArguments, host));
        }
    }

    bool awaitSlaves(int count) {
        return await([&] { return master().last("status").count("introduced") == count; });
    }

    bool awaitOthersStill(int except, const std::vector<SlaveProcess::Mark>& since) {
        return await([&] {
            bool all = true;
            for (int i = 0; i < kSlaves; ++i) {
                all = all &&
                      (i == except || slave(i).lockedStill(master(), since[static_cast<std::size_t>(i)]));
            }
            return all;
        });
    }

    void TearDown() override {
        slaves_.clear();
        master_.reset();
    }

    std::unique_ptr<Namespaces> network_;
};

#define BUILD_OR_SKIP(...)                                                                                   \
    if (!build(__VA_ARGS__)) {                                                                               \
        GTEST_SKIP() << "no test on several hosts: " << network_->failure();                                 \
    }

TEST_F(Hosts, MasterAndFourSlavesLockByRealBroadcast) {
    BUILD_OR_SKIP();
    startAll();
    ASSERT_TRUE(awaitAllLockedAnew());
    EXPECT_TRUE(awaitSlaves(kSlaves));
    for (auto& node : slaves()) {
        const auto heard = [](const std::string& line) {
            return line.find("[" + Namespaces::address(0) + ":7300] recv broadcast") != std::string::npos;
        };
        EXPECT_TRUE(std::ranges::any_of(node->process().log(), heard)) << node->name();
    }
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Hosts, AHostThatIsCutOffComesBackAndTheOthersDoNotNotice) {
    BUILD_OR_SKIP();
    startAll();
    ASSERT_TRUE(awaitAllLockedAnew());
    ASSERT_TRUE(awaitSlaves(kSlaves));
    for (const bool byAdministrator : {false, true}) {
        const auto before = marks();
        byAdministrator ? network_->disable(3) : network_->cut(3);
        EXPECT_TRUE(awaitSlaves(kSlaves - 1));
        EXPECT_TRUE(await([&] { return slave(2).count("connected") == 0; }));
        EXPECT_TRUE(awaitOthersStill(2, before));
        byAdministrator ? network_->enable(3) : network_->join(3);
        EXPECT_TRUE(await([&] { return slave(2).lockedAnew(master(), before[2]); }));
        EXPECT_TRUE(awaitSlaves(kSlaves));
        EXPECT_TRUE(awaitOthersStill(2, before));
    }
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Hosts, AMasterThatIsCutOffFindsItsSlavesAgain) {
    BUILD_OR_SKIP();
    startAll();
    ASSERT_TRUE(awaitAllLockedAnew());
    const auto before = marks();
    network_->disable(0);
    EXPECT_TRUE(awaitSlaves(0));
    network_->enable(0);
    EXPECT_TRUE(awaitAllLockedAnew(before));
    EXPECT_TRUE(awaitSlaves(kSlaves));
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Hosts, ASlaveWhoseClockIsHoursAheadLocksWithTheRightOffset) {
    BUILD_OR_SKIP();
    constexpr long long kAhead = 5 * 3600;
    startAll(kAhead);
    const SlaveProcess& ahead = slave(kSlaves - 1);
    if (!await([&] { return ahead.process().ended() || ahead.process().count("status") > 0; }) ||
        ahead.process().ended()) {
        GTEST_SKIP() << "time namespaces are not permitted: " << ahead.process().describe();
    }
    ASSERT_TRUE(awaitAllLockedAnew());
    const double zero = ahead.status().number("zero") - slave(0).status().number("zero");
    EXPECT_NEAR(zero, static_cast<double>(kAhead), 600.0) << "its clock is not ahead at all";
    EXPECT_TRUE(await([&] {
        return ahead.offsetError(master()) <= ahead.status().number("bound_ms") + 0.001;
    })) << ahead.offsetError(master());
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Hosts, NothingIsLostOrDoubledOnACableThatLosesDoublesAndReorders) {
    BUILD_OR_SKIP(0);
    auto link = network_->startLink(0, 0.02, 0.01, 0.01, 12345);
    ASSERT_TRUE(await([&] { return link->ended() || link->count("status") > 0; }));
    if (link->ended()) {
        GTEST_SKIP() << "raw sockets are not permitted: " << link->last("failed").text("text");
    }
    startAll();
    ASSERT_TRUE(awaitAllLockedAnew());
    const auto before = marks();
    EXPECT_TRUE(await([&] { return link->last("status").count("lost") > 300; }));
    EXPECT_TRUE(awaitAllLockedStill(before));
    EXPECT_TRUE(awaitAllLockedStill(marks()));
    EXPECT_GT(link->last("status").count("doubled"), 0);
    EXPECT_GT(link->last("status").count("held_back"), 0);
    expectCleanTraffic();
    expectCleanEnd();
}

} // namespace
