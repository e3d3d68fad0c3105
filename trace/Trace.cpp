#include <kor/trace/Trace.h>

#include "trace/TraceCore.h"
#include <support/jLog.h>
#include <support/jTimer.h>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace kor {

using detail::EventKind;

namespace {

constexpr double kClockUnknown = -1e9; // milliseconds

} // namespace

Trace::Trace(std::size_t bytes) : core_(std::make_shared<detail::TraceCore>(bytes)) {}

Trace::~Trace() {
    end();
}

bool Trace::begin(const TraceOptions& options) {
    try {
        return core_->begin(core_, options, active_);
    } catch (const std::exception& failure) {
        end();
        jLog::error("%s:%s", "Trace::begin", failure.what());
    }
    return false;
}

void Trace::end() {
    core_->end(active_);
}

bool Trace::write(const std::string& path) {
    std::string error;
    bool written = false;
    try {
        written = core_->write(path, error);
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    if (!written)
        jLog::error("the trace cannot be written to %s: %s", path.c_str(), error.c_str());
    return written;
}

TraceCounts Trace::counts() const {
    return core_->counts();
}

void Trace::nameThread(const char* name) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->nameThread(name);
}

void Trace::span(const char* name, double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addSpan({.kind = EventKind::span}, begin, end, name);
}

void Trace::instant(const char* text) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addNow({.kind = EventKind::instant}, text);
}

void Trace::value(const char* name, double number) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addNow({.first = number, .kind = EventKind::value}, name);
}

void Trace::clock(double offsetMs, double boundMs, double pingMs) {
    detail::TraceCore* core = active_.load(std::memory_order_acquire);
    if (core && offsetMs != kClockUnknown)
        core->addClock(offsetMs, boundMs, pingMs);
}

void Trace::frameSent(int frame, std::int64_t bytes, double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addFrame(EventKind::sent, frame, static_cast<double>(bytes), begin, end);
}

void Trace::blockArrived(int frame, std::int64_t bytes, double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addFrame(EventKind::arrived, frame, static_cast<double>(bytes), begin, end);
}

void Trace::blockApplied(int frame, double weight, double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addFrame(EventKind::applied, frame, weight, begin, end);
}

void Trace::updated(int frame, double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addFrame(EventKind::updated, frame, 0, begin, end);
}

void Trace::waited(KorLogicClient::WAIT_RESULT result, double position, double vsync, double begin,
                   double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire)) {
        core->addSpan({.first = position,
                       .second = vsync,
                       .kind = EventKind::waited,
                       .code = static_cast<std::uint8_t>(result)},
                      begin, end, {});
    }
}

void Trace::presented(double begin, double end) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addSpan({.kind = EventKind::presented}, begin, end, {});
}

void Trace::connection(const char* event, const char* peer) {
    if (detail::TraceCore* core = active_.load(std::memory_order_acquire))
        core->addConnection(event, peer);
}

} // namespace kor
