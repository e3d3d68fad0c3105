#include <support/jTimer.h>

#include "support/platform/SystemClock.h"

#include <atomic>

namespace kor {

namespace {

std::atomic<std::int64_t (*)()> clockSource{nullptr};

std::int64_t zeroNanoseconds() {
    static const std::int64_t kZero = detail::systemSteadyNow();
    return kZero;
}

[[maybe_unused]] const std::int64_t kZeroAtLoad = zeroNanoseconds();

constexpr double kSecondsPerNanosecond = 1e-9;

} // namespace

namespace detail {

std::int64_t clockNow() {
    if (const auto source = clockSource.load(std::memory_order_relaxed))
        return source();
    // A caller before this library's own start-up makes the zero, so it is asked for first.
    const std::int64_t zero = zeroNanoseconds();
    return systemSteadyNow() - zero;
}

void setClockSource(std::int64_t (*source)()) {
    clockSource.store(source, std::memory_order_relaxed);
}

} // namespace detail

double jTimer::getTimeSecond() {
    return static_cast<double>(detail::clockNow()) * kSecondsPerNanosecond;
}

double jTimer::getZeroOnSystemClock() {
    return static_cast<double>(zeroNanoseconds()) * kSecondsPerNanosecond;
}

} // namespace kor
