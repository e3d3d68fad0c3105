#include "support/platform/SystemClock.h"

#include <time.h>

namespace kor::detail {

std::int64_t systemSteadyNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

} // namespace kor::detail
