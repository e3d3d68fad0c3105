#pragma once

#include "ChildProcess.h"
#include "PortBlock.h"

#include "tests/Sanitized.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

using kor::testing_support::kSanitized;

/// "key=value" arguments of a node.
using Arguments = std::map<std::string, std::string>;

/// Starts the test's program of that role, "master" or "slave".
std::unique_ptr<ChildProcess> startNode(const std::string& role, const std::string& label,
                                        const Arguments& arguments, const Surroundings& surroundings = {});

/// Where a slave stood at some moment, to tell what came after it.
struct SlaveMark {
    long long sessions = 0;
    long long lerp = 0;
};

/// A slave process, and what its reports say. See tests/cluster/nodes/slave.cpp.
class SlaveProcess {
public:
    SlaveProcess(const std::string& name, Arguments arguments, Surroundings surroundings = {});

    using Mark = SlaveMark;
    Mark mark() const { return {count("sessions"), count("lerp")}; }

    /// It shows the right frames of that master, in a connection made since the mark.
    bool lockedAnew(const ChildProcess& master, const Mark& since = {}) const;

    /// It shows the right frames of that master, in the connection that it had at the mark.
    bool lockedStill(const ChildProcess& master, const Mark& since) const;

    /// Seconds between the frame position that it applied last and the true one; large while unknown.
    double positionError(const ChildProcess& master) const;

    /// Milliseconds between its estimate of the master's clock and the truth; large while unknown.
    double offsetError(const ChildProcess& master) const;

    /// Kills it in an instant, and starts it again.
    void kill();
    void start();

    const std::string& name() const { return name_; }
    ChildProcess& process() { return *process_; }
    const ChildProcess& process() const { return *process_; }
    const Report& status() const { return process_->last("status"); }
    long long count(const std::string& key) const { return status().count(key); }

private:
    bool showsRightFrames(const ChildProcess& master) const;

    std::string name_;
    Arguments arguments_;
    Surroundings surroundings_;
    std::unique_ptr<ChildProcess> process_;
};

/// The ports of a master and its slaves on this machine, where each slave needs an announcement port of its
/// own, so the master has one of each kind of port per slave.
class ClusterPorts {
public:
    static constexpr int kMostSlaves = 20;

    int announce(int slave) const { return ports_[1 + slave]; }
    int bind(int slave) const { return ports_[21 + slave]; }
    int data(int slave) const { return ports_[41 + slave]; }
    int spare(int index) const { return ports_[61 + index]; } ///< 0 to 18

    /// Arguments of a master for that many slaves. Port lists begin at that slave's.
    Arguments ofMaster(int slaves, int first = 0) const;

private:
    PortBlock ports_;
};

/// A master and slaves on this machine's loopback interface, as a test fixture.
class Cluster : public testing::Test {
protected:
    int announcePort(int slave) const { return ports_.announce(slave); }
    int bindPort(int slave) const { return ports_.bind(slave); }
    int dataPort(int slave) const { return ports_.data(slave); }
    int sparePort(int index) const { return ports_.spare(index); }

    void startMaster(int slaves, Arguments extra = {});
    void startSlaves(int count, const Arguments& extra = {});

    ChildProcess& master() { return *master_; }
    SlaveProcess& slave(int index) { return *slaves_[static_cast<std::size_t>(index)]; }
    std::vector<std::unique_ptr<SlaveProcess>>& slaves() { return slaves_; }

    static bool await(const std::function<bool()>& condition) { return ChildProcess::await(condition); }

    /// Waits until the master knows that many slaves by name.
    bool awaitSlaves(int count) {
        return await([&] { return master().last("status").count("introduced") == count; });
    }

    std::vector<SlaveProcess::Mark> marks() const;
    bool awaitAllLockedAnew(const std::vector<SlaveProcess::Mark>& since = {});
    bool awaitAllLockedStill(const std::vector<SlaveProcess::Mark>& since);

    /// The slave's estimate of the master's clock is as good as it says.
    void expectClockWithinBound(const SlaveProcess& slave);

    /// Everything that arrived, arrived whole, once and in order.
    void expectCleanTraffic() const;

    /// Tells all to end, and expects that they do, with nothing left allocated.
    void expectCleanEnd();
    static void expectCleanEnd(ChildProcess& process);

    ClusterPorts ports_;
    std::unique_ptr<ChildProcess> master_;
    std::vector<std::unique_ptr<SlaveProcess>> slaves_;
};
