// One master and its slaves in one process, over loopback broadcast. What becomes of them when processes die,
// stop or lie is looked at in the tests of whole clusters.

#include "tests/unit/EndpointFixture.h"

#include <kor/kor.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace kor;
using namespace kor::testing_support;

struct Master : KorLogicServer {
    using KorLogicServer::server;

    Master() { setFrameID(static_cast<int>(jTimer::getTimeSecond() / getFrameInterval())); }
    ~Master() override { release(); }

    void update() override {
        const std::string frame = frameOf(getFrameID() + 3);
        server->send(frame.data(), static_cast<int>(frame.size()));
    }
    /// Has taken in its introduction and a report of it.
    bool knows(const char* name) {
        const Slave* slave = getSlave(name);
        return slave && slave->isInit && slave->client->getIDCheck() > 0;
    }
};

struct Slave : KorLogicClient {
    int lerps = 0;

    ~Slave() override {
        if (client) {
            client->release();
        }
    }
    void applyData(KorData*, double) override {}

    /// One frame for the vsync that comes next.
    void frame() {
        setFrameDeadlineExpected(jTimer::getTimeSecond() + 0.01);
        lerps += wait(0) == WAIT_LERP;
    }
};

struct EndToEnd : testing::Test {
    LogRecorder log;
    Slave left;
    Slave right;
    jVector<unsigned short> slavePorts;
    Master master;

    void SetUp() override {
        slavePorts.push_back(open(left, "left"));
        slavePorts.push_back(open(right, "right"));
        openMaster();
    }
    unsigned short open(Slave& slave, const char* name) {
        slave.setShowLog(false);
        for (int attempt = 0; attempt < 20; ++attempt) {
            const unsigned short port = freePort();
            if (slave.init(port, 0, name, {name, "shared"})) {
                return port;
            }
        }
        ADD_FAILURE() << "no free port";
        return 0;
    }
    void openMaster() {
        jVector<unsigned short> any{0, 0};
        ASSERT_TRUE(master.init("127.255.255.255", slavePorts, any, any));
    }
    template <class Condition>
    bool run(Condition condition) {
        return driveUntil(
            [&] {
                master.swap();
                left.frame();
                right.frame();
            },
            condition);
    }
    bool lock() {
        left.lerps = right.lerps = 0;
        return run([&] {
            return master.knows("left") && master.knows("right") && left.lerps > 20 && right.lerps > 20;
        });
    }
};

TEST_F(EndToEnd, LocksTwoSlaves) {
    ASSERT_TRUE(lock());
    EXPECT_EQ(master.getNumSlaves(), 2);
    const KorLogicServer::Slave* slave = master.getSlave("right");
    ASSERT_EQ(slave->cameras.count, 2);
    EXPECT_STREQ(slave->cameras[0].name.c_str(), "right");
    EXPECT_STREQ(slave->cameras[1].name.c_str(), "shared");
    EXPECT_NEAR(slave->client->getTimeCheck() * 60, slave->client->getIDCheck(), 1e-6);
    master.server->printStatistics();
    EXPECT_EQ(log.countWith("Ping:"), 2);
    EXPECT_EQ(log.countWith("error: "), 0);
}

TEST_F(EndToEnd, MayReleaseTheSlaveAtEveryStage) {
    const auto searchOnce = [&] { left.frame(); };
    const auto hearOfNobody = [&] {
        SocketUDP socket;
        ASSERT_TRUE(socket.create());
        socket.setSendIP("127.0.0.1");
        socket.setSendPort(slavePorts[0]);
        const std::string announcement = broadcastOf(freePort());
        socket.write(announcement.data(), 1, static_cast<int>(announcement.size()));
        left.frame();
    };
    const auto beConnected = [&] { ASSERT_TRUE(run([&] { return left.getClient()->isConnected(); })); };
    const auto haveBlocks = [&] {
        ASSERT_TRUE(run([&] {
            AtomicLock guard(left.getClient()->getLock());
            return !left.getClient()->getData().empty() || left.getNumCache() > 0;
        }));
    };
    const auto nothing = [] {};
    for (const std::function<void()>& stage : std::initializer_list<std::function<void()>>{
             nothing, searchOnce, hearOfNobody, beConnected, haveBlocks}) {
        stage();
        left.getClient()->release();
        left.getClient()->release();
        left.frame();
        slavePorts[0] = open(left, "left");
        master.release();
        master.release();
        openMaster();
    }
    ASSERT_TRUE(lock());
}

} // namespace
