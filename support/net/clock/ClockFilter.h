#pragma once

#include "support/net/clock/ClockWindow.h"

#include <cstdint>

namespace kor::detail {

/// The published estimate: piecewise linear in our time, continuous, without a step. As doubles, offsets are
/// exact to a nanosecond while the clocks differ by less than 104 days, and to 64 ns at 30 years.
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
    double halfDelay = 0;     ///< of `bound`: half the least delay forth and back, which no stamp can lessen
    std::uint32_t breaks = 0; ///< how often the line has stepped because a clock had jumped or stood still

    double offsetAt(Nanoseconds now) const; ///< nanoseconds
    double boundAt(Nanoseconds now) const;  ///< nanoseconds
};

/// Offset and skew between a peer's clock and ours, from four-stamp exchanges on any traffic; Envelope.h and
/// docs/clock.md tell the method.
///
/// The first estimate comes after four exchanges, or with the first that comes 40 ms after another. From then
/// on it never steps: differences are slewed away. The bound holds whatever the delays are distributed like;
/// while a clock's rate is being changed by more than a crystal's does, it may fail for some seconds.
///
/// Stamps that would have arrived before they were sent are set aside; when four of them in a row, over at
/// least 10 ms, agree with one another, a clock has jumped or stood still, and they replace everything. Then
/// the line may step, by more than a millisecond; and it steps when it was off by more than the longest
/// delay, which no honest stamps bring about. Stamps may be any 64-bit values: hostile ones make the estimate
/// of the peer that sent them worthless, and nothing else.
///
/// Not thread-safe: belongs to one connection. Reads no clock and allocates nothing.
class ClockFilter {
public:
    /// Samples with a longer round trip, not counting the time the peer held them, are ignored. Nanoseconds;
    /// default 1 s.
    void setMaxDelay(Nanoseconds delay) { maxDelay_ = delay; }

    /// Adds one exchange. Ignored when it is impossible (negative delay, arrival before departure) or took
    /// more than 10 s in all. One stamp of ours may come back many times. Costs about a microsecond.
    void add(const ClockSample& sample);

    /// True while samples that contradict the estimate are set aside: more of them soon would settle it.
    bool doubtful() const { return rival_.samples() != 0; }

    /// The estimate to publish; changes only inside add(). The reference stays valid as long as the filter.
    const ClockEstimate& estimate() const { return line_; }

private:
    void publish(bool broken);

    Nanoseconds maxDelay_ = kSecond;
    ClockWindow window_;
    ClockWindow rival_; // samples that contradict the window, until they are many enough to replace it
    ClockEstimate line_;
    // The line's offset again, but with its whole part apart, so that no rounding adds up.
    Nanoseconds base_ = 0;
    double remainder_ = 0;
};

} // namespace kor::detail
