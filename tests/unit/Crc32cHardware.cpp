#include "support/platform/Crc32cHardware.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kor::detail {
namespace {

/// Bit by bit, straight from the definition.
std::uint32_t reference(std::uint32_t crc, const std::uint8_t* data, std::size_t size) {
    crc = ~crc;
    for (; size > 0; ++data, --size) {
        crc ^= *data;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0u);
    }
    return ~crc;
}

class Crc32cHardware : public testing::Test {
protected:
    void SetUp() override {
        if (!crc32cHardwareAvailable())
            GTEST_SKIP() << "this processor has no such instruction";
        std::uint32_t seed = 7;
        for (auto& byte : bytes) {
            seed = seed * 1664525 + 1013904223;
            byte = static_cast<std::uint8_t>(seed >> 24);
        }
    }

    std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(70'000);
};

TEST_F(Crc32cHardware, PublishedValues) {
    const auto* digits = reinterpret_cast<const std::uint8_t*>("123456789");
    EXPECT_EQ(crc32cHardware(0, digits, 9), 0xE3069283u);
    EXPECT_EQ(crc32cHardware(0, digits, 0), 0u);
    // RFC 3720, appendix B.4.
    const std::vector<std::uint8_t> zeros(32, 0);
    const std::vector<std::uint8_t> ones(32, 0xFF);
    EXPECT_EQ(crc32cHardware(0, zeros.data(), 32), 0x8A9136AAu);
    EXPECT_EQ(crc32cHardware(0, ones.data(), 32), 0x62A8AB43u);
}

TEST_F(Crc32cHardware, EverySizeAndAlignment) {
    for (std::size_t size = 0; size < 700; ++size) {
        const std::size_t offset = size % 9;
        ASSERT_EQ(crc32cHardware(0x12345678, &bytes[offset], size),
                  reference(0x12345678, &bytes[offset], size))
            << size;
    }
    // Around the largest round of three streams, and several of them.
    for (const std::size_t round : {1u, 2u, 5u, 21u})
        for (std::size_t size = round * 3072 - 40; size < round * 3072 + 80; ++size)
            ASSERT_EQ(crc32cHardware(0, &bytes[size % 8], size), reference(0, &bytes[size % 8], size))
                << size;
}

TEST_F(Crc32cHardware, Chains) {
    const std::uint32_t whole = crc32cHardware(0, bytes.data(), 5000);
    for (std::size_t split = 0; split <= 5000; split += 37)
        ASSERT_EQ(crc32cHardware(crc32cHardware(0, bytes.data(), split), &bytes[split], 5000 - split), whole);
}

} // namespace
} // namespace kor::detail
