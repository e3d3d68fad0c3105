#include <support/CRC.h>

#include <array>
#include <cstddef>

namespace kor {

namespace {

constexpr std::uint64_t kPolynomial = 0xC96C5795D7870F42; // ECMA-182, bits reflected

constexpr std::array<std::uint64_t, 256> makeTable() {
    std::array<std::uint64_t, 256> table{};
    for (std::size_t byte = 0; byte < table.size(); ++byte) {
        std::uint64_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ kPolynomial : crc >> 1;
        table[byte] = crc;
    }
    return table;
}

constexpr std::array<std::uint64_t, 256> kTable = makeTable();

} // namespace

std::int64_t CRC::c64(const void* data, int length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t crc = ~std::uint64_t{0};
    for (int i = 0; bytes && i < length; ++i)
        crc = kTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return static_cast<std::int64_t>(~crc);
}

} // namespace kor
