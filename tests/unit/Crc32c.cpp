#include "support/net/wire/Crc32c.h"
#include "support/platform/Crc32cHardware.h"
#include "support/platform/Crc32cWide.h"

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

using Sum = std::uint32_t (*)(std::uint32_t, const std::uint8_t*, std::size_t);
using SumAndCopy = std::uint32_t (*)(std::uint32_t, const std::uint8_t*, std::size_t, std::uint8_t*,
                                     std::size_t);

void expectSum(Sum sum, SumAndCopy sumAndCopy, std::span<const std::uint8_t> part, std::uint32_t before) {
    const std::uint32_t wanted = crc32cPortable(part, before);
    ASSERT_EQ(sum(before, part.data(), part.size()), wanted) << part.size();
    Bytes copy(part.size() + 1);
    ASSERT_EQ(sumAndCopy(before, part.data(), part.size(), copy.data(), 0), wanted) << part.size();
    ASSERT_TRUE(std::equal(part.begin(), part.end(), copy.begin())) << part.size();
    ASSERT_EQ(copy.back(), 0) << "written behind the end";
}

/// Every means (the processor's instructions where there are such, tables, while copying), whole and
/// continued.
void expectAgreement(std::span<const std::uint8_t> part, std::size_t split) {
    const std::uint32_t whole = crc32cPortable(part);
    ASSERT_EQ(crc32c(part), whole) << part.size();
    if (crc32cHardwareAvailable())
        expectSum(crc32cHardware, crc32cHardwareCopy, part, static_cast<std::uint32_t>(split));
    if (crc32cWideAvailable() && part.size() >= kMinCrc32cWideBytes)
        expectSum(crc32cWide, crc32cWideCopy, part, static_cast<std::uint32_t>(split));
    ASSERT_EQ(crc32cPortable(part.subspan(split), crc32cPortable(part.first(split))), whole);
    ASSERT_EQ(crc32c(part.subspan(split), crc32c(part.first(split))), whole) << part.size() << " " << split;
    const auto head = part.first(split);
    const auto tail = part.subspan(split);
    Bytes copy(tail.size() + 1);
    ASSERT_EQ(crc32cCopy(head, tail, copy.data()), whole) << part.size() << " " << split;
    ASSERT_EQ(crc32cCopy(head, tail, copy.data(), 7), crc32cPortable(part, 7));
    ASSERT_TRUE(std::equal(tail.begin(), tail.end(), copy.begin()));
    ASSERT_EQ(copy.back(), 0) << "written behind the end";
}

TEST(Crc32c, WaysAgreeAndContinueAtEverySizeAndAlignment) {
    std::mt19937 random(1);
    Bytes bytes(70'000);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    const auto check = [&](std::size_t size) {
        expectAgreement(std::span(bytes).subspan(random() % 16, size), size == 0 ? 0 : random() % size);
    };
    for (std::size_t size = 0; size < 700; ++size)
        check(size);
    // Around the instruction's largest round of three streams, and several of them.
    for (const std::size_t rounds : {1u, 2u, 5u, 21u})
        for (std::size_t size = rounds * 3072 - 40; size < rounds * 3072 + 80; ++size)
            check(size);
}

} // namespace
