#pragma once

#include "support/net/wire/Datagram.h"

namespace kor::detail {

/// Where things are in a datagram, for encoder and decoder. docs/protocol.md has the same in tables.

enum class FrameType : std::uint8_t {
    ack = 1,
    fragment = 2,
    time = 3,
    timeEcho = 4,
    ping = 5,
    padding = 6,
    close = 7
};

inline constexpr std::size_t kChecksumBytes = 4;
inline constexpr std::size_t kKindAt = 4;
inline constexpr std::size_t kVersionAt = 5;
inline constexpr std::size_t kFlagsAt = 6;
inline constexpr std::size_t kReservedAt = 7;
inline constexpr std::size_t kConnectionIdAt = 8;

inline constexpr std::uint8_t kFlagFromInitiator = 1;

inline constexpr std::size_t kParametersBytes = 16;
inline constexpr std::size_t kChallengeBytes = kHeaderBytes + 16;
inline constexpr std::size_t kAcceptBytes = kHeaderBytes + 8 + kParametersBytes;

inline constexpr std::size_t kAckFrameBytes = 16;     ///< with one range
inline constexpr std::size_t kAckRangeBytes = 4;      ///< each further one
inline constexpr std::uint32_t kMaxRunInAck = 0xFFFF; ///< also for the numbers missing between two

/// Writes all of the header but the checksum.
void writeHeader(std::span<std::uint8_t> out, DatagramKind kind, bool fromInitiator,
                 std::uint64_t connectionId);

/// Fills in the checksum of a whole datagram.
void writeChecksum(std::span<std::uint8_t> datagram);

} // namespace kor::detail
