#pragma once

#include "support/net/Datagram.h"

#include <cstdint>
#include <functional>
#include <span>

namespace kor::simulation {

/// Rewrites the stamps that a datagram carries, if it does.
void changeStamps(std::span<std::uint8_t> datagram, const std::function<void(detail::TimeFrame&)>& change);

} // namespace kor::simulation
