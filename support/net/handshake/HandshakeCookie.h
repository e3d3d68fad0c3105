#pragma once

#include "support/net/handshake/SipHash.h"
#include "support/Time.h"

#include <cstdint>

namespace kor::detail {

/// Cookies that the accepting side hands to a stranger instead of remembering him: a keyed hash over his
/// address, his nonce and the time. Who returns one can receive at the address he sends from. Immutable, any
/// thread.
class CookieJar {
public:
    /// How long a cookie is good for.
    static constexpr Nanoseconds kLifetime = 10 * kSecond;

    /// `secret` is drawn from the system at start and never leaves the process.
    explicit CookieJar(const SipKey& secret) : secret_(secret) {}

    /// The cookie for a stranger at `ip` and `port`, made at `time`. The address in any byte order, always
    /// the same.
    std::uint64_t make(std::uint32_t ip, std::uint16_t port, std::uint64_t nonce, Nanoseconds time) const;

    /// True when make() gave `cookie` for these values, and `time` is neither after `now` nor more than
    /// kLifetime before.
    bool check(std::uint32_t ip, std::uint16_t port, std::uint64_t nonce, Nanoseconds time,
               std::uint64_t cookie, Nanoseconds now) const;

private:
    SipKey secret_;
};

} // namespace kor::detail
