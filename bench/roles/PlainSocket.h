#pragma once

#include <cstdint>
#include <stdexcept>
#include <tuple>

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
    PlainSocket(const PlainSocket&) = delete;
    PlainSocket& operator=(const PlainSocket&) = delete;
    ~PlainSocket() { ::close(fd_); }

    int fd() const { return fd_; }

    double port() const {
        sockaddr_in name{};
        socklen_t length = sizeof name;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&name), &length);
        return ntohs(name.sin_port);
    }

    void connect(double port) {
        const sockaddr_in name = here(port);
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
            throw std::runtime_error("cannot connect");
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
    static sockaddr_in here(double port) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        name.sin_port = htons(static_cast<std::uint16_t>(port));
        return name;
    }

private:
    int fd_;
};

} // namespace kor::bench
