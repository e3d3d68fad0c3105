#include "support/net/handshake/HandshakeCookie.h"

#include <gtest/gtest.h>

namespace {

using namespace kor::detail;

constexpr std::uint32_t kIp = 0x0A000005;
constexpr std::uint16_t kPort = 7000;
constexpr std::uint64_t kNonce = 0x123456789ABCDEF0;
constexpr Nanoseconds kMade = 1000 * kSecond;

// That it belongs to one address, nonce and time is looked at where it is used, in
// tests/simulation/HostilePeers.cpp.
TEST(HandshakeCookie, BelongsToOneSecret) {
    const std::uint64_t cookie = CookieJar({1, 2}).make(kIp, kPort, kNonce, kMade);
    EXPECT_TRUE(CookieJar({1, 2}).check(kIp, kPort, kNonce, kMade, cookie, kMade));
    EXPECT_FALSE(CookieJar({1, 3}).check(kIp, kPort, kNonce, kMade, cookie, kMade));
    EXPECT_FALSE(CookieJar({0, 2}).check(kIp, kPort, kNonce, kMade, cookie, kMade));
}

TEST(HandshakeCookie, IsGoodForItsLifetimeOnly) {
    const CookieJar jar({1, 2});
    const auto checkAt = [&jar](Nanoseconds made, Nanoseconds now) {
        return jar.check(kIp, kPort, kNonce, made, jar.make(kIp, kPort, kNonce, made), now);
    };
    EXPECT_TRUE(checkAt(kMade, kMade));
    EXPECT_TRUE(checkAt(kMade, kMade + 10 * kSecond));
    EXPECT_FALSE(checkAt(kMade, kMade + 10 * kSecond + 1));
    EXPECT_FALSE(checkAt(kMade, kMade - 1));
    EXPECT_TRUE(checkAt(-kSecond, kSecond));
    EXPECT_FALSE(checkAt(INT64_MIN, INT64_MAX));
    EXPECT_FALSE(checkAt(INT64_MIN, 0));
    EXPECT_FALSE(checkAt(INT64_MAX, INT64_MIN));
}

} // namespace
