#pragma once

#include "support/platform/FileDescriptor.h"
#include "support/platform/SocketAddress.h"
#include "support/Time.h"
#include "support/Tracked.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kor::detail {

/// Dotted-decimal text to an address in host byte order; empty when it is no IPv4 address.
std::optional<std::uint32_t> parseIPv4(std::string_view text);
std::string formatIPv4(std::uint32_t ip);

/// UDP socket for announcements: may send to broadcast addresses, and reception can be shut without a trace
/// of what came meanwhile. Blocking until told otherwise. Every operation on a closed socket fails. Not
/// thread-safe.
class BroadcastSocket
    : public TrackedNew<"support/platform/BroadcastSocket", "BroadcastSocket::BroadcastSocket"> {
public:
    bool open();
    void close();
    bool isOpen() const { return fd_.valid(); }

    /// Binds on every interface; 0 takes any free port. A port that another socket has is never shared.
    bool bind(std::uint16_t port);
    bool setNonBlocking();
    std::uint16_t localPort() const;

    /// Drops what is queued and all that comes, until `openReception`.
    bool shutReception();

    /// Sets the receive buffer and takes in datagrams again, but only those that reach this host from now on.
    bool openReception(int bufferBytes);

    /// Takes the next datagram that is not empty, cut to the room given. Returns its bytes stored, 0 when
    /// there is none or reception is shut.
    std::size_t receive(std::span<std::uint8_t> room, SocketAddress& from);

    bool send(const SocketAddress& to, std::span<const std::uint8_t> bytes);

private:
    bool refuseAll();
    void discardQueued();

    FileDescriptor fd_;
    bool shut_ = false;
    Nanoseconds openedAt_ = INT64_MIN; ///< wall clock
};

} // namespace kor::detail
