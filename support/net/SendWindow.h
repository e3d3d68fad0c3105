#pragma once

#include "support/net/Time.h"

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
    static constexpr std::uint32_t kFloor = 2 * kTrainBytes;
    static constexpr std::uint32_t kCeiling = 12u << 20;

    /// The peer's kernel grants its socket that many bytes.
    void setPeerBuffer(std::uint32_t bytes);

    std::uint64_t size() const { return size_; }

    /// Room for another train while `inFlight` is charged.
    bool open(std::uint64_t inFlight) const { return inFlight < size_; }

    /// Reports that `charge` has been acknowledged; `limited` when sending had stopped because the window was
    /// full.
    void acknowledged(Nanoseconds now, std::uint64_t charge, bool limited, Nanoseconds latestRoundTrip,
                      Nanoseconds leastRoundTrip);
    void lost(Nanoseconds now, std::uint64_t charge);

    /// Wait between the starts of two trains of `bytes`.
    Nanoseconds pace(std::uint32_t bytes, Nanoseconds smoothedRoundTrip) const;

private:
    void endRound(Nanoseconds now);

    std::uint64_t size_ = 4 * kTrainBytes;
    std::uint64_t ceiling_ = kCeiling;
    std::uint64_t roundAcknowledged_ = 0;
    std::uint64_t roundLost_ = 0;
    Nanoseconds roundStart_ = 0;
    bool opening_ = true; ///< doubling each round trip, until the first crowded round
};

} // namespace kor::detail
