#include "Program.h"

#include <support/jLog.h>
#include <support/jTimer.h>
#include <support/memInfo.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::atomic<bool> stopFlag{false};
std::atomic<int> errors{0};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler may only touch lock-free atomics");

// Holds back repetitions of the last line, so that one fault at 60 Hz does not bury the terminal.
class LogPrinter {
public:
    void print(const char* level, const char* text) {
        const std::lock_guard guard(mutex_);
        const double now = kor::jTimer::getTimeSecond();
        if (text == last_ && now - shownAt_ < 1) {
            ++held_;
            return;
        }
        if (held_ > 0)
            std::fprintf(stderr, "%10.3f          (%d times more)\n", now, held_);
        std::fprintf(stderr, "%10.3f %-8s %s\n", now, level, text);
        last_ = text;
        shownAt_ = now;
        held_ = 0;
    }

private:
    std::mutex mutex_;
    std::string last_;
    double shownAt_ = 0;
    int held_ = 0;
};

void installSignalHandlers() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, [](int) { stopFlag = true; });
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

void showLog(bool verbose) {
    static LogPrinter printer;
    kor::jLog::setHandler([verbose](kor::LogLevel level, const char* text) {
        if (level == kor::LogLevel::error) {
            ++errors;
            printer.print("error", text);
        } else if (level == kor::LogLevel::warning) {
            printer.print("warning", text);
        } else if (verbose) {
            printer.print("message", text);
        }
    });
}

} // namespace

bool beginProgram(const RunOptions& options, Report& report) {
    installSignalHandlers();
    showLog(options.verbose);
    return report.open(options.report);
}

int finishProgram(Report& report, nlohmann::ordered_json& end, int status) {
    if (!end.empty()) {
        end["live_blocks"] = kor::memReport().liveBlocks;
        report.add(end);
    }
    return report.flush() || status != kExitDone ? status : kExitFailed;
}

const char* resultName(kor::KorLogicClient::WAIT_RESULT result) {
    switch (result) {
    case kor::KorLogicClient::WAIT_LERP:
        return "lerp";
    case kor::KorLogicClient::WAIT_HIT:
        return "hit";
    case kor::KorLogicClient::WAIT_OVER_HIT:
        return "over_hit";
    default:
        return "none";
    }
}

bool stopRequested() {
    return stopFlag;
}

int loggedErrors() {
    return errors;
}

std::uint64_t malformedDatagrams(kor::RTNet& net) {
    const kor::MalformedCounters bad = net.getStatistics().malformed;
    return bad.tooShort + bad.checksum + bad.unknownKind + bad.badFrame + bad.unknownConnection +
           bad.overLimit;
}
