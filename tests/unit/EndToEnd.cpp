// One master and its slaves in one process, over loopback broadcast.

#include "tests/unit/EndpointFixture.h"

#include <kor/kor.h>

#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <set>

namespace {

using namespace kor;
using namespace kor::testing_support;

constexpr signed char kScene = 9;
constexpr int kLead = 3;

/// A master whose frame data is a pattern that depends on the frame.
struct Master : KorLogicServer {
    int payload = 100;
    std::atomic<int> removed{0};
    std::vector<char> buffer;

    using KorLogicServer::server;

    Master() {
        connect(slaveRemoveSignal, this, &Master::onRemove);
        setFrameID(static_cast<int>(jTimer::getTimeSecond() / getFrameInterval()));
    }
    ~Master() override { release(); }

    void onRemove(const RTAddr&) { ++removed; }

    void update() override { sendFrame(getFrameID() + kLead); }
    void sendFrame(int frame) {
        buffer.resize(static_cast<std::size_t>(payload) + 100);
        BufferWriter writer(buffer.data(), static_cast<int>(buffer.size()));
        KorCoderBase::codeBegin(writer, frame);
        const int start = beginRecord(writer, kScene);
        const std::string scene =
            rubbish(static_cast<std::size_t>(payload), static_cast<std::uint64_t>(frame));
        writer.writeBytes(scene.data(), payload);
        endRecord(writer, start);
        KorCoderBase::codeEnd(writer);
        server->send(writer.getData(), writer.tell());
    }
    bool knows(const char* name) {
        const Slave* slave = getSlave(name);
        return slave && slave->isInit;
    }
};

/// A slave that checks every block it is given.
struct Slave : KorLogicClient {
    std::atomic<int> blocks{0};
    std::atomic<int> damaged{0};
    std::atomic<int> lerps{0};
    std::set<std::size_t> sizes;
    int clears = 0;

    ~Slave() override {
        if (client) {
            client->release();
        }
    }

    void applyData(KorData* block, double weight) override {
        BufferReader reader(block->data, static_cast<std::uint32_t>(block->size));
        int frame = 0;
        const bool whole = weight > 0 && weight <= 1 && KorCoderBase::decodeBegin(reader, frame) &&
                           openRecord(reader, kScene, 0) && reader.remaining() >= kRecordHeaderBytes;
        std::string scene(static_cast<std::size_t>(std::max(reader.remaining() - kRecordHeaderBytes, 0)),
                          '\0');
        if (!whole || !reader.readBytes(scene.data(), static_cast<int>(scene.size())) ||
            scene != rubbish(scene.size(), static_cast<std::uint64_t>(frame)) ||
            !KorCoderBase::decodeEnd(reader)) {
            ++damaged;
        }
        sizes.insert(scene.size());
        ++blocks;
    }
    void on_clear() override { ++clears; }

    /// One frame for the vsync that comes next.
    void frame() {
        setFrameDeadlineExpected(jTimer::getTimeSecond() + 0.01);
        if (wait(0) == WAIT_LERP) {
            ++lerps;
        }
    }
};

/// Runs a loop on a thread of its own.
class Loop {
public:
    template <class Step>
    explicit Loop(Step step)
        : thread_([this, step] {
              while (!stop_) {
                  step();
              }
          }) {}
    ~Loop() { end(); }
    void end() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct EndToEnd : testing::Test {
    LogRecorder log;
    Slave left;
    Slave right;
    jVector<unsigned short> slavePorts;

    void SetUp() override {
        slavePorts.push_back(open(left, "left"));
        slavePorts.push_back(open(right, "right"));
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
    void open(Master& master) {
        jVector<unsigned short> any{0, 0};
        ASSERT_TRUE(master.init("127.255.255.255", slavePorts, any, any));
    }
    template <class Condition>
    bool run(Master& master, Condition condition) {
        return driveUntil(
            [&] {
                master.swap();
                left.frame();
                right.frame();
            },
            condition);
    }
    bool lock(Master& master) {
        left.lerps = right.lerps = 0;
        return run(master, [&] {
            return master.knows("left") && master.knows("right") && left.lerps > 20 && right.lerps > 20;
        });
    }
};

TEST_F(EndToEnd, LocksTwoSlaves) {
    Master master;
    open(master);
    ASSERT_TRUE(lock(master));
    EXPECT_EQ(master.getNumSlaves(), 2);
    const KorLogicServer::Slave* slave = master.getSlave("right");
    ASSERT_EQ(slave->cameras.count, 2);
    EXPECT_STREQ(slave->cameras[0].name.c_str(), "right");
    EXPECT_STREQ(slave->cameras[1].name.c_str(), "shared");

    const auto reported = [&](const char* name) { return master.getSlave(name)->client->getIDCheck() > 0; };
    ASSERT_TRUE(run(master, [&] { return reported("left") && reported("right"); }));
    const Client* client = master.getSlave("left")->client;
    EXPECT_NEAR(client->getTimeCheck() * 60, client->getIDCheck(), 1e-6);

    for (Slave* each : {&left, &right}) {
        EXPECT_EQ(each->damaged, 0);
        EXPECT_GT(each->blocks, 0);
        // Both clocks are one here, so the offset is known to be 0; generous, since this is not about
        // precision.
        RTUser* user = each->getClient()->getUser();
        EXPECT_LE(std::abs(user->getTimeOffset()), 4 * user->getTimeOffsetErrorBound() + 1);
    }
    master.server->printStatistics();
    EXPECT_EQ(log.countWith("Ping:"), 2);
    EXPECT_EQ(log.countWith("error: "), 0);
}

TEST_F(EndToEnd, GoesOnWithoutASlaveThatLeaves) {
    Master master;
    open(master);
    ASSERT_TRUE(lock(master));
    left.getClient()->release();
    left.getClient()->release();
    ASSERT_TRUE(run(master, [&] { return master.getNumSlaves() == 1; }));
    EXPECT_EQ(master.removed, 1);
    EXPECT_FALSE(master.isSlaveExist("left"));
    slavePorts[0] = open(left, "left");
    master.release();
    open(master);
    ASSERT_TRUE(lock(master));
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, LocksAgainAfterTheMasterWasRestarted) {
    for (int life = 0; life < 3; ++life) {
        const int clears = left.clears;
        Master master;
        open(master);
        ASSERT_TRUE(lock(master)) << life;
        EXPECT_GT(left.clears, clears);
    }
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, CarriesBlocksOfEverySize) {
    Master master;
    open(master);
    ASSERT_TRUE(lock(master));
    const int usual = master.payload;
    for (const int size : {0, 1, 70'000, 16 << 20}) {
        master.payload = size;
        master.sendFrame(1); // long past, so it is applied as it comes
        master.payload = usual;
        const auto got = [&](Slave& slave) { return slave.sizes.count(static_cast<std::size_t>(size)) != 0; };
        ASSERT_TRUE(run(master, [&] { return got(left) && got(right); })) << size;
    }
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, GoesOnAfterBlocksThatAreNone) {
    Master master;
    open(master);
    ASSERT_TRUE(lock(master));
    EXPECT_TRUE(master.server->send("x", 1));
    EXPECT_TRUE(master.server->send("", 0));
    const std::string noise = rubbish(5000, 1);
    EXPECT_TRUE(master.server->send(noise.data(), 5000));
    ASSERT_TRUE(run(master, [&] { return log.countWith("process_data:unknown error, line:395") > 10; }));
    EXPECT_EQ(log.countWith("[left] send failed"), 1) << "the empty one";
    ASSERT_TRUE(lock(master));
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, LocksUnderNoiseOnEveryPort) {
    Master master;
    open(master);
    std::vector<unsigned short> ports{slavePorts[0], slavePorts[1],
                                      left.getClient()->getNet()->getLocalPorts()[0]};
    for (const unsigned short port : master.server->getPorts()) {
        ports.push_back(port);
    }
    SocketUDP socket;
    ASSERT_TRUE(socket.create() && socket.nonblock());
    socket.setSendIP("127.0.0.1");
    std::atomic<unsigned> seed{1};
    Loop noise([&] {
        for (const unsigned short port : ports) {
            const std::string bytes = rubbish(1 + seed * 7 % 1400, seed);
            socket.setSendPort(port);
            socket.write(bytes.data(), 1, static_cast<int>(bytes.size()));
            ++seed;
        }
        std::this_thread::yield();
    });
    ASSERT_TRUE(lock(master));
    ASSERT_TRUE(driveUntil([] {}, [&] { return seed > 1000; }));
    ASSERT_TRUE(lock(master));
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, MayReleaseTheSlaveAtEveryStage) {
    Master master;
    open(master);
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
    const auto beConnected = [&] {
        ASSERT_TRUE(run(master, [&] { return left.getClient()->isConnected(); }));
    };
    const auto haveBlocks = [&] {
        beConnected();
        ASSERT_TRUE(run(master, [&] {
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
        open(master);
    }
    ASSERT_TRUE(lock(master));
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

TEST_F(EndToEnd, MayBeReleasedWhileTrafficRuns) {
    for (int life = 0; life < 3; ++life) {
        left.blocks = right.blocks = 0;
        Master master;
        master.payload = 50'000;
        open(master);
        Loop masterLoop([&] { master.swap(); });
        const auto present = [](Slave& slave) {
            slave.swapBegin(true);
            jKit::sleep(5);
            slave.swapEnd(true);
        };
        Loop leftLoop([&] { present(left); });
        Loop rightLoop([&] { present(right); });
        ASSERT_TRUE(
            driveUntil([] { jKit::sleep(1); }, [&] { return left.blocks > 10 && right.blocks > 10; }));
        leftLoop.end();
        left.getClient()->release();
        const int before = right.blocks;
        ASSERT_TRUE(driveUntil([] { jKit::sleep(1); }, [&] { return right.blocks > before + 5; }));
        masterLoop.end();
        master.release();
        rightLoop.end();
        slavePorts[0] = open(left, "left");
    }
    EXPECT_EQ(left.damaged + right.damaged, 0);
}

} // namespace
