#include "Console.h"

#include <support/jLog.h>
#include <support/jTimer.h>
#include <support/memInfo.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>

namespace {

constexpr int kMostRepetitions = 20;

std::atomic<long long> errors{0};
std::atomic<long long> warnings{0};
std::mutex outputMutex;
std::int64_t shiftNanoseconds = 0;

std::int64_t shiftedClock() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::int64_t zero = static_cast<std::int64_t>(kor::jTimer::getZeroOnSystemClock() * 1e9);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec - zero + shiftNanoseconds;
}

void writeAll(std::string_view text) {
    const std::lock_guard guard(outputMutex);
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd full{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&full, 1, -1);
        } else if (errno != EINTR) {
            return; // the test is gone
        }
    }
}

std::string withoutDigits(std::string text) {
    std::erase_if(text, [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
    return text;
}

/// Reports a log line, unless its like has come often already: a fault at 60 Hz would fill the pipe.
void reportLog(kor::LogLevel level, const char* text) {
    static std::mutex mutex;
    static std::map<std::string, int> seen;
    errors += level == kor::LogLevel::error ? 1 : 0;
    warnings += level == kor::LogLevel::warning ? 1 : 0;
    {
        const std::lock_guard guard(mutex);
        if (++seen[withoutDigits(text)] > kMostRepetitions) {
            return;
        }
    }
    static constexpr const char* kLevels[] = {"message", "warning", "error"};
    std::string line(text);
    std::replace(line.begin(), line.end(), '\n', ' ');
    Console::report(ReportLine("log")
                        .add("time", kor::jTimer::getTimeSecond())
                        .add("level", kLevels[static_cast<int>(level)])
                        .add("text", line));
}

} // namespace

ReportLine& ReportLine::add(std::string_view key, std::string_view value) {
    text_.append("\t").append(key).append("=").append(value);
    return *this;
}

ReportLine& ReportLine::add(std::string_view key, long long value) {
    return add(key, std::to_string(value));
}

ReportLine& ReportLine::add(std::string_view key, double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9f", value);
    return add(key, std::string_view(text));
}

Console::Console(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::size_t equals = argument.find('=');
        if (equals != std::string::npos) {
            arguments_[argument.substr(0, equals)] = argument.substr(equals + 1);
        }
    }
    ::fcntl(STDIN_FILENO, F_SETFL, ::fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
    ::fcntl(STDOUT_FILENO, F_SETFL, ::fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK);
    kor::jLog::setHandler(reportLog);
}

Console::~Console() {
    kor::jLog::setHandler({});
}

std::string Console::argument(const std::string& key, const std::string& otherwise) const {
    const auto found = arguments_.find(key);
    return found == arguments_.end() ? otherwise : found->second;
}

double Console::number(const std::string& key, double otherwise) const {
    const auto found = arguments_.find(key);
    return found == arguments_.end() ? otherwise : std::strtod(found->second.c_str(), nullptr);
}

std::vector<std::vector<std::string>> Console::commands() {
    std::vector<std::vector<std::string>> result;
    char bytes[4096];
    ssize_t count = 0;
    while (!ended_ && (count = ::read(STDIN_FILENO, bytes, sizeof bytes)) > 0) {
        input_.append(bytes, static_cast<std::size_t>(count));
    }
    ended_ = ended_ || count == 0;
    for (std::size_t end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
        std::istringstream words(input_.substr(0, end));
        input_.erase(0, end + 1);
        std::vector<std::string> command;
        for (std::string word; words >> word;) {
            command.push_back(word);
        }
        if (!command.empty()) {
            result.push_back(command);
        }
    }
    if (ended_) {
        result.push_back({"quit"});
    }
    return result;
}

void Console::report(const ReportLine& line) {
    writeAll(line.text() + "\n");
}

void Console::reportIfRoom(const ReportLine& line) {
    // A pipe takes lines of up to PIPE_BUF bytes in one piece or not at all.
    const std::string text = line.text() + "\n";
    const std::lock_guard guard(outputMutex);
    if (text.size() <= PIPE_BUF) {
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    }
}

long long loggedErrors() {
    return errors;
}

long long loggedWarnings() {
    return warnings;
}

void addProcess(ReportLine& line) {
    std::ifstream file("/proc/self/statm");
    long long pages = 0;
    long long resident = 0;
    file >> pages >> resident;
    line.add("errors", loggedErrors());
    line.add("warnings", loggedWarnings());
    line.add("resident_kib", resident * ::sysconf(_SC_PAGESIZE) / 1024);
}

void shiftClock(double seconds) {
    shiftNanoseconds = static_cast<std::int64_t>(seconds * 1e9);
    if (seconds != 0) {
        kor::detail::setClockSource(shiftedClock);
    }
}

double clockZero() {
    return kor::jTimer::getZeroOnSystemClock() - static_cast<double>(shiftNanoseconds) * 1e-9;
}

int reportEnd() {
    const kor::MemReport memory = kor::memReport();
    for (const kor::MemReportEntry& entry : memory.entries) {
        Console::report(ReportLine("live")
                            .add("file", entry.file)
                            .add("label", entry.label)
                            .add("line", static_cast<long long>(entry.line))
                            .add("blocks", static_cast<long long>(entry.blocks)));
    }
    Console::report(ReportLine("end").add("live_blocks", static_cast<long long>(memory.liveBlocks)));
    return memory.liveBlocks == 0 ? 0 : 1;
}
