#pragma once

#include "support/Time.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace kor::detail {

inline double seconds(Nanoseconds duration) {
    return static_cast<double>(duration) * 1e-9;
}

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
    /// each bucket. Returns false when its bucket has a lower point or it is too old.
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

    /// Bound on the error of `offset`.
    double error() const { return std::max(high - offset, offset - low); }
    double slopeError() const { return std::max(slopeHigh - slope, slope - slopeLow); }
};

/// Fits the line that leaves the most room between itself and the points of both directions; docs/clock.md
/// tells why, and from where.
///
/// The bounds cover every line that no point contradicts, so nothing is assumed of the delays. For them a
/// point is worse by `wander` x age^2 / 2, because a clock's rate changes that fast (nanoseconds per second
/// squared). No slope beyond `maxSlope` is looked at.
///
/// Precondition: both hold a point, none of them later than `now`.
EnvelopeFit fitEnvelope(const BucketMinima& forth, const BucketMinima& back, Nanoseconds now, double wander,
                        double maxSlope);

} // namespace kor::detail
