#include "../Statistics.h"
#include "Figures.h"
#include "Peers.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace kor::bench {

namespace {

constexpr int kRounds = 5;
constexpr double kPerSecond = 240;
constexpr double kTicks = 480;
constexpr double kBytes = 1024;
constexpr double kLimitPercent = 35;
constexpr double kLimitSpreadMs = 1;

struct Span {
    double count = 0;
    double first = 0;
    double last = 0;
};

/// What all hosts saw of each tick together.
std::map<std::size_t, Span> ticksOf(Peers& peers) {
    std::map<std::size_t, Span> ticks;
    for (const auto& host : peers.hosts) {
        const std::vector<double> numbers = host->ask("arrivals");
        for (std::size_t i = 0; i + 2 < numbers.size(); i += 3) {
            Span& tick = ticks[i / 3];
            if (numbers[i] == 0)
                continue;
            tick.first = tick.count == 0 ? numbers[i + 1] : std::min(tick.first, numbers[i + 1]);
            tick.last = std::max(tick.last, numbers[i + 2]);
            tick.count += numbers[i];
        }
    }
    return ticks;
}

/// Measures one of the two programs, a round at a time.
class FanOut {
public:
    explicit FanOut(const std::string& kind) : peers_(kind) {
        peers_.master.ask("ticks", {kPerSecond, kPerSecond, kBytes});
        ticksOf(peers_);
    }

    void round() {
        const std::vector<double> before = peers_.master.ask("usage");
        loads_.push_back(peers_.load(before, peers_.master.ask("ticks", {kTicks, kPerSecond, kBytes})));
        std::vector<double> ofRound;
        for (const auto& [number, tick] : ticksOf(peers_))
            if (tick.count == kPeers)
                ofRound.push_back((tick.last - tick.first) * 1e-6);
        if (static_cast<double>(ofRound.size()) < kTicks / 2)
            throw std::runtime_error("most ticks did not reach every peer");
        spreads_.push_back(median(ofRound));
    }

    double load() const { return median(loads_); }
    double spread() const { return median(spreads_); }

private:
    Peers peers_;
    std::vector<double> loads_;
    std::vector<double> spreads_;
};

} // namespace

void measureFanOut(Table& table) {
    FanOut ours("kor");
    FanOut udp("udp");
    for (int round = 0; round != kRounds; ++round) {
        ours.round();
        udp.round();
    }
    const std::string load = "fan-out, 250 peers at 240 Hz, sender's load, vs ";
    table.add({load + "limit", ours.load(), "%", kLimitPercent});
    table.add({load + "UDP in batches", ours.load(), "%", udp.load()});
    const std::string spread = "fan-out, 250 peers at 240 Hz, spread of a tick, vs ";
    table.add({spread + "limit", ours.spread(), "ms", kLimitSpreadMs});
    table.add({spread + "UDP in batches", ours.spread(), "ms", udp.spread()});
}

} // namespace kor::bench
