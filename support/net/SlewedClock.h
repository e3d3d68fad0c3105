#pragma once

#include "support/net/ClockFilter.h"

namespace kor::detail {

/// Turns a sequence of fitted lines into one that never steps: each new one starts where the old one stands
/// and takes the difference away at a bounded rate.
class SlewedClock {
public:
    /// A fitted line at one instant.
    struct Target {
        Nanoseconds base = 0;  ///< whole part of peer minus ours, nanoseconds
        double rest = 0;       ///< what is to be added to it
        double slope = 0;      ///< nanoseconds per second
        double bound = 0;      ///< nanoseconds
        double slopeError = 0; ///< nanoseconds per second
    };

    void reset();

    /// Difference between the line now and a target, in nanoseconds: by how much the line must rise. Only
    /// while known.
    double behind(Nanoseconds now, const Target& target) const;

    /// Starts the line on the target.
    void start(Nanoseconds now, const Target& target);

    /// The same while there is a line already: counted as a break.
    void step(Nanoseconds now, const Target& target);

    /// Turns the line towards the target. A difference goes within `time`, or later when it is so large that
    /// it would need more than `maxRate` (both greater than 0; nanoseconds; nanoseconds per nanosecond).
    void slew(Nanoseconds now, const Target& target, Nanoseconds time, double maxRate);

    const ClockEstimate& estimate() const { return estimate_; }

private:
    double restAt(Nanoseconds now) const;
    void publish(Nanoseconds now, const Target& target, double rest);

    // The estimate again, but with the offset's whole part apart, so that no rounding adds up.
    Nanoseconds base_ = 0;
    double rest_ = 0;
    ClockEstimate estimate_;
};

} // namespace kor::detail
