#pragma once

#include "support/net/EnvelopeFit.h"
#include "support/net/Time.h"

#include <array>
#include <cstddef>

namespace kor::detail {

/// Least values of one direction: the lowest point of each bucket of time, the newest 64 buckets that hold
/// one.
///
/// Buckets begin 4 ms long, so that a connection's first volley tells of the skew; when all are taken, two
/// become one, until they are 256 ms long. From then on 16 s are kept, longer when points come rarely, but
/// never over 64 s. "Lowest" is over a line of the slope that is known so far, else a skew of 100 ppm would
/// favour one end of each bucket. Constant memory.
class BucketMinima {
public:
    static constexpr Nanoseconds kOldest = 64 * kSecond;
    static constexpr Nanoseconds kFresh = 16 * kSecond; ///< younger points are taken as they are
    static constexpr Nanoseconds kShortestBucket = 4 * kMillisecond;
    static constexpr Nanoseconds kLongestBucket = 256 * kMillisecond;

    /// Empties it. Times are counted from `origin` from now on.
    void reset(Nanoseconds origin);

    /// `slope` is the direction's own, in nanoseconds per second. Returns false when the point is not kept,
    /// because its bucket has a lower one or it is too old.
    bool add(Nanoseconds time, double value, double slope);

    /// Drops what is before `time`, but never the newest point. Returns whether something was dropped.
    bool dropBefore(Nanoseconds time);

    /// Makes buckets short again, as in the beginning: what they hold shall tell of a new slope.
    void refine();

    /// Writes the points relative to `now`. From kFresh on their pad grows with `wander`, nanoseconds per
    /// second squared.
    std::size_t copyTo(std::array<EnvelopePoint, kMaxEnvelopePoints>& out, Nanoseconds now,
                       double wander) const;

    std::size_t size() const { return size_; }
    /// Which bucket is the newest; changes when a new one begins. Meaningless while empty.
    Nanoseconds newestBucket() const { return size_ == 0 ? 0 : points_[size_ - 1].bucket; }
    Nanoseconds bucketLength() const { return bucketLength_; }
    Nanoseconds oldestTime() const { return points_[0].time; } ///< not while empty

private:
    struct Point {
        Nanoseconds bucket = 0;
        Nanoseconds time = 0;
        double value = 0;
    };

    Nanoseconds bucketOf(Nanoseconds time) const;
    void makeRoom(double slope);
    void dropFront(std::size_t count);

    Nanoseconds origin_ = 0;
    Nanoseconds bucketLength_ = kShortestBucket;
    std::size_t size_ = 0;
    std::array<Point, kMaxEnvelopePoints> points_; // by bucket, oldest first
};

} // namespace kor::detail
