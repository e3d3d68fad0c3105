#include "../roles/SystemTime.h"
#include "../Statistics.h"
#include "Figures.h"

#include <kor/trace.h>
#include <support/profile.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kRounds = 15;
constexpr int kEvents = 200'000; // more than the buffer holds, so that old ones are overwritten
constexpr double kLimitNs = 1000;

/// Nanoseconds of processor time per event on the calling thread.
template <class Record>
double each(Record record) {
    const std::int64_t begin = threadNow();
    for (int i = 0; i != kEvents; ++i)
        record(i);
    return static_cast<double>(threadNow() - begin) / kEvents;
}

double spans(Trace& trace) {
    return each([&](int frame) {
        const double begin = jTimer::getTimeSecond();
        trace.blockApplied(frame, 1, begin, jTimer::getTimeSecond());
    });
}

/// The slower of two threads that record at once.
double spansOfTwo(Trace& trace) {
    std::atomic<int> ready{0};
    std::vector<double> took(2);
    std::vector<std::thread> threads;
    for (double& mine : took)
        threads.emplace_back([&] {
            ++ready;
            while (ready != 2) {
            }
            mine = spans(trace);
        });
    for (std::thread& thread : threads)
        thread.join();
    return std::max(took[0], took[1]);
}

} // namespace

void measureTrace(Table& table) {
    Trace trace;
    const jString label("label");
    std::vector<double> off;
    std::vector<double> one;
    std::vector<double> two;
    std::vector<double> value;
    for (int round = 0; round != kRounds; ++round) {
        off.push_back(spans(trace));
        trace.begin({.process = "bench", .log = false});
        one.push_back(spans(trace));
        two.push_back(spansOfTwo(trace));
        value.push_back(each([&](int i) { profileName(static_cast<float>(i), label, vec4_red); }));
        trace.end();
    }
    table.add({"trace, a span, one thread, vs limit", median(one), "ns", kLimitNs});
    table.add({"trace, a span, two threads at once, vs limit", median(two), "ns", kLimitNs});
    table.add({"trace, a profiler value, vs limit", median(value), "ns", kLimitNs});
    table.add({"trace, a span while nothing records, vs limit", median(off), "ns", kLimitNs});
}

} // namespace kor::bench
