#pragma once

#include "Summary.h"

#include "support/Cluster.h"

#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

struct SoakOptions {
    double minutes = 10;
    unsigned seed = 1;
    int slaves = 6;
    bool verbose = false;
};

/// A master and slaves to whom things happen at random: they are killed, stopped, restarted, told to leave
/// and to open anew, while frames of changing size flow. Every now and then all is left in peace, and then
/// every slave must show the right frames within a time.
///
/// Slave 0 is stopped at most, and the master is not restarted in the last part of the run, so that both
/// grow old enough to tell whether memory leaks.
class Soak {
public:
    explicit Soak(const SoakOptions& options);

    /// Runs to the end. What was found is in the summary.
    Summary run();

private:
    using Clock = std::chrono::steady_clock;

    /// One of the processes.
    struct Member {
        std::optional<Clock::time_point> stoppedUntil;
        Clock::time_point started;
        long long residentYoung = 0; // KiB, once it has settled
        Clock::time_point young;
    };
    struct Slot {
        std::unique_ptr<SlaveProcess> slave;
        Member member;
        SlaveMark atRest; // where it stood when peace began
    };

    void act();
    void actOnMaster();
    void leaveInPeace();
    void end();

    void join(Slot& slot, std::size_t index);
    void killSlave(Slot& slot);
    void leave(Slot& slot);
    void reopen(Slot& slot);
    void stop(ChildProcess& process, Member& member, double longestSeconds);
    void resumeDue(Clock::time_point now);
    void startMaster();
    void killMaster();
    void throwRubbish();

    bool allLocked();
    void noteStatus(const Slot& slot);
    void noteMemory(const ChildProcess& process, Member& member);
    void expectCleanEnd(ChildProcess& process);
    void say(const std::string& text) const;

    Slot& anySlot(std::size_t first) { return slots_[first + below(slots_.size() - first)]; }
    std::size_t below(std::size_t limit) { return random_() % limit; }
    double seconds(double least, double most) {
        return std::uniform_real_distribution<double>(least, most)(random_);
    }
    double elapsed() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

    SoakOptions options_;
    std::mt19937 random_;
    ClusterPorts ports_;
    std::unique_ptr<ChildProcess> master_;
    Member masterMember_;
    std::vector<Slot> slots_;
    Clock::time_point begin_;
    Summary summary_;
};
