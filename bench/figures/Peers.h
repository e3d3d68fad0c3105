#pragma once

#include "../Child.h"

#include <memory>
#include <string>
#include <vector>

namespace kor::bench {

inline constexpr int kPeers = 250;

/// A master process of a kind ("kor" or "udp") and 250 peers of it in other processes.
class Peers {
public:
    explicit Peers(const std::string& kind) : master(kind + "-master") {
        const double port = master.hear().at(0);
        for (int i = 0; i != kHosts; ++i)
            hosts.push_back(
                std::make_unique<Child>(kind + "-peer-host", std::vector<double>{port, kPeers / kHosts}));
        for (const auto& host : hosts)
            host->hear();
        master.ask("users", {kPeers});
    }

    /// Load of the master over a while, in percent of one processor.
    double load(const std::vector<double>& before, const std::vector<double>& after) const {
        return 100 * (after.at(0) - before.at(0)) / (after.at(1) - before.at(1));
    }

    Child master;
    std::vector<std::unique_ptr<Child>> hosts;

private:
    static constexpr int kHosts = 2;
};

} // namespace kor::bench
