#pragma once

#include "support/net/Time.h"

#include <cstdint>
#include <memory>

namespace kor::detail {

/// One exchange with a peer: four stamps.
struct ClockSample {
    Nanoseconds sentHere = 0;      ///< our clock: our datagram left
    Nanoseconds receivedThere = 0; ///< peer's clock: it arrived
    Nanoseconds sentThere = 0;     ///< peer's clock: an answer left (may be long after)
    Nanoseconds receivedHere = 0;  ///< our clock: the answer arrived
};

/// The published estimate: piecewise linear in our time, continuous, without a step. A plain value, so that
/// it can be handed to other threads.
///
/// As doubles, offsets are exact to a nanosecond while the clocks differ by less than 104 days, and to 64 ns
/// at 30 years.
struct ClockEstimate {
    bool known = false;
    Nanoseconds at = 0; ///< our clock, where the line starts
    double offset = 0;  ///< peer minus ours at `at`, nanoseconds
    double rate = 0;    ///< nanoseconds per nanosecond until `slewEnd`
    Nanoseconds slewEnd = 0;
    double rateAfter = 0;     ///< the same from `slewEnd` on
    double skewPpm = 0;       ///< fitted: by how much the peer's clock runs faster than ours
    double bound = 0;         ///< bound on the error at `at`, nanoseconds
    double boundGrowth = 0;   ///< nanoseconds per nanosecond by which the bound grows with age
    std::uint32_t breaks = 0; ///< how often the line has stepped because a clock had jumped or stood still

    double offsetAt(Nanoseconds now) const; ///< nanoseconds
    double boundAt(Nanoseconds now) const;  ///< nanoseconds
};

/// Offset and skew between a peer's clock and ours, from four-stamp exchanges on any traffic.
///
/// What it measures: an exchange bounds the offset from both sides (Cristian, "Probabilistic clock
/// synchronization", 1989), since delays only add. The least-delayed stamps of the last 8 to 16 s are kept,
/// each direction by itself and in buckets (256 ms in the long run), so that a lucky datagram there and
/// another one back tell as much as one exchange lucky both ways, and so that it does not matter how long the
/// peer held a stamp. One line under those there and one of the same slope over those back (see
/// EnvelopeFit.h) give the skew; half-way between them is the offset, as in RFC 5905. What no stamps show is
/// an asymmetry of the least delays: half of it is error, and within the bound. The bound covers every line
/// that no stamp contradicts (see OffsetRange.h): half the least delay, what the skew leaves open, and age
/// times the uncertainty of the skew. It holds whatever the delays are distributed like; while a clock's rate
/// is being changed by more than a crystal's does, it may fail for some seconds. Until some seconds have
/// shown the skew it is taken as 0, give or take 100 ppm.
///
/// What it publishes: the first estimate after four exchanges, or with the first exchange that comes 40 ms
/// after another. Callers that probe every 5 ms until it is known have it within 100 ms even when a fifth of
/// the datagrams is lost. From then on it never steps: differences are slewed away within half a second, at
/// 500 ppm at most; in the first two seconds within a quarter of the time passed, at 2000 ppm at most (33 us
/// per frame of 60 Hz), so that the first, coarse estimates are soon forgotten. Only a difference of over a
/// millisecond, which comes from first exchanges that all were late, goes faster, with a time constant of two
/// seconds: to show wrong frames for minutes would be worse.
///
/// What it withstands: a queue delays stamps and cannot contradict the estimate. Stamps that would have
/// arrived before they were sent do, and are set aside; when four of them in a row, over at least 10 ms,
/// agree with one another, a clock has jumped or stood still, and they replace everything. That is the one
/// case in which the line may step, and only by more than a millisecond. When the rate of a clock changes,
/// because another program steers it, the older half of the points is dropped until a line fits again (as
/// chrony does). Stamps may be any 64-bit values, hostile ones included: they can make the estimate of the
/// peer that sent them worthless, and nothing else.
///
/// Not thread-safe: belongs to one connection. Reads no clock; allocates at construction only.
class ClockFilter {
public:
    ClockFilter();
    ~ClockFilter();

    /// Samples with a longer round trip, not counting the time the peer held them, are ignored. Nanoseconds;
    /// default 1 s.
    void setMaxDelay(Nanoseconds delay);

    /// Adds one exchange. Ignored when it is impossible (negative delay, arrival before departure) or took
    /// more than 10 s in all. One stamp of ours may come back many times. Allocation-free; costs about a
    /// microsecond.
    void add(const ClockSample& sample);

    /// Forgets everything, as after a new connection.
    void reset();

    /// True while samples that contradict the estimate are set aside: more of them soon would settle it.
    bool doubtful() const;

    /// The estimate to publish; changes only inside add() and reset(). The reference stays valid as long as
    /// the filter.
    const ClockEstimate& estimate() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kor::detail
