#include "support/platform/ThreadTuning.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

namespace kor::detail {

namespace {

constexpr int kNice = -10;
constexpr std::uint64_t kSliceNanoseconds = 100'000; // the shortest that the scheduler takes

/// What the kernel calls sched_attr; the C library of this age does not declare it.
struct SchedulerAttributes {
    std::uint32_t size = sizeof(SchedulerAttributes);
    std::uint32_t policy = SCHED_OTHER;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t runtime = 0;
    std::uint64_t deadline = 0;
    std::uint64_t period = 0;
};

bool apply(SchedulerAttributes& attributes) {
    return ::syscall(SYS_sched_setattr, 0, &attributes, 0) == 0;
}

/// A short slice lets the thread go ahead of running ones as soon as it wakes, and everybody may ask for it;
/// a better nice value needs a permission.
void raisePriority() {
    if (::sched_getscheduler(0) != SCHED_OTHER)
        return; // somebody has chosen already
    SchedulerAttributes attributes;
    if (::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) != 0)
        return;
    const std::int32_t nice = attributes.nice;
    attributes.size = sizeof attributes;
    attributes.flags = 0;
    attributes.nice = nice < kNice ? nice : kNice;
    attributes.runtime = kSliceNanoseconds;
    if (apply(attributes))
        return;
    attributes.nice = nice;
    apply(attributes);
}

} // namespace

void prepareNetworkThread(const char* name) {
    std::array<char, 16> shortName{};
    std::snprintf(shortName.data(), shortName.size(), "%s", name);
    ::pthread_setname_np(::pthread_self(), shortName.data());
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    raisePriority();
}

} // namespace kor::detail
