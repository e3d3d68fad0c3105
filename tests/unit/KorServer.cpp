// The master's endpoint: announcements, the list of records through connection events, sends.

#include "tests/unit/EndpointFixture.h"

#include <kor/KorServer.h>
#include <support/AtomicLock.h>
#include <support/memInfo.h>
#include <support/RTNet.h>

#include <gmock/gmock.h>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

struct Events : KorServerHandler {
    std::vector<std::string> seen;
    KorServer* server = nullptr;

    void onConnect(const RTAddr& addr, bool established) override {
        note(established ? "connect" : "failed", addr);
    }
    void onReConnect(const RTAddr& addr) override { note("reconnect", addr); }
    void onDisConnect(const RTAddr& addr) override { note("disconnect", addr); }
    void onConnectLost(const RTAddr& addr) override { note("lost", addr); }

    void note(const std::string& what, const RTAddr& addr) {
        const bool locked = *server->getLock() != 0;
        seen.push_back(what + " " + addr.formatString().c_str() + (locked ? " locked" : ""));
    }
};

/// An endpoint that is never opened: its events are called by hand.
struct KorServerRecords : testing::Test {
    LogRecorder log;
    Events events;
    KorServer server;
    RTUserHandler& net = server;

    KorServerRecords() {
        events.server = &server;
        server.setHandler(&events);
    }
    void connect(std::initializer_list<RTAddr> addresses) {
        for (const RTAddr& addr : addresses)
            net.onConnect(addr, true);
    }
    std::vector<std::string> addresses() {
        std::vector<std::string> all;
        for (int i = 0; i < server.getClientCount(); ++i)
            all.emplace_back(server.getClientByIndex(i)->getAddr().formatString().c_str());
        return all;
    }
};

TEST_F(KorServerRecords, FollowConnectionEvents) {
    connect({kA, kB, kC});
    net.onConnect(kB, false);
    EXPECT_THAT(addresses(), ElementsAre("10.0.0.1:1", "10.0.0.2:2", "10.0.0.3:3"));
    net.onDisConnect(kB);
    EXPECT_THAT(addresses(), ElementsAre("10.0.0.1:1", "10.0.0.3:3"));
    connect({kA});
    EXPECT_THAT(addresses(), ElementsAre("10.0.0.3:3", "10.0.0.1:1")) << "the new record is the last";
    net.onReConnect(kC);
    net.onConnectLost(kA);
    net.onConnectLost(kA);
    net.onDisConnect(kA);
    net.onReConnect(kA);
    EXPECT_THAT(addresses(), IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("message: KorServer::onDisConnect:[10.0.0.2:2] disconnect, remove it ",
                            "message: KorServer::onConnect:[10.0.0.1:1] new connect, remove old ",
                            "message: KorServer::onReConnect:[10.0.0.3:3] re connect, remove old ",
                            "message: KorServer::onConnectLost:[10.0.0.1:1] connect lost, remove it ",
                            "error: KorServer::onConnectLost:[10.0.0.1:1] remove failed when connect lost"));
    EXPECT_THAT(events.seen,
                ElementsAre("connect 10.0.0.1:1", "connect 10.0.0.2:2", "connect 10.0.0.3:3",
                            "failed 10.0.0.2:2", "disconnect 10.0.0.2:2 locked", "connect 10.0.0.1:1",
                            "reconnect 10.0.0.3:3 locked", "lost 10.0.0.1:1 locked", "lost 10.0.0.1:1 locked",
                            "disconnect 10.0.0.1:1 locked", "reconnect 10.0.0.1:1 locked"));
}

TEST_F(KorServerRecords, AreFoundByIndexAndByTheConnectionsAddress) {
    connect({kA, kB});
    EXPECT_EQ(server.getClientByIndex(-1), nullptr);
    EXPECT_EQ(server.getClientByIndex(2), nullptr);
    EXPECT_EQ(server.getClientByAddr(kB), nullptr) << "no connection";
    FakeUser user(kB);
    server.getClientByIndex(1)->setUser(&user);
    EXPECT_EQ(server.getClientByAddr(kB), server.getClientByIndex(1));
    EXPECT_TRUE(server.removeClientByAddr(kB));
    EXPECT_FALSE(server.removeClientByAddr(kB));
    EXPECT_EQ(user.handlers.back(), nullptr) << "detached";
    EXPECT_EQ(server.getClientByAddr(kB), nullptr);
}

TEST_F(KorServerRecords, StayReadableUntilTheNextWait) {
    connect({kA});
    Client* client = server.getClientByIndex(0);
    deliver(*client, nullptr, introductionOf("a name that is too long to be stored inside", {"left"}));
    deliver(*client, nullptr, frameOf(1));
    net.onDisConnect(kA);
    EXPECT_STREQ(client->getName().c_str(), "a name that is too long to be stored inside");
    EXPECT_TRUE(client->getData().empty()) << "the packets are freed at once";
    server.wait(0);
}

TEST_F(KorServerRecords, KeepFewOfTheNamesThatWereReadBetweenTwoWaits) {
    connect({kA});
    Client* client = server.getClientByIndex(0);
    deliver(*client, nullptr, introductionOf("first", {}));
    const jString& first = client->getName();
    const std::string huge = introductionOf("huge", {}, 1 << 16) + std::string((64 << 10) - 15, '\0');
    testing::internal::CaptureStdout();
    for (int i = 0; i < 10; ++i) {
        deliver(*client, nullptr, huge);
        EXPECT_FALSE(client->getName().empty());
    }
    deliver(*client, nullptr, introductionOf("newest", {"left"}));
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(first.c_str(), "first");
    EXPECT_LT(memReport().liveBytes, 20u << 20);
    server.wait(0);
    EXPECT_STREQ(client->getName().c_str(), "newest");
    EXPECT_LT(memReport().liveBytes, 1u << 20);
}

TEST_F(KorServerRecords, BelongToTheEndpointAndItsCopiesTogether) {
    connect({kA, kB});
    {
        const KorServer copy(server);
        EXPECT_EQ(copy.getClientByIndex(1), server.getClientByIndex(1));
        EXPECT_EQ(copy.getHandler(), &events);
    }
    EXPECT_THAT(addresses(), ElementsAre("10.0.0.1:1", "10.0.0.2:2"));
}

TEST_F(KorServerRecords, SendToAll) {
    EXPECT_FALSE(server.send("x", 1));
    connect({kA, kB});
    FakeUser user(kA);
    server.getClientByIndex(0)->setUser(&user);
    server.getClientByIndex(1)->setName("node-b");
    EXPECT_TRUE(server.send("hello", 5));
    EXPECT_THAT(user.takeSent(), ElementsAre("hello"));
    EXPECT_THAT(log.lines(), ElementsAre("error: [node-b] send failed"));
    EXPECT_TRUE(server.send(nullptr, 5));
    EXPECT_TRUE(server.send("hello", 0));
    EXPECT_THAT(user.takeSent(), IsEmpty());
    EXPECT_EQ(log.countWith("send failed"), 5);
}

TEST_F(KorServerRecords, TellWhetherEverySendIsDelivered) {
    EXPECT_TRUE(server.isClientsSendOver());
    connect({kA, kB});
    EXPECT_FALSE(server.isClientsSendOver());
    server.getClientByIndex(0)->setSendOver(true);
    server.getClientByIndex(1)->setState(KOR_CLIENT_STATE_INACTIVE);
    EXPECT_TRUE(server.isClientsSendOver());
    server.clearClientsSendOver();
    EXPECT_FALSE(server.isClientsSendOver());
}

TEST_F(KorServerRecords, PrintTheirStatistics) {
    connect({kA});
    server.getClientByIndex(0)->addIdleTimes();
    server.getClientByIndex(0)->addTotalWaitTime(2.5);
    server.getClientByIndex(0)->addDisconnectTimes();
    server.printStatistics();
    EXPECT_THAT(log.lines(),
                ElementsAre("message: #0", "message: TotalIdleTimes:1", "message: TotalWaitTime:2.500000s",
                            "message: DisconnectTimes:1", "message: WaitTime:0.000000s"));
}

TEST(KorServer, RefusesBadArguments) {
    LogRecorder log;
    KorServer server;
    jVector<unsigned short> one{0};
    jVector<unsigned short> two{0, 0};
    jVector<unsigned short> none;
    EXPECT_FALSE(server.init("127.255.255.255", two, two, one));
    EXPECT_FALSE(server.init("127.255.255.255", none, one, one));
    EXPECT_FALSE(server.init("127.0.0.1", one, one, one));
    EXPECT_FALSE(server.init("", one, one, one));
    EXPECT_EQ(server.getNet(), nullptr);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "error: KorServer::init:broadcast_bind_ports size[2] is not equal data_ports[1]",
            "error: KorServer::init:broadcast_send_ports size[0] is less than broadcast_bind_ports[1]",
            "error: KorServer::init:invalid broadcast ip:127.0.0.1",
            "error: KorServer::init:invalid broadcast ip:"));
    server.release();
    server.wait(0);
}

/// Waits for one datagram.
std::string readDatagram(SocketUDP& socket) {
    char buffer[100];
    int size = 0;
    EXPECT_TRUE(driveUntil([&] { size = socket.read(buffer, 1, sizeof(buffer)); }, [&] { return size > 0; }));
    return std::string(buffer, static_cast<std::size_t>(size));
}

TEST(KorServer, AnnouncesEveryDataPortAtEveryWait) {
    LogRecorder log;
    SocketUDP ears[2];
    jVector<unsigned short> sendPorts;
    for (SocketUDP& ear : ears) {
        ASSERT_TRUE(ear.create() && ear.bind(0) && ear.nonblock());
        sendPorts.push_back(static_cast<unsigned short>(ear.getLocalPort()));
    }
    jVector<unsigned short> free{0, 0};
    KorServer server;
    ASSERT_TRUE(server.init("127.255.255.255", sendPorts, free, free));
    EXPECT_STREQ(server.getBroadcastIP().c_str(), "127.255.255.255");
    const jVector<unsigned short> ports = server.getPorts();
    ASSERT_EQ(ports.count, 2);
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_EQ(server.wait(1.0), 0);
        EXPECT_EQ(readDatagram(ears[0]), broadcastOf(ports[0]));
        EXPECT_EQ(readDatagram(ears[1]), broadcastOf(ports[1]));
    }
    EXPECT_EQ(log.countWith("broadcast_ip[127.255.255.255], broadcast_bind_port[0],broadcast_send_port["), 2);
    server.release();
    server.release();
    EXPECT_EQ(server.getNet(), nullptr);
    char byte = 0;
    server.wait(0);
    EXPECT_EQ(ears[0].read(&byte, 1, 1), 0);
}

TEST(KorServer, GoesOnWithoutAPortThatIsTaken) {
    LogRecorder log;
    SocketUDP taken;
    ASSERT_TRUE(taken.create() && taken.bind(0));
    const auto port = static_cast<unsigned short>(taken.getLocalPort());
    KorServer server;
    EXPECT_TRUE(server.init("127.255.255.255", 9, port, 0));
    EXPECT_EQ(log.count("error: KorServer::init:broadcast can not bind to port:" + std::to_string(port)), 1);
    EXPECT_NE(server.getNet(), nullptr);
    EXPECT_TRUE(server.init("127.255.255.255", 9, 0, port))
        << "opens anew, now with a data port that is taken";
    EXPECT_EQ(log.countWith("RTNet::init"), 1);
    server.release();
}

TEST(KorServer, ForgetsItsRecordsWhenOpenedAnew) {
    LogRecorder log;
    KorServer server;
    RTUserHandler& net = server;
    ASSERT_TRUE(server.init("127.255.255.255", 9, 0, 0));
    net.onConnect(kA, true);
    server.release();
    EXPECT_EQ(server.getClientCount(), 1);
    ASSERT_TRUE(server.init("127.255.255.255", 9, 0, 0));
    EXPECT_EQ(server.getClientCount(), 0);
    net.onConnect(kA, true);
    server.release();
}

TEST(KorServer, HasOneInstanceForTheProcess) {
    LogRecorder log;
    KorServer* server = KorServer::get();
    EXPECT_EQ(KorServer::get(), server);
    ASSERT_TRUE(server->init("127.255.255.255", 9, 0, 0));
    static_cast<RTUserHandler*>(server)->onConnect(kA, true);
    KorServer::del();
    KorServer::del();
    EXPECT_EQ(KorServer::get()->getClientCount(), 0);
    EXPECT_EQ(KorServer::get()->getNet(), nullptr);
    KorServer::del();
}

} // namespace
