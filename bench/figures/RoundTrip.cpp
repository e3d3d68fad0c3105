#include "../Child.h"
#include "../Statistics.h"
#include "Figures.h"

#include <memory>

namespace kor::bench {

namespace {

constexpr int kRounds = 11;
constexpr double kWarmUp = 500;
constexpr double kSamples = 2000;

/// Two processes, one asking and one answering.
class Pair {
public:
    explicit Pair(const std::string& transport)
        : echo_(transport + "-echo"), ping_(transport + "-ping", {echo_.hear().at(0)}) {
        ping_.hear();
        ping_.ask("round", {kWarmUp});
    }
    /// Median of one round, in microseconds.
    double round(const std::string& from) { return ping_.ask(from, {kSamples}).at(0); }

private:
    Child echo_;
    Child ping_;
};

} // namespace

void measureRoundTrip(Table& table) {
    Pair kor("kor");
    Pair udp("udp");
    Pair enet("enet");
    std::vector<double> fromCallback;
    std::vector<double> fromThread;
    std::vector<double> ofUdp;
    std::vector<double> ofEnet;
    for (int round = 0; round != kRounds; ++round) {
        ofUdp.push_back(udp.round("round"));
        fromCallback.push_back(kor.round("round"));
        ofEnet.push_back(enet.round("round"));
        fromThread.push_back(kor.round("thread"));
    }
    table.add({"round-trip, 64 bytes, from callbacks, vs UDP", median(fromCallback), "us", median(ofUdp)});
    table.add({"round-trip, 64 bytes, from callbacks, vs ENet", median(fromCallback), "us", median(ofEnet)});
    table.add({"round-trip, 64 bytes, from a thread, vs UDP", median(fromThread), "us", median(ofUdp)});
    table.add({"round-trip, 64 bytes, from a thread, vs ENet", median(fromThread), "us", median(ofEnet)});
}

} // namespace kor::bench
