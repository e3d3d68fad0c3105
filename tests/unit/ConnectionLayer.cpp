// The connection layer over real sockets on loopback: events, packets, notices, handlers and their threads.

#include "tests/unit/ConnectionFixture.h"

#include <support/AtomicLock.h>
#include <support/jAllocator.h>
#include <support/memInfo.h>
#include <support/RTNet.h>
#include <support/SocketUDP.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace kor;
using namespace kor::testing_support;
using namespace std::chrono_literals;

struct ConnectionLayer : testing::Test {
    Side a; // connects
    Side b; // accepts

    void SetUp() override {
        ASSERT_TRUE(a.open());
        ASSERT_TRUE(b.open());
        EXPECT_EQ(a.net.connect(jString("127.0.0.1"), b.port(), 1000, 3), NET_CONNECT_ATTEMPT_STARTED);
        ASSERT_TRUE(a.recorder.awaitEvents({"connect"}));
        ASSERT_TRUE(b.recorder.awaitEvents({"connect"}));
    }
};

TEST_F(ConnectionLayer, CarriesPacketsOfAllSizesBothWaysInOrderWithOneNoticeEach) {
    std::vector<std::string> sent;
    std::vector<std::uint64_t> ids;
    for (const std::size_t size : {std::size_t{1}, std::size_t{100}, std::size_t{1436}, std::size_t{1437},
                                   std::size_t{70000}, std::size_t{3} << 20, std::size_t{5}}) {
        sent.push_back(text(size, static_cast<unsigned>(size)));
        ids.push_back(a.recorder.user->sendAsyn(sent.back().data(), static_cast<int>(size)));
        EXPECT_NE(ids.back(), RTUser::kRefused);
        EXPECT_NE(b.recorder.user->sendAsyn(sent.back().data(), static_cast<int>(size)), RTUser::kRefused);
    }
    for (Recorder* side : {&a.recorder, &b.recorder}) {
        ASSERT_TRUE(side->await([&] { return side->packets.size() >= sent.size(); }));
        ASSERT_TRUE(side->await([&] { return side->notices.size() >= sent.size(); }));
        EXPECT_TRUE(side->packets == sent);
    }
    EXPECT_EQ(a.recorder.notices, ids);
    EXPECT_EQ(a.recorder.user->getStatistics().queuedBytes, 0u);
}

TEST_F(ConnectionLayer, RefusesWhatItCannotSend) {
    RTUser* user = a.recorder.user;
    EXPECT_EQ(user->sendAsyn(nullptr, 5), RTUser::kRefused);
    EXPECT_EQ(user->sendAsyn("x", 0), RTUser::kRefused);
    EXPECT_EQ(user->sendAsyn("x", -1), RTUser::kRefused);
    b.net.release();
    ASSERT_TRUE(a.recorder.awaitEvents({"connect", "disconnect"}));
    EXPECT_EQ(user->sendAsyn("x", 1), RTUser::kRefused);
    EXPECT_EQ(a.net.getUserByAddr(RTAddr(0x7F000001, 1)), nullptr);
}

TEST_F(ConnectionLayer, KnowsThePeersClock) {
    const auto limit = std::chrono::steady_clock::now() + 60s;
    for (Side* side : {&a, &b}) {
        RTUser& peer = *side->recorder.user;
        while (peer.getTimeOffset() == -1e9 && std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
        ASSERT_NE(peer.getTimeOffset(), -1e9);
        EXPECT_GT(peer.getTimeOffsetErrorBound(), 0);
    }
    // Both sides are in one process: the true offset is 0. The bound must hold from the first estimate on,
    // while the estimates still change.
    const auto end = std::chrono::steady_clock::now() + 300ms;
    while (std::chrono::steady_clock::now() < end)
        for (Side* side : {&a, &b}) {
            // Both figures from one estimate at one time; this thread may lose its core between two calls.
            const ConnectionStatistics clock = side->recorder.user->getStatistics();
            ASSERT_GT(clock.timeOffsetBound, 0);
            ASSERT_LE(std::abs(clock.timeOffset), clock.timeOffsetBound) << "milliseconds";
        }
    EXPECT_GT(a.recorder.user->getPing(), 0.0);
}

TEST_F(ConnectionLayer, AKeptPacketBelongsToTheHandler) {
    std::atomic<unsigned char*> kept{nullptr};
    b.recorder.packetHook = [&](RTUser*, Packet* packet) {
        packet->owned = false;
        kept = packet->data;
    };
    a.recorder.user->sendAsyn("keep me", 8);
    ASSERT_TRUE(b.recorder.await([&] { return !b.recorder.packets.empty(); }));
    b.net.release();
    EXPECT_STREQ(reinterpret_cast<char*>(kept.load()), "keep me");
    EXPECT_TRUE(memRemoveInfo(kept, __FILE__, __LINE__, "test"));
    jAllocator::get()->localFree(kept);
}

TEST_F(ConnectionLayer, GoesOnReceivingWhileAHandlerWaitsForALock) {
    // The handler of b wants a lock that the test holds, while a sends more than b's socket could keep.
    volatile int word = 0;
    std::atomic<bool> waiting{false};
    b.recorder.packetHook = [&](RTUser*, Packet*) {
        waiting = true;
        const AtomicLock lock(&word);
    };
    const std::string packet = text(4 << 20, 7);
    {
        const AtomicLock lock(&word);
        a.recorder.user->sendAsyn("first", 5);
        while (!waiting)
            std::this_thread::yield();
        for (int i = 0; i != 10; ++i)
            ASSERT_NE(a.recorder.user->sendAsyn(packet.data(), static_cast<int>(packet.size())),
                      RTUser::kRefused);
        // Everything arrives and is acknowledged, although no callback can run.
        const auto limit = std::chrono::steady_clock::now() + 60s;
        while (b.recorder.user->getStatistics().bytesReceived < 10 * packet.size() &&
               std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
        EXPECT_GE(b.recorder.user->getStatistics().bytesReceived, 10 * packet.size());
        EXPECT_TRUE(a.recorder.notices.empty());
    }
    ASSERT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 11; }));
}

TEST_F(ConnectionLayer, DetachingWaitsForARunningHandlerAndNoCallFollows) {
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    std::atomic<bool> left{false};
    std::atomic<int> calls{0};
    b.recorder.packetHook = [&](RTUser*, Packet*) {
        ++calls;
        inside = true;
        while (!leave)
            std::this_thread::yield();
        std::this_thread::sleep_for(20ms); // so that a detaching that does not wait is back before
        left = true;
    };
    a.recorder.user->sendAsyn("1", 1);
    a.recorder.user->sendAsyn("2", 1);
    while (!inside)
        std::this_thread::yield();
    leave = true;
    b.recorder.user->setPacketHandler(nullptr);
    EXPECT_TRUE(left) << "the handler still runs";
    const int before = calls;
    a.recorder.user->sendAsyn("3", 1);
    // Delivered all the same: what nobody takes is dropped by the layer.
    ASSERT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 3; }));
    EXPECT_EQ(calls, before);
}

TEST_F(ConnectionLayer, AHandlerMayDetachItselfAndAnswer) {
    b.recorder.packetHook = [](RTUser* user, Packet* packet) {
        user->sendAsyn(packet->data, static_cast<int>(packet->size));
        user->setPacketHandler(nullptr);
    };
    a.recorder.user->sendAsyn("ping", 4);
    ASSERT_TRUE(a.recorder.await([&] { return a.recorder.packets.size() == 1; }));
    a.recorder.user->sendAsyn("again", 5);
    ASSERT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 2; }));
    EXPECT_EQ(b.recorder.packets.size(), 1u);
}

TEST_F(ConnectionLayer, ConnectsAgainAndReportsAStandingConnectionAgain) {
    const unsigned short port = b.port();
    b.net.release();
    ASSERT_TRUE(a.recorder.awaitEvents({"connect", "disconnect"}));
    Side restarted;
    ASSERT_TRUE(restarted.open(port));
    EXPECT_EQ(a.net.connect(jString("127.0.0.1"), port, 1000, 3), NET_CONNECT_ATTEMPT_STARTED);
    ASSERT_TRUE(a.recorder.awaitEvents({"connect", "disconnect", "connect"}));
    EXPECT_EQ(a.net.connect(jString("127.0.0.1"), port, 1000, 3), NET_CONNECT_ATTEMPT_CONNECTED);
    ASSERT_TRUE(a.recorder.awaitEvents({"connect", "disconnect", "connect", "connect"}));
}

TEST_F(ConnectionLayer, AConnectionKeptFromBeforeAReleaseDoesNotShowALaterOne) {
    RTUser* const before = a.recorder.user;
    a.net.release();
    ASSERT_TRUE(b.recorder.awaitEvents({"connect", "disconnect"}));
    ASSERT_TRUE(a.open());
    EXPECT_EQ(a.net.connect(jString("127.0.0.1"), b.port(), 1000, 3), NET_CONNECT_ATTEMPT_STARTED);
    ASSERT_TRUE(a.recorder.awaitEvents({"connect", "connect"}));
    RTUser* const after = a.recorder.user;
    EXPECT_NE(after->sendAsyn("x", 1), RTUser::kRefused);
    ASSERT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 1; }));
    EXPECT_EQ(after->getStatistics().packetsSent, 1u);
    EXPECT_EQ(before->getStatistics().packetsSent, 0u);
    EXPECT_EQ(before->getStatistics().datagramsReceived, 0u);
    EXPECT_EQ(before->sendAsyn("x", 1), RTUser::kRefused);
}

TEST(ConnectionLayerAlone, ItsObjectsAreReportedAsLiveUntilTheyAreGone) {
    {
        Side a;
        Side b;
        const SocketUDP socket;
        ASSERT_TRUE(a.open());
        ASSERT_TRUE(b.open());
        a.net.connect(jString("127.0.0.1"), b.port(), 1000, 3);
        ASSERT_TRUE(b.recorder.awaitEvents({"connect"}));
        std::vector<std::string> live;
        for (const MemReportEntry& entry : memReport().entries)
            live.push_back(entry.file + std::string(" ") + entry.label);
        EXPECT_THAT(live, testing::IsSupersetOf({
                              "support/platform/BroadcastSocket BroadcastSocket::BroadcastSocket",
                              "support/platform/UdpSocket UdpSocket::UdpSocket",
                              "support/jThread jThread::jThread",
                              "support/net/driver/RTNet RTNet::RTNet",
                              "support/net/driver/NetSession NetSession::open",
                              "support/net/driver/NetDriver NetDriver::dispatchConnected",
                              "support/net/driver/UserTable UserTable::add",
                              "support/net/connection/Endpoint Endpoint::establish",
                              "support/net/delivery/Ring Ring::grow",
                          }));
    }
    EXPECT_EQ(memReport().liveBlocks, 0u);
}

TEST(ConnectionLayerAlone, ReportsFailedAttempts) {
    Side a;
    EXPECT_EQ(a.net.connect(jString("127.0.0.1"), 9, 10, 1), NET_CONNECT_ATTEMPT_CLOSED);
    ASSERT_TRUE(a.open());
    EXPECT_EQ(a.net.connect(jString("no address"), 9, 10, 1), NET_CONNECT_ATTEMPT_BAD_ADDRESS);
    ASSERT_TRUE(a.recorder.awaitEvents({"failed"}));
    EXPECT_EQ(a.net.connect(jString("127.0.0.1"), 9, 20, 2), NET_CONNECT_ATTEMPT_STARTED);
    ASSERT_TRUE(a.recorder.awaitEvents({"failed", "failed"}));
}

TEST(ConnectionLayerAlone, RefusesMoreThanTheQueueHoldsForAPeerThatTakesNothing) {
    std::atomic<bool> leave{false};
    Side b;
    b.recorder.packetHook = [&](RTUser*, Packet*) {
        while (!leave)
            std::this_thread::yield();
    };
    Side a;
    NetOptions options;
    options.maxQueuedBytes = 1 << 20;
    a.net.setOptions(options);
    ASSERT_TRUE(a.open());
    ASSERT_TRUE(b.open());
    a.net.connect(jString("127.0.0.1"), b.port(), 1000, 30);
    ASSERT_TRUE(a.recorder.awaitEvents({"connect"}));
    const std::string packet = text(64 << 10, 1);
    const auto send = [&] {
        return a.recorder.user->sendAsyn(packet.data(), static_cast<int>(packet.size()));
    };
    for (int i = 0; i != 16; ++i)
        EXPECT_NE(send(), RTUser::kRefused) << i;
    for (int i = 0; i != 1000; ++i)
        EXPECT_EQ(send(), RTUser::kRefused);
    leave = true;
    EXPECT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 16; }));
    EXPECT_NE(send(), RTUser::kRefused);
    EXPECT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == 17; }));
}

TEST(ConnectionLayerAlone, ReceivesInBatchesWithAndWithoutKernelStamps) {
    for (const bool stamps : {true, false}) {
        NetOptions options;
        options.kernelTimeStamps = stamps;
        options.receiveOffload = false;
        options.maxDatagramPayload = 1472;
        Side a;
        Side b;
        a.net.setOptions(options);
        b.net.setOptions(options);
        ASSERT_TRUE(a.open());
        ASSERT_TRUE(b.open());
        a.net.connect(jString("127.0.0.1"), b.port(), 1000, 30);
        ASSERT_TRUE(a.recorder.awaitEvents({"connect"}));
        const std::string packet = text(1 << 20, 1);
        constexpr std::size_t kPackets = 20;
        for (std::size_t i = 0; i != kPackets; ++i)
            ASSERT_NE(a.recorder.user->sendAsyn(packet.data(), static_cast<int>(packet.size())),
                      RTUser::kRefused);
        ASSERT_TRUE(a.recorder.await([&] { return a.recorder.notices.size() == kPackets; }));
        const NetStatistics statistics = b.net.getStatistics();
        EXPECT_LT(statistics.systemCallsReceive, statistics.datagramsReceived * 9 / 10)
            << "stamps " << stamps;
        EXPECT_EQ(std::ranges::count(b.recorder.packets, packet), std::ptrdiff_t{kPackets});
    }
}

/// Enough peers for the layer to gather what comes and goes.
struct Crowd {
    static constexpr std::size_t kClients = 20;
    Side master;
    std::vector<std::unique_ptr<Side>> clients;
    std::vector<RTUser*> users;

    bool open(bool gather, bool stamps = true) {
        NetOptions options;
        options.gather = gather;
        options.kernelTimeStamps = stamps;
        master.net.setOptions(options);
        if (!master.open())
            return false;
        while (clients.size() != kClients) {
            Side& client = *clients.emplace_back(std::make_unique<Side>());
            if (!client.open())
                return false;
            client.net.connect(jString("127.0.0.1"), master.port(), 1000, 30);
            if (!master.recorder.await([&] { return master.recorder.events.size() == clients.size(); }))
                return false;
            users.push_back(master.recorder.user);
        }
        return true;
    }
};

// Without the kernel's stamps nobody can tell whether a datagram has waited, so there is no gathering either.
TEST(ConnectionLayerAlone, ServesACrowdWithAndWithoutGathering) {
    constexpr std::size_t kRounds = 30;
    for (const auto& [gather, stamps] : {std::pair{true, true}, {false, true}, {true, false}}) {
        Crowd crowd;
        ASSERT_TRUE(crowd.open(gather, stamps));
        Recorder& master = crowd.master.recorder;
        for (const auto& client : crowd.clients)
            client->recorder.packetHook = [](RTUser* from, Packet* packet) {
                from->sendAsyn(packet->data, static_cast<int>(packet->size));
            };
        std::vector<std::string> sent;
        for (std::size_t round = 1; round <= kRounds; ++round) {
            sent.push_back(text(1000, static_cast<unsigned>(round)));
            for (RTUser* const user : crowd.users)
                ASSERT_NE(user->sendAsyn(sent.back().data(), 1000), RTUser::kRefused);
            ASSERT_TRUE(master.await([&] {
                return master.notices.size() == round * Crowd::kClients &&
                       master.packets.size() == round * Crowd::kClients;
            }));
            EXPECT_EQ(master.packets.back(), sent.back());
        }
        for (const auto& client : crowd.clients) {
            ASSERT_TRUE(client->recorder.await([&] { return client->recorder.notices.size() == kRounds; }));
            EXPECT_TRUE(client->recorder.packets == sent);
            EXPECT_EQ(client->net.getStatistics().gatherings, 0u);
        }
        const NetStatistics statistics = crowd.master.net.getStatistics();
        EXPECT_EQ(statistics.gatherings != 0, gather && statistics.kernelTimeStamps);
    }
}

/// The layer's own thread sends, nobody else wakes it, and what happens besides is no datagram: the rest must
/// not outlast it. Afterwards the layer starts again.
TEST(ConnectionLayerAlone, ACrowdThatOnlyReportsHoldsUpNoOtherEvent) {
    Crowd crowd;
    ASSERT_TRUE(crowd.open(true));
    Recorder& master = crowd.master.recorder;
    Side gone;
    ASSERT_TRUE(gone.open());
    const unsigned short nobody = gone.port();
    gone.net.release();
    std::atomic<bool> goesOn{false};
    master.noticeHook = [&](RTUser* to) {
        if (goesOn)
            to->sendAsyn("next", 4);
    };
    // A machine that is slow or busy may let a round pass without a rest.
    for (std::size_t round = 1; round <= 1000 && crowd.master.net.getStatistics().gatherings == 0; ++round) {
        for (RTUser* const user : crowd.users)
            user->sendAsyn("first", 5);
        ASSERT_TRUE(master.await([&] { return master.notices.size() == round * Crowd::kClients; }));
    }
    ASSERT_NE(crowd.master.net.getStatistics().gatherings, 0u);
    master.keepsPackets = false;
    for (const auto& client : crowd.clients)
        client->recorder.keepsPackets = false;
    goesOn = true;
    for (RTUser* const user : crowd.users)
        user->sendAsyn("first", 5);
    for (std::size_t failed = 1; failed <= 5; ++failed) {
        crowd.master.net.connect(jString("127.0.0.1"), nobody, 20, 1);
        ASSERT_TRUE(master.await([&] { return master.events.size() == Crowd::kClients + failed; }));
        EXPECT_EQ(master.events.back(), "failed");
    }
    goesOn = false;
    crowd.master.net.release();
    ASSERT_TRUE(crowd.master.open());
    EXPECT_EQ(crowd.master.net.getStatistics().gatherings, 0u);
    ASSERT_TRUE(gone.open());
    gone.net.connect(jString("127.0.0.1"), crowd.master.port(), 1000, 30);
    EXPECT_TRUE(gone.recorder.await([&] { return !gone.recorder.events.empty(); }));
    EXPECT_EQ(gone.recorder.events.back(), "connect");
}

TEST(ConnectionLayerAlone, OpensAndReleasesAgainAndRefusesATakenPort) {
    Side a;
    ASSERT_TRUE(a.open());
    EXPECT_FALSE(a.net.init(static_cast<unsigned short>(0)));
    RTNet other;
    EXPECT_FALSE(other.init(a.port()));
    jVector<unsigned short> none;
    EXPECT_FALSE(other.init(none));
    a.net.release();
    a.net.release();
    ASSERT_TRUE(a.open());
    jVector<unsigned short> two{0, 0};
    ASSERT_TRUE(other.init(two));
    EXPECT_EQ(other.getLocalPorts().count, 2);
}

} // namespace
