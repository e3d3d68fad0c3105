#include "trace/TraceCore.h"

#include "trace/Handlers.h"
#include "trace/TraceWriter.h"
#include <support/jLog.h>
#include <support/jTimer.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <utility>

namespace kor::detail {

namespace {

constexpr std::size_t kMinBytes = 64 * 1024;
constexpr std::size_t kMaxNames = 256;
constexpr double kNanoseconds = 1e9;
constexpr double kMaxSeconds = 9e9; // what fits 64 bits of nanoseconds

std::uint32_t thisThread() {
    static std::atomic<std::uint32_t> count{0};
    thread_local const std::uint32_t mine = ++count;
    return mine;
}

std::int64_t toNanoseconds(double seconds) {
    return seconds > -kMaxSeconds && seconds < kMaxSeconds ? std::llround(seconds * kNanoseconds) : 0;
}

std::string randomId() {
    std::random_device random;
    char text[20];
    std::snprintf(text, sizeof text, "%08x%08x", random(), random());
    return text;
}

} // namespace

bool TraceCore::makeRing() {
    if (!ring_)
        ring_ = EventRing::make(std::max(bytes_, kMinBytes) / EventRing::kPlaceBytes);
    if (!ring_)
        jLog::error("%s:no memory for a trace of %zu bytes", "Trace::begin", bytes_);
    return ring_ != nullptr;
}

bool TraceCore::begin(const std::shared_ptr<TraceCore>& self, const TraceOptions& options,
                      std::atomic<TraceCore*>& active) {
    const std::lock_guard guard(control_);
    if (isRecording() || !makeRing())
        return false;
    options_ = options;
    id_ = randomId();
    ring_->clear();
    clock_.clear();
    {
        const std::lock_guard names(namesLock_);
        threadNames_.try_emplace(thisThread(), "application");
    }
    recording_.store(true, std::memory_order_release);
    if (options_.log)
        takeLog(self);
    if (options_.profiler)
        takeProfiler(self);
    active.store(this, std::memory_order_release);
    return true;
}

void TraceCore::end(std::atomic<TraceCore*>& active) {
    const std::lock_guard guard(control_);
    active.store(nullptr, std::memory_order_relaxed);
    if (!recording_.exchange(false))
        return;
    if (options_.log)
        giveLogBack(this);
    if (options_.profiler)
        giveProfilerBack(this);
}

bool TraceCore::write(const std::string& path, std::string& error) {
    const std::lock_guard guard(control_);
    if (!ring_) {
        error = "nothing was recorded";
        return false;
    }
    Recording recording{options_.process, id_, ring_->entries(), {}, clock_.samples(), ring_->counts()};
    {
        const std::lock_guard names(namesLock_);
        recording.threadNames = threadNames_;
    }
    return writeTrace(recording, path, error);
}

TraceCounts TraceCore::counts() {
    const std::lock_guard guard(control_);
    if (!ring_)
        return {};
    const EventRing::Counts counts = ring_->counts();
    return {counts.recorded, counts.overwritten, counts.dropped};
}

void TraceCore::nameThread(const char* name) {
    const std::lock_guard guard(namesLock_);
    try {
        if (threadNames_.size() < kMaxNames)
            threadNames_[thisThread()] = name;
    } catch (...) { // no memory: it stays without a name
    }
}

void TraceCore::addSpan(Event event, double begin, double end, std::string_view text) {
    event.begin = toNanoseconds(begin);
    event.end = toNanoseconds(end);
    event.thread = thisThread();
    ring_->add(event, text);
}

void TraceCore::addNow(Event event, std::string_view text) {
    event.begin = clockNow();
    event.end = event.begin;
    event.thread = thisThread();
    ring_->add(event, text);
}

void TraceCore::addFrame(EventKind kind, int frame, double second, double begin, double end) {
    addSpan({.first = static_cast<double>(frame), .second = second, .kind = kind}, begin, end, {});
}

void TraceCore::addClock(double offsetMs, double boundMs, double pingMs) {
    const double now = jTimer::getTimeSecond();
    clock_.add({now, offsetMs * 0.001, boundMs * 0.001});
    addSpan(
        {.first = offsetMs, .second = boundMs, .third = static_cast<float>(pingMs), .kind = EventKind::clock},
        now, now, {});
}

void TraceCore::addConnection(const char* event, const char* peer) {
    try {
        addNow({.kind = EventKind::connection}, std::string(event) + '\n' + peer);
    } catch (...) {
        addNow({.kind = EventKind::instant}, event);
    }
}

} // namespace kor::detail
