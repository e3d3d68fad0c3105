#pragma once

#include "support/platform/FileDescriptor.h"
#include "support/platform/KernelStamps.h"
#include "support/platform/ReceiveBatch.h"
#include "support/platform/SocketAddress.h"
#include "support/Tracked.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace kor::detail {

/// Sizes and switches of one socket. A switch set to false keeps to the plain calls; one set to true is used
/// where the kernel offers it.
struct UdpSocketOptions {
    std::uint32_t receiveBufferBytes = 8u << 20; ///< asked of the kernel; 0 keeps the system's default
    std::uint32_t sendBufferBytes = 4u << 20;    ///< asked of the kernel; 0 keeps the system's default
    bool segmentationOffload = true;             ///< one call hands over a run of datagrams
    bool receiveOffload = true;                  ///< the kernel joins datagrams of one sender
    bool batchSend = true;                       ///< sendmmsg
    bool batchReceive = true;                    ///< recvmmsg
    bool kernelTimeStamps = true;                ///< arrival times from the kernel
};

/// What the socket uses at the moment. A switch goes off for good when the kernel refuses its service.
struct UdpSocketFeatures {
    bool segmentationOffload = false;
    bool receiveOffload = false;
    bool batchSend = false;
    bool batchReceive = false;
    bool kernelTimeStamps = false;
    std::uint32_t receiveBufferBytes = 0; ///< granted
    std::uint32_t sendBufferBytes = 0;    ///< granted
};

struct UdpSocketCounters {
    std::uint64_t systemCallsSend = 0;
    std::uint64_t systemCallsReceive = 0;
    std::uint64_t kernelDrops = 0; ///< datagrams dropped because the receive buffer was full
};

enum class SendResult : std::uint8_t {
    sent,    ///< handed to the kernel
    blocked, ///< the kernel has no room now; try again when the socket is writable, or shortly
    tooBig,  ///< larger than the outgoing interface takes in one piece
    failed   ///< no route, forbidden, or the like; trying again at once will not help
};

struct OutDatagram {
    SocketAddress to;
    std::span<const std::uint8_t> bytes;
};

/// Non-blocking IPv4 UDP socket that never lets a datagram be fragmented.
///
/// A datagram over the MTU of the interface is refused as `tooBig` instead. What routers (or forgers) report
/// about the path's MTU is not believed: the connection layer finds it out by itself. Not thread-safe:
/// belongs to one thread.
class UdpSocket : public TrackedNew<"support/platform/UdpSocket", "UdpSocket::UdpSocket"> {
public:
    static constexpr std::size_t kMaxDatagramBytes = 65507;

    /// Opens and binds on every interface; port 0 takes any free one. False when that fails, and `error()`
    /// tells why; a port that another socket has is never shared. An open socket is closed first.
    bool open(std::uint16_t port, const UdpSocketOptions& options);
    void close();
    bool isOpen() const { return fd_.valid(); }

    /// Why the last `open` failed, in words.
    const std::string& error() const { return error_; }

    int fd() const { return fd_.get(); }
    std::uint16_t localPort() const { return localPort_; }

    /// Sends one datagram now.
    SendResult send(const SocketAddress& to, std::span<const std::uint8_t> bytes);

    /// Sends `bytes` as datagrams of `segmentSize` bytes each; the last one may be shorter. `sentBytes` tells
    /// how much has left, always whole datagrams; the result is that of the first datagram that has not, or
    /// `sent`.
    SendResult sendTrain(const SocketAddress& to, std::span<const std::uint8_t> bytes,
                         std::size_t segmentSize, std::size_t& sentBytes);

    /// Sends single datagrams to many peers. `sentCount` tells how many have left; the result is that of the
    /// first that has not (so datagrams[sentCount] is to be skipped or tried again), or `sent`.
    SendResult sendBatch(std::span<const OutDatagram> datagrams, std::size_t& sentCount);

    /// Takes in what is waiting, at most `maxRuns` runs (1 to ReceiveBatch::kSlots), replacing what the
    /// batch held. Returns its size; when that is less, nothing more was waiting. To find that out costs as
    /// much as half a datagram.
    std::size_t receive(ReceiveBatch& batch, std::size_t maxRuns = ReceiveBatch::kSlots);

    const UdpSocketFeatures& features() const { return features_; }
    /// What has been counted up to now.
    UdpSocketCounters counters();

private:
    bool configure(const UdpSocketOptions& options);
    bool sendSegmented(const SocketAddress& to, std::span<const std::uint8_t> bytes, std::size_t segmentSize);
    template <class DatagramAt>
    SendResult sendEach(std::size_t count, std::size_t& sent, DatagramAt datagramAt);
    std::size_t receiveMany(ReceiveBatch& batch, std::size_t maxRuns);
    std::size_t receiveOneByOne(ReceiveBatch& batch, std::size_t maxRuns);
    void describe(ReceiveBatch& batch, std::size_t slot);

    FileDescriptor fd_;
    std::uint16_t localPort_ = 0;
    UdpSocketFeatures features_;
    UdpSocketCounters counters_;
    KernelStamps stamps_;
    std::uint32_t lastDropCount_ = 0;
    std::string error_;
};

} // namespace kor::detail
