// Strangers flood the socket of a running connection with forged handshakes.

#include "support/net/Datagram.h"
#include "tests/ReplacedNew.h"
#include "tests/Sanitized.h"
#include "tests/unit/ConnectionFixture.h"
#include "tests/unit/UdpSocketFixture.h"

#include <support/jTimer.h>
#include <support/memInfo.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <thread>

namespace kor::testing_support {
namespace {

using detail::Nanoseconds;

constexpr std::int64_t kRequests = 200'000;      // that reach the process; the kernel may drop others
constexpr std::uint64_t kForgedCookies = 4000;   // beside them
constexpr std::int64_t kOwnHandshake = 100;      // more than the connection itself may have taken
constexpr std::uint64_t kPackets = 300;          // that go to and fro meanwhile
constexpr std::uint64_t kUnderWay = 32;          // of these at a time
constexpr std::int64_t kMoreBytes = 1 << 20;     // of containers, and of packets under way
constexpr std::int64_t kMoreResident = 32 << 20; // also pages that the allocator keeps
constexpr int kTimeout = 60'000;                 // ms; on a busy machine the default may pass without a turn

/// Asks for connections from many ports, and now and then returns a cookie that nobody has made.
class Flood {
public:
    explicit Flood(std::uint16_t port) : to_{detail::kLoopback, port} {
        detail::UdpSocketOptions options;
        options.receiveBufferBytes = options.sendBufferBytes = 0;
        for (detail::UdpSocket& socket : sockets_)
            EXPECT_TRUE(socket.open(0, options)) << socket.error();
    }

    /// Sends some from the next port.
    void burst() {
        for (std::size_t i = 0; i != kBurst; ++i) {
            const std::span<std::uint8_t> bytes(bytes_[i]);
            if (i % 32 == 0)
                detail::writeResponse(bytes, random_(), random_(), detail::clockNow(), {});
            else
                detail::writeRequest(bytes, random_());
            datagrams_[i] = {to_, bytes};
        }
        std::size_t sent = 0;
        sockets_[next_++ % sockets_.size()].sendBatch(datagrams_, sent);
    }

    /// Challenges in answer to the requests; anything else is a fault.
    std::size_t takeChallenges() {
        std::size_t count = 0;
        for (detail::UdpSocket& socket : sockets_)
            while (socket.receive(batch_) != 0)
                for (const detail::ReceivedRun& run : batch_)
                    for (std::size_t i = 0; i != run.datagramCount(); ++i, ++count) {
                        EXPECT_EQ(decodeDatagram(run.datagram(i), decoded_), detail::DecodeError::none);
                        EXPECT_EQ(decoded_.header.kind, detail::DatagramKind::challenge);
                    }
        return count;
    }

private:
    static constexpr std::size_t kBurst = 64;

    detail::SocketAddress to_;
    std::array<detail::UdpSocket, 64> sockets_;
    std::array<std::array<std::uint8_t, detail::kHandshakeBytes>, kBurst> bytes_{};
    std::array<detail::OutDatagram, kBurst> datagrams_;
    detail::ReceiveBatch batch_;
    detail::DecodedDatagram decoded_;
    std::mt19937_64 random_{1};
    std::size_t next_ = 0;
};

/// Looks at one side's estimate of the other's clock again and again. Both are in one process: the truth is
/// 0.
class ClockWatch {
public:
    explicit ClockWatch(RTUser& peer) : peer_(peer) {}

    void look() {
        const Nanoseconds before = detail::clockNow();
        const ConnectionStatistics clock = peer_.getStatistics();
        ASSERT_NE(clock.timeOffset, -1e9);
        ASSERT_LE(std::abs(clock.timeOffset), clock.timeOffsetBound) << "milliseconds";
        // A step is of more than a millisecond; what is slewed goes a few thousandths as fast as time.
        const double passed = static_cast<double>(detail::clockNow() - lastLook_) * 1e-6;
        ASSERT_TRUE(lastLook_ == 0 || std::abs(clock.timeOffset - lastOffset_) < 0.5 + 0.01 * passed)
            << lastOffset_ << " ms, " << passed << " ms later " << clock.timeOffset << " ms";
        lastLook_ = before;
        lastOffset_ = clock.timeOffset;
    }

private:
    RTUser& peer_;
    Nanoseconds lastLook_ = 0;
    double lastOffset_ = 0;
};

std::int64_t residentBytes() {
    std::int64_t all = 0;
    std::int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

std::string packetText(std::uint64_t index) {
    return text(1 + index * 7919 % 6000, static_cast<unsigned>(index));
}

/// The parameter: how many peers the flooded side takes. With one its table is full.
class RequestFlood : public testing::TestWithParam<std::uint32_t> {
protected:
    void SetUp() override {
        NetOptions options;
        options.maxPeers = GetParam();
        options.receiveBufferBytes = 64u << 10; // overflows, so that the connection loses datagrams, too
        b.net.setOptions(options);
        for (Side* side : {&a, &b}) {
            side->recorder.keepsPackets = false;
            side->net.setTimeoutTime(kTimeout);
            ASSERT_TRUE(side->open());
        }
        a.recorder.packetHook = [this](RTUser*, Packet* packet) {
            const std::string expected = packetText(echoed);
            wrong += std::string_view(reinterpret_cast<char*>(packet->data), packet->size) != expected;
            ++echoed;
        };
        b.recorder.packetHook = [](RTUser* user, Packet* packet) {
            user->sendAsyn(packet->data, static_cast<int>(packet->size));
        };
        a.net.connect(jString("127.0.0.1"), b.port(), 1000, 60);
        ASSERT_TRUE(a.recorder.awaitEvents({"connect"}));
        ASSERT_TRUE(b.recorder.awaitEvents({"connect"}));
    }

    /// Keeps some packets on their way.
    void carry() {
        for (; sent - echoed < kUnderWay; ++sent) {
            const std::string bytes = packetText(sent);
            ASSERT_NE(a.recorder.user->sendAsyn(bytes.data(), static_cast<int>(bytes.size())),
                      RTUser::kRefused);
        }
    }

    /// Of all that `b` had received by then: at least so many requests.
    std::int64_t requests(const NetStatistics& then) {
        const std::uint64_t others = b.recorder.user->getStatistics().datagramsReceived + then.badCookies;
        return static_cast<std::int64_t>(then.datagramsReceived) - static_cast<std::int64_t>(others);
    }

    std::uint64_t sent = 0;
    std::atomic<std::uint64_t> echoed{0};
    std::atomic<int> wrong{0};
    Side a; // connects
    Side b; // is flooded, and sends every packet back
};

TEST_P(RequestFlood, LeavesARunningConnectionAlone) {
    const auto clockKnown = [](Side& side) { return side.recorder.user->getTimeOffset() != -1e9; };
    const Nanoseconds deadline = detail::clockNow() + 200 * detail::kSecond;
    while (echoed < 1000 || !clockKnown(a) || !clockKnown(b)) {
        ASSERT_LT(detail::clockNow(), deadline);
        ASSERT_NO_FATAL_FAILURE(carry());
        std::this_thread::yield();
    }

    Flood flood(b.port());
    ClockWatch aboutB(*a.recorder.user);
    ClockWatch aboutA(*b.recorder.user);
    const std::uint64_t echoedBefore = echoed;
    const std::int64_t bytesBefore = liveBytes;
    const std::int64_t residentBefore = residentBytes();
    std::int64_t mostBytes = 0;
    std::uint64_t mostPacketBytes = 0;
    NetStatistics statistics;
    while (requests(statistics) < kRequests || statistics.badCookies < kForgedCookies ||
           echoed - echoedBefore < kPackets) {
        ASSERT_LT(detail::clockNow(), deadline)
            << requests(statistics) << " requests, " << echoed << " packets";
        ASSERT_NO_FATAL_FAILURE(carry());
        for (int i = 0; i != 16; ++i)
            flood.burst();
        ASSERT_NO_FATAL_FAILURE(aboutA.look());
        ASSERT_NO_FATAL_FAILURE(aboutB.look());
        statistics = b.net.getStatistics();
        ASSERT_EQ(statistics.connections, 1u);
        mostBytes = std::max(mostBytes, liveBytes - bytesBefore);
        mostPacketBytes = std::max(mostPacketBytes, memReport().liveBytes);
    }
    const std::int64_t moreResident = residentBytes() - residentBefore;

    EXPECT_TRUE(a.recorder.await([&] { return echoed == sent; })) << echoed << " of " << sent;
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(a.recorder.awaitEvents({"connect"}));
    EXPECT_TRUE(b.recorder.awaitEvents({"connect"}));
    EXPECT_LT(mostBytes, kMoreBytes);
    EXPECT_LT(mostPacketBytes, static_cast<std::uint64_t>(kMoreBytes));
    // Sanitizers keep books and freed blocks of their own.
    EXPECT_TRUE(kSanitized || moreResident < kMoreResident) << moreResident;

    // All that came was well-formed, and each was either answered, refused or found to be forged.
    const bool full = GetParam() == 1;
    EXPECT_EQ(flood.takeChallenges() == 0, full);
    EXPECT_EQ(statistics.malformed.badFrame + statistics.malformed.checksum +
                  statistics.malformed.unknownConnection + statistics.malformed.overLimit,
              0u);
    if (full) {
        EXPECT_GE(statistics.refusedConnections, static_cast<std::uint64_t>(kRequests - kOwnHandshake));
    } else {
        EXPECT_EQ(statistics.refusedConnections, 0u);
        Side late;
        ASSERT_TRUE(late.open());
        late.net.connect(jString("127.0.0.1"), b.port(), 1000, 60);
        EXPECT_TRUE(late.recorder.awaitEvents({"connect"}));
    }
}

INSTANTIATE_TEST_SUITE_P(OfTable, RequestFlood, testing::Values(1024u, 1u),
                         [](const auto& test) { return std::string(test.param == 1 ? "Full" : "WithRoom"); });

} // namespace
} // namespace kor::testing_support
