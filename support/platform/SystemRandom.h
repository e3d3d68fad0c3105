#pragma once

#include <cstdint>
#include <span>

namespace kor::detail {

/// Fills `bytes` from the system's generator, fit for secret keys. False, with the content unspecified, when
/// the system gives none.
[[nodiscard]] bool systemRandom(std::span<std::uint8_t> bytes);

} // namespace kor::detail
