#include "support/platform/KernelStamps.h"

#include <support/jTimer.h>

#include <ctime>

namespace kor::detail {

namespace {

constexpr int kTries = 4;
constexpr Nanoseconds kGoodBracket = kMicrosecond;
constexpr Nanoseconds kMinStep = 10 * kMicrosecond;
constexpr Nanoseconds kPerDrift = 10'000; // our clock may gain or lose a nanosecond in so many

} // namespace

Nanoseconds wallClockNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return Nanoseconds{now.tv_sec} * kSecond + now.tv_nsec;
}

ClockPair readClockPair() {
    ClockPair best;
    best.bracket = kNever;
    for (int i = 0; i < kTries && best.bracket > kGoodBracket; ++i) {
        const Nanoseconds before = clockNow();
        const Nanoseconds wall = wallClockNow();
        const Nanoseconds bracket = clockNow() - before;
        if (bracket < best.bracket)
            best = {before + bracket, wall, bracket};
    }
    return best;
}

void KernelStamps::update(const ClockPair& now) {
    const Nanoseconds step = elapsed(now.wall - now.ours, now_.wall - now_.ours);
    const Nanoseconds passed = elapsed(now.ours, now_.ours);
    const Nanoseconds doubt = kMinStep + now.bracket + now_.bracket + (passed > 0 ? passed / kPerDrift : 0);
    if (started_ && (step > doubt || step < -doubt))
        distrustUntil_ = now.ours + kMaxAge;
    now_ = now;
    started_ = true;
    if (now.ours >= distrustUntil_)
        distrustUntil_ = INT64_MIN;
}

Nanoseconds KernelStamps::arrival(Nanoseconds stamp) const {
    return trusts(stamp) ? now_.ours - elapsed(now_.wall, stamp) : now_.ours;
}

bool KernelStamps::trusts(Nanoseconds stamp) const {
    const Nanoseconds age = elapsed(now_.wall, stamp);
    return distrustUntil_ == INT64_MIN && age >= 0 && age <= kMaxAge;
}

} // namespace kor::detail
