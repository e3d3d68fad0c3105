#pragma once

#include "Random.h"

#include "support/net/wire/Datagram.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kor::simulation {

/// What a network does to datagrams from one host to another. Chances are from 0 to 1, for each
/// datagram by itself. The path backward is another one.
struct PathModel {
    Nanoseconds delay = 100 * kMicrosecond;
    Nanoseconds jitter = 0; ///< up to that much more
    bool keepsOrder = true; ///< however the delay varies, nothing overtakes
    double loss = 0;
    double burstBegins = 0; ///< Gilbert-Elliott: chance per datagram that a burst of losses begins
    Nanoseconds burst = 0;  ///< how long one lasts at most
    double burstLoss = 1;   ///< chance of losing a datagram meanwhile
    double duplicated = 0;
    double reordered = 0; ///< held back by up to `reorderDelay`
    Nanoseconds reorderDelay = kMillisecond;
    double corrupted = 0;                        ///< one to three bits turned over
    std::uint64_t bytesPerSecond = 0;            ///< 0: no limit
    std::uint32_t queueBytes = 1u << 20;         ///< waiting for a limited rate; more are dropped
    std::size_t mtu = detail::kMaxDatagramBytes; ///< largest datagram
    bool refusesTooBig = false; ///< the sender's system refuses larger ones; else they vanish
    bool cut = false;           ///< nothing arrives
};

/// One path between two hosts, with what it has to remember.
class Path {
public:
    Path(const PathModel& model, std::uint64_t seed) : model_(model), random_(seed) {}

    PathModel& model() { return model_; }
    const PathModel& model() const { return model_; }

    struct Copy {
        Nanoseconds at = 0;
        int turnedBits = 0;
    };
    struct Fate {
        std::size_t copies = 0; ///< 0: lost
        std::array<Copy, 2> copy;
    };
    /// What becomes of a datagram sent at `now`.
    Fate carry(Nanoseconds now, std::size_t bytes);

    Random& random() { return random_; }

private:
    bool loses(Nanoseconds now);
    Nanoseconds arrival(Nanoseconds leaves);

    PathModel model_;
    Random random_;
    Nanoseconds burstUntil_ = INT64_MIN;
    Nanoseconds busyUntil_ = INT64_MIN / 2;
    Nanoseconds lastArrival_ = INT64_MIN / 2;
};

} // namespace kor::simulation
