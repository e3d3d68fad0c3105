#include "support/net/clock/Envelope.h"

#include <algorithm>

namespace kor::detail {
namespace {

constexpr Nanoseconds kMaxBucket = 256 * kMillisecond;
constexpr double kStampSlack = 100;     // nanoseconds: stamps and their conversion are hardly better
constexpr double kSlopePrecision = 0.5; // nanoseconds per second
// Clocks are built to run alike, so that a lever of 10 ms turns the line by no more than 100 ppm. Seconds per
// (nanosecond per second).
constexpr double kStiffness = 1e-7;
constexpr double kQuiet = 5'000; // ns: what the delays of a path without queues vary by

/// The points that a line under all points of one direction can touch (Andrew's monotone chain).
class LowerHull {
public:
    struct Touch {
        double value = 0; ///< of the line at the instant of the fit
        double time = 0;  ///< where it touches, seconds before that; at most 0
    };

    LowerHull(const BucketMinima& minima, Nanoseconds now, double wander, double slack) {
        for (const EnvelopePoint& point : minima.points()) {
            const double time = seconds(point.time - now);
            const Touch corner{point.value + wander * time * time / 2 + slack, time};
            while (size_ >= 2 && !turnsUp(corners_[size_ - 2], corners_[size_ - 1], corner))
                --size_;
            corners_[size_++] = corner;
        }
    }

    /// The highest line of this slope under all points.
    Touch touch(double slope) const {
        const auto lineThrough = [&](const Touch& corner) { return corner.value - slope * corner.time; };
        Touch best{lineThrough(corners_[0]), corners_[0].time};
        for (std::size_t i = 1; i != size_; ++i)
            if (const double value = lineThrough(corners_[i]); value < best.value)
                best = {value, corners_[i].time};
        return best;
    }

private:
    static bool turnsUp(const Touch& a, const Touch& b, const Touch& c) {
        return (b.value - a.value) * (c.time - b.time) < (c.value - b.value) * (b.time - a.time);
    }

    std::size_t size_ = 0;
    std::array<Touch, BucketMinima::kMaxPoints> corners_;
};

/// The slope for which the two lines lie furthest apart: their distance is concave, and rises with the slope
/// while the line back touches later than the line forth.
double roomiest(const LowerHull& forth, const LowerHull& back, double maxSlope) {
    double low = -maxSlope;
    double high = maxSlope;
    while (high - low > kSlopePrecision / 4) {
        const double middle = (low + high) / 2;
        const double lever = back.touch(-middle).time - forth.touch(middle).time;
        (lever > kStiffness * middle ? low : high) = middle;
    }
    return (low + high) / 2;
}

/// Last slope from `inside` towards `outside` for which the lines still pass each other, or rather a little
/// beyond.
double lastPassing(const LowerHull& forth, const LowerHull& back, double inside, double outside) {
    const auto passes = [&](double slope) {
        return forth.touch(slope).value + back.touch(-slope).value >= 0;
    };
    if (passes(outside))
        return outside;
    while (std::max(inside - outside, outside - inside) > kSlopePrecision) {
        const double middle = (inside + outside) / 2;
        (passes(middle) ? inside : outside) = middle;
    }
    return outside;
}

/// Least squares over the points of both directions that lie close to the line, with one slope.
class QuietLine {
public:
    explicit QuietLine(Nanoseconds now) : now_(now) {}

    /// `sign` is 1 forth and -1 back; the line passes at `value` now.
    void add(const BucketMinima& minima, double value, double slope, double sign) {
        double count = 0, time = 0, height = 0, square = 0, product = 0;
        for (const EnvelopePoint& point : minima.points()) {
            const double t = seconds(point.time - now_);
            const double above = point.value - value - slope * t;
            if (above > kQuiet)
                continue;
            ++count;
            time += t;
            height += above;
            square += t * t;
            product += t * above;
        }
        enough_ = enough_ && 2 * count >= static_cast<double>(minima.points().size());
        square_ += square - time * time / count;
        product_ += sign * (product - time * height / count);
        offset_ += sign * height / count / 2;
        middle_ += time / count / 2;
    }

    /// False when a direction has delays that vary by more, as those of a queue do: then only the least tell.
    bool quiet() const { return enough_ && square_ > 0; }
    /// What it adds to the line's slope, and to its offset now.
    double slope() const { return product_ / square_; }
    double offset() const { return offset_ - slope() * middle_; }

private:
    Nanoseconds now_;
    bool enough_ = true;
    double square_ = 0;
    double product_ = 0;
    double offset_ = 0;
    double middle_ = 0;
};

} // namespace

bool BucketMinima::add(EnvelopePoint point, double slope) {
    const Nanoseconds bucket = point.time / length_;
    std::size_t at = size_;
    while (at > 0 && points_[at - 1].time / length_ > bucket)
        --at;
    if (at > 0 && points_[at - 1].time / length_ == bucket) {
        EnvelopePoint& kept = points_[at - 1];
        if (point.value >= kept.value + slope * seconds(point.time - kept.time))
            return false;
        kept = point;
        return true;
    }
    if (size_ == kMaxPoints) {
        if (at == 0)
            return false;
        makeRoom(slope);
        return add(point, slope);
    }
    std::move_backward(points_.begin() + static_cast<std::ptrdiff_t>(at),
                       points_.begin() + static_cast<std::ptrdiff_t>(size_),
                       points_.begin() + static_cast<std::ptrdiff_t>(size_ + 1));
    points_[at] = point;
    ++size_;
    return true;
}

void BucketMinima::makeRoom(double slope) {
    if (length_ < kMaxBucket) {
        length_ *= 2;
        const std::array<EnvelopePoint, kMaxPoints> old = points_;
        size_ = 0;
        for (const EnvelopePoint& point : old)
            add(point, slope);
    }
    // Buckets that lie far apart do not merge.
    if (size_ == kMaxPoints)
        dropBefore(points_[1].time);
}

bool BucketMinima::dropBefore(Nanoseconds time) {
    std::size_t old = 0;
    while (old + 1 < size_ && points_[old].time < time)
        ++old;
    std::move(points_.begin() + static_cast<std::ptrdiff_t>(old),
              points_.begin() + static_cast<std::ptrdiff_t>(size_), points_.begin());
    size_ -= old;
    return old != 0;
}

EnvelopeFit fitEnvelope(const BucketMinima& forth, const BucketMinima& back, Nanoseconds now, double wander,
                        double maxSlope) {
    const LowerHull hullForth(forth, now, 0, 0);
    const LowerHull hullBack(back, now, 0, 0);
    EnvelopeFit fit;
    fit.slope = roomiest(hullForth, hullBack, maxSlope);
    const double above = hullForth.touch(fit.slope).value;
    const double below = -hullBack.touch(-fit.slope).value;
    fit.offset = (above + below) / 2;
    fit.delay = above - below;
    const LowerHull agedForth(forth, now, wander, kStampSlack);
    const LowerHull agedBack(back, now, wander, kStampSlack);
    fit.possible = fit.delay >= -2 * kStampSlack;
    fit.slopeLow = -maxSlope;
    fit.slopeHigh = maxSlope;
    if (!fit.possible) {
        const Nanoseconds oldest = std::min(forth.points().front().time, back.points().front().time);
        const double error = maxSlope * seconds(now - oldest) - fit.delay;
        fit.low = fit.offset - error;
        fit.high = fit.offset + error;
        return fit;
    }
    fit.slopeLow = lastPassing(agedForth, agedBack, fit.slope, fit.slopeLow);
    fit.slopeHigh = lastPassing(agedForth, agedBack, fit.slope, fit.slopeHigh);
    // No point is later than the instant of the fit, where the steepest line is the highest.
    fit.high = agedForth.touch(fit.slopeHigh).value;
    fit.low = -agedBack.touch(-fit.slopeLow).value;
    QuietLine quiet(now);
    quiet.add(forth, above, fit.slope, 1);
    quiet.add(back, -below, -fit.slope, -1);
    if (quiet.quiet()) {
        fit.offset = std::clamp(fit.offset + quiet.offset(), fit.low, fit.high);
        fit.slope = std::clamp(fit.slope + quiet.slope(), fit.slopeLow, fit.slopeHigh);
    }
    return fit;
}

} // namespace kor::detail
