#pragma once

#include <cstdint>

namespace kor::detail {

/// The system's steady clock in nanoseconds since a fixed moment of the machine, the same for all its
/// processes.
std::int64_t systemSteadyNow();

} // namespace kor::detail
