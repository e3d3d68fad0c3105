// Round trips over bare UDP: at each end one thread that blocks in recv and answers with send.

#include "../Statistics.h"
#include "PlainSocket.h"
#include "Roles.h"
#include "SystemTime.h"

#include <array>
#include <thread>

namespace kor::bench {

namespace {
constexpr std::size_t kBytes = 64;
}

void udpEcho(const std::vector<double>&, Orders& orders) {
    PlainSocket socket(SOCK_DGRAM);
    orders.answer({static_cast<double>(socket.port())});
    // Ends with the process: nothing else ends a wait in recvfrom.
    std::thread([fd = socket.fd()] {
        std::array<char, 2048> bytes;
        sockaddr_in from{};
        socklen_t length = sizeof from;
        for (;;) {
            const ssize_t got =
                ::recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
            if (got > 0)
                ::sendto(fd, bytes.data(), static_cast<std::size_t>(got), 0,
                         reinterpret_cast<const sockaddr*>(&from), length);
        }
    }).detach();
    for (Order order; orders.next(order);) {
    }
}

void udpPing(const std::vector<double>& arguments, Orders& orders) {
    PlainSocket socket(SOCK_DGRAM);
    socket.connect(static_cast<std::uint16_t>(arguments.at(0)));
    orders.answer({});
    std::array<char, kBytes> bytes{};
    for (Order order; orders.next(order);) {
        std::vector<double> samples;
        for (auto left = static_cast<int>(order.numbers.at(0)); left > 0; --left) {
            const std::int64_t sent = systemNow();
            ::send(socket.fd(), bytes.data(), bytes.size(), 0);
            ::recv(socket.fd(), bytes.data(), bytes.size(), 0);
            samples.push_back(static_cast<double>(systemNow() - sent) * 1e-3);
        }
        orders.answer({quantile(samples, 0.5), quantile(samples, 0.99)});
    }
}

} // namespace kor::bench
