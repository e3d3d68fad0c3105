#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// Element n is x^(64 n - 33) modulo the polynomial of CRC-32C, bits reversed; 0 has none. The 33 make up for
/// what a carry-less multiplication of reversed polynomials, and the CRC instruction after it, move besides.
using Crc32cShifts = std::array<std::uint32_t, 257>;

constexpr Crc32cShifts makeCrc32cShifts() {
    constexpr std::uint32_t kReversedPolynomial = 0x82F63B78;
    Crc32cShifts shifts{};
    std::uint32_t power = 1; // x^31
    for (std::size_t n = 1; n < shifts.size(); ++n) {
        shifts[n] = power;
        for (int bit = 0; bit < 64; ++bit)
            power = (power >> 1) ^ ((power & 1) != 0 ? kReversedPolynomial : 0);
    }
    return shifts;
}

inline constexpr Crc32cShifts kCrc32cShifts = makeCrc32cShifts();

} // namespace kor::detail
