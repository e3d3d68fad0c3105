#include "trace/ClockHistory.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {

namespace {

constexpr double kNanoseconds = 1e9;

} // namespace

void ClockHistory::add(const Sample& sample) {
    if (!std::isfinite(sample.local) || !std::isfinite(sample.offset) || !std::isfinite(sample.bound))
        return;
    const std::lock_guard guard(mutex_);
    if (!kept_.empty() && std::abs(kept_.back().offset - sample.offset) > kStep)
        kept_.clear();
    const std::size_t count = kept_.size();
    if (count > 1 && kept_[count - 1].local - kept_[count - 2].local < spacing_) {
        kept_.back() = sample;
        return;
    }
    if (count == kMax)
        thin();
    kept_.push_back(sample);
}

void ClockHistory::thin() {
    std::size_t count = 0;
    for (std::size_t i = 0; i < kept_.size(); i += 2)
        kept_[count++] = kept_[i];
    kept_.resize(count);
    spacing_ *= 2;
}

void ClockHistory::clear() {
    const std::lock_guard guard(mutex_);
    kept_.clear();
    spacing_ = 0.1;
}

std::vector<ClockHistory::Sample> ClockHistory::samples() const {
    const std::lock_guard guard(mutex_);
    return kept_;
}

// The first offsets of a connection are corrected by more than the time between them, which would turn the
// clock back: the later one is the better one.
ClockConversion::ClockConversion(const std::vector<ClockHistory::Sample>& samples) {
    for (const ClockHistory::Sample& sample : samples) {
        while (!samples_.empty() &&
               (sample.local <= samples_.back().local ||
                sample.local + sample.offset <= samples_.back().local + samples_.back().offset)) {
            samples_.pop_back();
        }
        samples_.push_back(sample);
    }
}

double ClockConversion::offsetAt(double local) const {
    const auto after =
        std::upper_bound(samples_.begin(), samples_.end(), local,
                         [](double time, const ClockHistory::Sample& sample) { return time < sample.local; });
    if (after == samples_.begin())
        return after->offset;
    const ClockHistory::Sample& before = *(after - 1);
    if (after == samples_.end())
        return before.offset;
    const double share = (local - before.local) / (after->local - before.local);
    return before.offset + (after->offset - before.offset) * share;
}

std::int64_t ClockConversion::operator()(std::int64_t local) const {
    if (samples_.empty())
        return local;
    return local + std::llround(offsetAt(static_cast<double>(local) / kNanoseconds) * kNanoseconds);
}

double ClockConversion::worstBound() const {
    double worst = 0;
    for (const ClockHistory::Sample& sample : samples_)
        worst = std::max(worst, sample.bound);
    return worst;
}

} // namespace kor::detail
