#pragma once

#include "Report.h"

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Longest that a test waits for anything; a machine must be more than busy to need it.
inline constexpr std::chrono::seconds kPatience{120};

/// The namespaces in which a process runs; -1 and empty for those of the test.
struct Surroundings {
    int userNamespace = -1;
    int networkNamespace = -1;
    std::optional<long long> steadyClockAhead; ///< seconds; makes a time namespace
};

/// A program under test, with pipes to it. It is killed, with whatever it started, when the object goes, and
/// by the kernel when the test itself dies in whatever way.
///
/// Nothing here runs on a thread of its own: output is taken in by `pump` and by what calls it. Processes
/// are to be made and used on the test's main thread.
class ChildProcess {
public:
    /// Starts a program. `label` names it in messages.
    ChildProcess(std::string label, const std::vector<std::string>& command,
                 const Surroundings& surroundings = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    const std::string& label() const { return label_; }
    pid_t pid() const { return pid_; }

    /// Writes a command and a line end to its standard input.
    void tell(const std::string& command);

    /// Closes its standard input, which a node takes for "quit".
    void closeInput();

    void signal(int number) const;

    /// True once it has ended and all that it wrote has been taken in.
    bool ended() const { return status_.has_value(); }

    /// Exit status, minus the signal's number when a signal ended it. Empty while it runs.
    std::optional<int> exitStatus() const;

    /// The last report of that type; one without fields when there is none yet.
    const Report& last(const std::string& type) const;

    /// Number of reports of that type so far.
    long long count(const std::string& type) const;

    /// Text fields of the reports of type "log", since the process began.
    const std::vector<std::string>& log() const { return log_; }

    /// For messages about a failure: what it reported last and what it wrote.
    std::string describe() const;

    /// Takes in what all running processes write, until something has come or `limit` has passed.
    static void pump(std::chrono::milliseconds limit);

    /// Pumps until the condition holds. False when it does not within `limit`.
    static bool await(const std::function<bool()>& condition, std::chrono::seconds limit = kPatience);

private:
    [[noreturn]] static void becomeChild(char* const* arguments, const Surroundings& surroundings,
                                         const int (&pipes)[3], pid_t parent);
    bool drain(int fd, std::string& pending, bool reports);
    void takeLine(const std::string& line, bool report);
    void collect();

    std::string label_;
    pid_t pid_ = -1;
    int process_ = -1; // becomes readable when the process ends
    int input_ = -1;
    bool leaving_ = false; ///< told to quit
    int output_ = -1;
    int errors_ = -1;
    std::string pendingOutput_;
    std::string pendingErrors_;
    std::optional<int> status_;
    std::map<std::string, Report> last_;
    std::map<std::string, long long> counts_;
    std::vector<std::string> log_;
    std::deque<std::string> text_; // the last lines that are no status
};
