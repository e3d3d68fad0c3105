#pragma once

#include "support/net/delivery/RunningMinimum.h"
#include "support/Time.h"

#include <array>
#include <cstddef>

namespace kor::detail {

/// Round-trip times of one connection: smoothed as a retransmission timer wants them, least of the last ten
/// seconds, and the distribution of the newest 256.
///
/// Smoothing as in RFC 6298, section 2 (gains 1/8 and 1/4). No allocation, no clock; times may wrap. Not
/// thread-safe: belongs to one connection.
class RoundTrip {
public:
    /// Window of least().
    static constexpr Nanoseconds kMinWindow = 10 * kSecond;
    /// A longer measurement counts as this long: it says more about a stopped process than about the path.
    static constexpr Nanoseconds kMax = 60 * kSecond;

    /// Adds one measurement of `rtt` nanoseconds, completed at `now`. A negative one is ignored.
    void add(Nanoseconds rtt, Nanoseconds now);

    /// False before the first measurement; then all figures below are 0.
    bool known() const { return count_ != 0; }

    Nanoseconds smoothed() const { return smoothed8_ / 8; }
    Nanoseconds variation() const { return variation4_ / 4; } ///< smoothed mean deviation
    Nanoseconds latest() const { return latest_; }
    Nanoseconds least() const; ///< of the last ten seconds before the newest measurement

    /// Of the newest 256; the value below which `fraction` (0 to 1) of them lie. Costs a few microseconds.
    Nanoseconds quantile(double fraction) const;
    Nanoseconds p50() const { return quantile(0.5); }
    Nanoseconds p99() const { return quantile(0.99); }

private:
    static constexpr std::size_t kRecent = 256;

    Nanoseconds smoothed8_ = 0;  // 8 x the smoothed value, so that small changes are not lost in rounding
    Nanoseconds variation4_ = 0; // 4 x the variation
    Nanoseconds latest_ = 0;
    std::size_t next_ = 0;
    std::size_t count_ = 0; // in recent_
    RunningMinimum least_{kMinWindow};
    std::array<Nanoseconds, kRecent> recent_{};
};

} // namespace kor::detail
