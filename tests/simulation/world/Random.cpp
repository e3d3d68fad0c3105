#include "Random.h"

#include <bit>

namespace kor::simulation {

std::uint32_t Random::size(std::uint32_t least, std::uint32_t most) {
    // Not by logarithms: their last bit differs from one mathematics library to another.
    const int bits = static_cast<int>(between(std::bit_width(least), std::bit_width(most)));
    const std::uint64_t low = bits <= 1 ? 1 : 1ull << (bits - 1);
    const std::uint64_t value = low + below(low);
    return static_cast<std::uint32_t>(value < least ? least : value > most ? most : value);
}

} // namespace kor::simulation
