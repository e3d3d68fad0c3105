#include "support/net/wire/Crc32c.h"

#include "support/net/wire/LittleEndian.h"
#include "support/platform/Crc32cHardware.h"
#include "support/platform/Crc32cWide.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace kor::detail {

namespace {

constexpr std::uint32_t kReversedPolynomial = 0x82F63B78;

using Tables = std::array<std::array<std::uint32_t, 256>, 8>;

/// Table k advances a byte past k bytes of zero that follow it.
constexpr Tables makeTables() {
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReversedPolynomial : 0);
        tables[0][byte] = crc;
    }
    for (std::size_t k = 1; k < 8; ++k)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t crc = tables[k - 1][byte];
            tables[k][byte] = (crc >> 8) ^ tables[0][crc & 0xFF];
        }
    return tables;
}

constexpr Tables kTables = makeTables();

bool goesWide(std::size_t size) {
    return size >= kMinCrc32cWideBytes && crc32cWideAvailable();
}

} // namespace

std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t crc) {
    if (goesWide(bytes.size()))
        return crc32cWide(crc, bytes.data(), bytes.size());
    return crc32cHardwareAvailable() ? crc32cHardware(crc, bytes.data(), bytes.size())
                                     : crc32cPortable(bytes, crc);
}

std::uint32_t crc32cCopy(std::span<const std::uint8_t> head, std::span<const std::uint8_t> bytes,
                         std::uint8_t* copyTo, std::uint32_t crc, std::size_t following) {
    if (crc32cHardwareAvailable()) {
        crc = crc32cHardware(crc, head.data(), head.size());
        return goesWide(bytes.size())
                   ? crc32cWideCopy(crc, bytes.data(), bytes.size(), copyTo, following)
                   : crc32cHardwareCopy(crc, bytes.data(), bytes.size(), copyTo, following);
    }
    std::memcpy(copyTo, bytes.data(), bytes.size());
    return crc32cPortable(bytes, crc32cPortable(head, crc));
}

std::uint32_t crc32cPortable(std::span<const std::uint8_t> bytes, std::uint32_t crc) {
    const std::uint8_t* next = bytes.data();
    std::size_t left = bytes.size();
    crc = ~crc;
    for (; left >= 8; next += 8, left -= 8) {
        const std::uint32_t low = load32(next) ^ crc;
        const std::uint32_t high = load32(next + 4);
        crc = kTables[7][low & 0xFF] ^ kTables[6][low >> 8 & 0xFF] ^ kTables[5][low >> 16 & 0xFF] ^
              kTables[4][low >> 24] ^ kTables[3][high & 0xFF] ^ kTables[2][high >> 8 & 0xFF] ^
              kTables[1][high >> 16 & 0xFF] ^ kTables[0][high >> 24];
    }
    for (; left > 0; ++next, --left)
        crc = (crc >> 8) ^ kTables[0][(crc ^ *next) & 0xFF];
    return ~crc;
}

} // namespace kor::detail
