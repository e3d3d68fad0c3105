#pragma once

#include "support/Time.h"

#include <cstdint>

namespace kor::simulation {

using detail::kMicrosecond;
using detail::kMillisecond;
using detail::kNever;
using detail::kSecond;
using detail::Nanoseconds;

/// The only chance in a simulated world: the same seed draws the same numbers on every machine (SplitMix64).
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t x = state_ += 0x9E3779B97F4A7C15u;
        x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
        x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
        return x ^ (x >> 31);
    }

    /// 0 to `end` - 1.
    std::uint64_t below(std::uint64_t end) { return next() % end; }
    std::int64_t between(std::int64_t min, std::int64_t max) {
        return min + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(max - min) + 1));
    }
    double uniform(double min, double max) {
        return min + (max - min) * static_cast<double>(next() >> 11) * 0x1p-53;
    }
    bool chance(double probability) { return probability > 0 && uniform(0, 1) < probability; }

    /// Grows by equal ratios, so that small values are as likely as large ones.
    std::uint32_t size(std::uint32_t min, std::uint32_t max);

private:
    std::uint64_t state_;
};

} // namespace kor::simulation
