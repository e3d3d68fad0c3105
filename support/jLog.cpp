#include <support/jLog.h>

#include "support/HandlerSlot.h"

#include <support/jTimer.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

namespace kor {

namespace {

constinit detail::Immortal<detail::HandlerSlot<jLog::Handler>> slot;

thread_local bool handlerRuns = false;

const char* nameOf(LogLevel level) {
    switch (level) {
    case LogLevel::warning:
        return "warning";
    case LogLevel::error:
        return "error";
    case LogLevel::message:
        break;
    }
    return "message";
}

/// Names that come from the network stand in lines, and a terminal obeys control characters.
std::string withoutControls(const char* text) {
    std::string clean;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte >= 0x20 && byte != 0x7f) {
            clean += *text;
            continue;
        }
        char escaped[5];
        std::snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned>(byte));
        clean += escaped;
    }
    return clean;
}

void writeToStandardError(LogLevel level, const char* text) {
    std::fprintf(stderr, "[%12.6f] %s: %s\n", jTimer::getTimeSecond(), nameOf(level),
                 withoutControls(text).c_str());
}

void deliver(LogLevel level, const char* text) {
    const auto handler = handlerRuns ? nullptr : slot.value.get();
    if (!handler) {
        writeToStandardError(level, text);
        return;
    }
    handlerRuns = true;
    try {
        (*handler)(level, text);
    } catch (...) {
        writeToStandardError(level, text);
    }
    handlerRuns = false;
}

[[gnu::format(printf, 2, 0)]] void log(LogLevel level, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    char line[512];
    const int length = std::vsnprintf(line, sizeof(line), format, arguments);
    if (length < 0) {
        deliver(level, format);
    } else if (static_cast<std::size_t>(length) < sizeof(line)) {
        deliver(level, line);
    } else {
        std::string longLine(static_cast<std::size_t>(length), '\0');
        std::vsnprintf(longLine.data(), longLine.size() + 1, format, again);
        deliver(level, longLine.c_str());
    }
    va_end(again);
}

} // namespace

void jLog::message(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log(LogLevel::message, format, arguments);
    va_end(arguments);
}

void jLog::warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log(LogLevel::warning, format, arguments);
    va_end(arguments);
}

void jLog::error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log(LogLevel::error, format, arguments);
    va_end(arguments);
}

jLog::Handler jLog::setHandler(Handler handler) {
    return slot.value.exchange(std::move(handler));
}

} // namespace kor
