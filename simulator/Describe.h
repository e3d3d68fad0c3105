#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kor::simulation {

/// What a datagram says, in one line, for people who look for a fault; "malformed" when it breaks the format.
std::string describe(std::span<const std::uint8_t> datagram);

} // namespace kor::simulation
