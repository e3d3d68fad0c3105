#pragma once

#include "ChildProcess.h"

#include <memory>
#include <string>
#include <vector>

/// Hosts of a network of our own: network namespaces, each with an interface "eth0" whose other end hangs on
/// a bridge. Nothing of it outlives the test, because processes of the test hold it all.
///
/// Needs root, or a system that lets everybody make user namespaces.
class Namespaces {
public:
    /// Builds the network with that many hosts; see `failure`. The cable of a `lossy` host (-1: of none) is
    /// cut in two, and nothing passes but through `startLink`.
    explicit Namespaces(int hosts, int lossy = -1);
    Namespaces(const Namespaces&) = delete;
    Namespaces& operator=(const Namespaces&) = delete;
    ~Namespaces();

    /// Why there is no network; empty when there is one.
    const std::string& failure() const { return failure_; }

    static std::string address(int host) { return "10.77.0." + std::to_string(host + 1); }
    static std::string broadcastAddress() { return "10.77.0.255"; }

    /// Runs a process on that host.
    Surroundings on(int host) const;

    /// Pulls the host's cable out of the switch, or plugs it in again.
    void cut(int host) { setPort(host, "down"); }
    void join(int host) { setPort(host, "up"); }

    /// Takes the host's interface down, or up again, as its administrator might.
    void disable(int host) { setInterface(host, "down"); }
    void enable(int host) { setInterface(host, "up"); }

    /// Starts to forward between the two halves of a lossy host's cable. In each direction that share of the
    /// frames is lost, sent twice, or held back until the next one has passed.
    std::unique_ptr<ChildProcess> startLink(int host, double lost, double doubled, double heldBack,
                                            unsigned seed) const;

private:
    /// A process that does nothing but keep its network namespace alive.
    struct Holder {
        pid_t pid = -1;
        int network = -1;
    };

    bool hold(Holder& holder, bool first);
    bool connect(int host, bool lossy);
    bool run(const Holder& where, const std::string& commands);
    void setPort(int host, const std::string& state);
    void setInterface(int host, const std::string& state);
    Surroundings in(const Holder& holder) const { return {user_, holder.network, {}}; }

    std::string failure_;
    int user_ = -1; // the user namespace, when root is not ours already
    Holder switch_;
    std::vector<Holder> hosts_;
};
