#pragma once

#include "Export.h"
#include "jString.h"
#include "SocketBase.h"

#include <cstdint>

namespace kor {

/// A UDP socket for announcements: IPv4, broadcast allowed. Not thread-safe.
///
///     SocketUDP socket;
///     if (socket.create() && socket.bind(7000) && socket.nonblock() && socket.recv(1024)) {
///         char text[64];
///         while (int size = socket.read(text, 1, sizeof text)) { ... }
///     }
class KOR_API SocketUDP : public SocketBase {
public:
    SocketUDP();

    /// Opens the socket; one that is open already is closed first. Addresses set for sending stay. False when
    /// the system gives none.
    bool create();

    /// Binds to a local port on every interface; 0 takes any free one. False when the port is outside 0 to
    /// 65535, taken by another socket (ports are never shared), or the socket is closed or bound.
    bool bind(int port) const;

    /// Makes reads and writes return at once. False when the socket is closed.
    bool nonblock() const;

    /// Sets the size of the kernel's receive buffer in bytes (the kernel keeps to limits of its own) and
    /// opens reception afresh: no datagram that reached this host before the call is ever read. 0 closes
    /// reception: nothing is taken in until the next call with a larger size. False when the size is
    /// negative, the socket is closed, or the system refuses. A new socket receives with the system's buffer
    /// size.
    bool recv(int size) const;

    /// Destination of later writes, dotted-decimal. While the text is no IPv4 address, or 0.0.0.0, writes
    /// return 0.
    void setSendIP(const jString& ip);

    /// Destination port of later writes. While it is outside 1 to 65535, writes return 0.
    void setSendPort(int port);

    /// Sender of the datagram read last, dotted-decimal; empty before the first one.
    const jString& getRecvIP() const;

    ~SocketUDP() override;

    /// Closes the socket. Safe to call twice.
    void release() override;

    /// Takes one datagram and returns how many whole elements of it were stored; what does not fit is lost. 0
    /// when none is waiting (before `nonblock`, waits for one), when reception is closed, or for arguments
    /// that are not positive. Empty datagrams are passed over.
    int read(void* data, int elementSize, int count) override;

    /// Sends the elements as one datagram to the address set. Returns `count`, or 0 when nothing was sent:
    /// the socket is closed, no valid address is set, the arguments are not positive, over 65507 bytes, or
    /// the system refused.
    int write(const void* data, int elementSize, int count) override;

    /// True while the socket is open.
    bool isOpened() const override;

private:
    jString recvIP_;
    std::uint32_t sendIP_ = 0;
    std::uint16_t sendPort_ = 0;
};

} // namespace kor
