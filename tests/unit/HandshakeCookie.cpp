#include "support/net/HandshakeCookie.h"

#include <gtest/gtest.h>

namespace {

using namespace kor::detail;

constexpr std::uint32_t kIp = 0x0A000005;
constexpr std::uint16_t kPort = 7000;
constexpr std::uint64_t kNonce = 0x123456789ABCDEF0;
constexpr Nanoseconds kMade = 1000 * kSecond;

TEST(HandshakeCookie, BelongsToOneStrangerAndOneSecret) {
    const CookieJar jar({1, 2});
    const std::uint64_t cookie = jar.make(kIp, kPort, kNonce, kMade);
    const Nanoseconds now = kMade + kSecond;
    EXPECT_TRUE(jar.check(kIp, kPort, kNonce, kMade, cookie, now));
    EXPECT_FALSE(CookieJar({1, 3}).check(kIp, kPort, kNonce, kMade, cookie, now));
    EXPECT_FALSE(CookieJar({0, 2}).check(kIp, kPort, kNonce, kMade, cookie, now));
    for (int bit = 0; bit < 64; ++bit) {
        const std::uint64_t flip = 1ull << bit;
        EXPECT_FALSE(jar.check(kIp, kPort, kNonce ^ flip, kMade, cookie, now)) << bit;
        EXPECT_FALSE(jar.check(kIp, kPort, kNonce, kMade, cookie ^ flip, now)) << bit;
    }
    for (int bit = 0; bit < 32; ++bit)
        EXPECT_FALSE(jar.check(kIp ^ 1u << bit, kPort, kNonce, kMade, cookie, now)) << bit;
    for (int bit = 0; bit < 16; ++bit)
        EXPECT_FALSE(
            jar.check(kIp, static_cast<std::uint16_t>(kPort ^ 1u << bit), kNonce, kMade, cookie, now))
            << bit;
    for (int bit = 0; bit < 29; ++bit) // moves it by half a second at most: still young enough
        EXPECT_FALSE(jar.check(kIp, kPort, kNonce, kMade ^ Nanoseconds{1} << bit, cookie, now)) << bit;
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
