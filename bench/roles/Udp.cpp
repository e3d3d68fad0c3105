// Round trips and bulk data over bare UDP, without any care for what is lost: what arrives is what the system
// calls can do. The last setting chooses between the connection layer's calls and the fewest that there are.

#include "Arrivals.h"
#include "DatagramReader.h"
#include "PlainSocket.h"
#include "Role.h"

#include <algorithm>
#include <array>
#include <thread>

#include <netinet/udp.h>

namespace kor::bench {

namespace {

constexpr std::size_t kMessageBytes = 64;
constexpr std::size_t kTrainBytes = 65507;
constexpr std::size_t kDatagramsPerCall = 64;

void send(int fd, const char* bytes, std::size_t size, const sockaddr_in& to) {
    ::sendto(fd, bytes, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

[[noreturn]] void echo(int fd, bool sameCalls) {
    if (sameCalls) {
        DatagramReader reader(fd, true);
        for (;;)
            reader.read([fd](const char* bytes, std::size_t size, const sockaddr_in& from) {
                send(fd, bytes, size, from);
            });
    }
    std::array<char, 2048> bytes;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    for (;;) {
        const ssize_t got =
            ::recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got > 0)
            send(fd, bytes.data(), static_cast<std::size_t>(got), from);
    }
}

[[noreturn]] void receive(int fd, bool sameCalls, Meter& meter) {
    DatagramReader reader(fd, sameCalls);
    for (;;) {
        std::uint64_t sum = 0;
        reader.read([&sum](const char*, std::size_t size, const sockaddr_in&) { sum += size; });
        meter.arrived(sum);
    }
}

class Sender {
public:
    Sender(std::size_t payload, bool offload, bool sameCalls, double port) : to_(PlainSocket::here(port)) {
        socket_.setBuffers();
        if (!sameCalls)
            socket_.connect(port);
        const std::size_t segments = std::max<std::size_t>(1, kTrainBytes / payload);
        if (offload && segments > 1) {
            socket_.set(IPPROTO_UDP, UDP_SEGMENT, static_cast<int>(payload));
            vectors_ = {{bytes_.data(), segments * payload}};
        } else {
            vectors_.assign(kDatagramsPerCall, {bytes_.data(), payload});
        }
        messages_.resize(vectors_.size());
        for (std::size_t i = 0; i != vectors_.size(); ++i) {
            msghdr& header = messages_[i].msg_hdr;
            header.msg_iov = &vectors_[i];
            header.msg_iovlen = 1;
            header.msg_name = sameCalls ? &to_ : nullptr;
            header.msg_namelen = sameCalls ? sizeof to_ : 0;
        }
    }

    Numbers run(double seconds) {
        for (const std::int64_t end = timeIn(seconds); systemNow() < end;)
            ::sendmmsg(socket_.fd(), messages_.data(), static_cast<unsigned>(messages_.size()), 0);
        return {};
    }

private:
    sockaddr_in to_;
    PlainSocket socket_{SOCK_DGRAM};
    std::vector<char> bytes_ = std::vector<char>(kTrainBytes, 'u');
    std::vector<iovec> vectors_;
    std::vector<mmsghdr> messages_;
};

// With the fewest calls it blocks in recv.
const Role kEcho("udp-echo", [](const Numbers& arguments) {
    PlainSocket socket(SOCK_DGRAM);
    std::thread(echo, socket.fd(), arguments.at(0) != 0).detach();
    followOrders({socket.port()});
});

const Role kPing("udp-ping", [](const Numbers& arguments) {
    const bool sameCalls = arguments.at(0) != 0;
    PlainSocket socket(SOCK_DGRAM);
    const sockaddr_in to = PlainSocket::here(arguments.at(1));
    DatagramReader reader(socket.fd(), sameCalls);
    if (!sameCalls)
        socket.connect(arguments.at(1));
    followOrders({}, [&](const Order& order) {
        Numbers samples;
        std::array<char, kMessageBytes> bytes{};
        for (double left = order.numbers.at(0); left > 0; --left) {
            const std::int64_t sent = systemNow();
            if (sameCalls) {
                send(socket.fd(), bytes.data(), bytes.size(), to);
                reader.read([](const char*, std::size_t, const sockaddr_in&) {});
            } else {
                ::send(socket.fd(), bytes.data(), bytes.size(), 0);
                ::recv(socket.fd(), bytes.data(), bytes.size(), 0);
            }
            samples.push_back(static_cast<double>(systemNow() - sent) * 1e-3);
        }
        return samples;
    });
});

// Sink and source are given the payload of a datagram, and whether to use the kernel's offloads.

const Role kSink("udp-sink", [](const Numbers& arguments) {
    Meter meter;
    PlainSocket socket(SOCK_DGRAM);
    socket.setBuffers();
    if (arguments.at(1) != 0)
        socket.set(IPPROTO_UDP, UDP_GRO, 1);
    std::thread(receive, socket.fd(), arguments.at(2) != 0, std::ref(meter)).detach();
    followOrders({socket.port()}, [&](const Order&) { return meter.take(); });
});

const Role kSource("udp-source", [](const Numbers& arguments) {
    Sender sender(static_cast<std::size_t>(arguments.at(0)), arguments.at(1) != 0, arguments.at(2) != 0,
                  arguments.at(3));
    followOrders({}, [&](const Order& order) { return sender.run(order.numbers.at(0)); });
});

} // namespace

} // namespace kor::bench
