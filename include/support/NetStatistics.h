#pragma once

#include <cstdint>

namespace kor {

/// Datagrams dropped because of what they held, by reason.
struct MalformedCounters {
    std::uint64_t tooShort = 0;          ///< shorter than the fixed header
    std::uint64_t checksum = 0;          ///< checksum does not fit
    std::uint64_t unknownKind = 0;       ///< no such datagram kind or protocol version
    std::uint64_t badFrame = 0;          ///< a frame that is cut off or breaks the format
    std::uint64_t unknownConnection = 0; ///< a connection id that is not (or no longer) ours
    std::uint64_t overLimit = 0;         ///< well-formed, but over a limit that we announced
};

/// What one connection has measured and done since it was established. Times in milliseconds.
struct ConnectionStatistics {
    double roundTripLeast = 0;          ///< least round trip
    double roundTripP50 = 0;            ///< median of the recent round trips
    double roundTripP99 = 0;            ///< 99th percentile of the recent round trips
    double timeOffset = -1e9;           ///< peer's clock minus ours; exactly -1e9 while unknown
    double timeOffsetBound = 0;         ///< bound on its error
    double clockSkew = 0;               ///< parts per million by which the peer's clock runs faster than ours
    std::uint64_t packetsSent = 0;      ///< packets of the application accepted for sending
    std::uint64_t packetsDelivered = 0; ///< packets of ours that the peer has consumed
    std::uint64_t packetsReceived = 0;  ///< packets of the peer consumed
    std::uint64_t bytesSent = 0;        ///< of application packets accepted for sending
    std::uint64_t bytesReceived = 0;    ///< of application packets consumed
    std::uint64_t wireBytesSent = 0;    ///< datagram bytes, headers of this layer included
    std::uint64_t wireBytesReceived = 0; ///< the same, received
    std::uint64_t datagramsSent = 0;     ///< UDP datagrams sent
    std::uint64_t datagramsReceived = 0; ///< UDP datagrams received and accepted
    std::uint64_t repairs = 0;           ///< fragments sent again because they were taken for lost
    std::uint64_t spuriousRepairs = 0;   ///< of those, datagrams that had arrived after all
    std::uint64_t probes = 0;            ///< repairs sent for a tail that nobody reported
    std::uint64_t duplicates = 0;        ///< datagrams that came twice
    std::uint64_t gapReports = 0;        ///< acknowledgements sent that reported a gap
    std::uint64_t windowStalls = 0;      ///< times that sending stopped because the window was full
    std::uint32_t payloadSize = 0;       ///< largest datagram payload in use, bytes
    std::uint32_t window = 0;            ///< bytes that may be in flight
    std::uint64_t queuedBytes = 0;       ///< accepted and not yet delivered
};

/// What a connection layer as a whole has seen.
struct NetStatistics {
    std::uint32_t connections = 0;       ///< connections that stand now
    std::uint64_t wireBytesSent = 0;     ///< datagram bytes, of all connections and of handshakes
    std::uint64_t wireBytesReceived = 0; ///< the same, received
    std::uint64_t datagramsSent = 0;     ///< UDP datagrams sent
    std::uint64_t datagramsReceived = 0; ///< UDP datagrams received, sound or not
    std::uint64_t kernelDrops = 0; ///< datagrams that the kernel dropped because our receive buffer was full
    std::uint64_t refusedConnections = 0; ///< table of peers full, or too many events waiting
    std::uint64_t badCookies = 0;         ///< answers to our challenge that were forged or too old
    std::uint64_t systemCallsSend = 0;    ///< system calls that sent, since the layer was opened
    std::uint64_t systemCallsReceive = 0; ///< system calls that received
    MalformedCounters malformed;          ///< datagrams dropped because of what they held
    bool segmentationOffload = false;     ///< in use: one call sends a run of datagrams
    bool receiveOffload = false;          ///< in use: the kernel joins datagrams of one sender
    bool batchSend = false;               ///< in use: sendmmsg
    bool batchReceive = false;            ///< in use: recvmmsg
    bool kernelTimeStamps = false;        ///< in use: arrival times come from the kernel
    bool warmSends = false;               ///< in use: time stamps do not leave through a cold processor
    std::uint32_t receiveBufferBytes = 0; ///< granted by the kernel
    std::uint32_t sendBufferBytes = 0;    ///< granted by the kernel
    std::uint64_t gatherings = 0;         ///< waits that let datagrams come together (`NetOptions::gather`)
};

} // namespace kor
