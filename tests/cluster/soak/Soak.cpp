#include "Soak.h"

#include "support/Rubbish.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>

namespace {

constexpr double kRestEverySeconds = 12;
constexpr double kSettledSeconds = 15;          // after which a process has taken the memory that it needs
constexpr long long kMostGrowthKib = 32 << 10;  // frames of changing size leave the heap in holes
constexpr double kMasterStaysFromShare = 0.6;   // of the run
constexpr std::chrono::seconds kStuckAfter{90}; // without a lock, although nothing happens
constexpr std::array<int, 4> kPayloads{0, 200, 5000, kSanitized ? 20000 : 100000};

} // namespace

Soak::Soak(const SoakOptions& options)
    : options_(options), random_(options.seed), slots_(static_cast<std::size_t>(options.slaves)) {}

Summary Soak::run() {
    begin_ = Clock::now();
    startMaster();
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        join(slots_[i], i);
    }
    const double end = options_.minutes * 60;
    double nextAction = 3;
    double nextRest = std::min(kRestEverySeconds, end / 3);
    while (elapsed() < end) {
        ChildProcess::pump(std::chrono::milliseconds(20));
        resumeDue(Clock::now());
        if (elapsed() >= nextRest) {
            leaveInPeace();
            nextRest = elapsed() + kRestEverySeconds;
        } else if (elapsed() >= nextAction) {
            act();
            nextAction = elapsed() + seconds(0.05, 1.5);
        }
    }
    this->end();
    return summary_;
}

// -------------------------------------------------------------------------------------------- what happens

void Soak::act() {
    const std::size_t choice = below(24);
    if (choice < 4) {
        actOnMaster();
    } else if (choice < 5) {
        throwRubbish();
    } else if (choice < 7) {
        const int payload = kPayloads[below(kPayloads.size())];
        say("payload " + std::to_string(payload));
        master_->tell("payload " + std::to_string(payload));
        ++summary_.actions["payload"];
    } else if (choice < 12) {
        Slot& slot = anySlot(0);
        if (slot.slave) {
            stop(slot.slave->process(), slot.member, below(2) == 0 ? 1.5 : 5);
        }
    } else if (slots_.size() > 1) {
        Slot& slot = anySlot(1);
        if (!slot.slave) {
            join(slot, static_cast<std::size_t>(&slot - slots_.data()));
        } else if (choice < 17) {
            killSlave(slot);
        } else if (choice < 20) {
            leave(slot);
        } else {
            reopen(slot);
        }
    }
}

void Soak::actOnMaster() {
    if (below(3) == 0) {
        stop(*master_, masterMember_, 3);
    } else if (elapsed() < options_.minutes * 60 * kMasterStaysFromShare) {
        if (below(2) == 0) {
            killMaster();
        } else {
            say("master leaves");
            masterMember_.stoppedUntil.reset();
            master_->signal(SIGCONT);
            expectCleanEnd(*master_);
            ++summary_.actions["master leaves"];
        }
        startMaster();
    }
}

void Soak::startMaster() {
    master_ = startNode("master", "master", ports_.ofMaster(options_.slaves));
    masterMember_ = {};
    masterMember_.started = Clock::now();
}

void Soak::killMaster() {
    say("master is killed");
    master_->signal(SIGKILL);
    ChildProcess::await([&] { return master_->ended(); });
    ++summary_.actions["master killed"];
}

void Soak::join(Slot& slot, std::size_t index) {
    const int port = ports_.announce(static_cast<int>(index));
    slot.slave = std::make_unique<SlaveProcess>(
        "slave" + std::to_string(index),
        Arguments{{"announce", std::to_string(port)}, {"phase", std::to_string(seconds(0, 1))}});
    slot.member = {};
    slot.member.started = Clock::now();
    say(slot.slave->name() + " joins");
    ++summary_.actions["join"];
}

void Soak::killSlave(Slot& slot) {
    say(slot.slave->name() + " is killed");
    noteStatus(slot);
    slot.slave->kill();
    slot.slave.reset();
    ++summary_.actions["kill"];
}

void Soak::leave(Slot& slot) {
    say(slot.slave->name() + " leaves");
    slot.slave->process().signal(SIGCONT);
    expectCleanEnd(slot.slave->process());
    noteStatus(slot);
    slot.slave.reset();
    ++summary_.actions["leave"];
}

void Soak::reopen(Slot& slot) {
    say(slot.slave->name() + " opens anew");
    slot.slave->process().tell("release");
    slot.slave->process().tell("init");
    ++summary_.actions["reopen"];
}

void Soak::stop(ChildProcess& process, Member& member, double longestSeconds) {
    if (member.stoppedUntil) {
        return;
    }
    const double time = seconds(0.1, longestSeconds);
    say(process.label() + " stops for " + std::to_string(time) + " s");
    process.signal(SIGSTOP);
    member.stoppedUntil =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(time));
    ++summary_.actions["stop"];
}

void Soak::resumeDue(Clock::time_point now) {
    const auto resume = [&](ChildProcess& process, Member& member) {
        if (member.stoppedUntil && *member.stoppedUntil <= now) {
            process.signal(SIGCONT);
            member.stoppedUntil.reset();
        }
    };
    resume(*master_, masterMember_);
    for (Slot& slot : slots_) {
        if (slot.slave) {
            resume(slot.slave->process(), slot.member);
        }
    }
}

void Soak::throwRubbish() {
    say("rubbish");
    Rubbish rubbish(static_cast<unsigned>(random_()));
    for (int i = 0; i < 300; ++i) {
        rubbish.send(ports_.announce(static_cast<int>(below(60))), rubbish.noise());
    }
    ++summary_.actions["rubbish"];
}

// ----------------------------------------------------------------------------------------- what must be true

void Soak::leaveInPeace() {
    resumeDue(Clock::time_point::max());
    const Clock::time_point begin = Clock::now();
    for (Slot& slot : slots_) {
        if (slot.slave) {
            slot.atRest = slot.slave->mark();
        }
    }
    const bool locked = ChildProcess::await([&] { return allLocked(); }, kStuckAfter);
    const double took = std::chrono::duration<double>(Clock::now() - begin).count();
    say("at rest, " + std::string(locked ? "all locked" : "NOT all locked") + " after " +
        std::to_string(took) + " s");
    ++summary_.rests;
    summary_.slowestLockSeconds = std::max(summary_.slowestLockSeconds, took);
    summary_.survivors = 0;
    summary_.survivorsLocked = 0;
    noteMemory(*master_, masterMember_);
    for (Slot& slot : slots_) {
        if (!slot.slave) {
            continue;
        }
        ++summary_.survivors;
        if (locked) {
            ++summary_.survivorsLocked;
        } else {
            summary_.faults.push_back(slot.slave->name() + ", maybe stuck:\n" +
                                      slot.slave->process().describe());
        }
        noteMemory(slot.slave->process(), slot.member);
    }
    if (!locked) {
        summary_.faults.push_back("not all locked in " + std::to_string(took) + " s:\n" +
                                  master_->describe());
    }
}

/// Each has shown the right frames for a while since peace began.
bool Soak::allLocked() {
    return std::ranges::all_of(slots_, [&](const Slot& slot) {
        if (!slot.slave) {
            return true;
        }
        const SlaveMark now{slot.slave->count("sessions"), slot.atRest.lerp};
        return slot.slave->lockedStill(*master_, now);
    });
}

/// What a slave has received, at its end.
void Soak::noteStatus(const Slot& slot) {
    const SlaveProcess& slave = *slot.slave;
    summary_.packets += slave.count("packets");
    summary_.missing += slave.count("missing");
    summary_.doubled += slave.count("doubled");
    summary_.wrong += slave.count("wrong");
    if (slave.count("missing") + slave.count("doubled") + slave.count("wrong") > 0) {
        summary_.faults.push_back("frames are missing, doubled or damaged:\n" + slave.process().describe());
    }
}

void Soak::noteMemory(const ChildProcess& process, Member& member) {
    const double age = std::chrono::duration<double>(Clock::now() - member.started).count();
    const long long resident = process.last("status").count("resident_kib");
    if (kSanitized || age < kSettledSeconds) {
        return;
    }
    if (member.residentYoung == 0) {
        member.residentYoung = resident;
        member.young = Clock::now();
        return;
    }
    const long long growth = resident - member.residentYoung;
    const double time = std::chrono::duration<double>(Clock::now() - member.young).count();
    const std::string what = process.label() + ", from " + std::to_string(member.residentYoung / 1024) +
                             " to " + std::to_string(resident / 1024) + " MiB in " +
                             std::to_string(static_cast<int>(time)) + " s";
    if (growth > summary_.greatestGrowthKib) {
        summary_.greatestGrowthKib = growth;
        summary_.greatestGrowth = what;
    }
    if (growth > kMostGrowthKib) {
        summary_.faults.push_back("memory grows: " + what);
    }
}

void Soak::expectCleanEnd(ChildProcess& process) {
    process.tell("quit");
    if (!ChildProcess::await([&] { return process.ended(); })) {
        summary_.faults.push_back("does not end:\n" + process.describe());
    } else if (process.exitStatus() != 0 || process.count("end") != 1) {
        summary_.faults.push_back("does not end well:\n" + process.describe());
    } else {
        ++summary_.cleanEnds;
    }
}

void Soak::end() {
    leaveInPeace();
    for (Slot& slot : slots_) {
        if (slot.slave) {
            expectCleanEnd(slot.slave->process());
            noteStatus(slot);
        }
    }
    expectCleanEnd(*master_);
}

void Soak::say(const std::string& text) const {
    if (options_.verbose) {
        std::printf("%8.2f  %s\n", elapsed(), text.c_str());
        std::fflush(stdout);
    }
}
