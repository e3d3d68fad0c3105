#pragma once

#include "support/net/BucketMinima.h"
#include "support/net/ClockFilter.h"
#include "support/net/EnvelopeFit.h"

namespace kor::detail {

/// One belief about a peer's clock: the best points of both directions and the line through them.
///
/// Offsets are kept as whole nanoseconds `base()` and a small rest, so that they lose nothing whatever the
/// clocks show.
class ClockWindow {
public:
    void reset();

    /// True when the sample cannot be true together with the line: stamps that would have arrived before they
    /// were sent, by more than the line may be wrong. Queues never cause that, they only delay. False while
    /// empty.
    bool contradicts(const ClockSample& sample) const;

    /// Adds a sample. Returns true when the line has changed.
    bool add(const ClockSample& sample);

    bool empty() const { return samples_ == 0; }
    int samples() const { return samples_; } ///< with stamps of their own both ways, at most 1000
    Nanoseconds age() const { return elapsed(newest_, first_); } ///< from the first sample to the newest
    Nanoseconds newest() const { return newest_; }               ///< our clock at the newest sample's arrival

    Nanoseconds base() const { return base_; }
    /// Peer minus ours minus base(), in nanoseconds.
    double restAt(Nanoseconds now) const;
    double boundAt(Nanoseconds now) const;
    double slope() const { return fit_.slope; }           ///< nanoseconds per second
    double slopeError() const { return fit_.slopeError; } ///< the same

private:
    double there(const ClockSample& sample) const;
    double back(const ClockSample& sample) const;
    void refit();
    /// True unless clean exchanges contradict the line, although each point for itself allows it.
    bool isStraight() const;
    Nanoseconds span() const; ///< from the oldest point kept to the newest sample
    bool dropBefore(Nanoseconds time);
    bool dropOlderHalf(); ///< false when little is left
    SlopePrior prior() const;

    Nanoseconds base_ = 0;
    Nanoseconds first_ = 0;
    Nanoseconds newest_ = 0;
    Nanoseconds lastSent_ = 0;
    int samples_ = 0;
    BucketMinima there_;
    BucketMinima back_;
    BucketMinima delays_; // of whole exchanges, to judge the fit by
    Nanoseconds fittedAt_ = 0;
    EnvelopeFit fit_;
    bool stale_ = false; // a point has come that moves the fit
    // What a long window last said of the slope, for the time after a silence that no point outlives.
    bool slopeLearned_ = false;
    Nanoseconds slopeLearnedAt_ = 0;
    double learnedSlope_ = 0;
    double learnedSlopeError_ = 0;
};

} // namespace kor::detail
