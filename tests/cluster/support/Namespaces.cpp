#include "Namespaces.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

std::string ipProgram() {
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
        if (::access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

int openNamespace(pid_t pid, const char* kind) {
    const std::string path = "/proc/" + std::to_string(pid) + "/ns/" + kind;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

bool writeFile(const char* path, const char* text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool written = fd >= 0 && ::write(fd, text, std::strlen(text)) > 0;
    ::close(fd);
    return written;
}

/// In the child: makes the namespaces, and a user namespace where it takes one to be allowed to.
bool separate(int user, bool first) {
    if (user >= 0) {
        return ::setns(user, CLONE_NEWUSER) == 0 && ::unshare(CLONE_NEWNET) == 0;
    }
    if (::unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    if (!first || errno != EPERM) {
        return false;
    }
    char map[64];
    std::snprintf(map, sizeof map, "0 %u 1", static_cast<unsigned>(::geteuid()));
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && writeFile("/proc/self/uid_map", map);
}

std::string portOf(int host) {
    return "port" + std::to_string(host);
}

/// The ends of the halves of a lossy host's cable.
std::string farEnd(int host) {
    return "far" + std::to_string(host);
}
std::string nearEnd(int host) {
    return "near" + std::to_string(host);
}

std::string up(const std::string& interface) {
    return "link set " + interface + " up\n";
}

} // namespace

Namespaces::Namespaces(int hosts, int lossy) {
    if (ipProgram().empty()) {
        failure_ = "there is no program 'ip' (iproute2)";
        return;
    }
    hosts_.resize(static_cast<std::size_t>(hosts));
    bool built =
        hold(switch_, true) && run(switch_, up("lo") + "link add switch type bridge\n" + up("switch"));
    for (int i = 0; built && i < hosts; ++i) {
        built = hold(hosts_[static_cast<std::size_t>(i)], false) && connect(i, i == lossy);
    }
}

Namespaces::~Namespaces() {
    hosts_.push_back(switch_);
    for (const Holder& holder : hosts_) {
        if (holder.pid > 0) {
            ::kill(holder.pid, SIGKILL);
            ::waitpid(holder.pid, nullptr, 0);
            ::close(holder.network);
        }
    }
    if (user_ >= 0) {
        ::close(user_);
    }
}

bool Namespaces::hold(Holder& holder, bool first) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        failure_ = "no pipe";
        return false;
    }
    const int user = user_;
    holder.pid = ::fork();
    if (holder.pid == 0) {
        const int error = separate(user, first) ? 0 : errno;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::write(ready[1], &error, sizeof error) == sizeof error) {
            ::close(ready[0]);
            ::close(ready[1]);
            for (;;) {
                ::pause();
            }
        }
        ::_exit(1);
    }
    ::close(ready[1]);
    int error = ECHILD;
    if (::read(ready[0], &error, sizeof error) != sizeof error) {
        error = ECHILD;
    }
    ::close(ready[0]);
    if (error != 0) {
        failure_ = std::string("network namespaces are not permitted: ") + std::strerror(error);
        return false;
    }
    holder.network = openNamespace(holder.pid, "net");
    if (first && ::geteuid() != 0) {
        user_ = openNamespace(holder.pid, "user");
    }
    return true;
}

bool Namespaces::connect(int host, bool lossy) {
    const Holder& holder = hosts_[static_cast<std::size_t>(host)];
    const std::string port = portOf(host);
    const std::string far = lossy ? farEnd(host) : port;
    std::string cables =
        "link add " + far + " type veth peer name eth0 netns " + std::to_string(holder.pid) + "\n";
    if (lossy) {
        cables +=
            "link add " + nearEnd(host) + " type veth peer name " + port + "\n" + up(far) + up(nearEnd(host));
    }
    // One segment: each datagram is to travel, and to be lost, on its own.
    return run(switch_, cables + "link set " + port + " master switch\n" + up(port)) &&
           run(holder, up("lo") + "link set eth0 gso_max_segs 1\n" + up("eth0") + "address add " +
                           address(host) + "/24 broadcast " + broadcastAddress() + " dev eth0\n");
}

/// Runs lines of commands as `ip` takes them.
bool Namespaces::run(const Holder& where, const std::string& commands) {
    ChildProcess process("ip", {ipProgram(), "-batch", "-"}, in(where));
    process.tell(commands);
    process.closeInput();
    if (ChildProcess::await([&] { return process.ended(); }) && process.exitStatus() == 0) {
        return true;
    }
    failure_ = "the network cannot be built: " + process.describe();
    return false;
}

void Namespaces::setPort(int host, const std::string& state) {
    EXPECT_TRUE(run(switch_, "link set " + portOf(host) + " " + state)) << failure_;
}

void Namespaces::setInterface(int host, const std::string& state) {
    EXPECT_TRUE(run(hosts_[static_cast<std::size_t>(host)], "link set eth0 " + state)) << failure_;
}

Surroundings Namespaces::on(int host) const {
    return in(hosts_[static_cast<std::size_t>(host)]);
}

std::unique_ptr<ChildProcess> Namespaces::startLink(int host, double lost, double doubled, double heldBack,
                                                    unsigned seed) const {
    const std::vector<std::string> command{KOR_TEST_LINK,
                                           "a=" + farEnd(host),
                                           "b=" + nearEnd(host),
                                           "lost=" + std::to_string(lost),
                                           "doubled=" + std::to_string(doubled),
                                           "held_back=" + std::to_string(heldBack),
                                           "seed=" + std::to_string(seed)};
    return std::make_unique<ChildProcess>("link", command, in(switch_));
}
