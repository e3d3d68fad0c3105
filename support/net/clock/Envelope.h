#pragma once

#include "support/Time.h"

#include <array>
#include <cstddef>
#include <span>

namespace kor::detail {

/// What one datagram tells of the offset: a time and, forth, the peer's arrival stamp minus our departure
/// stamp, or, back, our arrival stamp minus the peer's departure stamp. Either is the offset, or minus the
/// offset, and a delay on top.
struct EnvelopePoint {
    Nanoseconds time = 0;
    double value = 0; ///< nanoseconds
};

/// The lowest point of each bucket of time in one direction, the newest 64 buckets that hold one.
///
/// Buckets begin 4 ms long, so that the first burst of probes tells of the slope. Whenever all are taken, two
/// become one, until they are 256 ms long and 16 s are kept. Constant memory.
class BucketMinima {
public:
    static constexpr std::size_t kMaxPoints = 64;

    /// "Lowest" is over a line of this slope, in nanoseconds per second: a skew would else favour one end of
    /// each bucket. Returns false when the point is not kept, because its bucket has a lower one or it is too
    /// old.
    bool add(EnvelopePoint point, double slope);

    /// Drops what is before `time`, but never the newest point. Returns whether something was dropped.
    bool dropBefore(Nanoseconds time);

    /// By time, oldest first.
    std::span<const EnvelopePoint> points() const { return {points_.data(), size_}; }
    /// Changes when a new bucket begins. Meaningless while empty.
    Nanoseconds newestBucket() const { return size_ == 0 ? 0 : points_[size_ - 1].time / length_; }

private:
    void makeRoom(double slope);

    Nanoseconds length_ = 4 * kMillisecond;
    std::size_t size_ = 0;
    std::array<EnvelopePoint, kMaxPoints> points_;
};

/// The offset as a line through the instant of the fit, and how far off it may be.
struct EnvelopeFit {
    double offset = 0; ///< at that instant, nanoseconds
    double low = 0;    ///< least and greatest offset that no point contradicts
    double high = 0;
    double slope = 0;    ///< nanoseconds per second
    double slopeLow = 0; ///< least and greatest slope that no point contradicts
    double slopeHigh = 0;
    double delay = 0;     ///< forth and back, the least that the line leaves
    bool possible = true; ///< false when the points contradict each other: then nothing is certain

    double error() const; ///< bound on the error of `offset`
    double slopeError() const;
};

/// Fits the line that leaves the most room between itself and the points of both directions.
///
/// Delays only ever add, so the offset lies below the points forth and above those back with their sign
/// turned (Cristian, "Probabilistic clock synchronization", 1989), and a lucky point tells more than a
/// hundred late ones. The line with the widest margin to both is the middle of the two parallel lines that
/// lie furthest apart, as in Huygens (Geng and others, NSDI 2018), whose support vector machine has two
/// dimensions too; a line under one-way delays is from Moon, Skelly and Towsley (INFOCOM 1999). A direction
/// that is loaded has few points near the line and hardly turns it.
///
/// The bounds cover every line that no point contradicts, so nothing is assumed of the delays. For them a
/// point is worse by `wander` x age^2 / 2, because a clock's rate changes that fast (nanoseconds per second
/// squared). No slope beyond `maxSlope` is looked at.
///
/// Precondition: both hold a point, none of them later than `now`.
EnvelopeFit fitEnvelope(const BucketMinima& forth, const BucketMinima& back, Nanoseconds now, double wander,
                        double maxSlope);

} // namespace kor::detail
