// Single large messages, one at a time: how long from the send to the last byte at the other end.

#include "KorNode.h"
#include "PlainSocket.h"
#include "Roles.h"
#include "SystemTime.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace kor::bench {

namespace {

constexpr std::int64_t kPause = 5'000'000; // about a frame

/// The first bytes of a message tell when it was sent.
void stamp(std::vector<char>& message) {
    const std::int64_t now = systemNow();
    std::memcpy(message.data(), &now, sizeof now);
}

double millisecondsSince(const void* message) {
    std::int64_t sent = 0;
    std::memcpy(&sent, message, sizeof sent);
    return static_cast<double>(systemNow() - sent) * 1e-6;
}

/// Delays that one thread measures and another takes.
class Delays {
public:
    void add(double milliseconds) {
        const std::lock_guard lock(mutex_);
        list_.push_back(milliseconds);
    }
    std::vector<double> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(list_, {});
    }

private:
    std::mutex mutex_;
    std::vector<double> list_;
};

void receive(int listener, std::size_t bytes, Delays& delays) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::vector<char> message(bytes);
    while (::recv(fd, message.data(), message.size(), MSG_WAITALL) == static_cast<ssize_t>(message.size()))
        delays.add(millisecondsSince(message.data()));
}

} // namespace

void korDelaySink(const std::vector<double>& arguments, Orders& orders) {
    Delays delays;
    KorNode node(optionsOf(arguments.at(0), arguments.at(1)));
    node.onPacketHook = [&](RTUser&, Packet& packet) { delays.add(millisecondsSince(packet.data)); };
    orders.answer({static_cast<double>(node.port())});
    for (Order order; orders.next(order);)
        orders.answer(delays.take());
}

void korDelaySource(const std::vector<double>& arguments, Orders& orders) {
    KorNode node(optionsOf(arguments.at(0), arguments.at(1)));
    int delivered = 0;
    node.onSendOverHook = [&](RTUser&) { node.change([&] { ++delivered; }); };
    RTUser& user = node.connect(static_cast<unsigned short>(arguments.at(2)));
    orders.answer({});
    for (Order order; orders.next(order);) {
        std::vector<char> message(static_cast<std::size_t>(order.numbers.at(1)), 'd');
        for (auto left = static_cast<int>(order.numbers.at(0)); left > 0; --left) {
            const int before = delivered;
            stamp(message);
            user.sendAsyn(message.data(), static_cast<int>(message.size()));
            node.await([&] { return delivered != before; });
            sleepUntil(systemNow() + kPause);
        }
        orders.answer({});
    }
}

void tcpDelaySink(const std::vector<double>& arguments, Orders& orders) {
    static Delays delays;
    PlainSocket listener(SOCK_STREAM);
    ::listen(listener.fd(), 1);
    orders.answer({static_cast<double>(listener.port())});
    const auto bytes = static_cast<std::size_t>(arguments.at(0));
    std::thread(receive, listener.fd(), bytes, std::ref(delays)).detach(); // ends with the process
    for (Order order; orders.next(order);)
        orders.answer(delays.take());
}

void tcpDelaySource(const std::vector<double>& arguments, Orders& orders) {
    PlainSocket socket(SOCK_STREAM);
    socket.connect(static_cast<std::uint16_t>(arguments.at(0)));
    orders.answer({});
    for (Order order; orders.next(order);) {
        std::vector<char> message(static_cast<std::size_t>(order.numbers.at(1)), 'd');
        for (auto left = static_cast<int>(order.numbers.at(0)); left > 0; --left) {
            stamp(message);
            ::send(socket.fd(), message.data(), message.size(), MSG_NOSIGNAL);
            sleepUntil(systemNow() + kPause);
        }
        orders.answer({});
    }
}

} // namespace kor::bench
