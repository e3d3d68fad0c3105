#pragma once

#include <cstdint>
#include <span>

namespace kor::detail {

/// A secret key of 128 bits: the first eight bytes, little-endian, and the last eight.
struct SipKey {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
};

/// SipHash-2-4 (Aumasson and Bernstein, "SipHash: a fast short-input PRF", 2012): a keyed hash that nobody
/// without the key can predict or forge. Any thread.
std::uint64_t sipHash24(const SipKey& key, std::span<const std::uint8_t> bytes);

} // namespace kor::detail
