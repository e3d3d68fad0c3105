#include "support/platform/SocketSystem.h"
#include "support/platform/UdpSocket.h"

#include <netinet/udp.h>

#include <algorithm>
#include <array>

namespace kor::detail {

namespace {

constexpr std::size_t kMaxSegments = 64; // what every kernel with this offload takes in one call
constexpr std::size_t kMaxMessages = 64;

SendResult resultOf(int error) {
    switch (error) {
    case EAGAIN:
    case ENOBUFS:
    case ENOMEM:
        return SendResult::blocked;
    case EMSGSIZE:
        return SendResult::tooBig;
    default:
        return SendResult::failed;
    }
}

/// True when the error may mean that the kernel or the interface does not offer segmentation.
bool mayRefuseOffload(int error) {
    return error == EIO || error == EINVAL || error == EMSGSIZE || error == ENOPROTOOPT ||
           error == EOPNOTSUPP;
}

iovec vectorOf(std::span<const std::uint8_t> bytes) {
    return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
}

/// Room for the headers of one sendmmsg.
struct Messages {
    std::array<mmsghdr, kMaxMessages> headers;
    std::array<iovec, kMaxMessages> vectors;
    std::array<sockaddr_in, kMaxMessages> names;

    void set(std::size_t i, const OutDatagram& datagram) {
        names[i] = toSystem(datagram.to);
        vectors[i] = vectorOf(datagram.bytes);
        headers[i] = {};
        headers[i].msg_hdr.msg_name = &names[i];
        headers[i].msg_hdr.msg_namelen = sizeof names[i];
        headers[i].msg_hdr.msg_iov = &vectors[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
};

} // namespace

SendResult UdpSocket::send(const SocketAddress& to, std::span<const std::uint8_t> bytes) {
    const sockaddr_in name = toSystem(to);
    const auto result = retried(counters_.systemCallsSend, [&] {
        return ::sendto(fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&name),
                        sizeof name);
    });
    return result >= 0 ? SendResult::sent : resultOf(errno);
}

SendResult UdpSocket::sendTrain(const SocketAddress& to, std::span<const std::uint8_t> bytes,
                                std::size_t segmentSize, std::size_t& sentBytes) {
    sentBytes = 0;
    if (segmentSize == 0 || segmentSize > kMaxDatagramBytes)
        return bytes.empty() ? SendResult::sent : SendResult::tooBig;

    const std::size_t segments = std::min(kMaxSegments, kMaxDatagramBytes / segmentSize);
    while (features_.segmentationOffload && segments > 1 && bytes.size() - sentBytes > segmentSize) {
        const auto run = bytes.subspan(sentBytes, std::min(bytes.size() - sentBytes, segments * segmentSize));
        if (sendSegmented(to, run, segmentSize)) {
            sentBytes += run.size();
            continue;
        }
        if (!mayRefuseOffload(errno))
            return resultOf(errno);
        // Is it the offload that is refused, or would a single datagram fare no better?
        const SendResult single = send(to, run.first(segmentSize));
        if (single != SendResult::sent)
            return single;
        sentBytes += segmentSize;
        features_.segmentationOffload = false;
    }

    const auto remainder = bytes.subspan(sentBytes);
    std::size_t sent = 0;
    const SendResult result =
        sendEach((remainder.size() + segmentSize - 1) / segmentSize, sent, [&](std::size_t i) {
            const std::size_t begin = i * segmentSize;
            return OutDatagram{to, remainder.subspan(begin, std::min(segmentSize, remainder.size() - begin))};
        });
    sentBytes += std::min(remainder.size(), sent * segmentSize);
    return result;
}

SendResult UdpSocket::sendBatch(std::span<const OutDatagram> datagrams, std::size_t& sentCount) {
    return sendEach(datagrams.size(), sentCount, [&](std::size_t i) { return datagrams[i]; });
}

bool UdpSocket::sendSegmented(const SocketAddress& to, std::span<const std::uint8_t> bytes,
                              std::size_t segmentSize) {
    sockaddr_in name = toSystem(to);
    iovec vector = vectorOf(bytes);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> control{};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof name;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_UDP;
    header->cmsg_type = UDP_SEGMENT;
    header->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto size = static_cast<std::uint16_t>(segmentSize);
    std::memcpy(CMSG_DATA(header), &size, sizeof size);
    return retried(counters_.systemCallsSend, [&] { return ::sendmsg(fd(), &message, 0); }) >= 0;
}

/// Sends `count` datagrams, of which `datagramAt` tells each, with as few calls as are in use.
template <class DatagramAt>
SendResult UdpSocket::sendEach(std::size_t count, std::size_t& sent, DatagramAt datagramAt) {
    sent = 0;
    Messages messages;
    while (features_.batchSend && count - sent > 1) {
        const std::size_t asked = std::min(count - sent, kMaxMessages);
        for (std::size_t i = 0; i < asked; ++i)
            messages.set(i, datagramAt(sent + i));
        const int done = retried(counters_.systemCallsSend, [&] {
            return ::sendmmsg(fd(), messages.headers.data(), static_cast<unsigned>(asked), 0);
        });
        if (done >= 0)
            sent += static_cast<std::size_t>(done);
        else if (errno == ENOSYS)
            features_.batchSend = false;
        else
            return resultOf(errno);
    }
    for (; sent < count; ++sent) {
        const OutDatagram datagram = datagramAt(sent);
        const SendResult result = send(datagram.to, datagram.bytes);
        if (result != SendResult::sent)
            return result;
    }
    return SendResult::sent;
}

} // namespace kor::detail
