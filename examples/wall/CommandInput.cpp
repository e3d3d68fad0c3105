#include "CommandInput.h"

#include <poll.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMaxLine = 4096;

bool readable(int file) {
    pollfd input{file, POLLIN, 0};
    return poll(&input, 1, 0) > 0;
}

} // namespace

std::vector<std::string> CommandInput::take() {
    char bytes[512];
    while (!ended_ && pending_.size() < kMaxLine && readable(STDIN_FILENO)) {
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
        ended_ = count <= 0;
        pending_.append(bytes, ended_ ? 0 : static_cast<std::size_t>(count));
    }
    std::vector<std::string> lines;
    for (std::size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
        if (!tooLong_)
            lines.push_back(pending_.substr(0, end));
        tooLong_ = false;
        pending_.erase(0, end + 1);
    }
    if (pending_.size() >= kMaxLine) { // not a command, whatever it is; nor is what is left of it
        if (!tooLong_)
            lines.push_back(pending_.substr(0, 40) + "...");
        tooLong_ = true;
        pending_.clear();
    }
    return lines;
}
