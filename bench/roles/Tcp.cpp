// Bulk data and single messages over TCP: blocking sockets, one call for a message.

#include "Arrivals.h"
#include "PlainSocket.h"
#include "Role.h"

#include <thread>

namespace kor::bench {

namespace {

constexpr std::size_t kBytesPerCall = 1u << 20;

/// Takes the connection that comes, and calls `take(bytes, size)` for what each call has received.
template <typename Take>
void receive(int listener, std::size_t size, int flags, Take take) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::vector<char> bytes(size);
    for (ssize_t got = 0; (got = ::recv(fd, bytes.data(), bytes.size(), flags)) > 0;)
        take(bytes.data(), static_cast<std::size_t>(got));
}

const Role kSink("tcp-sink", [](const Numbers&) {
    Meter meter;
    PlainSocket listener(SOCK_STREAM);
    ::listen(listener.fd(), 1);
    std::thread([&] {
        receive(listener.fd(), kBytesPerCall, 0, [&](const char*, std::size_t size) { meter.arrived(size); });
    }).detach();
    followOrders({listener.port()}, [&](const Order&) { return meter.take(); });
});

const Role kSource("tcp-source", [](const Numbers& arguments) {
    PlainSocket socket(SOCK_STREAM);
    socket.connect(arguments.at(0));
    const std::vector<char> bytes(kBytesPerCall, 't');
    followOrders({}, [&](const Order& order) {
        for (const std::int64_t end = timeIn(order.numbers.at(0)); systemNow() < end;)
            ::send(socket.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return Numbers{};
    });
});

// Given the bytes of a message, as is its source.
const Role kDelaySink("tcp-delay-sink", [](const Numbers& arguments) {
    Delays delays;
    PlainSocket listener(SOCK_STREAM);
    ::listen(listener.fd(), 1);
    const auto size = static_cast<std::size_t>(arguments.at(0));
    std::thread([&] {
        receive(listener.fd(), size, MSG_WAITALL,
                [&](const char* bytes, std::size_t) { delays.arrived(bytes); });
    }).detach();
    followOrders({listener.port()}, [&](const Order&) { return delays.take(); });
});

const Role kDelaySource("tcp-delay-source", [](const Numbers& arguments) {
    PlainSocket socket(SOCK_STREAM);
    socket.connect(arguments.at(1));
    followOrders({}, [&](const Order& order) {
        return sendStamped(order, [&](const std::vector<char>& message) {
            ::send(socket.fd(), message.data(), message.size(), MSG_NOSIGNAL);
        });
    });
});

} // namespace

} // namespace kor::bench
