// kor-wall-master: computes a scene and sends it, frame by frame, to every kor-wall-slave that joins.

#include "CommandInput.h"
#include "Program.h"
#include "Report.h"
#include "WallMaster.h"
#include "WallMasterOptions.h"

#include <algorithm>
#include <cstdio>

namespace {

kor::jVector<unsigned short> toVector(const std::vector<unsigned short>& ports) {
    kor::jVector<unsigned short> result;
    result.push_back(ports.data(), static_cast<int>(ports.size()));
    return result;
}

bool open(WallMaster& master, const WallMasterOptions& options) {
    auto announcePorts = toVector(options.announcePorts);
    auto bindPorts = toVector(options.bindPorts);
    auto dataPorts = toVector(options.dataPorts);
    return master.init(options.broadcast.c_str(), announcePorts, bindPorts, dataPorts);
}

// Frames are counted on the clock: begin with the present one instead of with all that have passed, also
// after having been stopped for a while.
void skipMissedFrames(WallMaster& master) {
    const int present = static_cast<int>(kor::jTimer::getTimeSecond() / master.getFrameInterval());
    if (present - master.getFrameID() > 300)
        master.setFrameID(present);
}

void obey(WallMaster& master, const std::string& line) {
    if (const std::string complaint = master.command(line); !complaint.empty())
        std::fprintf(stderr, "kor-wall-master: %s\n", complaint.c_str());
}

void tellStatus(WallMaster& master, Report& report, double now, bool quiet) {
    int joined = 0;
    for (int i = 0; i < master.getNumSlaves(); ++i) {
        const kor::KorLogicServer::Slave* slave = master.getSlave(i);
        joined += slave && slave->isInit ? 1 : 0;
    }
    report.add({{"type", "status"}, {"time", now}, {"frame", master.getFrameID()}, {"slaves", joined}});
    if (!quiet) {
        std::printf("frame %d  slaves %d  lock %s  interpolation %s\n", master.getFrameID(), joined,
                    master.mode().lock ? "on" : "off", master.mode().interpolation ? "on" : "off");
        std::fflush(stdout);
    }
}

void tellOrder(const CaptureOrder& order, Report& report, bool quiet) {
    report.add({{"type", "order"}, {"number", order.number}, {"position", order.position}});
    if (!quiet)
        std::printf("capture %d: position %.3f\n", order.number, order.position);
}

} // namespace

int main(int argc, char** argv) {
    WallMasterOptions options;
    if (const int status = parseWallMasterOptions(argc, argv, options); status >= 0)
        return status;
    Report report;
    if (!beginProgram(options, report))
        return kExitFailed;

    WallMaster master({options.wall[0], options.wall[1]}, options.lead);
    master.setFrameInterval(1 / options.rate);
    if (!open(master, options))
        return kExitUsage;
    if (loggedErrors() > 0) {
        std::fprintf(stderr, "kor-wall-master: a port cannot be opened, see above\n");
        return kExitPortsInUse;
    }
    auto bars = nlohmann::ordered_json::array();
    for (const CrossingBar& bar : crossingBars({options.wall[0], options.wall[1]}))
        bars.push_back({{"colour", bar.colour}, {"speed", bar.speed}, {"track", bar.track}});
    report.add({{"type", "header"},
                {"role", "wall-master"},
                {"zero", kor::jTimer::getZeroOnSystemClock()},
                {"interval", master.getFrameInterval()},
                {"bars", bars}});

    CommandInput input;
    const double start = kor::jTimer::getTimeSecond();
    double statusDue = start + 1;
    int toldOrder = 0;
    bool reported = true;
    while (!stopRequested() && reported) {
        skipMissedFrames(master);
        master.swap(); // waits for the next frame and calls update()
        if (options.commands)
            for (const std::string& line : input.take())
                obey(master, line);
        if (master.order().number > toldOrder) {
            toldOrder = master.order().number;
            tellOrder(master.order(), report, options.quiet);
        }
        const double now = kor::jTimer::getTimeSecond();
        if (now >= statusDue) {
            statusDue = now + 1;
            tellStatus(master, report, now, options.quiet);
        }
        reported = report.flushIfDue(now);
        if (options.seconds > 0 && now - start >= options.seconds)
            break;
    }
    master.release();
    report.add({{"type", "end"}, {"frame", master.getFrameID()}});
    return report.flush() && reported ? kExitDone : kExitFailed;
}
