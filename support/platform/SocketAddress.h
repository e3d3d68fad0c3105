#pragma once

#include <cstdint>

namespace kor::detail {

/// IPv4 address and UDP port, both in host byte order (127.0.0.1 is 0x7F000001).
struct SocketAddress {
    std::uint32_t ip = 0;
    std::uint16_t port = 0;

    friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
};

} // namespace kor::detail
