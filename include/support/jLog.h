#pragma once

#include "Export.h"

#include <functional>

namespace kor {

/// How serious a line of the log is.
enum class LogLevel { message, warning, error };

/// The library's log. Every operation may be called from any thread.
///
/// Lines go to standard error, with the process's time in seconds and the level, until a handler is set. A
/// line is never cut, whatever its length. There, control characters are written as `\xNN`: lines name peers
/// as these call themselves, and a terminal would obey them.
class KOR_API jLog {
public:
    /// Receives one line, without time, level or line end.
    using Handler = std::function<void(LogLevel level, const char* text)>;

    /// @{
    /// One line each, from a printf-style format and its arguments.
    [[gnu::format(printf, 1, 2)]] static void message(const char* format, ...);
    [[gnu::format(printf, 1, 2)]] static void warning(const char* format, ...);
    [[gnu::format(printf, 1, 2)]] static void error(const char* format, ...);
    /// @}

    /// Sets the receiver of all lines; an empty one brings standard error back.
    ///
    /// It is called on whichever thread logs, possibly on two at once, and for a short while after it has
    /// been replaced. It may log and may replace the handler: lines logged while it runs on the same thread
    /// go to standard error. A line at which it throws goes there too. The library may hold its locks while
    /// it logs: a handler must not call endpoints or logic objects, and gets the text as it is.
    ///
    /// Returns the handler that was set before, empty if there was none, so that the new one can pass lines
    /// on.
    static Handler setHandler(Handler handler);
};

} // namespace kor
