#include "support/platform/BroadcastSocket.h"

#include "support/platform/KernelStamps.h"
#include "support/platform/SocketSystem.h"

#include <fcntl.h>
#include <linux/filter.h>

#include <algorithm>
#include <array>

namespace kor::detail {

namespace {

/// Datagrams passed over in one call at most, so that a flood of them cannot hold the caller.
constexpr int kMaxPassedOver = 256;

/// How long the kernel may sit on a datagram before it reaches the socket's queue, with a wide margin.
constexpr Nanoseconds kMaxUnderway = kSecond;

} // namespace

std::optional<std::uint32_t> parseIPv4(std::string_view text) {
    in_addr address{};
    const std::string terminated(text);
    if (text.find('\0') != std::string_view::npos || inet_pton(AF_INET, terminated.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::string formatIPv4(std::uint32_t ip) {
    std::array<char, INET_ADDRSTRLEN> text{};
    const in_addr address{htonl(ip)};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

bool BroadcastSocket::open() {
    close();
    fd_ = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!isOpen())
        return false;
    if (!setOption(fd_.get(), SOL_SOCKET, SO_BROADCAST, 1)) {
        close();
        return false;
    }
    setOption(fd_.get(), SOL_SOCKET, SO_TIMESTAMPNS, 1);
    return true;
}

void BroadcastSocket::close() {
    fd_.close();
    shut_ = false;
    openedAt_ = INT64_MIN;
}

bool BroadcastSocket::bind(std::uint16_t port) {
    return isOpen() && bindEverywhere(fd_.get(), port);
}

bool BroadcastSocket::setNonBlocking() {
    const int flags = ::fcntl(fd_.get(), F_GETFL);
    return flags >= 0 && ::fcntl(fd_.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

std::uint16_t BroadcastSocket::localPort() const {
    return boundPort(fd_.get());
}

bool BroadcastSocket::shutReception() {
    if (!isOpen() || !refuseAll())
        return false;
    shut_ = true;
    discardQueued();
    return true;
}

bool BroadcastSocket::openReception(int bufferBytes) {
    if (!shutReception())
        return false;
    const int fd = fd_.get();
    if (!setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, bufferBytes) &&
        !setOption(fd, SOL_SOCKET, SO_RCVBUF, bufferBytes))
        return false;
    openedAt_ = wallClockNow();
    shut_ = !setOption(fd, SOL_SOCKET, SO_DETACH_FILTER, 0);
    return !shut_;
}

/// Only a filter does that: the smallest receive buffer that the kernel sets still takes a few datagrams.
bool BroadcastSocket::refuseAll() {
    sock_filter dropEverything = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program{1, &dropEverything};
    return ::setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

/// With the filter in place the queue can only shrink, so that this ends even in a flood.
void BroadcastSocket::discardQueued() {
    char byte = 0;
    std::uint64_t calls = 0;
    while (retried(calls, [&] { return ::recv(fd_.get(), &byte, sizeof byte, MSG_DONTWAIT); }) >= 0) {
    }
}

std::size_t BroadcastSocket::receive(std::span<std::uint8_t> room, SocketAddress& from) {
    std::uint64_t calls = 0;
    for (int passedOver = 0; isOpen() && !shut_ && passedOver < kMaxPassedOver; ++passedOver) {
        sockaddr_in name{};
        iovec vector{room.data(), room.size()};
        alignas(cmsghdr) std::array<char, 128> control{};
        msghdr message{};
        message.msg_name = &name;
        message.msg_namelen = sizeof name;
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const auto size = retried(calls, [&] { return ::recvmsg(fd_.get(), &message, 0); });
        if (size < 0)
            return 0;
        // What the kernel was still carrying to the queue when reception opened met the filter no more.
        const cmsghdr* stamp = CMSG_FIRSTHDR(&message);
        const bool stamped =
            stamp != nullptr && stamp->cmsg_level == SOL_SOCKET && stamp->cmsg_type == SCM_TIMESTAMPNS;
        const bool stale =
            stamped && stampOf(stamp) < openedAt_ && stampOf(stamp) >= openedAt_ - kMaxUnderway;
        if (size == 0 || stale)
            continue;
        from = fromSystem(name);
        return static_cast<std::size_t>(size);
    }
    return 0;
}

bool BroadcastSocket::send(const SocketAddress& to, std::span<const std::uint8_t> bytes) {
    const sockaddr_in name = toSystem(to);
    std::uint64_t calls = 0;
    return retried(calls, [&] {
               return ::sendto(fd_.get(), bytes.data(), bytes.size(), 0,
                               reinterpret_cast<const sockaddr*>(&name), sizeof name);
           }) >= 0;
}

} // namespace kor::detail
