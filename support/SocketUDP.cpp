#include "support/platform/BroadcastSocket.h"
#include "support/platform/SocketAddress.h"

#include <support/SocketUDP.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>

namespace kor {

namespace {

constexpr int kMaxPort = 65535;
constexpr std::uint64_t kMaxDatagramBytes = 65507;

/// Bytes of `count` elements; 0 when an argument is not positive.
std::uint64_t bytesOf(int elementSize, int count) {
    const auto elementBytes = static_cast<std::uint64_t>(elementSize);
    return elementSize < 1 || count < 1 ? 0 : elementBytes * static_cast<std::uint64_t>(count);
}

} // namespace

SocketUDP::SocketUDP() = default;

SocketUDP::~SocketUDP() = default;

bool SocketUDP::create() {
    return socket().open();
}

bool SocketUDP::bind(int port) const {
    return port >= 0 && port <= kMaxPort && socket().bind(static_cast<std::uint16_t>(port));
}

bool SocketUDP::nonblock() const {
    return socket().setNonBlocking();
}

bool SocketUDP::recv(int size) const {
    if (size < 0)
        return false;
    return size == 0 ? socket().shutReception() : socket().openReception(size);
}

void SocketUDP::setSendIP(const jString& ip) {
    sendIP_ = detail::parseIPv4(ip).value_or(0);
}

void SocketUDP::setSendPort(int port) {
    sendPort_ = port < 1 || port > kMaxPort ? std::uint16_t{0} : static_cast<std::uint16_t>(port);
}

const jString& SocketUDP::getRecvIP() const {
    return recvIP_;
}

void SocketUDP::release() {
    SocketBase::release();
}

int SocketUDP::read(void* data, int elementSize, int count) {
    const auto room = static_cast<std::size_t>(std::min(bytesOf(elementSize, count), kMaxDatagramBytes));
    if (data == nullptr || room == 0)
        return 0;
    detail::SocketAddress from;
    const std::size_t size = socket().receive({static_cast<std::uint8_t*>(data), room}, from);
    if (size == 0)
        return 0;
    recvIP_ = jString(detail::formatIPv4(from.ip));
    return static_cast<int>(size / static_cast<std::size_t>(elementSize));
}

int SocketUDP::write(const void* data, int elementSize, int count) {
    const std::uint64_t size = bytesOf(elementSize, count);
    if (data == nullptr || size == 0 || size > kMaxDatagramBytes || sendIP_ == 0 || sendPort_ == 0)
        return 0;
    const std::span bytes(static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(size));
    return socket().send({sendIP_, sendPort_}, bytes) ? count : 0;
}

bool SocketUDP::isOpened() const {
    return SocketBase::isOpened();
}

} // namespace kor
