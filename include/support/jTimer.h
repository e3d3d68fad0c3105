#pragma once

#include "Export.h"

#include <cstdint>

namespace kor {

/// The process's clock: steady, and near zero when the library is loaded.
class KOR_API jTimer {
public:
    /// Current time in seconds.
    static double getTimeSecond();

    /// What the system's steady clock showed, in seconds, when this clock stood at zero. Adding it to
    /// `getTimeSecond` makes times of several processes on one machine comparable.
    static double getZeroOnSystemClock();
};

namespace detail {

/// The clock of `jTimer`, in nanoseconds.
KOR_API std::int64_t clockNow();

/// Replaces the clock in a test; null brings the system's back. The source must be callable from any thread.
KOR_API void setClockSource(std::int64_t (*source)());

} // namespace detail

} // namespace kor
