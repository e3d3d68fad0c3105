// Round trips, bulk data and single messages through the connection layer.

#include "Arrivals.h"
#include "KorNode.h"
#include "Role.h"

#include <array>

namespace kor::bench {

namespace {

constexpr int kMessageBytes = 64;
constexpr std::size_t kPacketBytes = 1u << 20;
constexpr int kMaxInFlight = 8; // packets that are sent and not yet delivered

class Pinger {
public:
    explicit Pinger(double port) {
        node_.onPacketHook = [this](RTUser&, Packet&) { answered(); };
        user_ = &node_.connect(port);
    }

    /// The next message leaves from the callback, or from the application's thread.
    Numbers round(std::size_t count, bool fromThread) {
        samples_.clear();
        samples_.reserve(count);
        fromCallback_ = fromThread ? 0 : count;
        send();
        for (std::size_t n = 1; fromThread && n < count; ++n) {
            node_.await([&] { return samples_.size() == n; });
            send();
        }
        node_.await([&] { return samples_.size() >= count; });
        return samples_;
    }

private:
    void send() {
        sent_ = systemNow();
        user_->sendAsyn(message_.data(), kMessageBytes);
    }

    void answered() {
        const double microseconds = static_cast<double>(systemNow() - sent_) * 1e-3;
        if (samples_.size() + 1 < fromCallback_) {
            samples_.push_back(microseconds);
            send();
        } else {
            node_.change([&] { samples_.push_back(microseconds); });
        }
    }

    KorNode node_;
    RTUser* user_ = nullptr;
    std::array<char, kMessageBytes> message_{};
    std::int64_t sent_ = 0;
    std::size_t fromCallback_ = 0; ///< round trips that the callback makes
    Numbers samples_;
};

const Role kEcho("kor-echo", [](const Numbers&) {
    KorNode node;
    node.onPacketHook = [](RTUser& user, Packet& packet) {
        user.sendAsyn(packet.data, static_cast<int>(packet.size));
    };
    followOrders({node.port()});
});

const Role kPing("kor-ping", [](const Numbers& arguments) {
    Pinger pinger(arguments.at(0));
    followOrders({}, [&](const Order& order) {
        return pinger.round(static_cast<std::size_t>(order.numbers.at(0)), order.word == "thread");
    });
});

// Those that follow are given the largest payload of a datagram, and whether to use the kernel's offloads.

const Role kSink("kor-sink", [](const Numbers& arguments) {
    Meter meter;
    KorNode node(optionsOf(arguments));
    node.onPacketHook = [&](RTUser&, Packet& packet) { meter.arrived(packet.size); };
    followOrders({node.port()}, [&](const Order&) { return meter.take(); });
});

// Sends from the application's thread, as a program does that makes its packets there.
const Role kSource("kor-source", [](const Numbers& arguments) {
    KorNode node(optionsOf(arguments));
    int inFlight = 0;
    node.onSendOverHook = [&](RTUser&) { node.change([&] { --inFlight; }); };
    RTUser& user = node.connect(arguments.at(2));
    const std::vector<char> packet(kPacketBytes, 'k');
    followOrders({}, [&](const Order& order) {
        for (const std::int64_t end = timeIn(order.numbers.at(0)); systemNow() < end;) {
            node.await([&] { return inFlight < kMaxInFlight; });
            node.change([&] { ++inFlight; });
            user.sendAsyn(packet.data(), static_cast<int>(packet.size()));
        }
        node.await([&] { return inFlight == 0; });
        return Numbers{};
    });
});

const Role kDelaySink("kor-delay-sink", [](const Numbers& arguments) {
    Delays delays;
    KorNode node(optionsOf(arguments));
    node.onPacketHook = [&](RTUser&, Packet& packet) { delays.arrived(packet.data); };
    followOrders({node.port()}, [&](const Order&) { return delays.take(); });
});

const Role kDelaySource("kor-delay-source", [](const Numbers& arguments) {
    KorNode node(optionsOf(arguments));
    bool delivered = false;
    node.onSendOverHook = [&](RTUser&) { node.change([&] { delivered = true; }); };
    RTUser& user = node.connect(arguments.at(2));
    followOrders({}, [&](const Order& order) {
        return sendStamped(order, [&](const std::vector<char>& message) {
            delivered = false;
            user.sendAsyn(message.data(), static_cast<int>(message.size()));
            node.await([&] { return delivered; });
        });
    });
});

} // namespace

} // namespace kor::bench
