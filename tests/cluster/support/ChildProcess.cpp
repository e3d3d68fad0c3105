#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kKeptLines = 60;
constexpr int kCannotStart = 127;

std::vector<ChildProcess*>& running() {
    static std::vector<ChildProcess*> processes;
    return processes;
}

void makePipe(int (&ends)[2]) {
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        std::abort();
    }
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
    }
    fd = -1;
}

[[noreturn]] void failChild(const char* what) {
    ::dprintf(STDERR_FILENO, "cannot start: %s: %s\n", what, std::strerror(errno));
    ::_exit(kCannotStart);
}

void enter(int fd, int kind, const char* what) {
    if (fd >= 0 && ::setns(fd, kind) != 0) {
        failChild(what);
    }
}

/// Moves this process, and not only its children, into a time namespace of its own.
void enterTimeNamespace(long long seconds) {
    if (::unshare(CLONE_NEWTIME) != 0) {
        failChild("unshare time");
    }
    const int offsets = ::open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC);
    if (offsets < 0 || ::dprintf(offsets, "monotonic %lld 0\nboottime %lld 0\n", seconds, seconds) < 0 ||
        ::close(offsets) != 0) {
        failChild("timens_offsets");
    }
    enter(::open("/proc/self/ns/time_for_children", O_RDONLY | O_CLOEXEC), CLONE_NEWTIME, "setns time");
}

} // namespace

ChildProcess::ChildProcess(std::string label, const std::vector<std::string>& command,
                           const Surroundings& surroundings)
    : label_(std::move(label)) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    int in[2];
    int out[2];
    int err[2];
    makePipe(in);
    makePipe(out);
    makePipe(err);
    ::signal(SIGPIPE, SIG_IGN);
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeChild(arguments.data(), surroundings, {in[0], out[1], err[1]}, parent);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    input_ = in[1];
    output_ = out[0];
    errors_ = err[0];
    ::fcntl(input_, F_SETFL, O_NONBLOCK);
    ::fcntl(output_, F_SETFL, O_NONBLOCK);
    ::fcntl(errors_, F_SETFL, O_NONBLOCK);
    ::setpgid(pid_, pid_); // the child does so too; whoever comes first
    process_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (pid_ < 0 || process_ < 0) {
        std::perror("fork");
        std::abort();
    }
    running().push_back(this);
}

void ChildProcess::becomeChild(char* const* arguments, const Surroundings& surroundings,
                               const int (&pipes)[3], pid_t parent) {
    ::setpgid(0, 0);
    for (int fd = 0; fd < 3; ++fd) {
        ::dup2(pipes[fd], fd);
    }
    enter(surroundings.userNamespace, CLONE_NEWUSER, "setns user");
    enter(surroundings.networkNamespace, CLONE_NEWNET, "setns net");
    if (surroundings.steadyClockAhead) {
        enterTimeNamespace(*surroundings.steadyClockAhead);
    }
    // After the namespaces, because new credentials undo it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(kCannotStart);
    }
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(arguments[0], arguments);
    failChild(arguments[0]);
}

ChildProcess::~ChildProcess() {
    std::erase(running(), this);
    if (!ended()) {
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    closeFd(process_);
    closeFd(input_);
    closeFd(output_);
    closeFd(errors_);
    if (testing::Test::HasFailure()) {
        std::fputs(describe().c_str(), stderr);
    }
}

void ChildProcess::tell(const std::string& command) {
    // One that is leaving already may have closed its ears.
    if (command == "quit" && std::exchange(leaving_, true))
        return;
    const std::string line = command + "\n";
    if (::write(input_, line.data(), line.size()) != static_cast<ssize_t>(line.size()) && !ended()) {
        ADD_FAILURE() << label_ << " does not take the command " << command;
    }
}

void ChildProcess::closeInput() {
    closeFd(input_);
}

void ChildProcess::signal(int number) const {
    if (!ended()) {
        ::kill(pid_, number);
    }
}

std::optional<int> ChildProcess::exitStatus() const {
    if (!status_) {
        return std::nullopt;
    }
    return WIFSIGNALED(*status_) ? -WTERMSIG(*status_) : WEXITSTATUS(*status_);
}

const Report& ChildProcess::last(const std::string& type) const {
    static const Report kNone;
    const auto found = last_.find(type);
    return found == last_.end() ? kNone : found->second;
}

long long ChildProcess::count(const std::string& type) const {
    const auto found = counts_.find(type);
    return found == counts_.end() ? 0 : found->second;
}

std::string ChildProcess::describe() const {
    std::string text = "---- " + label_ + " (" + std::to_string(pid_) + ")";
    if (const auto status = exitStatus()) {
        text += ", ended with " + std::to_string(*status);
    }
    text += "\n  last status:";
    for (const auto& [key, value] : last("status").fields) {
        text.append(" ").append(key).append("=").append(value);
    }
    text += "\n";
    for (const std::string& line : text_) {
        text += "  " + line + "\n";
    }
    return text;
}

void ChildProcess::takeLine(const std::string& line, bool report) {
    Report parsed = report ? Report::parse(line) : Report();
    const bool status = parsed.type == "status";
    if (!status) {
        text_.push_back(line);
        if (text_.size() > kKeptLines) {
            text_.pop_front();
        }
    }
    if (!report) {
        return;
    }
    if (parsed.type == "log") {
        log_.push_back(parsed.text("text"));
    }
    ++counts_[parsed.type];
    last_[parsed.type] = std::move(parsed);
}

/// True when something came.
bool ChildProcess::drain(int fd, std::string& pending, bool reports) {
    char bytes[65536];
    bool any = false;
    ssize_t count = 0;
    while ((count = ::read(fd, bytes, sizeof bytes)) > 0) {
        any = true;
        pending.append(bytes, static_cast<std::size_t>(count));
        std::size_t begin = 0;
        for (std::size_t end = pending.find('\n'); end != std::string::npos;
             end = pending.find('\n', begin)) {
            takeLine(pending.substr(begin, end - begin), reports);
            begin = end + 1;
        }
        pending.erase(0, begin);
    }
    return any;
}

void ChildProcess::collect() {
    int status = 0;
    const bool over = ::waitpid(pid_, &status, WNOHANG) == pid_;
    drain(output_, pendingOutput_, true);
    drain(errors_, pendingErrors_, false);
    if (over) {
        ::kill(-pid_, SIGKILL); // whatever it left behind
        status_ = status;
    }
}

void ChildProcess::pump(std::chrono::milliseconds limit) {
    std::vector<ChildProcess*> processes;
    std::vector<pollfd> watched;
    for (ChildProcess* process : running()) {
        if (!process->ended()) {
            processes.push_back(process);
            for (const int fd : {process->output_, process->errors_, process->process_}) {
                watched.push_back({fd, POLLIN, 0});
            }
        }
    }
    ::poll(watched.data(), watched.size(), static_cast<int>(limit.count()));
    for (std::size_t i = 0; i < processes.size(); ++i) {
        const pollfd* fds = &watched[3 * i];
        if (std::any_of(fds, fds + 3, [](const pollfd& fd) { return fd.revents != 0; })) {
            processes[i]->collect();
        }
    }
}

bool ChildProcess::await(const std::function<bool()>& condition, std::chrono::seconds limit) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= end) {
            return false;
        }
        pump(std::chrono::milliseconds(50));
    }
    return true;
}
