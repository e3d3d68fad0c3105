#include "support/net/handshake/HandshakeCookie.h"

#include "support/net/wire/LittleEndian.h"

#include <array>

namespace kor::detail {

std::uint64_t CookieJar::make(std::uint32_t ip, std::uint16_t port, std::uint64_t nonce,
                              Nanoseconds time) const {
    std::array<std::uint8_t, 22> bytes;
    store32(bytes.data(), ip);
    store16(bytes.data() + 4, port);
    store64(bytes.data() + 6, nonce);
    store64(bytes.data() + 14, static_cast<std::uint64_t>(time));
    return sipHash24(secret_, bytes);
}

bool CookieJar::check(std::uint32_t ip, std::uint16_t port, std::uint64_t nonce, Nanoseconds time,
                      std::uint64_t cookie, Nanoseconds now) const {
    // One comparison of whole words: its time tells a forger nothing about how close he came.
    const bool genuine = (make(ip, port, nonce, time) ^ cookie) == 0;
    const auto age = static_cast<std::uint64_t>(elapsed(now, time));
    return genuine && time <= now && age <= static_cast<std::uint64_t>(kLifetime);
}

} // namespace kor::detail
