#include "../Child.h"
#include "../Statistics.h"
#include "Figures.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kRounds = 11;
constexpr double kWarmUp = 500;
constexpr double kSamples = 2000;

/// Two processes, one asking and one answering.
class Pair {
public:
    explicit Pair(const std::string& transport, const std::vector<double>& settings = {})
        : echo_(transport + "-echo", settings), ping_(transport + "-ping", withPort(settings)) {
        ping_.hear();
        ping_.ask("round", {kWarmUp});
    }
    /// Median of one round, in microseconds.
    double round(const std::string& from) { return ping_.ask(from, {kSamples}).at(0); }

private:
    std::vector<double> withPort(std::vector<double> settings) {
        settings.push_back(echo_.hear().at(0));
        return settings;
    }

    Child echo_;
    Child ping_;
};

} // namespace

void measureRoundTrip(Table& table) {
    // One pair for each way: the scheduler remembers whom a thread wakes, and one way would shape the other.
    Pair kor("kor");
    Pair korThread("kor");
    struct Reference {
        const char* label;
        Pair pair;
        std::vector<double> medians;
    };
    std::array<Reference, 3> references = {
        Reference{"UDP with the same calls", Pair("udp", {1}), {}},
        Reference{"UDP in blocking recv", Pair("udp", {0}), {}},
        Reference{"ENet", Pair("enet"), {}},
    };
    std::vector<double> fromCallback;
    std::vector<double> fromThread;
    for (int round = 0; round != kRounds; ++round) {
        fromCallback.push_back(kor.round("round"));
        for (Reference& reference : references)
            reference.medians.push_back(reference.pair.round("round"));
        fromThread.push_back(korThread.round("thread"));
    }
    for (const auto& [from, medians] :
         {std::pair{"from callbacks", &fromCallback}, std::pair{"from a thread", &fromThread}})
        for (const Reference& reference : references)
            table.add({std::string("round-trip, 64 bytes, ") + from + ", vs " + reference.label,
                       median(*medians), "us", median(reference.medians)});
}

} // namespace kor::bench
