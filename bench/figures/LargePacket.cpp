#include "../Child.h"
#include "../Statistics.h"
#include "Figures.h"

#include <string>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kRounds = 7;
constexpr double kMessages = 40;
constexpr double kBytes = 2 << 20;
constexpr double kLimitMs = 1;

class Delays {
public:
    Delays(const std::string& transport, const std::vector<double>& sinkSettings,
           std::vector<double> settings)
        : sink_(transport + "-delay-sink", sinkSettings),
          source_(transport + "-delay-source", withPort(std::move(settings))) {
        source_.hear();
        source_.ask("send", {kMessages, kBytes});
        sink_.ask("take");
    }
    void round() {
        source_.ask("send", {kMessages, kBytes});
        medians_.push_back(median(sink_.ask("take")));
    }
    double milliseconds() const { return median(medians_); }

private:
    std::vector<double> withPort(std::vector<double> settings) {
        settings.push_back(sink_.hear().at(0));
        return settings;
    }

    Child sink_;
    Child source_;
    std::vector<double> medians_;
};

} // namespace

void measureLargePacket(Table& table) {
    Delays small("kor", {1472, 1}, {1472, 1});
    Delays large("kor", {65507, 1}, {65507, 1});
    Delays tcp("tcp", {kBytes}, {});
    for (int round = 0; round != kRounds; ++round) {
        small.round();
        tcp.round();
        large.round();
    }
    table.add({"large-packet, 2 MiB, 1472-byte datagrams, vs limit", small.milliseconds(), "ms", kLimitMs});
    table.add(
        {"large-packet, 2 MiB, 1472-byte datagrams, vs TCP", small.milliseconds(), "ms", tcp.milliseconds()});
    table.add({"large-packet, 2 MiB, 65507-byte datagrams, vs limit", large.milliseconds(), "ms", kLimitMs});
}

} // namespace kor::bench
