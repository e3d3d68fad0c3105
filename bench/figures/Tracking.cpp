#include "../roles/SystemTime.h"
#include "../Statistics.h"
#include "Figures.h"

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <atomic>
#include <thread>
#include <vector>

namespace kor::bench {

namespace {

constexpr int kRounds = 15;
constexpr int kPairs = 500'000;
constexpr int kBlocks = 64;
constexpr double kLimitNs = 100;

/// Nanoseconds per pair on the calling thread, with other blocks live meanwhile.
double pairs() {
    std::vector<void*> blocks;
    for (int i = 0; i != kBlocks; ++i) {
        blocks.push_back(jAllocator::get()->localAlloc(64));
        memAddInfo(blocks.back(), false, "bench", 0, "live", 64);
    }
    void* const block = jAllocator::get()->localAlloc(64);
    const std::int64_t begin = threadNow();
    for (int i = 0; i != kPairs; ++i) {
        memAddInfo(block, false, "bench", 0, "pair", 64);
        memRemoveInfo(block, "bench", 0, "pair");
    }
    const std::int64_t end = threadNow();
    jAllocator::get()->localFree(block);
    for (void* const live : blocks)
        jAllocator::get()->localFree(live);
    return static_cast<double>(end - begin) / kPairs;
}

/// The slower of two threads that run at once.
double pairsOfTwo() {
    std::atomic<int> ready{0};
    std::vector<double> took(2);
    std::vector<std::thread> threads;
    for (double& mine : took)
        threads.emplace_back([&] {
            ++ready;
            while (ready != 2) {
            }
            mine = pairs();
        });
    for (std::thread& thread : threads)
        thread.join();
    return std::max(took[0], took[1]);
}

} // namespace

void measureTracking(Table& table) {
    std::vector<double> one;
    std::vector<double> two;
    for (int round = 0; round != kRounds; ++round) {
        one.push_back(pairs());
        two.push_back(pairsOfTwo());
    }
    table.add({"tracking, one thread, a pair, vs limit", median(one), "ns", kLimitNs});
    table.add({"tracking, two threads at once, a pair, vs limit", median(two), "ns", kLimitNs});
    table.add({"tracking, two threads at once, a pair, vs one thread", median(two), "ns", median(one)});
}

} // namespace kor::bench
