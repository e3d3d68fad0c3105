// Peers that hold a connection and break every rule: what they cost stays bounded.

#include "support/net/connection/Endpoint.h"

#include "tests/ReplacedNew.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace kor::detail {
namespace {

using testing_support::liveBytes;

constexpr std::int64_t kMegabyte = 1 << 20;
const RTAddr kAttackerAddr(0x0A000002, 666);

/// The attacked process, and one attacker who has been let in.
class Attack : public testing::Test, private DatagramSink {
protected:
    Attack() {
        EndpointConfig config;
        config.mine = {64u << 20, 72u << 20, 8u << 20, 65507};
        config.maxPeers = 8;
        config.cookieSecret = {1, 2};
        config.random = [this] { return ++lastRandom_; };
        victim_.emplace(std::move(config), now_);
    }

    /// Goes through the handshake; the connection's serial.
    std::uint64_t connect(const RTAddr& from, std::uint64_t nonce) {
        inject(from, writeRequest(bytes_, nonce));
        poll();
        inject(from, writeResponse(bytes_, nonce, answer_.cookie, answer_.cookieTime,
                                   {64u << 20, 72u << 20, 8u << 20, 1472}));
        poll();
        connectionId_ = victim_->find(victim_->serialOf(from.getKey()))->config().connectionId;
        number_ = 1;
        return victim_->serialOf(from.getKey());
    }

    void inject(const RTAddr& from, std::size_t size) {
        victim_->onDatagram(0, from, {bytes_.data(), size}, now_);
    }

    /// A data datagram from the attacker.
    void data(const std::function<void(DatagramWriter&)>& fill) {
        DatagramWriter writer(bytes_, connectionId_, true, number_++);
        fill(writer);
        inject(kAttackerAddr, writer.finish());
    }

    /// Pieces of one byte, 64 in a datagram. `next` gives one, or none.
    void pieces(std::size_t count, const std::function<FragmentFrame(std::size_t)>& next) {
        for (std::size_t i = 0; i < count;)
            data([&](DatagramWriter& writer) {
                for (; i < count && writer.addFragment(next(i)); ++i) {
                }
            });
    }

    /// Lets the victim send whatever it likes for a while.
    void poll() {
        now_ += 10 * kMicrosecond;
        for (int i = 0; i != 64 && victim_->nextWake() <= now_; ++i)
            victim_->poll(now_, train_, *this, 1);
    }

    const Connection& connection() { return *victim_->find(victim_->serialOf(kAttackerAddr.getKey())); }

    NetStatistics statistics() {
        NetStatistics all;
        victim_->addStatistics(all);
        return all;
    }

    std::optional<Endpoint> victim_;
    Nanoseconds now_ = 100 * kSecond;
    std::uint32_t number_ = 1;
    std::uint64_t connectionId_ = 0;
    DecodedDatagram answer_; ///< newest datagram from the victim
    std::uint64_t sent_ = 0; ///< by the victim
    std::vector<std::uint8_t> bytes_ = std::vector<std::uint8_t>(65507);

private:
    bool send(const OutgoingDatagrams& outgoing) override {
        sent_ += (outgoing.bytes.size() + outgoing.segment - 1) / outgoing.segment;
        EXPECT_EQ(
            decodeDatagram(outgoing.bytes.first(std::min(outgoing.segment, outgoing.bytes.size())), answer_),
            DecodeError::none);
        return true;
    }

    std::vector<std::uint8_t> train_ = std::vector<std::uint8_t>(64u << 10);
    std::uint64_t lastRandom_ = 1000;
};

const std::array<std::uint8_t, 1400> kBytes{};

std::span<const std::uint8_t> some(std::size_t count) {
    return {kBytes.data(), count};
}

} // namespace

TEST_F(Attack, AnnouncedPacketsCostLittle) {
    connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    // All packets that may be begun, each said to be of 64 MiB, and one byte of each.
    pieces(6000, [](std::size_t i) {
        return FragmentFrame{static_cast<std::uint32_t>(1 + i), 64u << 20, 0, some(1)};
    });
    EXPECT_LE(connection().heldBytes(), 72u << 20);
    EXPECT_LE(liveBytes() - before, kMegabyte);
    EXPECT_GT(statistics().malformed.overLimit, 0u);
}

TEST_F(Attack, GapsCostLittle) {
    connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    // As many holes as a packet may have, in every packet.
    for (std::uint32_t id = 1; id <= 4096; ++id)
        pieces(1100, [id](std::size_t i) {
            return FragmentFrame{id, 4000, static_cast<std::uint32_t>(2 * i), some(1)};
        });
    EXPECT_LE(connection().heldBytes(), 72u << 20);
    EXPECT_LE(liveBytes() - before, 2 * kMegabyte);
    EXPECT_GT(statistics().malformed.overLimit, 0u);
    // And the packets arrive all the same once they come whole.
    for (std::uint32_t id = 1; id <= 4096; ++id)
        for (const std::uint32_t offset : {0u, 1000u, 2000u, 3000u})
            data([&](DatagramWriter& writer) { writer.addFragment({id, 4000, offset, some(1000)}); });
    std::uint64_t packets = 0;
    for (; !victim_->events().empty(); victim_->events().pop())
        packets += victim_->events().front().kind == NetEvent::Kind::packet ? 1 : 0;
    EXPECT_EQ(packets, 4096u);
}

TEST_F(Attack, ARefusedPieceHidesNoWholePacket) {
    const std::uint64_t serial = connect(kAttackerAddr, 1);
    data([](DatagramWriter& writer) {
        writer.addFragment({1, 10, 0, some(10)});
        writer.addFragment({2, (64u << 20) + 1, 0, some(10)}); // larger than the largest packet
    });
    while (victim_->events().front().kind != NetEvent::Kind::packet)
        victim_->events().pop();
    EXPECT_EQ(victim_->events().front().bytes.size(), 10u);
    victim_->consumed(serial, 10, now_);
    EXPECT_EQ(statistics().malformed.overLimit, 1u);
    EXPECT_EQ(connection().heldBytes(), 0u);
}

TEST_F(Attack, ANumberFromBeforeTheFirstIsDroppedAndDrawsNoSpinning) {
    connect(kAttackerAddr, 1);
    for (const std::uint32_t number : {0u, 0xFFFFFFFFu, 0x80000002u}) {
        number_ = number;
        data([](DatagramWriter& writer) { writer.addFragment({1, 10, 0, some(10)}); });
    }
    EXPECT_EQ(statistics().malformed.badFrame, 3u);
    EXPECT_EQ(connection().statistics(now_).packetsReceived, 0u);
    int polls = 0;
    const Nanoseconds end = now_ + kSecond;
    while (now_ < end) {
        now_ = std::max(now_ + 1, victim_->nextWake());
        poll();
        ++polls;
    }
    EXPECT_LT(polls, 1000);
}

TEST_F(Attack, JumpingNumbersCostNothing) {
    connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    std::uint64_t seed = 1;
    for (int i = 0; i != 100'000; ++i) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        number_ = i % 3 == 0 ? number_ + 0x7FFFFFFF : static_cast<std::uint32_t>(seed >> 33);
        data([](DatagramWriter& writer) { writer.addPing(); });
        if (i % 16 == 0)
            poll();
    }
    EXPECT_LE(liveBytes() - before, kMegabyte);
    EXPECT_LT(sent_, 20'000u); // one acknowledgement for what came together
    EXPECT_EQ(statistics().connections, 1u);
}

TEST_F(Attack, TheNewestStampIsEchoedAcrossTheWrapOfAForeignClock) {
    connect(kAttackerAddr, 1);
    for (const Nanoseconds stamp : {INT64_MAX - 2, INT64_MIN + 1, INT64_MAX - 1})
        data([&](DatagramWriter& writer) {
            writer.addTime({stamp, false, 0, 0});
            writer.addPing();
        });
    poll();
    ASSERT_TRUE(answer_.time);
    EXPECT_EQ(answer_.time->echoSent, INT64_MIN + 1);
}

TEST_F(Attack, AcknowledgementsOfWhatWasNeverSentAreRefused) {
    connect(kAttackerAddr, 1);
    for (const std::uint32_t last : {5000u, 0x7FFFFFFFu, 0x90000000u, 0u, 0xFFFFFFFFu})
        data([&](DatagramWriter& writer) {
            AckFrame ack;
            ack.rangeCount = 1;
            ack.ranges[0] = {last, 1};
            writer.addAck(ack);
        });
    EXPECT_EQ(statistics().malformed.badFrame, 5u);
    EXPECT_EQ(connection().statistics(now_).packetsDelivered, 0u);
}

TEST_F(Attack, APeerThatConsumesAndNeverAcknowledgesIsNotRecordedForEver) {
    const std::uint64_t serial = connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    std::uint32_t consumed = 0;
    std::int64_t most = 0;
    // Tiny packets, 64 in a datagram; the peer says that it has them and leaves the oldest datagrams open.
    for (int i = 0; i != 4000; ++i) {
        for (int n = 0; n != 256; ++n)
            victim_->send(serial, Block::allocate(1));
        for (int n = 0; n != 8; ++n)
            poll();
        consumed += 256;
        data([&](DatagramWriter& writer) {
            AckFrame ack;
            ack.delayMicroseconds = 0;
            ack.consumed = consumed;
            ack.rangeCount = 1;
            ack.ranges[0] = {answer_.number, 1};
            writer.addAck(ack);
        });
        for (; !victim_->events().empty(); victim_->events().pop()) {
        }
        most = std::max(most, liveBytes() - before);
    }
    EXPECT_LE(most, 16 * kMegabyte);
    EXPECT_LE(connection().sentLog().recorded(), 65536u);
    EXPECT_LE(connection().sentLog().recordedPieces(), 4u * 65536u);
}

TEST_F(Attack, AStalledApplicationIsNotBuriedInEvents) {
    connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    // The application takes no event, while a peer sends stamps …
    for (int i = 0; i != 200'000; ++i)
        data([&](DatagramWriter& writer) { writer.addTime({i * kMicrosecond, true, now_ - 10'000, i}); });
    EXPECT_LE(liveBytes() - before, kMegabyte);
    // … and connects anew as fast as it can.
    for (std::uint64_t nonce = 2; nonce != 200'000; ++nonce) {
        now_ += kMicrosecond;
        inject(kAttackerAddr, writeRequest(bytes_, nonce));
        poll();
        inject(kAttackerAddr,
               writeResponse(bytes_, nonce, answer_.cookie, answer_.cookieTime, {1000, 1000, 1000, 1472}));
    }
    EXPECT_LE(liveBytes() - before, 32 * kMegabyte);
    EXPECT_GT(statistics().refusedConnections, 10'000u);
    EXPECT_EQ(statistics().connections, 1u);
}

TEST_F(Attack, AStalledApplicationIsNotBuriedByAPeerThatItConnectsTo) {
    victim_->connect(kAttackerAddr, kSecond, 3, now_);
    const std::int64_t before = liveBytes();
    for (int i = 0; i != 150'000; ++i) { // accepts and denies it, as fast as it can
        poll();
        const std::uint64_t nonce = answer_.header.connectionId;
        inject(kAttackerAddr, writeChallenge(bytes_, nonce, 1, now_));
        poll();
        inject(kAttackerAddr, writeAccept(bytes_, nonce, 5, {1000, 1000, 1000, 1472}));
        inject(kAttackerAddr, writeReset(bytes_, 5, false));
    }
    EXPECT_LE(victim_->events().size(), (1u << 18) + 1);
    EXPECT_LE(liveBytes() - before, 32 * kMegabyte);
    EXPECT_GT(statistics().refusedConnections, 0u);
    // When the application goes on, so does the attempt.
    for (; !victim_->events().empty(); victim_->events().pop()) {
    }
    now_ += kSecond;
    poll();
    const std::uint64_t nonce = answer_.header.connectionId;
    inject(kAttackerAddr, writeChallenge(bytes_, nonce, 1, now_));
    poll();
    inject(kAttackerAddr, writeAccept(bytes_, nonce, 5, {1000, 1000, 1000, 1472}));
    EXPECT_EQ(statistics().connections, 1u);
}

TEST_F(Attack, ACookieIsGoodForOneAddressOneNonceAndOneConnection) {
    inject(kAttackerAddr, writeRequest(bytes_, 7));
    poll();
    const std::uint64_t cookie = answer_.cookie;
    const Nanoseconds time = answer_.cookieTime;
    const ConnectionParameters any{1000, 1000, 1000, 1472};
    const RTAddr otherPort(kAttackerAddr.getIP(), 667);
    const RTAddr otherHost(kAttackerAddr.getIP() + 1, 666);
    inject(otherPort, writeResponse(bytes_, 7, cookie, time, any));
    inject(otherHost, writeResponse(bytes_, 7, cookie, time, any));
    inject(kAttackerAddr, writeResponse(bytes_, 8, cookie, time, any));
    inject(kAttackerAddr, writeResponse(bytes_, 7, cookie, time + 1, any));
    inject(kAttackerAddr, writeResponse(bytes_, 7, cookie ^ 1, time, any));
    EXPECT_EQ(statistics().badCookies, 5u);
    EXPECT_EQ(statistics().connections, 0u);
    inject(kAttackerAddr, writeResponse(bytes_, 7, cookie, time, any));
    EXPECT_EQ(statistics().connections, 1u);
    now_ += 11 * kSecond; // too old for any further use
    inject(kAttackerAddr, writeResponse(bytes_, 7, cookie, time, any));
    EXPECT_EQ(statistics().badCookies, 6u);
}

TEST_F(Attack, AFloodOfRequestsLeavesNothing) {
    connect(kAttackerAddr, 1);
    const std::int64_t before = liveBytes();
    std::int64_t most = 0;
    for (std::uint32_t i = 0; i != 200'000; ++i) {
        inject(RTAddr(0xC0A80000u + i / 60'000, static_cast<std::uint16_t>(1 + i % 60'000)),
               i % 10 == 0 ? writeResponse(bytes_, i, i, now_, {}) : writeRequest(bytes_, i));
        if (i % 1000 == 999)
            poll(); // most requests find the queue of answers full
        most = std::max(most, liveBytes() - before);
    }
    EXPECT_LE(most, kMegabyte);
    EXPECT_LE(sent_, 200u * 512 + 10) << "answers wait, but not all";
    EXPECT_EQ(statistics().connections, 1u);
    EXPECT_EQ(statistics().badCookies, 20'000u);
}

TEST_F(Attack, AddressesThatComeAndGoAreForgotten) {
    std::int64_t before = 0;
    Ring<NetEvent> events;
    for (std::uint32_t i = 0; i != 20'000; ++i) {
        if (i == 100)
            before = liveBytes();
        const RTAddr from(0xC0A80000u + i / 60'000, static_cast<std::uint16_t>(1 + i % 60'000));
        connect(from, i + 1);
        DatagramWriter writer(bytes_, connectionId_, true, number_++);
        writer.addClose();
        inject(from, writer.finish());
        victim_->takeEvents(events);
        while (!events.empty())
            events.pop();
    }
    EXPECT_EQ(statistics().connections, 0u);
    EXPECT_LE(liveBytes() - before, kMegabyte / 4);
}

} // namespace kor::detail
