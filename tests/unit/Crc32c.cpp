#include "support/net/Crc32c.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string_view>
#include <vector>

namespace {

using namespace kor::detail;
using Bytes = std::vector<std::uint8_t>;

struct Vector {
    Bytes bytes;
    std::uint32_t crc;
};

// RFC 3720 appendix B.4, and the check value of the catalogue of CRCs.
std::vector<Vector> publishedVectors() {
    Bytes up(32);
    std::iota(up.begin(), up.end(), std::uint8_t{0});
    const Bytes down(up.rbegin(), up.rend());
    // clang-format off
    const Bytes readCommand = {
        0x01, 0xC0, 0, 0,  0, 0, 0, 0,        0, 0, 0, 0,     0, 0, 0, 0,
        0x14, 0, 0, 0,     0, 0, 0x04, 0,     0, 0, 0, 0x14,  0, 0, 0, 0x18,
        0x28, 0, 0, 0,     0, 0, 0, 0,        0x02, 0, 0, 0,  0, 0, 0, 0};
    // clang-format on
    const std::string_view digits = "123456789";
    return {{{}, 0},
            {Bytes(32, 0x00), 0x8A9136AA},
            {Bytes(32, 0xFF), 0x62A8AB43},
            {up, 0x46DD794E},
            {down, 0x113FDB5C},
            {readCommand, 0xD9963A56},
            {Bytes(digits.begin(), digits.end()), 0xE3069283}};
}

TEST(Crc32c, PublishedVectors) {
    for (const Vector& vector : publishedVectors()) {
        EXPECT_EQ(crc32c(vector.bytes), vector.crc);
        EXPECT_EQ(crc32cPortable(vector.bytes), vector.crc);
    }
}

// Both ways, from every alignment, whole and continued.
TEST(Crc32c, WaysAgreeAndContinue) {
    std::mt19937 random(1);
    Bytes bytes(20'000);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    for (int round = 0; round < 2000; ++round) {
        const std::size_t from = random() % 16;
        const std::size_t size = round % 4 != 0 ? random() % 300 : random() % (bytes.size() - from);
        const std::span part = std::span(bytes).subspan(from, size);
        const std::size_t split = size == 0 ? 0 : random() % size;
        const std::uint32_t whole = crc32cPortable(part);
        ASSERT_EQ(crc32c(part), whole) << from << " " << size;
        ASSERT_EQ(crc32cPortable(part.subspan(split), crc32cPortable(part.first(split))), whole);
        ASSERT_EQ(crc32c(part.subspan(split), crc32c(part.first(split))), whole);
        Bytes copy(size + 1);
        ASSERT_EQ(crc32cCopy(part.first(split), part.subspan(split), copy.data()), whole);
        ASSERT_EQ(crc32cCopy(part.first(split), part.subspan(split), copy.data(), 7),
                  crc32cPortable(part, 7));
        ASSERT_TRUE(std::equal(part.begin() + static_cast<std::ptrdiff_t>(split), part.end(), copy.begin()));
        ASSERT_EQ(copy[size - split], 0) << "written behind the end";
    }
}

} // namespace
