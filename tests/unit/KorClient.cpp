// The slave's endpoint: opening, discovery, connection, blocks. The master here is a bare connection layer.

#include "tests/unit/ConnectionFixture.h"
#include "tests/unit/EndpointFixture.h"

#include <kor/KorClient.h>
#include <support/AtomicLock.h>

#include <gmock/gmock.h>

#include <limits>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

/// Takes slaves in from its first moment.
struct Master : Side {
    Master() { EXPECT_TRUE(open()); }
};

/// A slot that writes down which event came and from whom.
struct Slots {
    std::mutex mutex;
    std::vector<std::string> seen;

    void note(const char* what, const RTAddr& addr) {
        const std::lock_guard lock(mutex);
        seen.push_back(std::string(what) + " " + addr.formatString().c_str());
    }
    void onConnect(const RTAddr& addr) { note("connect", addr); }
    void onReConnect(const RTAddr& addr) { note("reconnect", addr); }
    void onDisConnect(const RTAddr& addr) { note("disconnect", addr); }
    void onLost(const RTAddr& addr) { note("lost", addr); }

    std::vector<std::string> events() {
        const std::lock_guard lock(mutex);
        return seen;
    }
};

struct KorClientTest : testing::Test {
    LogRecorder log;
    Slots slots;
    KorClient client;
    unsigned short broadcastPort = 0;

    ~KorClientTest() override { client.release(); }

    /// Opens the endpoint on a port that nobody else had at the moment before.
    void open() {
        connect(client.connectSignal, &slots, &Slots::onConnect);
        connect(client.reconnectSignal, &slots, &Slots::onReConnect);
        connect(client.disconnectSignal, &slots, &Slots::onDisConnect);
        connect(client.connectLostSignal, &slots, &Slots::onLost);
        for (int attempt = 0; attempt < 20; ++attempt) {
            broadcastPort = freePort();
            if (client.init(broadcastPort, 0, "node-a", {"left", "right"})) {
                log.clear();
                return;
            }
        }
        FAIL() << "no free port";
    }
    void announce(std::string_view datagram) {
        SocketUDP socket;
        ASSERT_TRUE(socket.create());
        socket.setSendIP("127.0.0.1");
        socket.setSendPort(broadcastPort);
        ASSERT_GT(socket.write(datagram.data(), 1, static_cast<int>(datagram.size())), 0);
    }
    void announce(Master& master) { announce(broadcastOf(master.port())); }
    void connectTo(Master& master) {
        ASSERT_TRUE(driveUntil(
            [&] {
                announce(master);
                client.wait(0);
            },
            [&] { return client.isConnected() && master.recorder.connection(); }));
    }
    int blocks() {
        AtomicLock guard(client.getLock());
        return client.getData().count;
    }
};

TEST_F(KorClientTest, RefusesBadArguments) {
    EXPECT_FALSE(client.init(-1, 0, "a", {}));
    EXPECT_FALSE(client.init(65536, 0, "a", {}));
    EXPECT_THAT(log.lines(), ElementsAre("error: KorClient::init:broadcast can not bind to port:-1",
                                         "error: KorClient::init:broadcast can not bind to port:65536"));
    EXPECT_TRUE(client.init(0, 65536, "a", {})) << "the low 16 bits count";
    const std::string name(120, 'n');
    const std::string camera(124, 'c');
    EXPECT_TRUE(client.init(0, 0, name.c_str(), {camera.c_str()})) << "256 bytes";
    EXPECT_FALSE(client.init(0, 0, name.c_str(), {camera.c_str(), ""})) << "257 bytes";
    EXPECT_EQ(log.countWith("introduction of 257 bytes is over the limit of 256 bytes"), 1);
}

TEST_F(KorClientTest, TellsWhichPortIsTakenAndMayBeOpenedAgain) {
    SocketUDP taken;
    ASSERT_TRUE(taken.create() && taken.bind(0));
    const std::string port = std::to_string(taken.getLocalPort());
    EXPECT_FALSE(client.init(taken.getLocalPort(), 0, "a", {}));
    EXPECT_EQ(log.count("error: KorClient::init:broadcast can not bind to port:" + port), 1);
    EXPECT_FALSE(client.init(0, taken.getLocalPort(), "a", {}));
    EXPECT_EQ(log.count("error: KorClient::init:can not init RTNet with port:" + port), 1);
    EXPECT_EQ(client.getNet(), nullptr);
    client.wait(1);
    log.clear();

    EXPECT_TRUE(client.init(0, 0, "node-a", {"left", "right"}));
    EXPECT_THAT(log.lines(), ElementsAre("message: broadcast_recv_port[0],bind_port[0],name:node-a",
                                         "message: -->camera:left", "message: -->camera:right"));
    EXPECT_TRUE(client.init(0, 0, "node-b", {})) << "releases the first";
    EXPECT_STREQ(client.getName().c_str(), "node-b");
    client.release();
    client.release();
    client.wait(1);
    EXPECT_EQ(client.sendAsyn("x", 1), 0);
}

TEST_F(KorClientTest, TakesNothingButAnnouncements) {
    open();
    const std::string announcement = broadcastOf(7000);
    std::string otherVersion = announcement;
    otherVersion[5] = 2;
    std::vector<std::string> datagrams{otherVersion, beginRecordOf(1), introductionOf("name", {})};
    for (std::size_t size = 1; size < announcement.size(); ++size)
        datagrams.push_back(announcement.substr(0, size));
    for (unsigned seed = 1; seed <= 20; ++seed)
        datagrams.push_back(rubbish(1 + seed * 70, seed));
    for (const std::string& datagram : datagrams) {
        announce(datagram);
        client.wait(0.5);
    }
    EXPECT_THAT(log.lines(), IsEmpty()) << "neither a master nor a warning";
}

TEST_F(KorClientTest, ConnectsAndIntroducesItself) {
    Master master;
    Master other;
    open();
    announce(master);
    announce(other);
    ASSERT_TRUE(driveUntil([&] { client.wait(0); }, [&] { return !master.recorder.heard().empty(); }));
    EXPECT_THAT(master.recorder.heard(), ElementsAre(introductionOf("node-a", {"left", "right"})));
    ASSERT_TRUE(driveUntil([] {}, [&] { return client.isConnected(); }));
    const std::string address = "127.0.0.1:" + std::to_string(master.port());
    EXPECT_THAT(log.lines(), ElementsAre("message: [" + address + "] recv broadcast"));
    EXPECT_THAT(slots.events(), ElementsAre("connect " + address));
    EXPECT_EQ(other.recorder.connection(), nullptr);

    EXPECT_GE(client.sendAsyn("hello", 5), 0);
    EXPECT_EQ(client.sendAsyn(nullptr, 5), -1);
    ASSERT_TRUE(driveUntil([] {}, [&] { return master.recorder.heard().size() == 2; }));
    EXPECT_EQ(master.recorder.heard()[1], "hello");
}

TEST_F(KorClientTest, WaitsForBlocks) {
    Master master;
    open();
    connectTo(master);
    log.clear();
    client.wait(0);
    client.wait(-1);
    client.wait(std::numeric_limits<double>::quiet_NaN());
    EXPECT_THAT(log.lines(), IsEmpty());
    client.wait(0.05);
    EXPECT_THAT(log.lines(), ElementsAre("warning: wait too long time"));
    EXPECT_GT(client.getWaitTime(), 0.05);

    master.recorder.connection()->sendAsyn("hello", 5);
    client.wait(1e300);
    ASSERT_EQ(blocks(), 1);
    {
        AtomicLock guard(client.getLock());
        const KorData& block = client.getData().head->value;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block.data), static_cast<std::size_t>(block.size)),
                  "hello");
        EXPECT_FALSE(block.applied);
        EXPECT_GE(client.sendAsyn("from inside the lock", 4), 0);
    }
    client.release();
    EXPECT_EQ(blocks(), 0) << "a later master must not find the data of this one";
}

TEST_F(KorClientTest, SearchesAgainAfterTheMasterHasGone) {
    open();
    auto master = std::make_unique<Master>();
    const std::string first = "127.0.0.1:" + std::to_string(master->port());
    connectTo(*master);
    master->recorder.connection()->sendAsyn("one", 3);
    ASSERT_TRUE(driveUntil([] {}, [&] { return blocks() == 1; }));
    for (int i = 0; i < 5; ++i)
        announce(*master); // must not be believed once the master has gone
    master.reset();
    ASSERT_TRUE(driveUntil([] {}, [&] { return slots.events().size() == 2; }));
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(blocks(), 0);
    EXPECT_EQ(client.sendAsyn("x", 1), 0);
    log.clear();
    client.wait(1);
    EXPECT_THAT(log.lines(), IsEmpty()) << "nothing was heard";

    Master next;
    connectTo(next);
    EXPECT_THAT(slots.events(), ElementsAre("connect " + first, "disconnect " + first,
                                            "connect 127.0.0.1:" + std::to_string(next.port())));
}

TEST_F(KorClientTest, SearchesAgainAfterAFailedAttempt) {
    open();
    const unsigned short nobody = freePort();
    announce(broadcastOf(nobody));
    ASSERT_TRUE(driveUntil([&] { client.wait(0); }, [&] { return log.countWith("recv broadcast") == 1; }));
    Master master;
    connectTo(master);
    EXPECT_THAT(slots.events(), ElementsAre("connect 127.0.0.1:" + std::to_string(master.port())));
}

TEST_F(KorClientTest, SearchesAgainAfterAnAnnouncementOfPortZero) {
    open();
    announce(broadcastOf(0x10000));
    ASSERT_TRUE(
        driveUntil([&] { client.wait(0); }, [&] { return log.countWith(":0] recv broadcast") == 1; }));
    Master master;
    connectTo(master);
}

TEST_F(KorClientTest, IgnoresOthersThatConnectToIt) {
    open();
    Master master;
    connectTo(master);
    Master stranger;
    stranger.net.connect("127.0.0.1", client.getNet()->getLocalPorts()[0], 1000, 3);
    ASSERT_TRUE(driveUntil([] {}, [&] { return stranger.recorder.connection() != nullptr; }));
    ASSERT_TRUE(driveUntil([] {}, [&] { return log.countWith("is not the master") == 1; }));
    stranger.recorder.connection()->sendAsyn("evil", 4);
    stranger.net.release();
    master.recorder.connection()->sendAsyn("good", 4);
    ASSERT_TRUE(driveUntil([] {}, [&] { return blocks() > 0; }));
    AtomicLock guard(client.getLock());
    EXPECT_EQ(client.getData().count, 1);
    EXPECT_EQ(client.getData().head->value.data[0], 'g');
    EXPECT_TRUE(client.isConnected());
    EXPECT_THAT(stranger.recorder.heard(), IsEmpty());
}

TEST_F(KorClientTest, TakesTheEventsOfAllWhileNoMasterIsKnown) {
    open();
    RTUserHandler& events = client;
    const std::string a = kA.formatString().c_str();
    events.onConnect(kA, true);
    EXPECT_FALSE(client.isConnected());
    deliver(client, nullptr, "x");
    events.onReConnect(kA);
    EXPECT_EQ(blocks(), 0);
    events.onDisConnect(kA);
    events.onConnectLost(kA);
    EXPECT_THAT(slots.events(), ElementsAre("reconnect " + a, "disconnect " + a, "lost " + a));

    Master master;
    connectTo(master);
    for (const bool established : {true, false})
        events.onConnect(kA, established);
    events.onReConnect(kA);
    events.onDisConnect(kA);
    events.onConnectLost(kA);
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(slots.events().size(), 4u);
}

TEST_F(KorClientTest, WaitsForTheConnectionLayerToReconnect) {
    open();
    Master master;
    connectTo(master);
    RTUserHandler& events = client;
    const RTAddr addr = master.recorder.connection() ? client.getUser()->getAddr() : RTAddr();
    events.onReConnect(addr);
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.sendAsyn("x", 1), 0);
    log.clear();
    client.wait(0.01);
    EXPECT_THAT(log.lines(), ElementsAre("warning: wait too long time")) << "waits for data, does not search";
    events.onConnect(addr, true);
    EXPECT_TRUE(client.isConnected());
    EXPECT_GE(client.sendAsyn("x", 1), 0);
    events.onConnectLost(addr);
    EXPECT_FALSE(client.isConnected());
    const std::string text = addr.formatString().c_str();
    EXPECT_THAT(slots.events(),
                ElementsAre("connect " + text, "reconnect " + text, "connect " + text, "lost " + text));
}

TEST_F(KorClientTest, DropsBlocksThatNobodyTakes) {
    RTPacketHandler& handler = client;
    const auto deliverLarge = [&] { deliver(handler, nullptr, detail::Block::allocate(1 << 20)); };
    deliver(handler, nullptr, "");
    EXPECT_EQ(client.getData().count, 0);
    for (int i = 0; i < 100'000; ++i)
        deliver(handler, nullptr, "x");
    EXPECT_EQ(client.getDroppedBlocks(), 0u) << "no limit for their number";

    client.clearData();
    EXPECT_EQ(client.getMaxBlockBytes(), 512u << 20);
    client.setMaxBlockBytes(4 << 20);
    for (int i = 0; i < 9; ++i)
        deliverLarge();
    EXPECT_EQ(client.getData().count, 3);
    EXPECT_EQ(client.getDroppedBlocks(), 6u);
    EXPECT_EQ(log.countWith("further ones are dropped"), 1);
    for (int i = 0; i < 100'000; ++i)
        deliver(handler, nullptr, "x");
    EXPECT_LT(client.getData().count, 10'000) << "each takes more than its byte";
    client.clearData();
    deliverLarge();
    EXPECT_EQ(client.getData().count, 1);
}

TEST_F(KorClientTest, HasOneInstanceForTheProcess) {
    KorClient* instance = KorClient::get();
    EXPECT_EQ(KorClient::get(), instance);
    ASSERT_TRUE(instance->init(0, 0, "a name that is too long to be stored inside", {}));
    deliver(*instance, nullptr, "x");
    KorClient::del();
    KorClient::del();
    EXPECT_TRUE(KorClient::get()->getName().empty());
    KorClient::del();
}

} // namespace
