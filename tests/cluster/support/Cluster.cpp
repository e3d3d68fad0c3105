#include "Cluster.h"

#include <cmath>
#include <csignal>

namespace {

constexpr int kFramesToProve = 30; // applied in a row
constexpr double kUnknown = 1e9;

const char* programOf(const std::string& role) {
    return role == "master" ? KOR_TEST_MASTER : KOR_TEST_SLAVE;
}

} // namespace

std::unique_ptr<ChildProcess> startNode(const std::string& role, const std::string& label,
                                        const Arguments& arguments, const Surroundings& surroundings) {
    std::vector<std::string> command{programOf(role)};
    for (const auto& [key, value] : arguments) {
        command.push_back(key + "=" + value);
    }
    return std::make_unique<ChildProcess>(label, command, surroundings);
}

// ------------------------------------------------------------------------------------------------- one slave

SlaveProcess::SlaveProcess(const std::string& name, Arguments arguments, Surroundings surroundings)
    : name_(name), arguments_(std::move(arguments)), surroundings_(surroundings) {
    arguments_["name"] = name;
    start();
}

void SlaveProcess::start() {
    process_ = startNode("slave", name_, arguments_, surroundings_);
}

void SlaveProcess::kill() {
    process_->signal(SIGKILL);
    ChildProcess::await([&] { return process_->ended(); });
}

double SlaveProcess::positionError(const ChildProcess& master) const {
    const Report& theirs = master.last("status");
    if (count("session_lerp") < 2 || theirs.count("frame") == 0) {
        return kUnknown;
    }
    const auto ahead = static_cast<double>(surroundings_.steadyClockAhead.value_or(0));
    const double clock = status().number("vsync") + status().number("zero") - ahead - theirs.number("zero");
    return std::abs(status().number("position") * theirs.number("interval") - clock);
}

double SlaveProcess::offsetError(const ChildProcess& master) const {
    if (status().number("offset_ms") <= -kUnknown || master.count("status") == 0) {
        return kUnknown;
    }
    const auto ahead = static_cast<double>(surroundings_.steadyClockAhead.value_or(0));
    const double truth = status().number("zero") - ahead - master.last("status").number("zero");
    return std::abs(status().number("offset_ms") - truth * 1000);
}

bool SlaveProcess::showsRightFrames(const ChildProcess& master) const {
    return status().count("connected") == 1 &&
           positionError(master) < master.last("status").number("interval") / 2;
}

bool SlaveProcess::lockedAnew(const ChildProcess& master, const Mark& since) const {
    return count("sessions") > since.sessions && count("session_lerp") >= kFramesToProve &&
           showsRightFrames(master);
}

bool SlaveProcess::lockedStill(const ChildProcess& master, const Mark& since) const {
    return count("sessions") == since.sessions && count("lerp") >= since.lerp + kFramesToProve &&
           showsRightFrames(master);
}

// ---------------------------------------------------------------------------------------------- all together

Arguments ClusterPorts::ofMaster(int slaves, int first) const {
    Arguments arguments;
    for (int i = first; i < first + slaves; ++i) {
        arguments["announce"] += std::to_string(announce(i)) + ",";
        arguments["bind"] += std::to_string(bind(i)) + ",";
        arguments["data"] += std::to_string(data(i)) + ",";
    }
    return arguments;
}

void Cluster::startMaster(int slaves, Arguments extra) {
    extra.merge(ports_.ofMaster(slaves));
    master_ = startNode("master", "master", extra);
}

void Cluster::startSlaves(int count, const Arguments& extra) {
    for (int i = 0; i < count; ++i) {
        Arguments arguments = extra;
        arguments["announce"] = std::to_string(announcePort(i));
        arguments["phase"] = std::to_string(0.37 * i - std::floor(0.37 * i));
        slaves_.push_back(std::make_unique<SlaveProcess>("slave" + std::to_string(i), arguments));
    }
}

std::vector<SlaveProcess::Mark> Cluster::marks() const {
    std::vector<SlaveProcess::Mark> result;
    for (const auto& slave : slaves_) {
        result.push_back(slave->mark());
    }
    return result;
}

bool Cluster::awaitAllLockedAnew(const std::vector<SlaveProcess::Mark>& since) {
    return await([&] {
        bool all = true;
        for (std::size_t i = 0; i < slaves_.size(); ++i) {
            all = all && slaves_[i]->lockedAnew(*master_, i < since.size() ? since[i] : SlaveProcess::Mark());
        }
        return all;
    });
}

bool Cluster::awaitAllLockedStill(const std::vector<SlaveProcess::Mark>& since) {
    return await([&] {
        bool all = true;
        for (std::size_t i = 0; i < slaves_.size(); ++i) {
            all = all && slaves_[i]->lockedStill(*master_, since[i]);
        }
        return all;
    });
}

void Cluster::expectClockWithinBound(const SlaveProcess& slave) {
    EXPECT_TRUE(await([&] {
        return slave.offsetError(*master_) <= slave.status().number("bound_ms") + 0.001;
    })) << slave.name()
        << ": " << slave.offsetError(*master_);
}

void Cluster::expectCleanTraffic() const {
    for (const auto& slave : slaves_) {
        EXPECT_GT(slave->count("packets"), 0) << slave->name();
        EXPECT_EQ(slave->count("missing"), 0) << slave->name();
        EXPECT_EQ(slave->count("doubled"), 0) << slave->name();
        EXPECT_EQ(slave->count("wrong"), 0) << slave->name();
    }
}

void Cluster::expectCleanEnd(ChildProcess& process) {
    process.tell("quit");
    ASSERT_TRUE(await([&] { return process.ended(); })) << process.label() << " does not end";
    EXPECT_EQ(process.exitStatus(), 0) << process.label();
    EXPECT_EQ(process.count("end"), 1) << process.label();
    EXPECT_EQ(process.last("end").count("live_blocks"), 0) << process.label();
}

void Cluster::expectCleanEnd() {
    for (auto& slave : slaves_) {
        expectCleanEnd(slave->process());
    }
    expectCleanEnd(*master_);
}
