#include "support/platform/SystemRandom.h"

#include <sys/random.h>

#include <cerrno>
#include <cstddef>

namespace kor::detail {

bool systemRandom(std::span<std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto got = ::getrandom(bytes.data(), bytes.size(), 0);
        if (got < 0 && errno != EINTR)
            return false;
        if (got > 0)
            bytes = bytes.subspan(static_cast<std::size_t>(got));
    }
    return true;
}

} // namespace kor::detail
