// kor-master: computes an animated scene and sends it, frame by frame, to every slave that joins.

#include "MasterOptions.h"
#include "Program.h"
#include "Report.h"
#include "SceneRecords.h"

#include <kor/kor.h>
#include <kor/trace.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

kor::jVector<unsigned short> toVector(const std::vector<unsigned short>& ports) {
    kor::jVector<unsigned short> result;
    result.push_back(ports.data(), static_cast<int>(ports.size()));
    return result;
}

class Master : public kor::KorLogicServer {
public:
    Master(const MasterOptions& options, Report& report, kor::Trace& trace)
        : options_(options), report_(report), trace_(trace) {
        setFrameInterval(1 / options.rate);
        animate(scene_, 0);
        bytes_.resize(static_cast<std::size_t>(frameSize(scene_, options.payload)), 0x5A);
    }

    bool open() {
        auto announcePorts = toVector(options_.announcePorts);
        auto bindPorts = toVector(options_.bindPorts);
        auto dataPorts = toVector(options_.dataPorts);
        if (!init(options_.broadcast.c_str(), announcePorts, bindPorts, dataPorts))
            return false;
        server->getNet()->setTimeoutTime(options_.timeoutMs);
        return true;
    }

    void update() override {
        const double begun = kor::jTimer::getTimeSecond();
        const int frame = getFrameID() + options_.lead;
        animate(scene_, frame * getFrameInterval());
        kor::BufferWriter writer(bytes_.data(), static_cast<int>(bytes_.size()));
        if (writeFrame(writer, frame, scene_, options_.payload)) {
            const double sending = kor::jTimer::getTimeSecond();
            if (server->send(writer.getData(), writer.tell()))
                trace_.frameSent(frame, writer.tell(), sending, kor::jTimer::getTimeSecond());
        }
        report_.add(
            {{"type", "update"}, {"frame", getFrameID()}, {"boundary", getFrameTime()}, {"time", begun}});
    }

    /// One pass of the frame loop.
    void step() {
        skipMissedFrames();
        sleepUntilSpin();
        const int before = getFrameID();
        swap();
        ++swaps_;
        if (getFrameID() - before > 1)
            ++lateSwaps_;
    }

    void reportHeader() {
        report_.add({{"type", "header"},
                     {"role", "master"},
                     {"zero", kor::jTimer::getZeroOnSystemClock()},
                     {"interval", getFrameInterval()},
                     {"lead", options_.lead},
                     {"payload", options_.payload},
                     {"packet", bytes_.size()}});
    }

    void reportStatus(double now) {
        auto joined = nlohmann::ordered_json::array();
        std::string line =
            "frame " + std::to_string(getFrameID()) + "  late swaps " + std::to_string(lateSwaps_);
        for (int i = 0; i < getNumSlaves(); ++i) {
            const Slave* slave = getSlave(i);
            if (!slave || !slave->isInit || !slave->client)
                continue;
            const kor::Client& client = *slave->client;
            std::string cameras;
            for (const kor::KorLogicServer::SlaveCamera& camera : slave->cameras) {
                cameras += cameras.empty() ? "" : ",";
                cameras += camera.name.c_str();
            }
            char text[512];
            std::snprintf(text, sizeof text, "  |  %s (%s) reported %.1f", client.getName().c_str(),
                          cameras.c_str(), client.getIDCheck());
            line += text;
            joined.push_back({{"name", client.getName().c_str()},
                              {"cameras", cameras},
                              {"address", slave->addr.formatString().c_str()},
                              {"reported_position", client.getIDCheck()}});
        }
        report_.add({{"type", "status"},
                     {"time", now},
                     {"frame", getFrameID()},
                     {"late_swaps", lateSwaps_},
                     {"slaves", joined},
                     {"malformed", malformedDatagrams(*server->getNet())}});
        if (!options_.quiet) {
            std::puts(line.c_str());
            std::fflush(stdout);
        }
    }

    nlohmann::ordered_json endLine() const {
        return {{"type", "end"}, {"frame", getFrameID()}, {"swaps", swaps_}, {"late_swaps", lateSwaps_}};
    }

private:
    /// Frames are counted on the clock, and swap() calls update() for each that it passes. Whoever joins late
    /// or was stopped for a while goes on with the present frame instead of replaying old ones.
    void skipMissedFrames() {
        const int present = static_cast<int>(kor::jTimer::getTimeSecond() / getFrameInterval());
        if (present - getFrameID() > std::max(static_cast<int>(options_.rate), 1))
            setFrameID(present);
    }

    /// swap() spins up to the frame's time; others may want the processor until then.
    void sleepUntilSpin() const {
        const double left = (getFrameID() + 1) * getFrameInterval() - kor::jTimer::getTimeSecond();
        if (options_.spinMs > 0 && left * 1000 > options_.spinMs)
            std::this_thread::sleep_for(std::chrono::duration<double>(left - options_.spinMs / 1000));
    }

    const MasterOptions& options_;
    Report& report_;
    kor::Trace& trace_;
    Scene scene_;
    std::vector<unsigned char> bytes_;
    long long swaps_ = 0;
    long long lateSwaps_ = 0;
};

/// Runs to the end, and leaves what the report is to say about it in `end`. The exit status.
int run(const MasterOptions& options, Report& report, nlohmann::ordered_json& end) {
    kor::Trace trace;
    kor::TracedMaster<Master> master(trace, options, report, trace);
    if (!options.trace.empty() && !trace.begin({.process = "master"}))
        return kExitFailed;
    if (!master.open())
        return kExitUsage;
    // A port that is taken does not make init fail, although slaves then find or reach this master only in
    // part or not at all: the library says so in the log.
    if (loggedErrors() > 0) {
        std::fprintf(stderr, "kor-master: a port cannot be opened, see above\n");
        return kExitPortsInUse;
    }
    master.reportHeader();

    const double start = kor::jTimer::getTimeSecond();
    double statusDue = start + 1;
    bool reported = true;
    while (!stopRequested() && reported) {
        master.step();
        const double now = kor::jTimer::getTimeSecond();
        if (now >= statusDue) {
            statusDue = now + 1;
            master.reportStatus(now);
        }
        reported = report.flushIfDue(now);
        if (options.seconds > 0 && now - start >= options.seconds)
            break;
    }
    master.release();
    trace.end();
    end = master.endLine();
    const bool traced = options.trace.empty() || trace.write(options.trace);
    return reported && traced ? kExitDone : kExitFailed;
}

} // namespace

int main(int argc, char** argv) {
    MasterOptions options;
    if (const int status = parseMasterOptions(argc, argv, options); status >= 0)
        return status;
    Report report;
    if (!beginProgram(options, report))
        return kExitFailed;
    nlohmann::ordered_json end;
    const int status = run(options, report, end);
    return finishProgram(report, end, status);
}
