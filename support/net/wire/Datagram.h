#pragma once

#include "support/Time.h"
#include "support/Tracked.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kor::detail {

/// The only code that reads or writes the bytes of a datagram; docs/protocol.md gives the same bytes in
/// words.
///
/// Decoding checks everything that can be checked without knowing the connection. What comes out is typed,
/// within the datagram, and safe to use; views point into the datagram's bytes.

enum class DatagramKind : std::uint8_t {
    request = 1,   ///< connecting side asks; padded so that no answer is larger
    challenge = 2, ///< accepting side answers with a cookie and keeps nothing
    response = 3,  ///< connecting side returns the cookie with its parameters
    accept = 4,    ///< accepting side has made the connection
    reset = 5,     ///< "I do not know this connection id"
    data = 6       ///< everything on a connection
};

inline constexpr std::uint8_t kProtocolVersion = 1;
inline constexpr std::size_t kHeaderBytes = 16;         ///< checksum, kind, version, flags, 0, connection id
inline constexpr std::size_t kDataHeaderBytes = 20;     ///< the same and the datagram's number
inline constexpr std::size_t kHandshakeBytes = 128;     ///< size of request and response
inline constexpr std::size_t kFragmentHeaderBytes = 15; ///< type, packet id, packet size, offset, length
inline constexpr std::size_t kTimeFrameBytes = 9;
inline constexpr std::size_t kTimeEchoFrameBytes = 25;
inline constexpr std::size_t kMaxFragmentsPerDatagram = 64;
inline constexpr std::size_t kMaxAckRanges = 32;
inline constexpr std::size_t kMaxDatagramBytes = 65507; ///< largest UDP payload over IPv4

/// What each side tells the other about its limits when a connection opens.
struct ConnectionParameters {
    std::uint32_t maxPacketBytes = 0;     ///< largest packet taken
    std::uint32_t receiveLimitBytes = 0;  ///< bytes of packets begun and not yet consumed that it keeps
    std::uint32_t socketBufferBytes = 0;  ///< receive buffer that its kernel granted
    std::uint32_t maxDatagramPayload = 0; ///< largest datagram it takes
};

/// Frame: what has arrived and what has been consumed.
struct AckFrame {
    /// A run of datagram numbers that arrived: last, last - 1, ... (count of them, at least 1).
    struct Range {
        std::uint32_t last = 0;
        std::uint32_t count = 0;
    };
    std::uint32_t delayMicroseconds = 0;     ///< from the arrival of the newest datagram to this report
    std::uint32_t consumed = 0;              ///< id of the last packet consumed by the application
    std::size_t rangeCount = 0;              ///< 1 to kMaxAckRanges
    std::array<Range, kMaxAckRanges> ranges; ///< newest first; at least one number is missing between two
};

/// Frame: a piece of one packet.
struct FragmentFrame {
    std::uint32_t packetId = 0;
    std::uint32_t packetSize = 0;        ///< at least 1
    std::uint32_t offset = 0;            ///< offset + bytes.size() <= packetSize
    std::span<const std::uint8_t> bytes; ///< at least 1
};

/// Frame: clock stamps, in nanoseconds of the clocks named.
struct TimeFrame {
    Nanoseconds sent = 0; ///< sender's clock when this datagram left
    bool hasEcho = false;
    Nanoseconds echoSent = 0;     ///< receiver's clock: the newest `sent` that has come from it
    Nanoseconds echoReceived = 0; ///< sender's clock when that one arrived
};

struct DatagramHeader {
    DatagramKind kind = DatagramKind::data;
    /// Sent by the side that connected, so that a reflected datagram is told apart.
    bool fromInitiator = false;
    /// In request, challenge, response and accept: the connecting side's nonce.
    std::uint64_t connectionId = 0;
};

/// A whole decoded datagram. Which members hold something depends on the kind.
struct DecodedDatagram : TrackedNew<"support/net/wire/Datagram", "DecodedDatagram::DecodedDatagram"> {
    DatagramHeader header;
    // challenge and response
    std::uint64_t cookie = 0;
    Nanoseconds cookieTime = 0; ///< accepting side's clock when it made the cookie
    // response and accept
    ConnectionParameters parameters;
    // accept
    std::uint64_t newConnectionId = 0;
    // data
    std::uint32_t number = 0;
    std::optional<AckFrame> ack;
    std::optional<TimeFrame> time;
    bool ping = false;    ///< wants an acknowledgement at once
    bool padding = false; ///< a probe for a larger payload
    bool close = false;   ///< goodbye
    std::size_t fragmentCount = 0;
    std::array<FragmentFrame, kMaxFragmentsPerDatagram> fragments;

    /// True when the sender waits for an acknowledgement of this datagram.
    bool wantsAck() const { return ping || padding || fragmentCount != 0; }
};

enum class DecodeError : std::uint8_t { none, tooShort, checksum, unknownKind, badFrame };

/// Decodes one datagram. On an error `out` is unspecified and the datagram is to be dropped and counted.
DecodeError decodeDatagram(std::span<const std::uint8_t> bytes, DecodedDatagram& out);

enum class FrameType : std::uint8_t;

/// Writes one data datagram into a caller's buffer. Frames that do not fit, and a second one of those that
/// may come only once, are refused and leave nothing behind.
class DatagramWriter {
public:
    /// `buffer` must hold at least kDataHeaderBytes; its size is the largest datagram written.
    DatagramWriter(std::span<std::uint8_t> buffer, std::uint64_t connectionId, bool fromInitiator,
                   std::uint32_t number);

    /// Drops the oldest ranges that do not fit; false when not even one fits.
    bool addAck(const AckFrame& ack);
    bool addTime(const TimeFrame& time);
    /// Where in the datagram the stamp of its sending stands, for restamp(); 0 when it has none.
    std::size_t stampAt() const { return stampAt_; }
    bool addPing();
    bool addClose();

    /// Bytes of a fragment that fit now; 0 when none does or the datagram has as many fragments as it may.
    std::size_t fragmentRoom() const;
    /// `fragment.bytes` is copied; false when it does not fit. Behind them lie `following` bytes that may
    /// come into the next datagrams.
    bool addFragment(const FragmentFrame& fragment, std::size_t following = 0);

    /// Adds padding, at least one byte, up to `size` bytes in all; nothing can be added after it.
    bool addPaddingTo(std::size_t size);

    bool empty() const { return size_ == kDataHeaderBytes; }
    std::size_t size() const { return size_; }

    /// Completes the checksum; returns the whole datagram's size.
    std::size_t finish();

private:
    std::uint8_t* beginFrame(FrameType type, std::size_t bytes);
    std::uint8_t* beginOnlyFrame(FrameType type, std::size_t bytes);

    void sumUp();

    std::span<std::uint8_t> buffer_;
    std::size_t size_ = 0;
    std::size_t summed_;    ///< up to here the checksum is known
    std::uint32_t sum_ = 0; ///< of the bytes from behind the checksum to there
    std::size_t stampAt_ = 0;
    std::size_t fragments_ = 0;
    unsigned framesOnce_ = 0; ///< bit per type of those frames that may come once and have
};

/// Sets the stamp of its sending in a finished datagram, at `stampAt`, to `now`.
void restamp(std::span<std::uint8_t> datagram, std::size_t stampAt, Nanoseconds now);

/// Handshake datagrams. Each returns its size; `out` must hold kHandshakeBytes.
std::size_t writeRequest(std::span<std::uint8_t> out, std::uint64_t nonce);
std::size_t writeChallenge(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t cookie,
                           Nanoseconds cookieTime);
std::size_t writeResponse(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t cookie,
                          Nanoseconds cookieTime, const ConnectionParameters& parameters);
std::size_t writeAccept(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t connectionId,
                        const ConnectionParameters& parameters);
std::size_t writeReset(std::span<std::uint8_t> out, std::uint64_t connectionId, bool fromInitiator);

} // namespace kor::detail
