#include "Path.h"

#include <algorithm>

namespace kor::simulation {

namespace {
constexpr std::size_t kFrameBytes = 66; // Ethernet, IP and UDP around a datagram
}

bool Path::loses(Nanoseconds now) {
    if (now >= burstUntil_ && random_.chance(model_.burstBegins))
        burstUntil_ = now + random_.between(0, model_.burst);
    return random_.chance(now < burstUntil_ ? model_.burstLoss : model_.loss);
}

Nanoseconds Path::arrival(Nanoseconds leaves) {
    Nanoseconds at = leaves + model_.delay;
    if (model_.jitter > 0)
        at += random_.between(0, model_.jitter);
    if (model_.keepsOrder)
        at = lastArrival_ = std::max(at, lastArrival_);
    if (random_.chance(model_.reordered))
        at += random_.between(0, model_.reorderDelay);
    return at;
}

Path::Fate Path::carry(Nanoseconds now, std::size_t bytes) {
    Fate fate;
    if (model_.cut || bytes > model_.mtu || loses(now))
        return fate;
    Nanoseconds leaves = now;
    if (model_.bytesPerSecond != 0) {
        const auto rate = static_cast<double>(model_.bytesPerSecond);
        const Nanoseconds start = std::max(now, busyUntil_);
        const double waiting = static_cast<double>(start - now) * 1e-9 * rate;
        if (waiting + static_cast<double>(bytes) > static_cast<double>(model_.queueBytes))
            return fate;
        leaves = busyUntil_ =
            start + static_cast<Nanoseconds>(static_cast<double>(bytes + kFrameBytes) / rate * 1e9);
    }
    fate.copies = random_.chance(model_.duplicated) ? 2 : 1;
    for (std::size_t i = 0; i != fate.copies; ++i) {
        fate.copy[i].at = arrival(leaves);
        if (random_.chance(model_.corrupted))
            fate.copy[i].turnedBits = static_cast<int>(random_.between(1, 3));
    }
    return fate;
}

} // namespace kor::simulation
