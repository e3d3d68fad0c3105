#include "FrameSocket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t kHeader = 10; // of virtio_net_hdr, whose header file C++ does not read
constexpr std::size_t kMaxFrame = 70'000;

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void set(int fd, int level, int option, int value) {
    if (::setsockopt(fd, level, option, &value, sizeof value) != 0)
        throw std::system_error(errno, std::generic_category(), "setsockopt");
}

} // namespace

std::int64_t systemTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

std::uint64_t Frame::address(std::size_t offset) const {
    std::uint64_t result = 0;
    std::memcpy(&result, bytes.data() + kHeader + offset, ETH_ALEN);
    return result;
}

FrameSocket::FrameSocket(const std::string& interface)
    : fd_(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0)
        throw std::system_error(errno, std::generic_category(), "socket");
    set(fd_, SOL_PACKET, PACKET_VNET_HDR, 1);
    set(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
    set(fd_, SOL_SOCKET, SO_TIMESTAMPNS, 1);
    sockaddr_ll name{};
    name.sll_family = AF_PACKET;
    name.sll_protocol = htons(ETH_P_ALL);
    name.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
    if (name.sll_ifindex == 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
        throw std::system_error(errno, std::generic_category(), interface);
}

FrameSocket::FrameSocket(FrameSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FrameSocket::~FrameSocket() {
    if (fd_ >= 0)
        ::close(fd_);
}

std::optional<Frame> FrameSocket::receive() {
    static std::array<std::uint8_t, kMaxFrame> buffer;
    alignas(cmsghdr) std::array<char, 256> control;
    iovec vector{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = ::recvmsg(fd_, &message, 0);
    if (size < static_cast<ssize_t>(kHeader + ETH_HLEN))
        return std::nullopt;
    Frame frame{{buffer.begin(), buffer.begin() + size}, systemTime()};
    for (const cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, const_cast<cmsghdr*>(part)))
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp{};
            std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
            frame.arrival = nanoseconds(stamp);
        }
    return frame;
}

void FrameSocket::send(std::span<const std::uint8_t> bytes) {
    [[maybe_unused]] const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), 0);
}
