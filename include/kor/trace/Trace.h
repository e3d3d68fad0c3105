#pragma once

#include "../../support/jTimer.h"
#include "../KorLogicClient.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#if defined(_WIN32) && !defined(KOR_STATIC)
#if defined(KOR_TRACE_BUILDING)
#define KOR_TRACE_API __declspec(dllexport)
#else
#define KOR_TRACE_API __declspec(dllimport)
#endif
#else
#define KOR_TRACE_API KOR_API
#endif

namespace kor {

namespace detail {
class TraceCore;
}

/// What `Trace::begin` records.
struct TraceOptions {
    std::string process{}; ///< the name that the process has in the trace, as UTF-8
    bool log = true;       ///< take in the lines of `jLog`
    bool profiler = true;  ///< take in the values of the profiler
};

/// How much was recorded, in events.
struct TraceCounts {
    std::uint64_t recorded = 0;    ///< since `begin`, with those that are no longer there
    std::uint64_t overwritten = 0; ///< gone because newer ones needed the room
    std::uint64_t dropped = 0;     ///< not taken in because two threads met at one place of the buffer
};

/// Records what happens in one process, in a buffer of fixed size, and writes it as a file in the Chrome
/// trace event format.
///
/// The buffer always holds the newest events; when it is full, each new one takes the place of the oldest,
/// and the file says how many are missing. An event takes 128 bytes (the default holds 131,072: about two
/// minutes of a slave at 60 Hz), a text over 80 bytes takes as much again for every further 80; texts are cut
/// after 1000 bytes. Recording one takes about 0.1 µs and never waits, and next to nothing before `begin`.
///
/// Times given to the operations are seconds of `jTimer`. The file has them on the master's clock: `clock`
/// says how it lies to ours, and events from before that was known are converted too, when the file is
/// written. Without any call of `clock` the own clock is the time line, as it has to be on the master. When
/// the master is started again, its clock begins anew, and everything is converted to the new one.
///
/// Threads: every operation may be called on any thread, also on several at once. Lifetime: destroy it after
/// the adapters that use it; its destructor ends the recording. No operation throws.
class KOR_TRACE_API Trace {
public:
    /// Size of the buffer unless another is asked for.
    static constexpr std::size_t kDefaultBytes = std::size_t{16} << 20;

    /// `bytes` is the size of the buffer, at least 64 KiB. It is allocated by the first `begin`.
    explicit Trace(std::size_t bytes = kDefaultBytes);
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;
    ~Trace();

    /// Starts to record and forgets what was recorded before. False when it records already, or, with an
    /// error in the log, when there is no memory for the buffer.
    ///
    /// Takes the place of the handlers of `jLog` and of the profiler, as far as the options ask for it, and
    /// passes everything on to those that were set before: set your own first.
    bool begin(const TraceOptions& options);

    /// Ends the recording and sets the handlers of before again, unless others have been set meanwhile. What
    /// was recorded stays for `write`.
    void end();

    /// True from a successful `begin` to `end`.
    bool isRecording() const { return active_.load(std::memory_order_relaxed) != nullptr; }

    /// Writes what the buffer holds to a file. Goes on recording; may be called again and again.
    ///
    /// False, with the reason in the log, when that fails. The file then is as it was before, unless it is a
    /// device or a pipe, into which is written directly. Needs about as much memory as the buffer meanwhile.
    bool write(const std::string& path);

    /// What has been recorded since the last `begin`; all 0 before the first.
    TraceCounts counts() const;

    /// Names the calling thread in the trace. The thread of the first `begin` is called "application" and the
    /// connection layer's "network" otherwise.
    void nameThread(const char* name);

    /// Something that lasted from `begin` to `end`. On one thread, spans must lie within each other or apart.
    void span(const char* name, double begin, double end);

    /// Something that happened now.
    void instant(const char* text);

    /// A value that is drawn over time. One that is not finite is noted as an instant.
    void value(const char* name, double number);

    /// The master's clock minus ours, the bound on its error, and the round-trip time, all in milliseconds,
    /// as `RTUser` gives them. An offset of -1e9, which means unknown, is ignored.
    void clock(double offsetMs, double boundMs, double pingMs);

    // The life of a frame, in this order. A frame of -1 is unknown.

    /// The master sent the data of that frame. `kor-trace-merge` leads arrows from here to the next two.
    void frameSent(int frame, std::int64_t bytes, double begin, double end);

    /// A slave's connection layer handed the block to the endpoint.
    void blockArrived(int frame, std::int64_t bytes, double begin, double end);

    /// The application took the block's data, in full with weight 1.
    void blockApplied(int frame, double weight, double begin, double end);

    /// A slave's `wait` returned `result` with that frame position (-1 for none) for the expected vsync.
    void waited(KorLogicClient::WAIT_RESULT result, double position, double vsync, double begin, double end);

    /// The picture was presented: from `swapBegin` to `swapEnd`.
    void presented(double begin, double end);

    /// The master calls its application for that frame.
    void updated(int frame, double begin, double end);

    /// What happened to the connection with that peer, now.
    void connection(const char* event, const char* peer);

private:
    std::shared_ptr<detail::TraceCore> core_;
    std::atomic<detail::TraceCore*> active_{nullptr}; // null unless recording
};

/// Records the time from its construction to its destruction.
///
///     {
///         kor::TraceSpan span(trace, "draw");
///         draw();
///     }
class TraceSpan {
public:
    /// The name must stay until the end.
    TraceSpan(Trace& trace, const char* name)
        : trace_(trace), name_(name), begin_(trace.isRecording() ? jTimer::getTimeSecond() : -1) {}
    TraceSpan(const TraceSpan&) = delete;
    TraceSpan& operator=(const TraceSpan&) = delete;
    ~TraceSpan() {
        if (begin_ >= 0)
            trace_.span(name_, begin_, jTimer::getTimeSecond());
    }

private:
    Trace& trace_;
    const char* name_;
    double begin_;
};

} // namespace kor
