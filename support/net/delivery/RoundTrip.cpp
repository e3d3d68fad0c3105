#include "support/net/delivery/RoundTrip.h"

#include <algorithm>

namespace kor::detail {

void RoundTrip::add(Nanoseconds rtt, Nanoseconds now) {
    if (rtt < 0)
        return;
    rtt = std::min(rtt, kMax);
    if (count_ == 0) {
        smoothed8_ = 8 * rtt;
        variation4_ = 2 * rtt;
    } else {
        const Nanoseconds deviation = rtt - smoothed();
        variation4_ += (deviation < 0 ? -deviation : deviation) - variation();
        smoothed8_ += deviation;
    }
    least_.add(rtt, now);
    latest_ = rtt;
    recent_[next_] = rtt;
    next_ = (next_ + 1) % kRecent;
    count_ = std::min(count_ + 1, kRecent);
}

Nanoseconds RoundTrip::least() const {
    return count_ == 0 ? 0 : least_.least();
}

Nanoseconds RoundTrip::quantile(double fraction) const {
    if (count_ == 0)
        return 0;
    std::array<Nanoseconds, kRecent> sorted = recent_;
    const double rank = std::clamp(fraction, 0.0, 1.0) * static_cast<double>(count_ - 1) + 0.5;
    const auto index = static_cast<std::ptrdiff_t>(rank);
    std::nth_element(sorted.begin(), sorted.begin() + index,
                     sorted.begin() + static_cast<std::ptrdiff_t>(count_));
    return sorted[static_cast<std::size_t>(index)];
}

} // namespace kor::detail
