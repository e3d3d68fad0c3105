#pragma once

#include <cstdint>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kor::bench {

/// A blocking socket of the reference programs, on this machine only.
class PlainSocket {
public:
    /// SOCK_DGRAM or SOCK_STREAM, bound to a free port.
    explicit PlainSocket(int type) : fd_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const sockaddr_in name = here(0);
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
            throw std::runtime_error("no socket");
    }
    PlainSocket(PlainSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    PlainSocket& operator=(PlainSocket&&) = delete;
    ~PlainSocket() {
        if (fd_ >= 0)
            ::close(fd_);
    }

    int fd() const { return fd_; }

    std::uint16_t port() const {
        sockaddr_in name{};
        socklen_t length = sizeof name;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&name), &length);
        return ntohs(name.sin_port);
    }

    void connect(std::uint16_t port) {
        const sockaddr_in name = here(port);
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
            throw std::runtime_error("cannot connect");
    }

    /// Of a listening stream socket: the next connection.
    PlainSocket accept() const {
        const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            throw std::runtime_error("nobody connects");
        return PlainSocket(Descriptor{fd});
    }

    void set(int level, int option, int value) const {
        ::setsockopt(fd_, level, option, &value, sizeof value);
    }

    /// The buffers that the connection layer asks for, with the same right to exceed the system's limit.
    void setBuffers() const {
        for (const auto& [forced, plain, bytes] :
             {std::tuple{SO_RCVBUFFORCE, SO_RCVBUF, 8 << 20}, std::tuple{SO_SNDBUFFORCE, SO_SNDBUF, 4 << 20}})
            if (::setsockopt(fd_, SOL_SOCKET, forced, &bytes, sizeof bytes) != 0)
                set(SOL_SOCKET, plain, bytes);
    }

    /// The address of a port of this machine.
    static sockaddr_in here(std::uint16_t port) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        name.sin_port = htons(port);
        return name;
    }

private:
    struct Descriptor {
        int fd;
    };
    explicit PlainSocket(Descriptor descriptor) : fd_(descriptor.fd) {}

    int fd_;
};

} // namespace kor::bench
