#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

#include <sys/resource.h>

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

/// Processor time of the calling thread in nanoseconds: what other programs take does not count.
inline std::int64_t threadNow() {
    return readClock(CLOCK_THREAD_CPUTIME_ID);
}

/// Sleeps until that clock shows `time`.
inline void sleepUntil(std::int64_t time) {
    const timespec until{static_cast<time_t>(time / 1'000'000'000), static_cast<long>(time % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

/// Processor time that this process has used, in seconds.
inline double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace kor::bench
