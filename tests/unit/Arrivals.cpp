// What an endpoint says of each datagram that arrives: whether what follows may wait.

#include "support/net/Endpoint.h"
#include "tests/WireSink.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace {

using namespace kor;
using namespace kor::detail;
using Arrived = Endpoint::Arrived;

constexpr Nanoseconds kStep = 100 * kMicrosecond;

struct Side final : testing_support::WireSink {
    Side(const RTAddr& own, std::uint64_t seed) : addr(own), endpoint(config(seed), 0) {}

    static EndpointConfig config(std::uint64_t seed) {
        EndpointConfig result;
        result.mine = {1u << 20, 2u << 20, 1u << 20, 1472};
        result.cookieSecret = {seed, seed};
        result.random = [seed]() mutable { return ++seed; };
        result.maxPeers = 4;
        return result;
    }
    void poll(Nanoseconds now) {
        endpoint.poll(now, buffer, *this, 8);
        while (!endpoint.events().empty()) {
            const NetEvent event = std::move(endpoint.events().front());
            endpoint.events().pop();
            if (event.kind == NetEvent::Kind::connected)
                serial = event.serial;
            if (event.kind == NetEvent::Kind::packet)
                endpoint.handedUp(event.serial, event.bytes.size(), now);
            delivered += event.kind == NetEvent::Kind::delivered ? 1 : 0;
        }
    }

    RTAddr addr;
    Endpoint endpoint;
    std::uint64_t serial = 0;
    int delivered = 0;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(64 << 10);
};

/// What the datagram is to whoever has received all before it.
Arrived expected(const std::vector<std::uint8_t>& bytes) {
    DecodedDatagram datagram;
    EXPECT_EQ(decodeDatagram(bytes, datagram), DecodeError::none);
    if (datagram.header.kind != DatagramKind::data)
        return Arrived::other;
    if (datagram.fragmentCount == 0)
        return datagram.wantsAck() ? Arrived::other : Arrived::report;
    const FragmentFrame& last = datagram.fragments[datagram.fragmentCount - 1];
    const std::size_t missing = last.packetSize - last.offset - last.bytes.size();
    return missing >= Endpoint::kMidPacketBytes && !datagram.ping ? Arrived::midPacket : Arrived::other;
}

class Arrivals : public testing::Test {
protected:
    /// Time passes until `done`, and everything arrives at once and in order.
    template <typename Done>
    void runUntil(Done done) {
        for (int steps = 0; !done(); ++steps, now_ += kStep) {
            ASSERT_LT(steps, 10'000);
            for (Side* from : {&a_, &b_}) {
                from->poll(now_);
                Side& to = from == &a_ ? b_ : a_;
                for (; !from->wire.empty(); from->wire.pop_front()) {
                    const Arrived arrived = to.endpoint.onDatagram(0, from->addr, from->wire.front(), now_);
                    ASSERT_EQ(arrived, expected(from->wire.front()));
                    ++seen_[static_cast<std::size_t>(arrived)];
                }
            }
        }
    }

    Nanoseconds now_ = kSecond;
    Side a_{RTAddr(0x0A000001, 1), 1};
    Side b_{RTAddr(0x0A000002, 2), 1000};
    std::array<int, 3> seen_{};
};

TEST_F(Arrivals, OnlyPiecesOfAPacketThatLacksMuchAndMereReportsMayBeWaitedFor) {
    a_.endpoint.connect(b_.addr, kSecond, 3, now_);
    runUntil([&] { return a_.serial != 0 && b_.serial != 0; });
    EXPECT_EQ(seen_[static_cast<std::size_t>(Arrived::midPacket)], 0);
    // The second lacks less than the limit from its first piece on.
    int packets = 0;
    for (const std::uint32_t size : {300'000u, Endpoint::kMidPacketBytes, 100u}) {
        seen_ = {};
        const std::vector<char> bytes(size, 'x');
        a_.endpoint.send(a_.serial, Block::copyOf(bytes.data(), size));
        ++packets;
        runUntil([&] { return a_.delivered == packets; });
        EXPECT_EQ(seen_[static_cast<std::size_t>(Arrived::midPacket)] != 0, size == 300'000u);
        EXPECT_NE(seen_[static_cast<std::size_t>(Arrived::other)], 0);
        EXPECT_NE(seen_[static_cast<std::size_t>(Arrived::report)], 0);
    }
    // Pings of the peer at rest, and what a stranger sends.
    runUntil([&, end = now_ + kSecond] { return now_ >= end; });
    a_.endpoint.send(a_.serial, Block::copyOf(std::vector<char>(300'000, 'x').data(), 300'000));
    a_.poll(now_);
    ASSERT_FALSE(a_.wire.empty());
    EXPECT_EQ(b_.endpoint.onDatagram(0, RTAddr(0x0A000003, 3), a_.wire.front(), now_), Arrived::other);
}

} // namespace
