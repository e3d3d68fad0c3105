#include "support/net/clock/ClockWindow.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace kor::detail {
namespace {

constexpr double kSlack = 1'000; // ns: what samples may contradict a line by
constexpr double kWander = 20;   // ns/s^2: a crystal in a room changes by 0.01 ppm a second or less
constexpr Nanoseconds kBackwards = 10 * kSecond; // our own clock never goes back that far
constexpr Nanoseconds kOldest = 64 * kSecond;    // kept when samples come rarely

// Slopes in ns/s. A crystal's until enough has been seen to tell more.
constexpr double kCrystal = 100'000;
constexpr double kSteered = 1'000'000; // what a clock that is being set may show
constexpr Nanoseconds kTellsSlope = 4 * kSecond;

constexpr int kSamplesToFitAll = 4;
// A fit is renewed when a window has grown by a sixteenth, at the latest after a second.
constexpr Nanoseconds kFitsPerSpan = 16;
constexpr Nanoseconds kMaxUnfitted = kSecond;
constexpr Nanoseconds kMinUnfitted = 2 * kMillisecond; // a flood of samples must not cost a core

// When a fit is taken to be bent.
constexpr std::size_t kFewDelays = 4;
constexpr double kSpreads = 2;       // of the delays, from the least to the median
constexpr double kBentSlack = 2'000; // ns
constexpr Nanoseconds kMinWindow = 50 * kMillisecond;

} // namespace

double ClockWindow::forth(const ClockSample& sample) const {
    return static_cast<double>(elapsed(elapsed(sample.receivedThere, sample.sentHere), base_));
}

double ClockWindow::back(const ClockSample& sample) const {
    // Not the negation of the wrapped difference, which does not exist for the least integer.
    return -static_cast<double>(elapsed(elapsed(sample.sentThere, sample.receivedHere), base_));
}

double ClockWindow::remainderAt(Nanoseconds now) const {
    return fit_.offset + fit_.slope * seconds(now - fittedAt_);
}

double ClockWindow::boundAt(Nanoseconds now) const {
    const double age = std::fabs(seconds(now - fittedAt_));
    return fit_.error() + fit_.slopeError() * age + kWander * age * age / 2;
}

bool ClockWindow::contradicts(const ClockSample& sample) const {
    if (samples_ == 0)
        return false;
    if (sample.receivedHere < newest_ - kBackwards)
        return true;
    // Until a few samples have shown a slope, it is not held against a clock that another one steers.
    const double young = samples_ < kSamplesToFitAll ? kSteered : 0;
    const auto slack = [&](Nanoseconds time) {
        return boundAt(time) + kSlack + young * std::fabs(seconds(time - fittedAt_));
    };
    return forth(sample) < remainderAt(sample.sentHere) - slack(sample.sentHere) ||
           -back(sample) > remainderAt(sample.receivedHere) + slack(sample.receivedHere);
}

bool ClockWindow::add(const ClockSample& sample) {
    if (samples_ == 0) {
        base_ = elapsed(sample.receivedThere, sample.sentHere);
        first_ = newest_ = fittedAt_ = sample.receivedHere;
    }
    // One stamp of ours may come back with many datagrams; that is one sample.
    const bool another = samples_ == 0 || (sample.sentHere != lastSent_ && sample.receivedHere != newest_);
    samples_ += another ? 1 : 0;
    lastSent_ = sample.sentHere;
    newest_ = std::max(newest_, sample.receivedHere);

    const Nanoseconds bucketForth = forth_.newestBucket();
    const Nanoseconds bucketBack = back_.newestBucket();
    const double valueForth = forth(sample);
    const double valueBack = back(sample);
    // A point beyond the line's own delay moves it hardly.
    const bool lower = valueForth < remainderAt(sample.sentHere) + halfDelay() ||
                       valueBack < halfDelay() - remainderAt(sample.receivedHere);
    delays_.add({sample.receivedHere, valueForth + valueBack}, 0);
    const bool keptForth = forth_.add({sample.sentHere, valueForth}, fit_.slope);
    const bool keptBack = back_.add({sample.receivedHere, valueBack}, -fit_.slope);
    const bool newBucket = bucketForth != forth_.newestBucket() || bucketBack != back_.newestBucket();
    const Nanoseconds unfitted = newest_ - fittedAt_;
    const bool due = newBucket && unfitted >= std::min(span() / kFitsPerSpan, kMaxUnfitted);
    stale_ = stale_ || ((keptForth || keptBack) && (lower || due));
    const bool early = another && samples_ <= kSamplesToFitAll;
    if (!early && (!stale_ || unfitted < kMinUnfitted))
        return false;
    refit();
    stale_ = false;
    return true;
}

Nanoseconds ClockWindow::span() const {
    return newest_ - std::min(forth_.points().front().time, back_.points().front().time);
}

bool ClockWindow::dropBefore(Nanoseconds time) {
    delays_.dropBefore(time);
    const bool forth = forth_.dropBefore(time);
    return back_.dropBefore(time) || forth;
}

/// True when clean exchanges contradict the line, although each point for itself allows it.
bool ClockWindow::isBent() const {
    if (!fit_.possible)
        return true;
    std::array<double, BucketMinima::kMaxPoints> delays{};
    const auto points = delays_.points();
    if (points.size() < kFewDelays)
        return false;
    std::ranges::transform(points, delays.begin(), &EnvelopePoint::value);
    const auto middle = delays.begin() + static_cast<std::ptrdiff_t>(points.size() / 2);
    std::nth_element(delays.begin(), middle, delays.begin() + static_cast<std::ptrdiff_t>(points.size()));
    const double least = *std::min_element(delays.begin(), middle + 1);
    return fit_.delay < least - kSpreads * (*middle - least) - kBentSlack;
}

void ClockWindow::refit() {
    fittedAt_ = newest_;
    dropBefore(newest_ - kOldest);
    for (;;) {
        fit_ = fitEnvelope(forth_, back_, newest_, kWander, span() < kTellsSlope ? kCrystal : kSteered);
        if (isBent())
            fit_ = fitEnvelope(forth_, back_, newest_, kWander, kSteered);
        // When no constant rate explains the points, the older ones are from before a change of rate.
        if (!isBent() || span() < kMinWindow || !dropBefore(newest_ - span() / 2))
            return;
    }
}

} // namespace kor::detail
