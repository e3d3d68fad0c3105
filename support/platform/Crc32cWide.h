#pragma once

#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// Shorter data is summed faster by the CRC instruction.
constexpr std::size_t kMinCrc32cWideBytes = 512;

/// True when this processor has the carry-less multiplication of four pairs at once (VPCLMULQDQ, AVX-512).
/// Cheap: found out once.
bool crc32cWideAvailable();

/// CRC-32C as `crc32cHardware` and `crc32cHardwareCopy` give it, of at least kMinCrc32cWideBytes bytes; only
/// to be called when `crc32cWideAvailable()`.
///
/// Folds the data 256 bytes a step, after V. Gopal et al., "Fast CRC Computation for Generic Polynomials
/// Using PCLMULQDQ Instruction", Intel 2009.
std::uint32_t crc32cWide(std::uint32_t crc, const std::uint8_t* data, std::size_t size);
std::uint32_t crc32cWideCopy(std::uint32_t crc, const std::uint8_t* data, std::size_t size,
                             std::uint8_t* copyTo, std::size_t following);

} // namespace kor::detail
