#pragma once

#include "support/net/Datagram.h"
#include "support/net/Time.h"

#include <support/RTAddr.h>

#include <algorithm>
#include <cstdint>

namespace kor::detail {

/// An attempt of ours to connect: asks, returns the peer's cookie, and repeats itself until accepted or out
/// of time.
struct ConnectAttempt {
    static constexpr Nanoseconds kFirstInterval = 5 * kMillisecond;
    static constexpr Nanoseconds kLongestInterval = 160 * kMillisecond;
    static constexpr int kAnswersPerCookie = 8;

    RTAddr to;
    std::uint64_t nonce = 0;
    Nanoseconds duration = kSecond; ///< of one try
    int tries = 1;
    Nanoseconds deadline = 0;
    Nanoseconds nextSend = 0;
    Nanoseconds interval = kFirstInterval;
    bool haveCookie = false;
    int answersLeft = 0;
    bool anyAnswer = false;
    std::uint64_t cookie = 0;
    Nanoseconds cookieTime = 0;
    Nanoseconds answered = 0; ///< when the first answer to a challenge left

    Nanoseconds nextWake() const { return std::min(deadline, nextSend); }

    /// Takes the peer's cookie; the answer leaves at once.
    void challenge(std::uint64_t newCookie, Nanoseconds newCookieTime, Nanoseconds now) {
        if (!haveCookie) {
            nextSend = now;
            answersLeft = kAnswersPerCookie;
        }
        haveCookie = true;
        cookie = newCookie;
        cookieTime = newCookieTime;
    }

    /// Writes the datagram that is due and plans the next one.
    std::size_t write(std::span<std::uint8_t> out, const ConnectionParameters& parameters, Nanoseconds now) {
        if (haveCookie && answersLeft == 0)
            haveCookie = false; // the peer may have restarted since, and then takes only a new one
        if (!haveCookie) {
            nextSend = now + interval;
            interval = std::min(interval * 2, kLongestInterval);
            return writeRequest(out, nonce);
        }
        // There is somebody, who may have the connection already and wait for us.
        nextSend = now + kFirstInterval;
        --answersLeft;
        if (!anyAnswer)
            answered = now;
        anyAnswer = true;
        return writeResponse(out, nonce, cookie, cookieTime, parameters);
    }
};

} // namespace kor::detail
