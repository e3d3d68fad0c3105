#include <support/SocketUDP.h>

#include "support/platform/UdpSocket.h"

#include <gtest/gtest.h>
#include <support/jTimer.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

namespace kor {
namespace {

constexpr double kPatienceSeconds = 30;

class SocketUDPTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(receiver.create() && receiver.bind(0) && receiver.nonblock());
        ASSERT_TRUE(sender.create() && sender.nonblock());
        sender.setSendIP("127.0.0.1");
        sender.setSendPort(receiver.getLocalPort());
    }

    void send(const std::string& text) {
        ASSERT_EQ(sender.write(text.data(), 1, static_cast<int>(text.size())), static_cast<int>(text.size()));
    }

    /// Reads until something comes; 0 only when nothing does for long.
    int read(void* room, int size, int count) {
        for (const double end = jTimer::getTimeSecond() + kPatienceSeconds; jTimer::getTimeSecond() < end;
             std::this_thread::yield()) {
            if (const int got = receiver.read(room, size, count); got > 0)
                return got;
        }
        return 0;
    }

    /// The next datagram's text; empty only when none comes for long.
    std::string next() {
        std::string room(70'000, ' ');
        room.resize(static_cast<std::size_t>(read(room.data(), 1, static_cast<int>(room.size()))));
        return room;
    }

    int readNow() {
        char byte = 0;
        return receiver.read(&byte, 1, 1);
    }

    SocketUDP receiver;
    SocketUDP sender;
};

TEST(SocketUDPClosed, EverythingFails) {
    SocketUDP socket;
    char byte = 0;
    EXPECT_FALSE(socket.isOpened());
    EXPECT_FALSE(socket.bind(0));
    EXPECT_FALSE(socket.nonblock());
    EXPECT_FALSE(socket.recv(0));
    EXPECT_FALSE(socket.recv(1024));
    EXPECT_EQ(socket.getLocalPort(), 0);
    EXPECT_EQ(socket.read(&byte, 1, 1), 0);
    socket.setSendIP("127.0.0.1");
    socket.setSendPort(9);
    EXPECT_EQ(socket.write(&byte, 1, 1), 0);
    EXPECT_EQ(socket.getRecvIP(), "");
    socket.release();
}

TEST_F(SocketUDPTest, PortsAreCheckedAndNeverShared) {
    SocketUDP other;
    ASSERT_TRUE(other.create());
    for (const int port : {-1, 65536, INT_MIN, INT_MAX, receiver.getLocalPort()})
        EXPECT_FALSE(other.bind(port)) << port;
    EXPECT_TRUE(other.isOpened());
    const int port = receiver.getLocalPort();
    receiver.release();
    receiver.release();
    EXPECT_FALSE(receiver.isOpened());
    EXPECT_EQ(receiver.getLocalPort(), 0);
    EXPECT_EQ(readNow(), 0);
    ASSERT_TRUE(receiver.create() && receiver.bind(0));
    EXPECT_FALSE(receiver.bind(0)); // bound already
    EXPECT_GT(port, 0);
}

TEST_F(SocketUDPTest, ReadsOneDatagramAtATime) {
    EXPECT_EQ(readNow(), 0);
    send("first");
    send("the second one");
    EXPECT_EQ(next(), "first");
    EXPECT_EQ(receiver.getRecvIP(), "127.0.0.1");
    EXPECT_EQ(next(), "the second one");
    EXPECT_EQ(readNow(), 0);
}

TEST_F(SocketUDPTest, BroadcastArrives) {
    sender.setSendIP("127.255.255.255");
    send("announcement");
    EXPECT_EQ(next(), "announcement");
}

TEST_F(SocketUDPTest, CountsElementsAndCutsWhatDoesNotFit) {
    std::array<char, 16> room{};
    ASSERT_EQ(sender.write("abcdefghij", 5, 2), 2);
    ASSERT_EQ(sender.write("abcdefghij", 1, 10), 10);
    ASSERT_EQ(sender.write("end", 1, 3), 3);
    EXPECT_EQ(read(room.data(), 4, 4), 2); // ten bytes: two elements and a half
    EXPECT_EQ(read(room.data(), 2, 3), 3);
    EXPECT_EQ(std::string(room.data(), 6), "abcdef");
    EXPECT_EQ(next(), "end"); // what was cut off is gone
}

TEST_F(SocketUDPTest, BadArgumentsReadAndWriteNothing) {
    std::array<char, 4> room{};
    send("data");
    for (const auto& [size, count] : {std::pair{0, 1}, {1, 0}, {-1, -1}, {1, -1}, {INT_MIN, INT_MIN}}) {
        EXPECT_EQ(receiver.read(room.data(), size, count), 0);
        EXPECT_EQ(sender.write(room.data(), size, count), 0);
    }
    EXPECT_EQ(receiver.read(nullptr, 1, 4), 0);
    EXPECT_EQ(sender.write(nullptr, 1, 4), 0);
    EXPECT_EQ(sender.write(room.data(), INT_MAX, INT_MAX), 0);
    EXPECT_EQ(sender.write(room.data(), 1, 65508), 0);
    EXPECT_FALSE(receiver.recv(-1));
    for (const char* ip :
         {"", "nonsense", "1.2.3", "1.2.3.4.5", "256.0.0.1", "127.0.0.1 ", "::1", "0.0.0.0"}) {
        sender.setSendIP(ip);
        EXPECT_EQ(sender.write(room.data(), 1, 1), 0) << ip;
    }
    sender.setSendIP("127.0.0.1");
    for (const int port : {0, -1, 65536, 65536 + receiver.getLocalPort()}) {
        sender.setSendPort(port);
        EXPECT_EQ(sender.write(room.data(), 1, 1), 0) << port;
    }
    EXPECT_EQ(next(), "data"); // none of the reads took it
}

TEST_F(SocketUDPTest, EmptyDatagramsHideNothing) {
    detail::UdpSocket raw;
    ASSERT_TRUE(raw.open(0, {}));
    auto sendEmpty = [&](const SocketUDP& to, int count) {
        const detail::SocketAddress address{0x7F000001, static_cast<std::uint16_t>(to.getLocalPort())};
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(raw.send(address, {}), detail::SendResult::sent);
    };
    // One read passes over them: a socket that waits shows it.
    SocketUDP blocking;
    ASSERT_TRUE(blocking.create() && blocking.bind(0));
    sender.setSendPort(blocking.getLocalPort());
    sendEmpty(blocking, 3);
    send("x");
    char byte = 0;
    EXPECT_EQ(blocking.read(&byte, 1, 1), 1);

    // Over so many that one call may give up, the next ones go on.
    ASSERT_TRUE(receiver.recv(1 << 20));
    sender.setSendPort(receiver.getLocalPort());
    sendEmpty(receiver, 600);
    send("behind them");
    EXPECT_EQ(next(), "behind them");
    EXPECT_EQ(readNow(), 0);
}

TEST_F(SocketUDPTest, TakesTheLargestDatagram) {
    ASSERT_TRUE(receiver.recv(200'000));
    const std::string large(65507, 'x');
    send(large);
    EXPECT_EQ(next(), large);
}

TEST_F(SocketUDPTest, WhatCameBeforeReceptionOpenedIsNeverRead) {
    // Nothing of what was queued at the first call, what was queued before reception shut, or what came while
    // it was shut.
    send("before the first");
    ASSERT_TRUE(receiver.recv(1024));
    EXPECT_EQ(readNow(), 0);
    for (int i = 0; i < 100; ++i)
        send("before shutting"); // fills the buffer: left there, it would keep the last one out
    ASSERT_TRUE(receiver.recv(0));
    EXPECT_EQ(readNow(), 0);
    for (int i = 0; i < 100; ++i)
        send("while shut");
    EXPECT_EQ(readNow(), 0);
    ASSERT_TRUE(receiver.recv(0));
    send("while shut twice");
    ASSERT_TRUE(receiver.recv(1024));
    send("after");
    EXPECT_EQ(next(), "after");
    EXPECT_EQ(readNow(), 0);
}

TEST_F(SocketUDPTest, ShutReceptionNeverBlocks) {
    SocketUDP blocking;
    ASSERT_TRUE(blocking.create() && blocking.bind(0) && blocking.recv(0));
    char byte = 0;
    EXPECT_EQ(blocking.read(&byte, 1, 1), 0);
}

/// The promise while somebody sends without a pause: what is read after `recv` was sent after the call began.
TEST_F(SocketUDPTest, ReceptionOpensAfreshInAFlood) {
    std::atomic<unsigned> sent{0};
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop) {
            const unsigned number = ++sent;
            sender.write(&number, sizeof number, 1);
        }
    });
    for (int round = 0; round < 100; ++round) {
        if (round % 2 == 0)
            EXPECT_TRUE(receiver.recv(0));
        const unsigned begun = sent;
        EXPECT_TRUE(receiver.recv(1024));
        const std::string bytes = next();
        ASSERT_EQ(bytes.size(), sizeof(unsigned));
        unsigned number = 0;
        std::memcpy(&number, bytes.data(), sizeof number);
        EXPECT_GE(number, begun);
    }
    stop = true;
    flood.join();
}

} // namespace
} // namespace kor
