#include "support/platform/UdpSocket.h"

#include "support/platform/SocketSystem.h"

#include <linux/sock_diag.h>
#include <netinet/udp.h>

#include <support/jLog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <system_error>

namespace kor::detail {

namespace {

/// Asks for a buffer size, beyond the system's limit where that is permitted, and returns what was granted.
std::uint32_t setBufferSize(int fd, int option, int forceOption, std::uint32_t wanted) {
    const int size = static_cast<int>(std::min<std::uint32_t>(wanted, INT_MAX / 2));
    if (wanted != 0 && !setOption(fd, SOL_SOCKET, forceOption, size))
        setOption(fd, SOL_SOCKET, option, size);
    int doubled = 0;
    socklen_t length = sizeof doubled;
    if (getsockopt(fd, SOL_SOCKET, option, &doubled, &length) != 0)
        return 0;
    return static_cast<std::uint32_t>(doubled) / 2; // the kernel counts its own overhead in and doubles
}

void warnOnce(std::atomic<bool>& warned, const char* buffer, const char* sysctl, std::uint32_t granted,
              std::uint32_t wanted) {
    if (granted >= wanted / 2 || warned.exchange(true))
        return;
    jLog::warning("%s:the system grants %u of %u bytes of %s buffer, too few for bursts; "
                  "raise the limit: sysctl -w %s=%u",
                  "UdpSocket::open", granted, wanted, buffer, sysctl, wanted);
}

std::atomic<bool> warnedOfReceive{false};
std::atomic<bool> warnedOfSend{false};

} // namespace

bool UdpSocket::open(std::uint16_t port, const UdpSocketOptions& options) {
    close();
    error_.clear();
    fd_ = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!fd_.valid() || !configure(options) || !bindEverywhere(fd(), port)) {
        error_ = std::system_category().message(errno);
        close();
        return false;
    }
    localPort_ = boundPort(fd());
    return true;
}

void UdpSocket::close() {
    fd_.close();
    localPort_ = 0;
    features_ = {};
    counters_ = {};
    stamps_ = {};
    lastDropCount_ = 0;
}

/// Before the port is bound, so that no datagram comes in under other rules.
bool UdpSocket::configure(const UdpSocketOptions& options) {
    // "Probe" sets don't-fragment and goes by the interface's MTU alone, which no forged message shrinks.
    if (!setOption(fd(), IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_PROBE))
        return false;
    features_.receiveBufferBytes = setBufferSize(fd(), SO_RCVBUF, SO_RCVBUFFORCE, options.receiveBufferBytes);
    features_.sendBufferBytes = setBufferSize(fd(), SO_SNDBUF, SO_SNDBUFFORCE, options.sendBufferBytes);
    warnOnce(warnedOfReceive, "receive", "net.core.rmem_max", features_.receiveBufferBytes,
             options.receiveBufferBytes);
    warnOnce(warnedOfSend, "send", "net.core.wmem_max", features_.sendBufferBytes, options.sendBufferBytes);

    // A segment size of 0 changes nothing, but tells whether the kernel knows of it.
    features_.segmentationOffload =
        options.segmentationOffload && setOption(fd(), IPPROTO_UDP, UDP_SEGMENT, 0);
    features_.receiveOffload = options.receiveOffload && setOption(fd(), IPPROTO_UDP, UDP_GRO, 1);
    features_.kernelTimeStamps = options.kernelTimeStamps && setOption(fd(), SOL_SOCKET, SO_TIMESTAMPNS, 1);
    features_.batchSend = options.batchSend;
    features_.batchReceive = options.batchReceive;
    stamps_.update(readClockPair());
    return true;
}

UdpSocketCounters UdpSocket::counters() {
    std::array<std::uint32_t, SK_MEMINFO_VARS> info{};
    socklen_t length = sizeof info;
    // Asked for here, since to have it told with every datagram costs each of them.
    if (isOpen() && getsockopt(fd(), SOL_SOCKET, SO_MEMINFO, info.data(), &length) == 0) {
        counters_.kernelDrops += static_cast<std::uint32_t>(info[SK_MEMINFO_DROPS] - lastDropCount_);
        lastDropCount_ = info[SK_MEMINFO_DROPS];
    }
    return counters_;
}

} // namespace kor::detail
