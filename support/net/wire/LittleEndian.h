#pragma once

#include <cstdint>

namespace kor::detail {

/// Integers at any address, little-endian whatever the machine. Compilers turn each into one load or store.

constexpr std::uint16_t load16(const std::uint8_t* from) {
    return static_cast<std::uint16_t>(from[0] | from[1] << 8);
}

constexpr std::uint32_t load32(const std::uint8_t* from) {
    return std::uint32_t{from[0]} | std::uint32_t{from[1]} << 8 | std::uint32_t{from[2]} << 16 |
           std::uint32_t{from[3]} << 24;
}

constexpr std::uint64_t load64(const std::uint8_t* from) {
    return load32(from) | std::uint64_t{load32(from + 4)} << 32;
}

constexpr void store16(std::uint8_t* to, std::uint16_t value) {
    to[0] = static_cast<std::uint8_t>(value);
    to[1] = static_cast<std::uint8_t>(value >> 8);
}

constexpr void store32(std::uint8_t* to, std::uint32_t value) {
    to[0] = static_cast<std::uint8_t>(value);
    to[1] = static_cast<std::uint8_t>(value >> 8);
    to[2] = static_cast<std::uint8_t>(value >> 16);
    to[3] = static_cast<std::uint8_t>(value >> 24);
}

constexpr void store64(std::uint8_t* to, std::uint64_t value) {
    store32(to, static_cast<std::uint32_t>(value));
    store32(to + 4, static_cast<std::uint32_t>(value >> 32));
}

} // namespace kor::detail
