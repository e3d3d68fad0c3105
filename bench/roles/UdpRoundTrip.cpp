// Round trips over bare UDP: at each end one thread that waits in the kernel. Given 0, it blocks in recv, the
// least that there is; given 1, it makes the connection layer's system calls, epoll_wait, recvmmsg and
// sendto.

#include "../Statistics.h"
#include "DatagramReader.h"
#include "PlainSocket.h"
#include "Roles.h"
#include "SystemTime.h"

#include <array>
#include <optional>
#include <thread>

namespace kor::bench {

namespace {
constexpr std::size_t kBytes = 64;

void answer(int fd, const char* bytes, std::size_t size, const sockaddr_in& to) {
    ::sendto(fd, bytes, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

[[noreturn]] void echo(int fd, bool sameCalls) {
    if (sameCalls) {
        DatagramReader reader(fd);
        for (;;)
            reader.read([fd](const char* bytes, std::size_t size, const sockaddr_in& from) {
                answer(fd, bytes, size, from);
            });
    }
    std::array<char, 2048> bytes;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    for (;;) {
        const ssize_t got =
            ::recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got > 0)
            answer(fd, bytes.data(), static_cast<std::size_t>(got), from);
    }
}

} // namespace

void udpEcho(const std::vector<double>& arguments, Orders& orders) {
    PlainSocket socket(SOCK_DGRAM);
    orders.answer({static_cast<double>(socket.port())});
    std::thread(echo, socket.fd(), arguments.at(0) != 0).detach(); // ends with the process
    for (Order order; orders.next(order);) {
    }
}

void udpPing(const std::vector<double>& arguments, Orders& orders) {
    PlainSocket socket(SOCK_DGRAM);
    const auto port = static_cast<std::uint16_t>(arguments.at(1));
    const sockaddr_in to = PlainSocket::here(port);
    std::optional<DatagramReader> reader;
    if (arguments.at(0) != 0)
        reader.emplace(socket.fd());
    else
        socket.connect(port);
    orders.answer({});
    std::array<char, kBytes> bytes{};
    for (Order order; orders.next(order);) {
        std::vector<double> samples;
        for (auto left = static_cast<int>(order.numbers.at(0)); left > 0; --left) {
            const std::int64_t sent = systemNow();
            if (reader) {
                answer(socket.fd(), bytes.data(), bytes.size(), to);
                reader->read([](const char*, std::size_t, const sockaddr_in&) {});
            } else {
                ::send(socket.fd(), bytes.data(), bytes.size(), 0);
                ::recv(socket.fd(), bytes.data(), bytes.size(), 0);
            }
            samples.push_back(static_cast<double>(systemNow() - sent) * 1e-3);
        }
        orders.answer({quantile(samples, 0.5), quantile(samples, 0.99)});
    }
}

} // namespace kor::bench
