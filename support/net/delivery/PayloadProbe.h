#pragma once

#include "support/Time.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kor::detail {

/// Finds the largest datagram that the path to a peer carries, without ever relying on fragmentation.
///
/// Starts at what a 1500-byte link carries and tries larger sizes with padded probes, largest first, as in
/// RFC 8899; a size counts when a probe of it has been acknowledged. When larger datagrams stop arriving
/// while smaller ones get through, it falls back to the smallest size and searches upward from there; what
/// has once got through is tried again every minute. Not thread-safe: belongs to one connection.
class PayloadProbe {
public:
    static constexpr std::uint32_t kStart = 1472;

    /// `limit`: largest datagram that both sides take, at least 548.
    PayloadProbe(std::uint32_t limit, Nanoseconds now);

    std::uint32_t payload() const { return sizes_[current_]; }

    /// Time of the next probe; kNever when there is none or one is in flight.
    Nanoseconds nextProbe() const { return pending_ ? kNever : due_; }
    std::uint32_t candidate() const { return sizes_[candidate_]; }

    void sent() { pending_ = true; }
    void acknowledged(Nanoseconds now, std::uint32_t size);
    void lost(Nanoseconds now, std::uint32_t size);

    /// A datagram with data has been acknowledged.
    void arrived(std::uint32_t size);
    /// One is taken for lost, and the peer has been heard since it left. True when this has made the payload
    /// smaller: larger datagrams still in flight are lost, too.
    bool missed(Nanoseconds now, std::uint32_t size);

    /// The system refused a datagram of that size.
    void refused(Nanoseconds now, std::uint32_t size);

private:
    /// Losses that mean a narrower path, when nothing as large gets through meanwhile.
    static constexpr int kBlackHole = 6;

    void nextCandidate(Nanoseconds now);
    void endSearch(Nanoseconds now);
    std::size_t largestBelow(std::uint32_t size) const;

    std::vector<std::uint32_t> sizes_; ///< ascending
    std::size_t current_ = 0;
    std::size_t candidate_ = 0;
    int tries_ = 0;
    bool pending_ = false;
    Nanoseconds due_ = kNever;
    std::size_t proved_ = 0; ///< largest size that has ever got through
    int missed_ = 0;         ///< since one as large as leastMissed_ arrived
    std::uint32_t leastMissed_ = UINT32_MAX;
};

} // namespace kor::detail
