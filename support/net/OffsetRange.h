#pragma once

#include "support/net/LowerEnvelope.h"

#include <optional>
#include <span>

namespace kor::detail {

/// Where the truth may lie, whatever the noise: every line that no point contradicts.
struct OffsetRange {
    double low = 0; ///< of the offset at time 0, nanoseconds
    double high = 0;
    double slopeLow = 0; ///< nanoseconds per second
    double slopeHigh = 0;
};

/// The range of all lines of slopes `slopeLow` to `slopeHigh` that lie under the points of the way there and
/// over those of the way back; empty when there is none. `guess` is a slope in between to start from.
///
/// Each point tells a one-sided limit for certain, since delays only add (Cristian), so nothing is assumed of
/// the noise. Points are taken to be `wander` x age^2 / 2 worse than they are, because a clock's rate changes
/// that fast (nanoseconds per second squared). Both spans hold one to kMaxEnvelopePoints points, oldest
/// first.
std::optional<OffsetRange> offsetRange(std::span<const EnvelopePoint> there,
                                       std::span<const EnvelopePoint> back, double guess, double slopeLow,
                                       double slopeHigh, double wander);

} // namespace kor::detail
