#pragma once

#include "trace/ClockHistory.h"
#include "trace/EventRing.h"
#include <kor/trace/Trace.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace kor::detail {

/// What is behind a `Trace`. The handlers share it, since one may run for a while after it was replaced.
/// Every operation may be called from any thread; those that add do not wait for each other.
class TraceCore {
public:
    explicit TraceCore(std::size_t bytes) : bytes_(bytes) {}

    /// `self` is this object, for the handlers. `active` leads to it from `begin` to `end`; both set it, so
    /// that it agrees with what is recorded also when several threads begin and end.
    bool begin(const std::shared_ptr<TraceCore>& self, const TraceOptions& options,
               std::atomic<TraceCore*>& active);
    void end(std::atomic<TraceCore*>& active);
    bool write(const std::string& path, std::string& error);
    TraceCounts counts();

    void nameThread(const char* name);
    void addSpan(Event event, double begin, double end, std::string_view text);
    void addNow(Event event, std::string_view text);
    void addFrame(EventKind kind, int frame, double second, double begin, double end);
    void addClock(double offsetMs, double boundMs, double pingMs);
    void addConnection(const char* event, const char* peer);

    bool isRecording() const { return recording_.load(std::memory_order_acquire); }

private:
    bool makeRing();

    const std::size_t bytes_;
    std::unique_ptr<EventRing> ring_; // made by the first begin, then never changed
    std::atomic<bool> recording_{false};
    ClockHistory clock_;

    std::mutex control_; // one begin, end or write at a time; guards the next two
    TraceOptions options_;
    std::string id_;

    std::mutex namesLock_;
    std::map<std::uint32_t, std::string> threadNames_;
};

} // namespace kor::detail
