#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kor::detail {

/// CRC-32C (Castagnoli, as in RFC 3720 appendix B.4), by the processor's instruction where there is one.
///
/// `crc` is the sum of the bytes that come before these, 0 when there are none. Any thread.
std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0);

/// The sum of `head` and then `bytes`. Copies the bytes to `copyTo`, which must not overlap them: reads them
/// once for both. Behind the bytes lie `following` more that will be wanted next.
std::uint32_t crc32cCopy(std::span<const std::uint8_t> head, std::span<const std::uint8_t> bytes,
                         std::uint8_t* copyTo, std::uint32_t crc = 0, std::size_t following = 0);

/// The same sum without the instruction: eight tables, eight bytes a step (Kounavis and Berry, 2005).
std::uint32_t crc32cPortable(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0);

} // namespace kor::detail
