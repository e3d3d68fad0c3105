// What single calls cost, in nanoseconds of processor time on one thread and on the slower of two at once.
// Both roles measure one round at any order.

#include "Role.h"
#include "SystemTime.h"

#include <kor/trace.h>
#include <support/jAllocator.h>
#include <support/memInfo.h>
#include <support/profile.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace kor::bench {

namespace {

constexpr int kPairs = 500'000;
constexpr int kLiveBlocks = 64;
constexpr int kEvents = 200'000; // more than the buffer holds, so that old ones are overwritten

/// Processor time of this thread: what other programs take does not count.
template <typename Call>
double timeOf(int calls, Call call) {
    const std::int64_t begin = readClock(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i != calls; ++i)
        call(i);
    return static_cast<double>(readClock(CLOCK_THREAD_CPUTIME_ID) - begin) / calls;
}

template <typename Measure>
double slowerOfTwo(Measure measure) {
    std::atomic<int> ready{0};
    const auto start = [&](double& result) {
        return std::thread([&] {
            for (++ready; ready != 2;) {
            }
            result = measure();
        });
    };
    double one = 0;
    double two = 0;
    std::thread first = start(one);
    start(two).join();
    first.join();
    return std::max(one, two);
}

double pairs() {
    std::vector<void*> live;
    for (int i = 0; i != kLiveBlocks; ++i) {
        live.push_back(jAllocator::get()->localAlloc(64));
        memAddInfo(live.back(), false, "bench", 0, "live", 64);
    }
    void* const block = jAllocator::get()->localAlloc(64);
    const double took = timeOf(kPairs, [&](int) {
        memAddInfo(block, false, "bench", 0, "pair", 64);
        memRemoveInfo(block, "bench", 0, "pair");
    });
    live.push_back(block);
    for (void* const each : live)
        jAllocator::get()->localFree(each);
    return took;
}

double spans(Trace& trace) {
    return timeOf(kEvents, [&](int frame) {
        const double begin = jTimer::getTimeSecond();
        trace.blockApplied(frame, 1, begin, jTimer::getTimeSecond());
    });
}

// memAddInfo and memRemoveInfo: one thread, two threads.
const Role kTracking("tracking", [](const Numbers&) {
    followOrders({}, [](const Order&) {
        const double one = pairs();
        return Numbers{one, slowerOfTwo(pairs)};
    });
});

// A span while nothing records, on one thread, on two; a profiler value.
const Role kTrace("trace", [](const Numbers&) {
    Trace trace;
    const jString label("label");
    followOrders({}, [&](const Order&) {
        const double off = spans(trace);
        trace.begin({.process = "bench", .log = false});
        const double one = spans(trace);
        const double two = slowerOfTwo([&] { return spans(trace); });
        const double value =
            timeOf(kEvents, [&](int i) { profileName(static_cast<float>(i), label, vec4_red); });
        trace.end();
        return Numbers{off, one, two, value};
    });
});

} // namespace

} // namespace kor::bench
