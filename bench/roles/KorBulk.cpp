// Bulk data through the connection layer, in packets of 1 MiB.

#include "KorNode.h"
#include "Meter.h"
#include "Roles.h"

#include <chrono>
#include <vector>

namespace kor::bench {

namespace {

constexpr std::size_t kPacketBytes = 1u << 20;
constexpr int kUnderWay = 8; ///< packets sent and not yet delivered

class Source {
public:
    Source(unsigned short port, const NetOptions& options) : node_(options) {
        node_.onSendOverHook = [this](RTUser&) { node_.change([this] { --underWay_; }); };
        user_ = &node_.connect(port);
    }

    /// From the application's thread, as a program does that makes its packets there.
    void run(double seconds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            if (!node_.await([this] { return underWay_ < kUnderWay; }))
                return;
            node_.change([this] { ++underWay_; });
            user_->sendAsyn(packet_.data(), static_cast<int>(packet_.size()));
        }
        node_.await([this] { return underWay_ == 0; });
    }

    std::vector<double> statistics() const {
        const ConnectionStatistics s = user_->getStatistics();
        return {static_cast<double>(s.repairs), static_cast<double>(s.spuriousRepairs),
                static_cast<double>(s.windowStalls), static_cast<double>(s.window),
                static_cast<double>(s.payloadSize)};
    }

private:
    KorNode node_;
    RTUser* user_ = nullptr;
    int underWay_ = 0;
    std::vector<char> packet_ = std::vector<char>(kPacketBytes, 'k');
};

} // namespace

void korSink(const std::vector<double>& arguments, Orders& orders) {
    Meter meter;
    KorNode node(optionsOf(arguments.at(0), arguments.at(1)));
    node.onPacketHook = [&](RTUser&, Packet& packet) { meter.arrived(packet.size); };
    orders.answer({static_cast<double>(node.port())});
    for (Order order; orders.next(order);)
        orders.answer(meter.take());
}

void korSource(const std::vector<double>& arguments, Orders& orders) {
    Source source(static_cast<unsigned short>(arguments.at(2)), optionsOf(arguments.at(0), arguments.at(1)));
    orders.answer({});
    for (Order order; orders.next(order);) {
        if (order.word == "run")
            source.run(order.numbers.at(0));
        orders.answer(source.statistics());
    }
}

} // namespace kor::bench
