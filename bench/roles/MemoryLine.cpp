// Nanoseconds until a line of memory is here. They tell two processors that share a cache from two that do
// not, which decides what processes pay for what they hand each other; below a virtual machine that may
// change from one minute to the next.

#include "Role.h"
#include "SystemTime.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <thread>

#include <sched.h>

namespace kor::bench {

namespace {

constexpr int kBatches = 61;
constexpr int kPasses = 100;
constexpr std::size_t kOwnBytes = 4u << 20;
constexpr int kWalks = 11; // the first is cold

struct alignas(64) Line {
    std::atomic<int> turn{0};
    Line* next = nullptr;
};

/// The calling thread stays on that processor. False where that cannot be chosen.
bool stayOn(double processor) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<int>(processor), &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

/// Waits for its turn and gives it back. Yields, as the other may want this very processor.
void pass(std::atomic<int>& turn, int own) {
    for (int spins = 0; turn.load(std::memory_order_acquire) != own;)
        if (++spins % 10'000 == 0)
            std::this_thread::yield();
    turn.store(1 - own, std::memory_order_release);
}

/// To the first processor, from the second, which has just written it. Nothing where they cannot be chosen.
Numbers fromOther(double first, double second) {
    Line line;
    bool apart = false;
    std::thread partner([&] {
        apart = stayOn(second);
        for (int i = 0; i != kBatches * kPasses; ++i)
            pass(line.turn, 1);
    });
    const bool placed = stayOn(first);
    Numbers batches;
    for (int batch = 0; batch != kBatches; ++batch) {
        const std::int64_t begin = systemNow();
        for (int i = 0; i != kPasses; ++i)
            pass(line.turn, 0);
        batches.push_back(static_cast<double>(systemNow() - begin) / (2 * kPasses));
    }
    partner.join();
    return placed && apart ? batches : Numbers{};
}

/// Out of 4 MiB that nobody else uses.
Numbers fromOwn() {
    std::vector<Line> lines(kOwnBytes / sizeof(Line));
    std::vector<std::size_t> order(lines.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
    for (std::size_t i = 0; i != order.size(); ++i)
        lines[order[i]].next = &lines[order[(i + 1) % order.size()]];
    Numbers walks;
    Line* at = lines.data();
    for (int walk = 0; walk != kWalks; ++walk) {
        const std::int64_t begin = systemNow();
        for (std::size_t i = 0; i != lines.size(); ++i)
            at = at->next;
        walks.push_back(static_cast<double>(systemNow() - begin) / static_cast<double>(lines.size()));
        at->turn.store(walk, std::memory_order_relaxed); // so that the walk is wanted
    }
    return walks;
}

const Role kMemoryLine("memory-line", [](const Numbers&) {
    followOrders({}, [](const Order& order) {
        return order.word == "other" ? fromOther(order.numbers.at(0), order.numbers.at(1)) : fromOwn();
    });
});

} // namespace

} // namespace kor::bench
