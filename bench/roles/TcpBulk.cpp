// Bulk data over TCP: blocking sockets, writes of 1 MiB.

#include "Meter.h"
#include "PlainSocket.h"
#include "Roles.h"

#include <thread>

namespace kor::bench {

namespace {

constexpr std::size_t kWriteBytes = 1u << 20;
constexpr std::size_t kReadBytes = 1u << 20;

void receive(int listener, Meter& meter) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::vector<char> bytes(kReadBytes);
    for (ssize_t got = 0; (got = ::recv(fd, bytes.data(), bytes.size(), 0)) > 0;)
        meter.arrived(static_cast<std::uint64_t>(got));
}

} // namespace

void tcpSink(const std::vector<double>&, Orders& orders) {
    static Meter meter;
    PlainSocket listener(SOCK_STREAM);
    ::listen(listener.fd(), 1);
    orders.answer({static_cast<double>(listener.port())});
    std::thread(receive, listener.fd(), std::ref(meter)).detach(); // ends with the process
    for (Order order; orders.next(order);)
        orders.answer(meter.take());
}

void tcpSource(const std::vector<double>& arguments, Orders& orders) {
    PlainSocket socket(SOCK_STREAM);
    socket.connect(static_cast<std::uint16_t>(arguments.at(0)));
    orders.answer({});
    const std::vector<char> bytes(kWriteBytes, 't');
    for (Order order; orders.next(order);) {
        const std::int64_t end = systemNow() + static_cast<std::int64_t>(order.numbers.at(0) * 1e9);
        while (systemNow() < end)
            ::send(socket.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        orders.answer({});
    }
}

} // namespace kor::bench
