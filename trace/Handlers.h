#pragma once

#include <memory>

namespace kor::detail {

class TraceCore;

/// Puts the trace before the handlers of the log and of the profiler.
void takeLog(const std::shared_ptr<TraceCore>& core);
void takeProfiler(const std::shared_ptr<TraceCore>& core);

/// Sets the handlers of before again, where the trace's are still set.
void giveLogBack(const TraceCore* core);
void giveProfilerBack(const TraceCore* core);

} // namespace kor::detail
