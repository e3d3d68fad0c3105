#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace kor::detail {

/// Point of one direction: a time and, for the way there, peer's arrival stamp minus our departure stamp; for
/// the way back, our arrival stamp minus the peer's departure stamp. Either is (plus or minus) the offset and
/// a delay on top.
struct EnvelopePoint {
    double time = 0;  ///< seconds from the instant of the fit; mostly negative
    double value = 0; ///< nanoseconds
    double pad = 0;   ///< nanoseconds by which age has made the value uncertain; at least 0
};

inline constexpr int kMaxEnvelopePoints = 64;

/// Lines under the points of one direction, and how much the points scatter over them. Refers to the points.
class LowerEnvelope {
public:
    /// One to kMaxEnvelopePoints points by time, oldest first. `sign` is the sign that the offset has in
    /// them: slopes are those of the offset.
    LowerEnvelope(std::span<const EnvelopePoint> points, double sign);

    struct Touch {
        double value = 0; ///< of the line at time 0
        double time = 0;  ///< where it touches a point
    };

    /// The highest line of this slope under all points.
    Touch touch(double slope) const;

    /// Measures noise, and the points that lie within it, over the line of this slope.
    void measure(double slope);

    /// Takes all points to lie within this noise.
    void assume(double noise);

    double noise() const {
        return noise_;
    } ///< mean excess of an exponential distribution with the points' median
    double count() const { return count_; }       ///< points within the noise, at least 1
    double meanTime() const { return meanTime_; } ///< of those
    double weight() const { return count_ / noise_; }

private:
    double intercept(const EnvelopePoint& point, double slope) const;

    std::span<const EnvelopePoint> points_;
    double sign_;
    double noise_ = 1;
    double count_ = 1;
    double meanTime_ = 0;
    std::size_t hullSize_ = 0;
    std::array<EnvelopePoint, kMaxEnvelopePoints> hull_;
};

} // namespace kor::detail
