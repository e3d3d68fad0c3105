#include "support/net/ClockWindow.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace kor::detail {
namespace {

constexpr double kSlack = 1'000; // ns: stamps and their conversion are not better than this
constexpr double kWander =
    20; // ns/s^2: the rate of a crystal in a room changes by 0.01 ppm per second or less
constexpr Nanoseconds kBackwards = -10 * kSecond; // our own clock never goes back that far
constexpr Nanoseconds kOutdated = 3600 * kSecond; // after such a silence no point says anything

// What is known of the skew, in ns/s.
constexpr double kUnknownSkew = 50'000;          // standard deviation: crystals keep within 100 ppm
constexpr double kKnownSkew = 2'000;             // how far an old slope is trusted
constexpr double kSteeredSkew = 1'000'000;       // what a clock that is being set may show
constexpr Nanoseconds kLongWindow = 4 * kSecond; // what teaches a slope to be trusted later

// When a fit is renewed: a window has grown by a sixteenth, at the latest after a second.
constexpr int kSamplesToFitAll = 4;
constexpr int kEnoughSamples = 1000; // nobody counts further
constexpr Nanoseconds kFitsPerSpan = 16;
constexpr Nanoseconds kShortestUnfitted = 2 * kMillisecond; // a flood of samples must not cost a core
constexpr Nanoseconds kLongestUnfitted = kSecond;

// When a fit is taken to be bent.
constexpr std::size_t kFewDelays = 5;
constexpr double kSpreads = 2;           // of the delays, from the least to the median
constexpr double kStraightSlack = 2'000; // ns
constexpr std::size_t kFewPoints = 4;    // never cut further
constexpr Nanoseconds kShortestWindow = 50 * kMillisecond;

double seconds(Nanoseconds duration) {
    return static_cast<double>(duration) * 1e-9;
}

} // namespace

void ClockWindow::reset() {
    *this = ClockWindow();
}

double ClockWindow::there(const ClockSample& sample) const {
    return static_cast<double>(elapsed(elapsed(sample.receivedThere, sample.sentHere), base_));
}

double ClockWindow::back(const ClockSample& sample) const {
    // Not the negation of the wrapped difference, which does not exist for the least integer.
    return -static_cast<double>(elapsed(elapsed(sample.sentThere, sample.receivedHere), base_));
}

double ClockWindow::restAt(Nanoseconds now) const {
    return fit_.offset + fit_.slope * seconds(elapsed(now, fittedAt_));
}

double ClockWindow::boundAt(Nanoseconds now) const {
    const double age = std::fabs(seconds(elapsed(now, fittedAt_)));
    return fit_.offsetError + fit_.slopeError * age + kWander * age * age / 2;
}

bool ClockWindow::contradicts(const ClockSample& sample) const {
    if (empty())
        return false;
    if (elapsed(sample.receivedHere, newest_) < kBackwards)
        return true;
    // Until a few samples have shown a slope, it is not held against a clock that another one steers.
    const double young = samples_ < kSamplesToFitAll ? kSteeredSkew : 0;
    const auto slack = [&](Nanoseconds time) {
        return boundAt(time) + kSlack + young * std::fabs(seconds(elapsed(time, fittedAt_)));
    };
    return there(sample) < restAt(sample.sentHere) - slack(sample.sentHere) ||
           -back(sample) > restAt(sample.receivedHere) + slack(sample.receivedHere);
}

bool ClockWindow::add(const ClockSample& sample) {
    if (empty()) {
        base_ = elapsed(sample.receivedThere, sample.sentHere);
        first_ = newest_ = fittedAt_ = sample.receivedHere;
    }
    if (empty() || elapsed(sample.receivedHere, newest_) > kOutdated) {
        there_.reset(sample.sentHere);
        back_.reset(sample.receivedHere);
        delays_.reset(sample.receivedHere);
    }
    // One stamp of ours may come back with many datagrams; that is one sample.
    const bool another = empty() || (sample.sentHere != lastSent_ && sample.receivedHere != newest_);
    if (another && samples_ < kEnoughSamples)
        ++samples_;
    lastSent_ = sample.sentHere;
    if (elapsed(sample.receivedHere, newest_) > 0)
        newest_ = sample.receivedHere;

    const Nanoseconds thereBucket = there_.newestBucket();
    const Nanoseconds backBucket = back_.newestBucket();
    const double value = there(sample);
    const double backValue = back(sample);
    // A point over the line moves it hardly: it only tells about the noise.
    const bool lower = value < restAt(sample.sentHere) + fit_.halfDelay ||
                       backValue < fit_.halfDelay - restAt(sample.receivedHere);
    delays_.add(sample.receivedHere,
                value + backValue + fit_.slope * seconds(elapsed(sample.receivedHere, sample.sentHere)), 0);
    const bool kept = static_cast<int>(there_.add(sample.sentHere, value, fit_.slope)) +
                          static_cast<int>(back_.add(sample.receivedHere, backValue, -fit_.slope)) >
                      0;
    const bool newBucket = thereBucket != there_.newestBucket() || backBucket != back_.newestBucket();
    const Nanoseconds unfitted = elapsed(newest_, fittedAt_);
    const bool due = newBucket && unfitted >= std::min(span() / kFitsPerSpan, kLongestUnfitted);
    stale_ = stale_ || (kept && (lower || due));
    if (samples_ > kSamplesToFitAll && (!stale_ || unfitted < kShortestUnfitted))
        return false;
    refit();
    stale_ = false;
    return true;
}

SlopePrior ClockWindow::prior() const {
    // What points still in the window taught must not count twice.
    if (!slopeLearned_ || span() >= kLongWindow)
        return {0, kUnknownSkew};
    const double age = seconds(elapsed(newest_, slopeLearnedAt_));
    const double deviation = learnedSlopeError_ + kWander * std::max(0.0, age);
    return {learnedSlope_, std::clamp(deviation, kKnownSkew, kUnknownSkew)};
}

bool ClockWindow::isStraight() const {
    if (fit_.halfDelay < 0)
        return false;
    std::array<EnvelopePoint, kMaxEnvelopePoints> delays;
    const std::size_t count = delays_.copyTo(delays, newest_, 0);
    if (count < kFewDelays)
        return true;
    const auto begin = delays.begin();
    const auto middle = begin + static_cast<std::ptrdiff_t>(count / 2);
    const auto less = [](const EnvelopePoint& a, const EnvelopePoint& b) { return a.value < b.value; };
    std::nth_element(begin, middle, begin + static_cast<std::ptrdiff_t>(count), less);
    const double least = std::min_element(begin, middle + 1, less)->value;
    return 2 * fit_.halfDelay > least - kSpreads * (middle->value - least) - kStraightSlack;
}

Nanoseconds ClockWindow::span() const {
    return std::max(elapsed(newest_, there_.oldestTime()), elapsed(newest_, back_.oldestTime()));
}

bool ClockWindow::dropBefore(Nanoseconds time) {
    const bool there = there_.dropBefore(time);
    const bool back = back_.dropBefore(time);
    delays_.dropBefore(time);
    return there || back;
}

bool ClockWindow::dropOlderHalf() {
    if (span() < kShortestWindow || there_.size() + back_.size() <= kFewPoints ||
        !dropBefore(elapsed(newest_, span() / 2)))
        return false;
    slopeLearned_ = false;
    there_.refine();
    back_.refine();
    delays_.refine();
    return true;
}

void ClockWindow::refit() {
    dropBefore(elapsed(newest_, BucketMinima::kOldest));
    std::array<EnvelopePoint, kMaxEnvelopePoints> up;
    std::array<EnvelopePoint, kMaxEnvelopePoints> down;
    do {
        const std::span points(up.data(), there_.copyTo(up, newest_, kWander));
        const std::span backPoints(down.data(), back_.copyTo(down, newest_, kWander));
        fit_ = fitEnvelopes(points, backPoints, prior(), fit_.slope, kWander);
        // When no constant rate explains the points, the older ones, and what they taught, are from before a
        // change of rate.
    } while (!isStraight() && dropOlderHalf());
    fittedAt_ = newest_;
    if (elapsed(newest_, there_.oldestTime()) >= kLongWindow &&
        elapsed(newest_, back_.oldestTime()) >= kLongWindow) {
        slopeLearned_ = true;
        slopeLearnedAt_ = newest_;
        learnedSlope_ = fit_.slope;
        learnedSlopeError_ = fit_.slopeSpread;
    }
}

} // namespace kor::detail
