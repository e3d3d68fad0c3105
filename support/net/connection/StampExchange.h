#pragma once

#include "support/net/clock/ClockFilter.h"
#include "support/net/wire/Datagram.h"
#include "support/Time.h"

#include <optional>

namespace kor::detail {

/// Exchanges clock stamps with the peer: says when ours is due, echoes the peer's, and measures its clock.
/// Not thread-safe: belongs to one connection.
class StampExchange {
public:
    /// Round trips over `maxDelay` tell nothing about the clock.
    StampExchange(Nanoseconds maxDelay, Nanoseconds now);

    void setMaxDelay(Nanoseconds maxDelay) { filter_.setMaxDelay(maxDelay); }

    /// The peer's stamp arrived. True once its clock has been measured.
    bool take(const TimeFrame& time, Nanoseconds arrival);
    /// The peer wants a stamp of ours at once.
    void answer() { answerWanted_ = true; }

    /// True when a datagram that leaves at `now` is to carry a stamp.
    bool due(Nanoseconds now) const;
    /// Our stamp, which leaves at `now`.
    TimeFrame stamp(Nanoseconds now);

    const ClockEstimate& clock() const { return filter_.estimate(); }

private:
    Nanoseconds interval(Nanoseconds now) const;

    struct PeerStamp {
        Nanoseconds sent = 0; ///< peer's clock
        Nanoseconds arrival = 0;
    };

    Nanoseconds lastSent_;
    Nanoseconds settledAt_; ///< from then on stamps may be rarer
    bool clockKnown_ = false;
    bool answerWanted_ = false;
    std::optional<PeerStamp> newest_;
    ClockFilter filter_;
};

} // namespace kor::detail
