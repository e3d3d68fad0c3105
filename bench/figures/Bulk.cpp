#include "../Child.h"
#include "../Statistics.h"
#include "Figures.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kRounds = 7;
constexpr double kSeconds = 0.6;
constexpr double kWarmUpSeconds = 0.3;
constexpr double kEthernetPayload = 1472;
constexpr double kLoopbackPayload = 65507;

/// A process that sends and one that receives and counts.
class Stream {
public:
    Stream(const std::string& transport, std::vector<double> settings)
        : sink_(transport + "-sink", settings), source_(transport + "-source", withPort(settings)) {
        source_.hear();
        source_.ask("run", {kWarmUpSeconds});
        sink_.ask("take");
    }

    /// Megabytes per second that arrive, in one round.
    void round() {
        source_.ask("run", {kSeconds});
        const std::vector<double> taken = sink_.ask("take");
        rates_.push_back(taken.at(1) > 0 ? taken.at(0) * 1e-6 / taken.at(1) : 0);
    }
    double rate() const { return median(rates_); }

private:
    std::vector<double> withPort(std::vector<double> settings) {
        settings.push_back(sink_.hear().at(0));
        return settings;
    }

    Child sink_;
    Child source_;
    std::vector<double> rates_;
};

struct Reference {
    const char* transport;
    const char* label;
    std::vector<double> settings;
};

/// Runs the connection layer and the references in turn, so that whatever else the machine does meets all.
void measure(Table& table, const std::string& name, double payload, bool offloads,
             const std::vector<Reference>& references) {
    Stream kor("kor", {payload, offloads ? 1.0 : 0.0});
    std::vector<std::unique_ptr<Stream>> others;
    for (const Reference& reference : references)
        others.push_back(std::make_unique<Stream>(reference.transport, reference.settings));
    for (int round = 0; round != kRounds; ++round) {
        kor.round();
        for (const auto& other : others)
            other->round();
    }
    for (std::size_t i = 0; i != references.size(); ++i)
        table.add({name + ", vs " + references[i].label, kor.rate(), "MB/s", others[i]->rate()});
}

} // namespace

void measureBulk(Table& table) {
    measure(table, "bulk, 1472-byte datagrams", kEthernetPayload, true,
            {{"enet", "ENet", {}},
             {"tcp", "TCP", {}},
             {"udp", "UDP with the same calls", {kEthernetPayload, 1, 1}},
             {"udp", "UDP with the fewest calls", {kEthernetPayload, 1, 0}}});
}

void measureBulkPlain(Table& table) {
    measure(table, "bulk, offloads off", kEthernetPayload, false,
            {{"udp", "UDP with the same calls", {kEthernetPayload, 0, 1}},
             {"udp", "UDP with the fewest calls", {kEthernetPayload, 0, 0}}});
}

void measureBulkLoopback(Table& table) {
    measure(table, "bulk, 65507-byte datagrams", kLoopbackPayload, true,
            {{"tcp", "TCP", {}}, {"udp", "UDP with the same calls", {kLoopbackPayload, 0, 1}}});
}

} // namespace kor::bench
