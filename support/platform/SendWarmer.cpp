#include "support/platform/SendWarmer.h"

#include "support/platform/SocketSystem.h"

#include <array>

namespace kor::detail {

namespace {
constexpr std::size_t kBytes = 64; // about as much as a datagram with time stamps

bool bindTo(int fd, const sockaddr_in& name) {
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}
bool connectTo(int fd, const sockaddr_in& name) {
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}
} // namespace

bool SendWarmer::open() {
    fd_ = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    self_ = {INADDR_LOOPBACK, 0};
    if (isOpen() && bindTo(fd_.get(), toSystem(self_)))
        self_.port = boundPort(fd_.get());
    // Connected to itself, it takes nothing from anybody else.
    if (self_.port == 0 || !connectTo(fd_.get(), toSystem(self_)))
        close();
    return isOpen();
}

void SendWarmer::warm() {
    if (!isOpen())
        return;
    ++count_;
    const int kept = errno;
    std::array<char, kBytes> bytes{};
    // With the address, although it is connected, so that the route is looked up as for any peer.
    const sockaddr_in name = toSystem(self_);
    [[maybe_unused]] const auto sent = ::sendto(fd_.get(), bytes.data(), bytes.size(), 0,
                                                reinterpret_cast<const sockaddr*>(&name), sizeof name);
    // Left in the queue, they would fill it and be counted among the system's drops.
    [[maybe_unused]] const auto received = ::recv(fd_.get(), bytes.data(), bytes.size(), 0);
    errno = kept;
}

} // namespace kor::detail
