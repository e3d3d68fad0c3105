#pragma once

#include "support/net/wire/Datagram.h"
#include "support/Time.h"

#include <support/RTAddr.h>

#include <algorithm>
#include <cstdint>
#include <optional>

namespace kor::detail {

/// An attempt of ours to connect: asks, returns the peer's cookie, and repeats itself until accepted or out
/// of time.
struct ConnectAttempt {
    static constexpr Nanoseconds kFirstInterval = 5 * kMillisecond;
    static constexpr Nanoseconds kMaxInterval = 160 * kMillisecond;
    static constexpr int kResponsesPerCookie = 8;

    enum class Phase : std::uint8_t {
        asking,   ///< for a cookie
        answering ///< with the cookie
    };

    RTAddr to;
    std::uint64_t nonce = 0;
    Nanoseconds duration = kSecond; ///< of one try
    int tries = 1;
    Nanoseconds deadline = 0;
    Nanoseconds nextSend = 0;
    Nanoseconds interval = kFirstInterval;
    Phase phase = Phase::asking;
    int responsesLeft = 0; ///< with the present cookie
    std::uint64_t cookie = 0;
    Nanoseconds cookieTime = 0;
    std::optional<Nanoseconds> answered; ///< when the first response left

    Nanoseconds nextWake() const { return std::min(deadline, nextSend); }

    /// Takes the peer's cookie; the answer leaves at once.
    void challenge(std::uint64_t newCookie, Nanoseconds newCookieTime, Nanoseconds now) {
        if (phase == Phase::asking) {
            phase = Phase::answering;
            nextSend = now;
            responsesLeft = kResponsesPerCookie;
        }
        cookie = newCookie;
        cookieTime = newCookieTime;
    }

    /// Writes the datagram that is due and plans the next one.
    std::size_t write(std::span<std::uint8_t> out, const ConnectionParameters& parameters, Nanoseconds now) {
        // The peer may have restarted since it made the cookie, and then takes only a new one.
        if (responsesLeft == 0)
            phase = Phase::asking;
        if (phase == Phase::asking) {
            nextSend = now + interval;
            interval = std::min(interval * 2, kMaxInterval);
            return writeRequest(out, nonce);
        }
        // There is somebody, who may have the connection already and wait for us.
        nextSend = now + kFirstInterval;
        --responsesLeft;
        if (!answered)
            answered = now;
        return writeResponse(out, nonce, cookie, cookieTime, parameters);
    }
};

} // namespace kor::detail
