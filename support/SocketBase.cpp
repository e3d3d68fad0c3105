#include "support/platform/BroadcastSocket.h"

#include <support/SocketBase.h>

namespace kor {

SocketBase::SocketBase() : socket_(std::make_unique<detail::BroadcastSocket>()) {}

SocketBase::~SocketBase() = default;

void SocketBase::release() {
    socket_->close();
}

bool SocketBase::isOpened() const {
    return socket_->isOpen();
}

int SocketBase::getLocalPort() const {
    return socket_->localPort();
}

} // namespace kor
