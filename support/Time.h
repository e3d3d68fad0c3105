#pragma once

#include <cstdint>

namespace kor::detail {

/// A time or a duration in nanoseconds of the process's steady clock. The connection core never reads a
/// clock: every time reaches it as an argument, so that a simulator can drive it on virtual time.
using Nanoseconds = std::int64_t;

inline constexpr Nanoseconds kMicrosecond = 1'000;
inline constexpr Nanoseconds kMillisecond = 1'000'000;
inline constexpr Nanoseconds kSecond = 1'000'000'000;

/// Later than any time that occurs; what a sleeper without a deadline waits for.
inline constexpr Nanoseconds kNever = INT64_MAX;

/// Earlier than any time that occurs: a deadline that has passed.
inline constexpr Nanoseconds kNow = INT64_MIN;

/// Difference a - b of two clock readings that may lie on both sides of the wrap.
constexpr Nanoseconds elapsed(Nanoseconds a, Nanoseconds b) {
    return static_cast<Nanoseconds>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

} // namespace kor::detail
