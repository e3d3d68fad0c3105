#pragma once

#include "Export.h"
#include "jString.h"

#include <cstdint>

namespace kor {

/// Address of a peer: IPv4 address and UDP port. A value type.
///
/// Two addresses denote the same peer exactly when their keys are equal.
class KOR_API RTAddr {
public:
    /// The address of nobody: 0.0.0.0, port 0, key 0.
    RTAddr() = default;

    /// `ip` in host byte order (127.0.0.1 is 0x7F000001).
    RTAddr(std::uint32_t ip, std::uint16_t port) : ip_(ip), port_(port) {}

    /// Parses dotted-decimal text such as "10.0.0.5". False, and unchanged, when it is no IPv4 address.
    bool set(const jString& ip, std::uint16_t port);

    /// The IPv4 address in host byte order.
    std::uint32_t getIP() const { return ip_; }
    /// The UDP port, in host byte order.
    std::uint16_t getPort() const { return port_; }

    /// Identity: equal for the same address and port, different otherwise.
    std::uint64_t getKey() const { return (std::uint64_t{ip_} << 16) | port_; }

    /// "10.0.0.5:7000".
    jString formatString() const;

    /// Equal for the same address and port.
    friend bool operator==(const RTAddr& a, const RTAddr& b) { return a.getKey() == b.getKey(); }

private:
    std::uint32_t ip_ = 0;
    std::uint16_t port_ = 0;
};

} // namespace kor
