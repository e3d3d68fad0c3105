#pragma once

#include "Export.h"
#include "jStream.h"

#include <memory>

namespace kor {

namespace detail {
class BroadcastSocket;
}

/// What all sockets share: the descriptor of the operating system, closed at the latest by the destructor.
/// Not thread-safe.
class KOR_API SocketBase : public jStream {
public:
    ~SocketBase() override;

    void release() override;
    /// True while the socket is open.
    bool isOpened() const override;

    /// The local port that the socket is bound to; 0 when it is not. Tells which one port 0 became.
    int getLocalPort() const;

protected:
    SocketBase();

    /// The platform's socket, open or closed; owned by this object.
    detail::BroadcastSocket& socket() const { return *socket_; }

private:
    std::unique_ptr<detail::BroadcastSocket> socket_;
};

} // namespace kor
