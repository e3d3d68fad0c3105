#pragma once

#include "support/net/clock/Envelope.h"

#include <cstdint>

namespace kor::detail {

/// One exchange with a peer: four stamps.
struct ClockSample {
    Nanoseconds sentHere = 0;      ///< our clock: our datagram left
    Nanoseconds receivedThere = 0; ///< peer's clock: it arrived
    Nanoseconds sentThere = 0;     ///< peer's clock: an answer left (may be long after)
    Nanoseconds receivedHere = 0;  ///< our clock: the answer arrived
};

/// One belief about a peer's clock: the best points of both directions and the line through them.
///
/// Offsets are kept as whole nanoseconds `base()` and a small remainder, so that they lose nothing whatever
/// the clocks show.
class ClockWindow {
public:
    /// True when the sample cannot be true together with the line: stamps that would have arrived before they
    /// were sent, by more than the line may be wrong. Queues never cause that, they only delay. False while
    /// empty.
    bool contradicts(const ClockSample& sample) const;

    /// Adds a sample. Returns true when the line has changed.
    bool add(const ClockSample& sample);

    std::int64_t samples() const { return samples_; }    ///< with stamps of their own both ways
    Nanoseconds age() const { return newest_ - first_; } ///< from the first sample to the newest
    Nanoseconds newest() const { return newest_; }       ///< our clock at the newest sample's arrival

    Nanoseconds base() const { return base_; }
    double remainderAt(Nanoseconds now) const; ///< peer minus ours minus base(), nanoseconds
    double boundAt(Nanoseconds now) const;
    double halfDelay() const { return fit_.delay / 2; }
    double slope() const { return fit_.slope; } ///< nanoseconds per second
    double slopeError() const { return fit_.slopeError(); }

private:
    double forth(const ClockSample& sample) const;
    double back(const ClockSample& sample) const;
    Nanoseconds span() const;
    bool dropBefore(Nanoseconds time);
    bool isBent() const;
    void refit();

    Nanoseconds base_ = 0;
    Nanoseconds first_ = 0;
    Nanoseconds newest_ = 0;
    Nanoseconds lastSent_ = 0;
    std::int64_t samples_ = 0;
    BucketMinima forth_;
    BucketMinima back_;
    BucketMinima delays_; // of whole exchanges, to judge the fit by
    Nanoseconds fittedAt_ = 0;
    EnvelopeFit fit_;
    bool stale_ = false; // a point has come that moves the fit
};

} // namespace kor::detail
