#include "simulator/Random.h"
#include "support/net/connection/Connection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace kor::simulation {

namespace {

using detail::Connection;

/// Both ends of a connection and a bad path between them.
class Ends {
public:
    explicit Ends(std::uint64_t seed) : random_(seed), loss_(random_.uniform(0, 0.4)) {
        delay_ = random_.between(10, 20'000) * kMicrosecond;
        for (std::size_t i = 0; i != ends_.size(); ++i) {
            detail::ConnectionConfig config;
            config.initiator = i == 0;
            config.mine = config.theirs = {kMaxPacket, 4 * kMaxPacket, 1u << 20, detail::kMaxDatagramBytes};
            config.firstRoundTrip = random_.between(0, 2) * delay_;
            ends_[i] = std::make_unique<Connection>(config, now_);
            ends_[i]->send(detail::Block::allocate(10));
            if (random_.chance(0.3)) // one that the other side does not take, in the same datagram
                ends_[i]->send(detail::Block::allocate(2 * kMaxPacket));
        }
    }

    void run() {
        for (int step = 0; step != 2000 && !over_; ++step) {
            const Nanoseconds arrival = wire_.empty() ? kNever : wire_.begin()->first;
            const Nanoseconds wake = std::min(ends_[0]->nextWake(), ends_[1]->nextWake());
            now_ = std::min({wake, arrival, now_ + random_.between(0, 10) * delay_});
            for (; !wire_.empty() && wire_.begin()->first <= now_; wire_.erase(wire_.begin()))
                arrive(wire_.begin()->second.first, wire_.begin()->second.second);
            if (random_.chance(0.2))
                act(*ends_[random_.below(2)]);
            for (std::size_t i = 0; i != ends_.size() && !over_; ++i)
                poll(i);
        }
    }

private:
    static constexpr std::uint32_t kMaxPacket = 100'000;

    void arrive(std::size_t to, const std::vector<std::uint8_t>& bytes) {
        ASSERT_EQ(decodeDatagram(bytes, datagram_), detail::DecodeError::none);
        ends_[to]->onDatagram(datagram_, now_, bytes.size(), events_);
        for (; !events_.empty(); events_.pop())
            if (events_.front().kind == detail::NetEvent::Kind::packet)
                ends_[to]->consumed(now_, events_.front().bytes.size());
    }

    void act(Connection& connection) {
        switch (random_.below(8)) {
        default:
            return connection.send(detail::Block::allocate(random_.size(1, kMaxPacket)));
        case 5:
            return connection.onTooBig(now_, random_.size(500, detail::kMaxDatagramBytes));
        case 6:
            return connection.forgiveSilence(now_);
        case 7:
            return connection.setTimes(
                {random_.between(10, 4000) * kMillisecond, random_.between(1, 500) * kMillisecond}, now_);
        }
    }

    void poll(std::size_t from) {
        Connection& connection = *ends_[from];
        over_ = connection.timedOut(now_);
        while (!over_) {
            const bool due = connection.nextWake() <= now_;
            const detail::Train train = connection.poll(now_, buffer_);
            if (!due) {
                EXPECT_EQ(train.bytes, 0u) << "sends before anything is due";
                return;
            }
            if (train.bytes == 0) {
                EXPECT_GT(connection.nextWake(), now_) << "is due and does nothing";
                return;
            }
            for (std::size_t at = 0; at < train.bytes; at += train.segment) {
                const std::size_t size = std::min(train.segment, train.bytes - at);
                if (!random_.chance(loss_) && size < 9000)
                    wire_.emplace(
                        now_ + random_.between(delay_ / 2, 2 * delay_),
                        std::pair{1 - from, std::vector<std::uint8_t>(
                                                buffer_.begin() + static_cast<std::ptrdiff_t>(at),
                                                buffer_.begin() + static_cast<std::ptrdiff_t>(at + size))});
            }
        }
    }

    Random random_;
    double loss_;
    Nanoseconds delay_;
    Nanoseconds now_ = kSecond;
    bool over_ = false;
    std::array<std::unique_ptr<Connection>, 2> ends_;
    std::multimap<Nanoseconds, std::pair<std::size_t, std::vector<std::uint8_t>>> wire_;
    detail::DecodedDatagram datagram_;
    detail::Ring<detail::NetEvent> events_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(64u << 10);
};

} // namespace

/// Who is woken in vain is woken again at once, and spins.
TEST(Timers, AWakeThatIsDueDoesSomethingAndNothingHappensBefore) {
    for (std::uint64_t seed = 1; seed <= 300 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Ends(seed).run();
    }
}

} // namespace kor::simulation
