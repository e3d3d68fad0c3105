#pragma once

#include "support/net/LowerEnvelope.h"

#include <span>

namespace kor::detail {

/// What was known of the slope before the points.
struct SlopePrior {
    double slope = 0;     ///< nanoseconds per second
    double deviation = 0; ///< its standard deviation; greater than 0
};

/// Result of fitEnvelopes.
struct EnvelopeFit {
    double slope = 0;       ///< nanoseconds per second
    double slopeSpread = 0; ///< how far off it hardly is: about two standard deviations
    double slopeError = 0;  ///< bound on its error, whatever the noise
    double offset = 0;      ///< at time 0, nanoseconds
    double halfDelay = 0;   ///< half the distance of the two lines
    double offsetError = 0; ///< bound on the error of `offset`, whatever the noise
};

/// Fits a line of one slope under the points of the way there and another under those of the way back, so
/// that both lie as high as they can. The offset is the middle between the two.
///
/// Delays only ever add, so the truth lies under the points, and a lucky one tells more than a hundred late
/// ones. When the delays over the least one are exponentially distributed, lines that touch the points from
/// below with the least sum of distances are the most likely ones; that sum is minimised here, each direction
/// weighted by its own measured noise, so that a loaded direction does not spoil the slope that the quiet one
/// shows. The skew from a line under one-way delays is from Moon, Skelly and Towsley, "Estimation and removal
/// of clock skew from network delay measurements" (INFOCOM 1999); one slope for both directions from Geng and
/// others, "Exploiting a natural network effect for scalable, fine-grained clock synchronization" (Huygens,
/// NSDI 2018).
///
/// The errors are not of that likelihood, which noise of another kind deceives, but cover every line that the
/// points allow (see OffsetRange.h) with a slope within two deviations of the prior or within the spread.
///
/// Both spans hold one to kMaxEnvelopePoints points by time, oldest first. `guess` is a slope to start from.
/// `wander`: by how much the slope may change, nanoseconds per second squared.
EnvelopeFit fitEnvelopes(std::span<const EnvelopePoint> there, std::span<const EnvelopePoint> back,
                         const SlopePrior& prior, double guess, double wander);

/// No clock is taken to run faster or slower than ours by more than this, in nanoseconds per second (0.5 %).
inline constexpr double kMaxSlope = 5e6;

} // namespace kor::detail
