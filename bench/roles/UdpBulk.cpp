// Bulk data over bare UDP, without any care for what is lost: what arrives is what the system calls can do.
// The third setting chooses between the connection layer's calls, epoll_wait and recvmmsg with addresses and
// stamps, and the least that there is: connected sockets and a receiver that blocks in recvmmsg.

#include "DatagramReader.h"
#include "Meter.h"
#include "PlainSocket.h"
#include "Roles.h"

#include <array>
#include <cstring>
#include <memory>
#include <thread>

#include <netinet/udp.h>

namespace kor::bench {

namespace {

constexpr std::size_t kTrainBytes = 65507;
constexpr std::size_t kSlots = 32; // as many as the connection layer reads in one call
constexpr std::size_t kSlotBytes = 65536;
constexpr std::size_t kMessages = 64;

/// Reads for ever with recvmmsg.
void receive(int fd, Meter& meter) {
    const auto bytes = std::make_unique<char[]>(kSlots * kSlotBytes);
    std::array<iovec, kSlots> vectors;
    std::array<mmsghdr, kSlots> messages{};
    for (std::size_t i = 0; i != kSlots; ++i) {
        vectors[i] = {bytes.get() + i * kSlotBytes, kSlotBytes};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (;;) {
        const int got = ::recvmmsg(fd, messages.data(), kSlots, MSG_WAITFORONE, nullptr);
        std::uint64_t sum = 0;
        for (int i = 0; i < got; ++i)
            sum += messages[static_cast<std::size_t>(i)].msg_len;
        meter.arrived(sum);
    }
}

/// Reads for ever as the connection layer does.
void receiveSameCalls(int fd, Meter& meter) {
    DatagramReader reader(fd);
    for (;;) {
        std::uint64_t sum = 0;
        reader.read([&sum](const char*, std::size_t size, const sockaddr_in&) { sum += size; });
        meter.arrived(sum);
    }
}

class Sender {
public:
    Sender(std::uint16_t port, std::size_t payload, bool offload, bool sameCalls)
        : to_(PlainSocket::here(port)) {
        socket_.setBuffers();
        if (!sameCalls)
            socket_.connect(port);
        const std::size_t segments = std::max<std::size_t>(1, kTrainBytes / payload);
        if (offload && segments > 1) {
            socket_.set(IPPROTO_UDP, UDP_SEGMENT, static_cast<int>(payload));
            vectors_ = {{bytes_.data(), segments * payload}};
        } else {
            for (std::size_t i = 0; i != kMessages; ++i)
                vectors_.push_back({bytes_.data(), payload});
        }
        messages_.resize(vectors_.size());
        for (std::size_t i = 0; i != vectors_.size(); ++i) {
            messages_[i].msg_hdr.msg_iov = &vectors_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
            if (sameCalls) {
                messages_[i].msg_hdr.msg_name = &to_;
                messages_[i].msg_hdr.msg_namelen = sizeof to_;
            }
        }
    }

    void run(double seconds) {
        const std::int64_t end = systemNow() + static_cast<std::int64_t>(seconds * 1e9);
        while (systemNow() < end)
            ::sendmmsg(socket_.fd(), messages_.data(), static_cast<unsigned>(messages_.size()), 0);
    }

private:
    sockaddr_in to_;
    PlainSocket socket_{SOCK_DGRAM};
    std::vector<char> bytes_ = std::vector<char>(kTrainBytes, 'u');
    std::vector<iovec> vectors_;
    std::vector<mmsghdr> messages_;
};

} // namespace

void udpSink(const std::vector<double>& arguments, Orders& orders) {
    static Meter meter;
    PlainSocket socket(SOCK_DGRAM);
    socket.setBuffers();
    if (arguments.at(1) != 0)
        socket.set(IPPROTO_UDP, UDP_GRO, 1);
    orders.answer({static_cast<double>(socket.port())});
    // Ends with the process.
    std::thread(arguments.at(2) != 0 ? receiveSameCalls : receive, socket.fd(), std::ref(meter)).detach();
    for (Order order; orders.next(order);)
        orders.answer(meter.take());
}

void udpSource(const std::vector<double>& arguments, Orders& orders) {
    Sender sender(static_cast<std::uint16_t>(arguments.at(3)), static_cast<std::size_t>(arguments.at(0)),
                  arguments.at(1) != 0, arguments.at(2) != 0);
    orders.answer({});
    for (Order order; orders.next(order);) {
        sender.run(order.numbers.at(0));
        orders.answer({});
    }
}

} // namespace kor::bench
