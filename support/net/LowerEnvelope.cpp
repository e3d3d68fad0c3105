#include "support/net/LowerEnvelope.h"

#include <algorithm>
#include <numbers>

namespace kor::detail {
namespace {

constexpr double kLeastNoise = 100;    // nanoseconds: stamps themselves are hardly better
constexpr double kTypicalNoise = 2000; // nanoseconds: assumed until the points show theirs
constexpr double kTypicalWeight = 4;   // points that this assumption counts for
constexpr double kWithin = 4;          // multiples of the noise: one clean point in fifty lies beyond

double height(const EnvelopePoint& point) {
    return point.value + point.pad;
}

bool turnsUp(const EnvelopePoint& a, const EnvelopePoint& b, const EnvelopePoint& c) {
    return (height(b) - height(a)) * (c.time - b.time) < (height(c) - height(b)) * (b.time - a.time);
}

} // namespace

LowerEnvelope::LowerEnvelope(std::span<const EnvelopePoint> points, double sign)
    : points_(points), sign_(sign) {
    // A line under all points touches their lower hull, which is a few points only (Andrew's monotone chain).
    for (const EnvelopePoint& point : points) {
        while (hullSize_ >= 2 && !turnsUp(hull_[hullSize_ - 2], hull_[hullSize_ - 1], point))
            --hullSize_;
        hull_[hullSize_++] = point;
    }
}

double LowerEnvelope::intercept(const EnvelopePoint& point, double slope) const {
    return height(point) - sign_ * slope * point.time;
}

LowerEnvelope::Touch LowerEnvelope::touch(double slope) const {
    Touch best{intercept(hull_[0], slope), hull_[0].time};
    for (std::size_t i = 1; i < hullSize_; ++i) {
        const double value = intercept(hull_[i], slope);
        if (value < best.value)
            best = {value, hull_[i].time};
    }
    return best;
}

void LowerEnvelope::measure(double slope) {
    std::array<double, kMaxEnvelopePoints> excess{};
    const double lowest = touch(slope).value;
    for (std::size_t i = 0; i < points_.size(); ++i)
        excess[i] = intercept(points_[i], slope) - lowest;
    std::array<double, kMaxEnvelopePoints> sorted = excess;
    const auto middle = static_cast<std::ptrdiff_t>(points_.size() / 2);
    const auto end = static_cast<std::ptrdiff_t>(points_.size());
    std::nth_element(sorted.begin(), sorted.begin() + middle, sorted.begin() + end);
    const double n = static_cast<double>(points_.size());
    const double shown = sorted[static_cast<std::size_t>(middle)] / std::numbers::ln2;
    noise_ = std::max(kLeastNoise, (n * shown + kTypicalWeight * kTypicalNoise) / (n + kTypicalWeight));
    count_ = 0;
    double sum = 0;
    for (std::size_t i = 0; i < points_.size(); ++i) {
        if (excess[i] > kWithin * noise_)
            continue;
        count_ += 1;
        sum += points_[i].time;
    }
    meanTime_ = sum / count_;
}

void LowerEnvelope::assume(double noise) {
    noise_ = noise;
    count_ = static_cast<double>(points_.size());
    double sum = 0;
    for (const EnvelopePoint& point : points_)
        sum += point.time;
    meanTime_ = sum / count_;
}

} // namespace kor::detail
