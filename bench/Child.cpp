#include "Child.h"

#include "Orders.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kor::bench {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kFarewell = std::chrono::seconds(5);

/// True when the child has been reaped within the limit.
bool reap(pid_t pid, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (::waitpid(pid, nullptr, WNOHANG) == 0) {
        if (Clock::now() >= end)
            return false;
        ::poll(nullptr, 0, 2);
    }
    return true;
}

} // namespace

Child::Child(const std::string& role, const std::vector<double>& arguments) : role_(role) {
    std::array<int, 2> down{};
    std::array<int, 2> up{};
    if (::pipe2(down.data(), O_CLOEXEC) != 0 || ::pipe2(up.data(), O_CLOEXEC) != 0)
        fail("no pipe");
    std::vector<std::string> words{"kor-bench", "--role", role};
    for (const double argument : arguments)
        words.push_back(formatNumber(argument));
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0)
        fail("no process");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() == parent && ::dup2(down[0], STDIN_FILENO) >= 0 && ::dup2(up[1], STDOUT_FILENO) >= 0)
            ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    ::close(down[0]);
    ::close(up[1]);
    toChild_ = down[1];
    fromChild_ = up[0];
}

Child::~Child() {
    ::close(toChild_);
    ::close(fromChild_);
    if (!reap(pid_, kFarewell)) {
        ::kill(pid_, SIGKILL);
        reap(pid_, kFarewell);
    }
}

void Child::fail(const std::string& what) const {
    throw std::runtime_error("process '" + role_ + "': " + what);
}

void Child::tell(const std::string& order, const std::vector<double>& numbers) {
    const std::string line = order + formatNumbers(numbers) + "\n";
    if (::write(toChild_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fail("takes no orders");
}

std::vector<double> Child::hear(std::chrono::seconds limit) {
    const auto end = Clock::now() + limit;
    std::size_t lineEnd = 0;
    while ((lineEnd = received_.find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd entry{fromChild_, POLLIN, 0};
        if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) <= 0)
            fail("does not answer");
        std::array<char, 65536> bytes;
        const ssize_t got = ::read(fromChild_, bytes.data(), bytes.size());
        if (got <= 0)
            fail("has ended");
        received_.append(bytes.data(), static_cast<std::size_t>(got));
    }
    const std::string line = received_.substr(0, lineEnd);
    received_.erase(0, lineEnd + 1);
    return parseNumbers(line);
}

std::vector<double> Child::ask(const std::string& order, const std::vector<double>& numbers,
                               std::chrono::seconds limit) {
    tell(order, numbers);
    return hear(limit);
}

} // namespace kor::bench
