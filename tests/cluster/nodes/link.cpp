// A cable that loses, doubles and reorders: passes Ethernet frames between two interfaces.

#include "Console.h"

#include <support/jTimer.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr double kLongestHoldSeconds = 0.002;
constexpr double kStatusSeconds = 0.1;

/// A raw socket on an interface. Frames carry a header that says what is left to do for the check sums, so
/// that they can be passed on before the kernel has filled them in. -1 when it cannot be opened.
int openInterface(const std::string& name) {
    const int fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL));
    const int on = 1;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(::if_nametoindex(name.c_str()));
    const bool opened = fd >= 0 && address.sll_ifindex > 0 &&
                        ::setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on) == 0 &&
                        ::setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
                        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return opened ? fd : -1;
}

class Link {
public:
    Link(const Console& console, std::array<int, 2> interfaces)
        : interfaces_(interfaces),
          random_(static_cast<unsigned>(console.number("seed", 1))),
          lost_(console.number("lost", 0)),
          doubled_(console.number("doubled", 0)),
          heldBack_(console.number("held_back", 0)) {}

    /// Waits for frames for a moment and passes them on.
    void step() {
        pollfd watched[2] = {{interfaces_[0], POLLIN, 0}, {interfaces_[1], POLLIN, 0}};
        ::poll(watched, 2, 1);
        for (std::size_t from = 0; from < 2; ++from) {
            std::array<std::uint8_t, 70000> bytes;
            ssize_t size = 0;
            while ((size = ::recv(interfaces_[from], bytes.data(), bytes.size(), 0)) > 0) {
                take(1 - from, {bytes.data(), bytes.data() + size});
            }
            if (!held_[from].empty() &&
                kor::jTimer::getTimeSecond() > heldSince_[from] + kLongestHoldSeconds) {
                letGo(from);
            }
        }
    }

    void reportStatus() const {
        ReportLine line("status");
        line.add("passed", passedCount_).add("lost", lostCount_);
        line.add("doubled", doubledCount_).add("held_back", heldBackCount_);
        Console::reportIfRoom(line);
    }

private:
    void take(std::size_t to, std::vector<std::uint8_t> frame) {
        if (happens(lost_)) {
            ++lostCount_;
            return;
        }
        if (held_[to].empty() && happens(heldBack_)) {
            ++heldBackCount_;
            held_[to] = std::move(frame);
            heldSince_[to] = kor::jTimer::getTimeSecond();
            return;
        }
        pass(to, frame);
        if (happens(doubled_)) {
            ++doubledCount_;
            pass(to, frame);
        }
        letGo(to);
    }

    void letGo(std::size_t to) {
        if (!held_[to].empty()) {
            pass(to, held_[to]);
            held_[to].clear();
        }
    }

    void pass(std::size_t to, const std::vector<std::uint8_t>& frame) {
        ++passedCount_;
        while (::send(interfaces_[to], frame.data(), frame.size(), 0) < 0 && errno == EAGAIN) {
            pollfd full{interfaces_[to], POLLOUT, 0};
            ::poll(&full, 1, -1);
        }
    }

    bool happens(double share) { return std::uniform_real_distribution<double>(0, 1)(random_) < share; }

    std::array<int, 2> interfaces_;
    std::mt19937 random_;
    double lost_;
    double doubled_;
    double heldBack_;
    std::array<std::vector<std::uint8_t>, 2> held_; // by the interface that it is to go out of
    std::array<double, 2> heldSince_{};
    long long passedCount_ = 0;
    long long lostCount_ = 0;
    long long doubledCount_ = 0;
    long long heldBackCount_ = 0;
};

bool toldToQuit(Console& console) {
    for (const auto& command : console.commands()) {
        if (command[0] == "quit") {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    Console console(argc, argv);
    const std::array<int, 2> interfaces{openInterface(console.argument("a", "")),
                                        openInterface(console.argument("b", ""))};
    if (interfaces[0] < 0 || interfaces[1] < 0) {
        Console::report(ReportLine("failed").add("text", std::strerror(errno)));
        return 1;
    }
    Link link(console, interfaces);
    double statusDue = 0;
    while (!toldToQuit(console)) {
        link.step();
        const double now = kor::jTimer::getTimeSecond();
        if (now >= statusDue) {
            statusDue = now + kStatusSeconds;
            link.reportStatus();
        }
    }
    return 0;
}
