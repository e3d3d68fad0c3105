#include "support/net/OffsetRange.h"

#include <algorithm>
#include <array>

namespace kor::detail {
namespace {

constexpr double kStampSlack = 100;   // nanoseconds: stamps and their conversion are hardly better
constexpr double kSlopePrecision = 1; // nanoseconds per second
constexpr int kMaxSteps = 32;

/// Points of one direction, each as much worse as its age makes it.
class AgedPoints {
public:
    AgedPoints(std::span<const EnvelopePoint> points, double wander) : count_(points.size()) {
        for (std::size_t i = 0; i != count_; ++i) {
            points_[i] = points[i];
            const double worse = wander * points[i].time * points[i].time / 2;
            points_[i].pad = std::max(points[i].pad, worse) + kStampSlack;
        }
    }
    std::span<const EnvelopePoint> span() const { return {points_.data(), count_}; }

private:
    std::size_t count_;
    std::array<EnvelopePoint, kMaxEnvelopePoints> points_;
};

/// Last slope from `inside` towards `outside` for which both lines still pass each other.
double lastPassing(const LowerEnvelope& up, const LowerEnvelope& down, double inside, double outside) {
    const auto passes = [&](double slope) { return up.touch(slope).value + down.touch(slope).value >= 0; };
    if (passes(outside))
        return outside;
    for (int i = 0; i != kMaxSteps && std::max(inside - outside, outside - inside) > kSlopePrecision; ++i) {
        const double middle = inside + (outside - inside) / 2;
        (passes(middle) ? inside : outside) = middle;
    }
    return outside; // rather a little too far
}

/// The slope between the two for which the lines pass each other with the most room.
double roomiest(const LowerEnvelope& up, const LowerEnvelope& down, double low, double high) {
    for (int i = 0; i != kMaxSteps && high - low > kSlopePrecision; ++i) {
        const double middle = low + (high - low) / 2;
        (down.touch(middle).time - up.touch(middle).time > 0 ? low : high) = middle;
    }
    return low + (high - low) / 2;
}

/// Greatest height of the line, as a function of the slope: concave, with the time of the touching point as
/// its derivative.
double highest(const LowerEnvelope& envelope, double sign, double low, double high) {
    for (int i = 0; i != kMaxSteps && high - low > kSlopePrecision; ++i) {
        const double middle = low + (high - low) / 2;
        (-sign * envelope.touch(middle).time > 0 ? low : high) = middle;
    }
    // The maximum lies between the two, where the lines that touch at either end meet.
    const LowerEnvelope::Touch left = envelope.touch(low);
    const LowerEnvelope::Touch right = envelope.touch(high);
    const double width = high - low;
    return std::min(left.value + std::max(0.0, -sign * left.time) * width,
                    right.value + std::max(0.0, sign * right.time) * width);
}

} // namespace

std::optional<OffsetRange> offsetRange(std::span<const EnvelopePoint> there,
                                       std::span<const EnvelopePoint> back, double guess, double slopeLow,
                                       double slopeHigh, double wander) {
    const AgedPoints upper(there, wander);
    const AgedPoints lower(back, wander);
    const LowerEnvelope up(upper.span(), 1);
    const LowerEnvelope down(lower.span(), -1);
    const auto room = [&](double slope) { return up.touch(slope).value + down.touch(slope).value; };
    const double possible = room(guess) >= 0 ? guess : roomiest(up, down, slopeLow, slopeHigh);
    if (room(possible) < 0)
        return std::nullopt;
    OffsetRange range;
    range.slopeLow = lastPassing(up, down, possible, slopeLow);
    range.slopeHigh = lastPassing(up, down, possible, slopeHigh);
    range.high = highest(up, 1, range.slopeLow, range.slopeHigh);
    range.low = -highest(down, -1, range.slopeLow, range.slopeHigh);
    return range;
}

} // namespace kor::detail
