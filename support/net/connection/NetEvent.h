#pragma once

#include "support/net/delivery/Block.h"

#include <cstdint>

namespace kor::detail {

/// What the core reports upward, in the order in which it happened.
struct NetEvent {
    enum class Kind : std::uint8_t {
        connected,    ///< a connection stands
        failed,       ///< an attempt of ours has failed; no connection
        reconnecting, ///< the connection is gone and a new one is being made
        disconnected, ///< the peer said goodbye
        lost,         ///< nothing heard for too long, or the peer no longer knows the connection
        packet,       ///< a packet, whole and in order; the core waits for consumed()
        measured,     ///< round trip and clock may have new values
        delivered     ///< the peer has consumed our packet
    };
    Kind kind = Kind::lost;
    std::uint64_t serial = 0; ///< the connection, numbered by the endpoint; 0 for `failed`
    std::uint64_t addressKey = 0;
    std::uint64_t packetId = 0; ///< delivered
    Block bytes;                ///< packet
};

} // namespace kor::detail
