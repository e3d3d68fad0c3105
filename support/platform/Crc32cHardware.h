#pragma once

#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// True when this processor has instructions for CRC-32C. Cheap: found out once.
bool crc32cHardwareAvailable();

/// CRC-32C (Castagnoli) of `data` behind bytes whose CRC is `crc`; 0 when there are none. The usual
/// complement before and after is done inside, so that crc32cHardware(0, "123456789", 9) is 0xE3069283 and
/// results chain. Only to be called when `crc32cHardwareAvailable()`. `data` may have any alignment.
///
/// Three interleaved streams, joined by carry-less multiplication, after V. Gopal et al., "Fast CRC
/// Computation for iSCSI Polynomial Using CRC32 Instruction", Intel 2011.
std::uint32_t crc32cHardware(std::uint32_t crc, const std::uint8_t* data, std::size_t size);

/// The same, and copies the data to `copyTo`, which must not overlap it: reads it once for both. Behind the
/// data lie `following` bytes that will be wanted next; some of them are fetched in advance.
std::uint32_t crc32cHardwareCopy(std::uint32_t crc, const std::uint8_t* data, std::size_t size,
                                 std::uint8_t* copyTo, std::size_t following);

} // namespace kor::detail
