// kor-slave: receives the scene from kor-master and shows it at the refreshes of a display that it plays
// itself.

#include "Display.h"
#include "Program.h"
#include "Report.h"
#include "SceneRecords.h"
#include "SlaveOptions.h"

#include <kor/kor.h>
#include <kor/trace.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

namespace {

/// The clock of the master as seen from here, in milliseconds.
struct MasterClock {
    double offset = -1e9; ///< exactly -1e9 while unknown
    double bound = 0;
    double ping = 0;
    bool known() const { return offset != -1e9; }
};

class Slave : public kor::KorLogicClient {
public:
    Slave(const SlaveOptions& options, Report& report) : options_(options), report_(report) {
        setFrameInterval(1 / options.rate);
        setShowLog(options.verbose);
        // swapEnd() expects the next vertical sync one frame interval less this margin after the last one.
        // Where the display refreshes at another rate than the frames, the margin makes up for that.
        setUnstableError(
            static_cast<float>(1 / options.rate - 1 / options.refresh + options.marginMs / 1000));
    }

    bool open() {
        kor::jVector<kor::jString> cameras;
        for (const std::string& camera : options_.cameras)
            cameras.push_back(kor::jString(camera));
        if (!init(options_.announcePort, options_.port, kor::jString(options_.name), cameras))
            return false;
        getClient()->getNet()->setTimeoutTime(options_.timeoutMs);
        return true;
    }

    /// The scene, always as last applied.
    const Scene& scene() const { return scene_; }

    /// Runs on the application's thread inside swapEnd(), under the endpoint's lock: it decodes and leaves.
    void applyData(kor::KorData* block, double weight) override {
        if (!readFrame(block->data, block->size, received_)) {
            ++badFrames_;
            return;
        }
        if (!received_.payloadRight)
            ++badFrames_;
        blend(scene_, received_.scene, weight);
        blended_ = blended_ || weight < 1;
        // Applied in full, so it need not come again when its frame has passed.
        block->applied = weight == 1.0;
    }

    WAIT_RESULT wait(double timeout) override {
        const double vsync = getFrameDeadlineExpected();
        blended_ = false;
        const WAIT_RESULT result = KorLogicClient::wait(timeout);
        const double now = kor::jTimer::getTimeSecond();
        if (result >= WAIT_NONE && result <= WAIT_OVER_HIT)
            ++results_[result];
        clock_ = readClock();
        noteConnection(now);
        addSample(now, vsync, result);
        return result;
    }

    void reportHeader(const Display& display) {
        report_.add({{"type", "header"},
                     {"role", "slave"},
                     {"name", options_.name},
                     {"cameras", options_.cameras},
                     {"zero", kor::jTimer::getZeroOnSystemClock()},
                     {"interval", getFrameInterval()},
                     {"refresh", display.interval()},
                     {"phase", options_.phase}});
    }

    void reportStatus(double now, long long missed) {
        auto status = nlohmann::ordered_json{{"type", "status"},
                                             {"time", now},
                                             {"connected", getClient()->isConnected()},
                                             {"connections", connections_.load()},
                                             {"malformed", malformedDatagrams(*getClient()->getNet())},
                                             {"position", getFrameID()},
                                             {"cache", getNumCache()},
                                             {"missed_refreshes", missed},
                                             {"bad_frames", badFrames_},
                                             {"lerp", results_[WAIT_LERP]},
                                             {"hit", results_[WAIT_HIT]},
                                             {"over_hit", results_[WAIT_OVER_HIT]},
                                             {"none", results_[WAIT_NONE]}};
        addClock(status);
        report_.add(status);
        if (!options_.quiet)
            print();
    }

    nlohmann::ordered_json endLine(long long missed) const {
        return {{"type", "end"},
                {"connections", connections_.load()},
                {"missed_refreshes", missed},
                {"bad_frames", badFrames_}};
    }

protected:
    void on_connect(const kor::RTAddr& addr) override {
        ++connections_;
        KorLogicClient::on_connect(addr);
    }

private:
    /// Reports that the master has come or gone since the last call.
    void noteConnection(double now) {
        const bool connected = getClient()->isConnected();
        const long long connections = connections_;
        if (connected == wasConnected_ && connections == notedConnections_)
            return;
        wasConnected_ = connected;
        notedConnections_ = connections;
        report_.add(
            {{"type", "connection"}, {"time", now}, {"connected", connected}, {"connections", connections}});
    }

    MasterClock readClock() {
        MasterClock clock;
        if (const kor::RTUser* master = getClient()->getUser()) {
            clock.offset = master->getTimeOffset();
            clock.bound = master->getTimeOffsetErrorBound();
            clock.ping = master->getPing();
        }
        return clock;
    }

    void addSample(double now, double vsync, WAIT_RESULT result) {
        if (!report_.isOpen())
            return;
        auto sample = nlohmann::ordered_json{{"type", "wait"},
                                             {"time", now},
                                             {"vsync", vsync},
                                             {"result", resultName(result)},
                                             {"position", getFrameID()},
                                             {"blended", blended_},
                                             {"scene_time", scene_.time},
                                             {"cache", getNumCache()}};
        addClock(sample);
        report_.add(sample);
    }

    void addClock(nlohmann::ordered_json& line) const {
        line["offset_ms"] = clock_.known() ? nlohmann::ordered_json(clock_.offset) : nlohmann::ordered_json();
        line["bound_ms"] = clock_.bound;
        line["ping_ms"] = clock_.ping;
    }

    void print() const {
        if (!clock_.known()) {
            std::printf("%s: no master yet\n", options_.name.c_str());
        } else {
            std::printf("%s: position %.3f  cache %d  lerp %lld hit %lld over %lld none %lld  ping %.3f ms  "
                        "clock offset %.4f ms +- %.4f\n",
                        options_.name.c_str(), getFrameID(), getNumCache(), results_[WAIT_LERP],
                        results_[WAIT_HIT], results_[WAIT_OVER_HIT], results_[WAIT_NONE], clock_.ping,
                        clock_.offset, clock_.bound);
        }
        std::fflush(stdout);
    }

    const SlaveOptions& options_;
    Report& report_;
    Scene scene_;
    ReceivedFrame received_; // kept for its memory
    MasterClock clock_;
    bool blended_ = false;
    std::atomic<long long> connections_{0}; // counted on the connection layer's thread
    long long notedConnections_ = 0;
    bool wasConnected_ = false;
    long long badFrames_ = 0;
    long long results_[4] = {};
};

/// Runs to the end, and leaves what the report is to say about it in `end`. The exit status.
int run(const SlaveOptions& options, Report& report, nlohmann::ordered_json& end) {
    kor::Trace trace;
    kor::TracedSlave<Slave> slave(trace, options, report);
    if (!options.trace.empty() && !trace.begin({.process = options.name}))
        return kExitFailed;
    if (!slave.open()) {
        std::fprintf(stderr, "kor-slave: cannot start, see above\n");
        return kExitPortsInUse;
    }
    Display display(options.refresh, options.phase);
    slave.reportHeader(display);

    const double start = kor::jTimer::getTimeSecond();
    double statusDue = start + 1;
    long long missed = 0;
    bool reported = true;
    while (!stopRequested() && reported) {
        {
            const kor::TraceSpan span(trace, "draw");
            Display::draw(options.drawMs / 1000);
        }
        slave.swapBegin(true);
        missed += display.waitForRefresh();
        slave.swapEnd(true);
        const double now = kor::jTimer::getTimeSecond();
        if (now >= statusDue) {
            statusDue = now + 1;
            slave.reportStatus(now, missed);
        }
        reported = report.flushIfDue(now);
        if (options.seconds > 0 && now - start >= options.seconds)
            break;
    }
    slave.getClient()->release();
    trace.end();
    end = slave.endLine(missed);
    const bool traced = options.trace.empty() || trace.write(options.trace);
    return reported && traced ? kExitDone : kExitFailed;
}

} // namespace

int main(int argc, char** argv) {
    SlaveOptions options;
    if (const int status = parseSlaveOptions(argc, argv, options); status >= 0)
        return status;
    Report report;
    if (!beginProgram(options, report))
        return kExitFailed;
    nlohmann::ordered_json end;
    const int status = run(options, report, end);
    return finishProgram(report, end, status);
}
