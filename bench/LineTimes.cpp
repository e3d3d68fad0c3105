#include "LineTimes.h"

#include "roles/SystemTime.h"
#include "Statistics.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include <sched.h>

namespace kor::bench {

namespace {

constexpr int kBatches = 61;
constexpr int kPasses = 100;
constexpr std::size_t kOwnBytes = 4u << 20;
constexpr int kRounds = 11; // the first is cold

struct alignas(64) Line {
    std::atomic<int> turn{0};
    Line* next = nullptr;
};

std::vector<int> processors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> list;
    if (::sched_getaffinity(0, sizeof set, &set) == 0)
        for (int i = 0; i != CPU_SETSIZE; ++i)
            if (CPU_ISSET(i, &set))
                list.push_back(i);
    return list;
}

bool stayOn(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    return ::sched_setaffinity(0, sizeof set, &set) == 0;
}

/// Waits for its turn and gives it back. Yields, as the other may want this very processor.
void pass(std::atomic<int>& turn, int own) {
    for (int spins = 0; turn.load(std::memory_order_acquire) != own;)
        if (++spins % 10'000 == 0)
            std::this_thread::yield();
    turn.store(1 - own, std::memory_order_release);
}

std::optional<double> fromOther(int first, int second) {
    Line line;
    std::vector<double> batches;
    std::atomic<bool> apart{true};
    std::thread partner([&] {
        if (!stayOn(second))
            apart = false;
        for (int i = 0; i != kBatches * kPasses; ++i)
            pass(line.turn, 1);
    });
    std::thread measurer([&] {
        if (!stayOn(first))
            apart = false;
        for (int batch = 0; batch != kBatches; ++batch) {
            const std::int64_t begin = systemNow();
            for (int i = 0; i != kPasses; ++i)
                pass(line.turn, 0);
            batches.push_back(static_cast<double>(systemNow() - begin) / (2 * kPasses));
        }
    });
    measurer.join();
    partner.join();
    if (!apart)
        return std::nullopt;
    return median(batches);
}

double fromOwn() {
    std::vector<Line> lines(kOwnBytes / sizeof(Line));
    std::vector<std::size_t> order(lines.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
    for (std::size_t i = 0; i != order.size(); ++i)
        lines[order[i]].next = &lines[order[(i + 1) % order.size()]];
    std::vector<double> rounds;
    Line* at = lines.data();
    for (int round = 0; round != kRounds; ++round) {
        const std::int64_t begin = systemNow();
        for (std::size_t i = 0; i != lines.size(); ++i)
            at = at->next;
        rounds.push_back(static_cast<double>(systemNow() - begin) / static_cast<double>(lines.size()));
        at->turn.store(round, std::memory_order_relaxed); // so that the walk is wanted
    }
    return median(rounds);
}

} // namespace

std::optional<LineTimes> measureLineTimes() {
    const std::vector<int> usable = processors();
    if (usable.size() < 2)
        return std::nullopt;
    const std::optional<double> other = fromOther(usable[0], usable[1]);
    if (!other)
        return std::nullopt;
    return LineTimes{*other, fromOwn()};
}

} // namespace kor::bench
