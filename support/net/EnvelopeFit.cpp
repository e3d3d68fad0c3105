#include "support/net/EnvelopeFit.h"

#include "support/net/OffsetRange.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {
namespace {

constexpr double kTypicalNoise = 2000; // nanoseconds
constexpr double kLikelihoodDrop = 3;  // about one in twenty, as two standard deviations
constexpr double kSettled = 20;        // nanoseconds per second: what a line may turn without measuring anew
constexpr double kSurprise = 2.5;      // deviations from the prior that call for a second thought
constexpr int kRounds = 4;
constexpr int kMaxSteps = 48;

/// Logarithm of the likelihood as a function of the slope alone: concave, piecewise parabolic.
class SlopeLikelihood {
public:
    SlopeLikelihood(const LowerEnvelope& there, const LowerEnvelope& back, const SlopePrior& prior)
        : there_(there), back_(back), prior_(prior) {}

    struct Value {
        double likelihood = 0;
        double rise = 0; // derivative
    };

    /// What the prior takes from the likelihood. Beyond two deviations it gives way, like an exponential
    /// distribution: some clocks are steered by others.
    double penalty(double slope) const {
        const double off = (slope - prior_.slope) / prior_.deviation;
        const double near = std::clamp(off, -2.0, 2.0);
        return near * (off - near / 2);
    }

    Value at(double slope) const {
        const LowerEnvelope::Touch there = there_.touch(slope);
        const LowerEnvelope::Touch back = back_.touch(slope);
        return {there_.weight() * (there.value + slope * there_.meanTime()) +
                    back_.weight() * (back.value - slope * back_.meanTime()) - penalty(slope),
                there_.weight() * (there_.meanTime() - there.time) -
                    back_.weight() * (back_.meanTime() - back.time) - pull(slope)};
    }

    /// The most likely slope, to a hundredth of a nanosecond per second.
    double best(double guess) const {
        // Brackets the maximum around the guess, then cuts: bisection by the sign of the derivative.
        double step = 100;
        double low = std::clamp(guess - step, -kMaxSlope, kMaxSlope);
        double high = std::clamp(guess + step, -kMaxSlope, kMaxSlope);
        while (low > -kMaxSlope && at(low).rise < 0)
            low = std::max(-kMaxSlope, low - (step *= 4));
        step = 100;
        while (high < kMaxSlope && at(high).rise > 0)
            high = std::min(kMaxSlope, high + (step *= 4));
        for (int i = 0; i < kMaxSteps && high - low > 1e-2; ++i) {
            const double middle = low + (high - low) / 2;
            (at(middle).rise > 0 ? low : high) = middle;
        }
        return low + (high - low) / 2;
    }

    /// How far from `slope` the likelihood has dropped so much that the truth hardly lies there.
    double reach(double slope) const {
        const double least = at(slope).likelihood - kLikelihoodDrop;
        double width = 10;
        while (width < kMaxSlope &&
               (at(slope - width).likelihood > least || at(slope + width).likelihood > least))
            width *= 1.5;
        return width;
    }

private:
    double pull(double slope) const { // derivative of the penalty
        return std::clamp((slope - prior_.slope) / prior_.deviation, -2.0, 2.0) / prior_.deviation;
    }

    const LowerEnvelope& there_;
    const LowerEnvelope& back_;
    const SlopePrior& prior_;
};

/// Alternates between the slope and the noise over it until both agree.
double settle(LowerEnvelope& up, LowerEnvelope& down, const SlopeLikelihood& likelihood, double slope) {
    for (int round = 0; round < kRounds; ++round) {
        up.measure(slope);
        down.measure(slope);
        const double better = likelihood.best(slope);
        const bool settled = std::fabs(better - slope) < kSettled;
        slope = better;
        if (settled)
            break;
    }
    return slope;
}

/// Logarithm of the likelihood of all that is assumed: noise and slope.
double plausibility(const LowerEnvelope& up, const LowerEnvelope& down, const SlopeLikelihood& likelihood,
                    double slope) {
    return -up.count() * std::log(up.noise()) - down.count() * std::log(down.noise()) -
           likelihood.penalty(slope);
}

} // namespace

EnvelopeFit fitEnvelopes(std::span<const EnvelopePoint> there, std::span<const EnvelopePoint> back,
                         const SlopePrior& prior, double guess, double wander) {
    LowerEnvelope up(there, 1);
    LowerEnvelope down(back, -1);
    const SlopeLikelihood likelihood(up, down, prior);
    // First as if there were little noise, so that a prior which is far off cannot pass the truth off as
    // noise.
    up.assume(kTypicalNoise);
    down.assume(kTypicalNoise);
    double slope = settle(up, down, likelihood, likelihood.best(std::clamp(guess, -kMaxSlope, kMaxSlope)));
    if (std::fabs(slope - prior.slope) > kSurprise * prior.deviation) {
        const double surprising = plausibility(up, down, likelihood, slope);
        const double expected = settle(up, down, likelihood, prior.slope);
        if (plausibility(up, down, likelihood, expected) >= surprising) {
            slope = expected;
        } else {
            up.measure(slope);
            down.measure(slope);
        }
    }
    const LowerEnvelope::Touch upper = up.touch(slope);
    const LowerEnvelope::Touch lower = down.touch(slope);
    EnvelopeFit fit;
    fit.slope = slope;
    fit.slopeSpread = likelihood.reach(slope);
    fit.offset = (upper.value - lower.value) / 2;
    fit.halfDelay = (upper.value + lower.value) / 2;
    const double low = std::min(prior.slope - 2 * prior.deviation, slope - fit.slopeSpread);
    const double high = std::max(prior.slope + 2 * prior.deviation, slope + fit.slopeSpread);
    if (const auto range = offsetRange(there, back, slope, low, high, wander)) {
        fit.slopeError = std::max(range->slopeHigh - slope, slope - range->slopeLow);
        fit.offsetError = std::max(range->high - fit.offset, fit.offset - range->low);
        return fit;
    }
    // The points contradict each other, so nothing is certain.
    fit.slopeError = fit.slopeSpread;
    fit.offsetError = std::fabs(fit.halfDelay) + (up.noise() / up.count() + down.noise() / down.count()) / 2 +
                      fit.slopeError * std::max(std::fabs(upper.time), std::fabs(lower.time));
    return fit;
}

} // namespace kor::detail
