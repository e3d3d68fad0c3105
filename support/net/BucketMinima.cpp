#include "support/net/BucketMinima.h"

#include <algorithm>

namespace kor::detail {
namespace {

double seconds(Nanoseconds duration) {
    return static_cast<double>(duration) * 1e-9;
}

} // namespace

void BucketMinima::reset(Nanoseconds origin) {
    origin_ = origin;
    bucketLength_ = kShortestBucket;
    size_ = 0;
}

Nanoseconds BucketMinima::bucketOf(Nanoseconds time) const {
    const Nanoseconds since = elapsed(time, origin_);
    return since >= 0 ? since / bucketLength_ : -1 - (-1 - since) / bucketLength_;
}

bool BucketMinima::add(Nanoseconds time, double value, double slope) {
    if (size_ > 0 && elapsed(points_[size_ - 1].time, time) > kOldest)
        return false;
    const Nanoseconds bucket = bucketOf(time);
    std::size_t at = size_;
    while (at > 0 && points_[at - 1].bucket > bucket)
        --at;
    if (at > 0 && points_[at - 1].bucket == bucket) {
        Point& kept = points_[at - 1];
        if (value >= kept.value + slope * seconds(elapsed(time, kept.time)))
            return false;
        kept = {bucket, time, value};
        return true;
    }
    if (size_ == points_.size()) {
        if (at == 0)
            return false;
        makeRoom(slope);
        return add(time, value, slope);
    }
    std::move_backward(points_.begin() + static_cast<std::ptrdiff_t>(at),
                       points_.begin() + static_cast<std::ptrdiff_t>(size_),
                       points_.begin() + static_cast<std::ptrdiff_t>(size_ + 1));
    points_[at] = {bucket, time, value};
    ++size_;
    return true;
}

void BucketMinima::makeRoom(double slope) {
    if (bucketLength_ >= kLongestBucket) {
        dropFront(1);
        return;
    }
    bucketLength_ *= 2;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < size_; ++i) {
        Point point = points_[i];
        point.bucket = bucketOf(point.time);
        if (kept == 0 || points_[kept - 1].bucket != point.bucket) {
            points_[kept++] = point;
            continue;
        }
        Point& other = points_[kept - 1];
        if (point.value < other.value + slope * seconds(elapsed(point.time, other.time)))
            other = point;
    }
    // Buckets that lie far apart do not merge.
    if (kept == size_)
        dropFront(1);
    else
        size_ = kept;
}

void BucketMinima::dropFront(std::size_t count) {
    std::move(points_.begin() + static_cast<std::ptrdiff_t>(count),
              points_.begin() + static_cast<std::ptrdiff_t>(size_), points_.begin());
    size_ -= count;
}

bool BucketMinima::dropBefore(Nanoseconds time) {
    std::size_t old = 0;
    while (old + 1 < size_ && elapsed(points_[old].time, time) < 0)
        ++old;
    if (old == 0)
        return false;
    dropFront(old);
    return true;
}

void BucketMinima::refine() {
    bucketLength_ = kShortestBucket;
    for (std::size_t i = 0; i < size_; ++i)
        points_[i].bucket = bucketOf(points_[i].time);
}

std::size_t BucketMinima::copyTo(std::array<EnvelopePoint, kMaxEnvelopePoints>& out, Nanoseconds now,
                                 double wander) const {
    for (std::size_t i = 0; i < size_; ++i) {
        const double time = seconds(elapsed(points_[i].time, now));
        const double beyond = std::max(0.0, -time - seconds(kFresh));
        out[i] = {time, points_[i].value, wander * beyond * beyond / 2};
    }
    return size_;
}

} // namespace kor::detail
