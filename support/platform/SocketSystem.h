#pragma once

#include "support/platform/SocketAddress.h"
#include "support/Time.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

/// What the socket classes share about the system's interface. Included by sources of this folder only.
namespace kor::detail {

inline sockaddr_in toSystem(const SocketAddress& address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address.ip);
    result.sin_port = htons(address.port);
    return result;
}

inline SocketAddress fromSystem(const sockaddr_in& address) {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

inline bool setOption(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

/// True for the fate of an earlier datagram, which the system reports at the next call instead of doing it.
inline bool isPendingError(int error) {
    return error == ECONNREFUSED || error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN ||
           error == EPROTO;
}

/// Calls until it is neither interrupted nor answered with an earlier datagram's fate; counts the calls.
template <class Call>
auto retried(std::uint64_t& calls, Call call) {
    for (bool again = false;;) {
        ++calls;
        const auto result = call();
        if (result >= 0 || (errno != EINTR && (again || !isPendingError(errno))))
            return result;
        again = again || errno != EINTR;
    }
}

/// Binds to a local port on every interface.
inline bool bindEverywhere(int fd, std::uint16_t port) {
    const sockaddr_in address = toSystem({INADDR_ANY, port});
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// The port that the socket is bound to; 0 when it is not.
inline std::uint16_t boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

/// The arrival stamp in a control message of type SCM_TIMESTAMPNS.
inline Nanoseconds stampOf(const cmsghdr* control) {
    timespec stamp{};
    std::memcpy(&stamp, CMSG_DATA(control), sizeof stamp);
    return Nanoseconds{stamp.tv_sec} * kSecond + stamp.tv_nsec;
}

} // namespace kor::detail
