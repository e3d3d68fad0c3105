#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace kor::bench {

inline std::int64_t readClock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// The system's steady clock, the same in all processes, in nanoseconds.
inline std::int64_t systemNow() {
    return readClock(CLOCK_MONOTONIC);
}

/// What that clock will show in so many seconds.
inline std::int64_t timeIn(double seconds) {
    return systemNow() + static_cast<std::int64_t>(seconds * 1e9);
}

/// Sleeps until that clock shows `time`.
inline void sleepUntil(std::int64_t time) {
    const timespec until{static_cast<time_t>(time / 1'000'000'000), static_cast<long>(time % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace kor::bench
