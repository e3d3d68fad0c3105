#include "../Child.h"
#include "../roles/SystemTime.h"
#include "../Statistics.h"
#include "Figures.h"

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace kor::bench {

namespace {

constexpr double kDriftPpm = 30;
constexpr double kStartApart = 3.6e12 * 7; // the drifting clock is hours ahead
constexpr auto kSettle = std::chrono::seconds(5);
constexpr double kSamples = 3000;
constexpr double kEveryMs = 5;

/// Both ends sample at once.
std::vector<double> errors(Child& a, Child& b) {
    std::vector<double> all;
    for (Child* const end : {&a, &b})
        end->tell("errors", {kSamples, kEveryMs});
    for (Child* const end : {&a, &b})
        for (const double error : end->hear())
            all.push_back(std::abs(error));
    return all;
}

void add(Table& table, const std::string& beside, const std::vector<double>& all, double limitP50,
         double limitP99) {
    table.add({"clock, error " + beside + ", p50, vs limit", quantile(all, 0.5), "us", limitP50});
    table.add({"clock, error " + beside + ", p99, vs limit", quantile(all, 0.99), "us", limitP99});
}

} // namespace

void measureClock(Table& table) {
    const auto base = static_cast<double>(systemNow());
    Child master("kor-clock", {base, 0, 0, base, kStartApart, kDriftPpm, 0});
    Child slave("kor-clock", {base, kStartApart, kDriftPpm, base, 0, 0, master.hear().at(0)});
    slave.hear();
    std::this_thread::sleep_for(kSettle);
    add(table, "idle", errors(master, slave), 2, 10);
    master.ask("load", {1});
    std::this_thread::sleep_for(kSettle);
    add(table, "beside 60 Hz x 1 MiB", errors(master, slave), 20, 100);
    master.ask("load", {0});
}

} // namespace kor::bench
