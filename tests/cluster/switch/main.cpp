// A switch that delays, drops and doubles Ethernet frames, each on its own and both ways alike.

#include "FrameSocket.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>

namespace {

constexpr double kNanoseconds = 1e6;          // of a millisecond
constexpr std::int64_t kSpin = 60'000;        // ns: a sleeper wakes up that late
constexpr std::int64_t kReport = 100'000'000; // ns

using Range = std::pair<double, double>;

/// What happens to a frame.
struct Law {
    double lost = 0;     ///< share of the frames
    double doubled = 0;  ///< the same; the second one has a delay of its own
    double late = 0;     ///< share of the frames that are later than the others
    Range lateMs{0, 0};  ///< by an even draw out of this
    Range delayMs{0, 0}; ///< of every frame, as well
};

class Switch {
public:
    Switch(const Law& law, const std::vector<std::string>& interfaces, std::uint64_t seed)
        : law_(law), random_(seed) {
        for (const std::string& interface : interfaces)
            ports_.emplace_back(interface);
        for (const FrameSocket& port : ports_)
            polled_.push_back({port.fd(), POLLIN, 0});
    }

    [[noreturn]] void run() {
        for (;;) {
            sleep();
            for (std::size_t port = 0; port != ports_.size(); ++port)
                while (std::optional<Frame> frame = ports_[port].receive())
                    take(port, *std::move(frame));
            for (; !due_.empty() && due_.top().at <= systemTime(); due_.pop())
                forward(due_.top());
            report();
        }
    }

private:
    struct Due {
        std::int64_t at;
        std::size_t from;
        std::shared_ptr<const Frame> frame;

        bool operator<(const Due& other) const { return at > other.at; } // the first one is on top
    };

    /// Until a frame comes, or shortly before one is due.
    void sleep() {
        const std::int64_t now = systemTime();
        const std::int64_t until = std::min(reportAt_, due_.empty() ? reportAt_ : due_.top().at - kSpin);
        if (until <= now)
            return;
        const timespec wait{0, std::min<std::int64_t>(until - now, kReport)};
        ::ppoll(polled_.data(), polled_.size(), &wait, nullptr);
    }

    bool happens(double share) { return std::uniform_real_distribution<double>(0, 1)(random_) < share; }
    std::int64_t draw(const Range& milliseconds) {
        std::uniform_real_distribution<double> even(milliseconds.first, milliseconds.second);
        return static_cast<std::int64_t>(even(random_) * kNanoseconds);
    }

    void take(std::size_t port, Frame frame) {
        portOf_[frame.source()] = port;
        if (happens(law_.lost)) {
            ++lost_;
            return;
        }
        const auto shared = std::make_shared<const Frame>(std::move(frame));
        const int copies = happens(law_.doubled) ? 2 : 1;
        doubled_ += copies - 1;
        for (int copy = 0; copy != copies; ++copy) {
            const bool late = happens(law_.late);
            late_ += late ? 1 : 0;
            const std::int64_t more = late ? draw(law_.lateMs) : 0;
            due_.push({shared->arrival + draw(law_.delayMs) + more, port, shared});
        }
    }

    void forward(const Due& due) {
        const auto known = portOf_.find(due.frame->target());
        for (std::size_t port = 0; port != ports_.size(); ++port)
            if (known == portOf_.end() ? port != due.from : port == known->second)
                ports_[port].send(due.frame->bytes);
    }

    void report() {
        if (systemTime() < reportAt_)
            return;
        reportAt_ = systemTime() + kReport;
        std::printf("{\"type\": \"status\", \"lost\": %d, \"doubled\": %d, \"late\": %d}\n", lost_, doubled_,
                    late_);
        std::fflush(stdout);
    }

    const Law law_;
    std::mt19937_64 random_;
    std::vector<FrameSocket> ports_;
    std::vector<pollfd> polled_;
    std::map<std::uint64_t, std::size_t> portOf_; // by Ethernet address
    std::priority_queue<Due> due_;
    std::int64_t reportAt_ = 0;
    int lost_ = 0;
    int doubled_ = 0;
    int late_ = 0;
};

/// So that frames leave when they are due. Without the right to it they leave a little later.
void preferThisThread() {
    ::prctl(PR_SET_TIMERSLACK, 1);
    const sched_param priority{10};
    ::sched_setscheduler(0, SCHED_FIFO, &priority);
}

} // namespace

int main(int argc, char** argv) {
    Law law;
    std::vector<std::string> interfaces;
    std::uint64_t seed = 1;
    CLI::App app(
        "Switches Ethernet frames between interfaces; what became of them is written ten times a second.");
    app.add_option("--lost", law.lost, "share of the frames that are dropped");
    app.add_option("--doubled", law.doubled, "share that is sent twice");
    app.add_option("--late", law.late, "share that is later than the others");
    app.add_option("--late-ms", law.lateMs, "by how much: the least and the most");
    app.add_option("--delay-ms", law.delayMs, "of every frame: the least and the most");
    app.add_option("--seed", seed, "of all that is drawn");
    app.add_option("interfaces", interfaces)->required();
    CLI11_PARSE(app, argc, argv);
    preferThisThread();
    try {
        Switch(law, interfaces, seed).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
