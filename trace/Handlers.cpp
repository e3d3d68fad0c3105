#include "trace/Handlers.h"

#include "trace/TraceCore.h"
#include <support/jLog.h>
#include <support/profile.h>

#include <utility>

namespace kor::detail {

namespace {

struct LineTaker {
    std::shared_ptr<TraceCore> core;
    jLog::Handler next;

    void operator()(LogLevel level, const char* text) const {
        if (core->isRecording())
            core->addNow({.kind = EventKind::log, .code = static_cast<std::uint8_t>(level)}, text);
        if (next)
            next(level, text);
        else
            writeToStandardError(level, text);
    }

    /// From inside a handler, the log goes to standard error.
    static void writeToStandardError(LogLevel level, const char* text) {
        switch (level) {
        case LogLevel::message:
            return jLog::message("%s", text);
        case LogLevel::warning:
            return jLog::warning("%s", text);
        case LogLevel::error:
            return jLog::error("%s", text);
        }
    }
};

struct ValueTaker {
    std::shared_ptr<TraceCore> core;
    ProfileHandler next;

    void operator()(const char* label, float value, const vec4& colour) const {
        if (core->isRecording())
            core->addNow({.first = static_cast<double>(value), .kind = EventKind::value}, label);
        if (next)
            next(label, value, colour);
    }
};

/// Sets what was before the taker, or leaves everything as it is where the taker is not set.
template <class Taker, class Handler>
void giveBack(const TraceCore* core, Handler (*set)(Handler)) {
    Handler there = set({});
    const auto* taker = there.template target<Taker>();
    if (taker && taker->core.get() == core)
        set(taker->next);
    else
        set(std::move(there));
}

} // namespace

void takeLog(const std::shared_ptr<TraceCore>& core) {
    // Twice, because what was there before is known only afterwards.
    jLog::Handler before = jLog::setHandler(LineTaker{core, {}});
    jLog::setHandler(LineTaker{core, std::move(before)});
}

void takeProfiler(const std::shared_ptr<TraceCore>& core) {
    ProfileHandler before = setProfileHandler(ValueTaker{core, {}});
    setProfileHandler(ValueTaker{core, std::move(before)});
}

void giveLogBack(const TraceCore* core) {
    giveBack<LineTaker>(core, jLog::setHandler);
}

void giveProfilerBack(const TraceCore* core) {
    giveBack<ValueTaker>(core, setProfileHandler);
}

} // namespace kor::detail
