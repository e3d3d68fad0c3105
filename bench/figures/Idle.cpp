#include "../Statistics.h"
#include "Figures.h"
#include "Peers.h"

#include <chrono>
#include <thread>

namespace kor::bench {

namespace {

constexpr int kRounds = 5;
constexpr auto kSettle = std::chrono::seconds(3);
constexpr auto kRound = std::chrono::seconds(2);
constexpr double kLimitPercent = 1;
constexpr double kLimitMebibytes = 64;

} // namespace

void measureIdle(Table& table) {
    Peers peers("kor");
    std::this_thread::sleep_for(kSettle);
    std::vector<double> loads;
    std::vector<double> before = peers.master.ask("usage");
    for (int round = 0; round != kRounds; ++round) {
        std::this_thread::sleep_for(kRound);
        const std::vector<double> after = peers.master.ask("usage");
        loads.push_back(peers.load(before, after));
        before = after;
    }
    table.add({"idle, 250 connections, master's load, vs limit", median(loads), "%", kLimitPercent});
    table.add(
        {"idle, 250 connections, master's resident memory, vs limit", before.at(2), "MiB", kLimitMebibytes});
}

} // namespace kor::bench
