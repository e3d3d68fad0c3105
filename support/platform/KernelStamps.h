#pragma once

#include "support/Time.h"

namespace kor::detail {

/// The system's wall clock, which the kernel stamps datagrams with. Somebody may set it at any time.
Nanoseconds wallClockNow();

/// Two clocks read at nearly the same moment.
struct ClockPair {
    /// Our clock, the end of the bracket: what is converted may come out late by the bracket's width and
    /// never early, like any other delay. An arrival before the departure would contradict the peer's clock.
    Nanoseconds ours = 0;
    Nanoseconds wall = 0;    ///< the wall clock
    Nanoseconds bracket = 0; ///< width of the bracket of our clock around the reading of the wall clock
};

/// Reads both clocks, again when the thread was interrupted in between.
ClockPair readClockPair();

/// Turns the kernel's wall-clock arrival stamps into times of our clock.
///
/// Both clocks run at one rate, within 100 ppm if the application has set a clock of its own, so a difference
/// that changes by more means that the wall clock was set; stamps are then distrusted for as long as older
/// ones may still come. Not thread-safe: belongs to one socket.
class KernelStamps {
public:
    /// Stamps older than this, or younger than now, are taken for wrong. Datagrams may well wait for seconds
    /// while the machine is overloaded or the process stopped, and their stamps are worth most then.
    static constexpr Nanoseconds kMaxAge = 10 * kSecond;

    /// To be called with fresh readings after each batch was taken in, so that no stamp of it is younger.
    void update(const ClockPair& now);

    /// Our clock at the last `update`.
    Nanoseconds now() const { return now_.ours; }

    /// Time of our clock at which the wall clock showed `stamp`; the time of the last `update` when the stamp
    /// is not to be trusted. Never later than that.
    Nanoseconds arrival(Nanoseconds stamp) const;

    /// False for a stamp that arrival() does not use.
    bool trusts(Nanoseconds stamp) const;

private:
    ClockPair now_;
    Nanoseconds distrustUntil_ = INT64_MIN;
    bool started_ = false;
};

} // namespace kor::detail
