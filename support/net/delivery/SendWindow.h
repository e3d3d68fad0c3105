#pragma once

#include "support/Time.h"

#include <cstdint>

namespace kor::detail {

/// How much one connection may have in flight, and how soon the next train may follow.
///
/// Made for wired clusters: it opens fast, keeps at least one train in flight, and never lets more fly than
/// half of what the peer's kernel can hold, so that a peer which stops reading loses nothing. It narrows when
/// a round trip loses more than a twentieth (a link that is full, not a stray loss) and stops widening when
/// queues lengthen the round trip. Not thread-safe: belongs to one connection.
class SendWindow {
public:
    static constexpr std::uint32_t kTrainBytes = 64u << 10;
    /// What a datagram costs the kernel that receives it, beyond its bytes.
    static constexpr std::uint32_t kDatagramOverhead = 768;
    static constexpr std::uint32_t kMinSize = 2 * kTrainBytes;
    static constexpr std::uint32_t kMaxSize = 12u << 20;

    /// `peerBufferBytes`: what the peer's kernel grants its socket.
    SendWindow(std::uint32_t peerBufferBytes, Nanoseconds now);

    std::uint64_t size() const { return size_; }

    /// Room for another train while `inFlight` is charged.
    bool open(std::uint64_t inFlight) const { return inFlight < size_; }

    /// When the next train may leave while `inFlight` is charged; kNow when it is a tail probe, kNever while
    /// the window is full.
    Nanoseconds nextTrain(std::uint64_t inFlight) const;

    /// The next datagram with data is a tail probe, which may exceed the window.
    void beginTailProbe() { state_ = State::probing; }
    void endTailProbe() { state_ = state_ == State::probing ? State::open : state_; }

    /// Sending has paused: because the window is full, or for want of data.
    void paused(bool full);

    /// A train with `bytes` of datagrams leaves at `now`; the next one waits its turn.
    void trainLeft(Nanoseconds now, std::size_t bytes, Nanoseconds smoothedRoundTrip);

    void acknowledged(Nanoseconds now, std::uint64_t charge, Nanoseconds latestRoundTrip,
                      Nanoseconds leastRoundTrip);
    void lost(Nanoseconds now, std::uint64_t charge);

private:
    enum class State : std::uint8_t { open, full, probing };

    void endRound(Nanoseconds now);

    Nanoseconds nextTrain_;
    std::uint64_t maxSize_;
    std::uint64_t size_;
    std::uint64_t roundAcknowledged_ = 0;
    std::uint64_t roundLost_ = 0;
    Nanoseconds roundStart_ = 0;
    bool opening_ = true; ///< doubling each round trip, until the first crowded round
    State state_ = State::open;
};

} // namespace kor::detail
