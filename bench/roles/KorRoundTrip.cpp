// Round trips through the connection layer.

#include "../Statistics.h"
#include "KorNode.h"
#include "Roles.h"
#include "SystemTime.h"

#include <array>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kBytes = 64;

/// Sends and records; the next message leaves from the callback or from the application's thread.
class Pinger {
public:
    explicit Pinger(unsigned short port) {
        node_.onPacketHook = [this](RTUser&, Packet&) { answered(); };
        user_ = &node_.connect(port);
    }

    std::vector<double> round(std::size_t count, bool fromThread) {
        samples_.clear();
        samples_.reserve(count);
        wanted_ = fromThread ? 0 : count;
        send();
        for (std::size_t n = 1; fromThread && n <= count; ++n) {
            if (!node_.await([&] { return samples_.size() == n; }))
                return {};
            if (n != count)
                send();
        }
        node_.await([&] { return samples_.size() >= count; });
        return {quantile(samples_, 0.5), quantile(samples_, 0.99)};
    }

private:
    void send() {
        sent_ = systemNow();
        user_->sendAsyn(message_.data(), kBytes);
    }

    void answered() {
        const double microseconds = static_cast<double>(systemNow() - sent_) * 1e-3;
        bool again = false;
        if (wanted_ != 0 && samples_.size() + 1 < wanted_) {
            samples_.push_back(microseconds);
            again = true;
        } else {
            node_.change([&] { samples_.push_back(microseconds); });
        }
        if (again)
            send();
    }

    KorNode node_;
    RTUser* user_ = nullptr;
    std::array<char, kBytes> message_{};
    std::int64_t sent_ = 0;
    std::size_t wanted_ = 0; ///< round trips that the callback makes; 0: the thread makes them
    std::vector<double> samples_;
};

} // namespace

void korEcho(const std::vector<double>&, Orders& orders) {
    KorNode node;
    node.onPacketHook = [](RTUser& user, Packet& packet) {
        user.sendAsyn(packet.data, static_cast<int>(packet.size));
    };
    orders.answer({static_cast<double>(node.port())});
    for (Order order; orders.next(order);) {
    }
}

void korPing(const std::vector<double>& arguments, Orders& orders) {
    Pinger pinger(static_cast<unsigned short>(arguments.at(0)));
    orders.answer({});
    for (Order order; orders.next(order);)
        orders.answer(pinger.round(static_cast<std::size_t>(order.numbers.at(0)), order.word == "thread"));
}

} // namespace kor::bench
