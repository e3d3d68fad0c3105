// A slave for the cluster tests: plays a display, checks every frame it gets, reports, does as it is told.

#include "Console.h"
#include "Frame.h"

#include <kor/kor.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

class Slave : public kor::KorLogicClient {
public:
    explicit Slave(const Console& console)
        : announcePort_(static_cast<int>(console.number("announce", 0))),
          port_(static_cast<int>(console.number("port", 0))),
          name_(console.argument("name", "slave")),
          spin_(console.number("spin", 0) != 0),
          phase_(console.number("phase", 0)),
          timeout_(static_cast<unsigned int>(console.number("timeout", 2000))) {
        std::istringstream words(console.argument("cameras", "left,right"));
        for (std::string word; std::getline(words, word, ',');) {
            cameras_.push_back(kor::jString(word));
        }
        setShowLog(false);
    }

    void open() {
        const bool opened = init(announcePort_, port_, kor::jString(name_), cameras_);
        Console::report(ReportLine("init").add("result", static_cast<long long>(opened)));
    }

    void close() {
        if (getClient()) {
            getClient()->release();
        }
    }

    /// Draws and presents one picture.
    void step() {
        if (kor::RTNet* net = getClient() ? getClient()->getNet() : nullptr;
            net && net->getTimeoutTime() != timeout_) {
            net->setTimeoutTime(timeout_);
        }
        swapBegin(true);
        const double interval = getFrameInterval();
        const double now = kor::jTimer::getTimeSecond();
        const double vsync = (std::floor(now / interval - phase_) + 1 + phase_) * interval;
        if (spin_ && getClient()) {
            while (kor::jTimer::getTimeSecond() < vsync) {
            }
        } else {
            std::this_thread::sleep_for(std::chrono::duration<double>(vsync - now));
        }
        swapEnd(true);
    }

    WAIT_RESULT wait(double timeout) override {
        chosen_ = false;
        const double vsync = getFrameDeadlineExpected();
        const WAIT_RESULT result = KorLogicClient::wait(timeout);
        ++results_[result];
        if (result == WAIT_LERP) {
            ++sessionLerp_;
            // The first frame after a reset is taken without a weight, so it is beside the exact position.
            if (lerpBefore_) {
                vsync_ = vsync;
                position_ = getFrameID();
                measureClock();
            }
        }
        lerpBefore_ = result == WAIT_LERP;
        return result;
    }

    void applyData(kor::KorData* block, double weight) override {
        if (!chosen_) { // the clock is not known yet, so this block has not been looked at
            take(*block);
        }
        block->applied = weight == 1.0;
    }

    static void obey(const std::vector<std::string>&) {}

    void reportStatus() {
        ReportLine line("status");
        line.add("zero", clockZero()).add("sessions", sessions_.load()).add("clears", clears_);
        line.add("connected", static_cast<long long>(getClient() && getClient()->isConnected()));
        line.add("lerp", results_[WAIT_LERP]).add("session_lerp", sessionLerp_);
        line.add("hit", results_[WAIT_HIT]).add("over_hit", results_[WAIT_OVER_HIT]);
        line.add("none", results_[WAIT_NONE]).add("vsync", vsync_).add("position", position_);
        line.add("offset_ms", offset_).add("bound_ms", bound_);
        line.add("packets", packets_).add("missing", missing_).add("doubled", doubled_);
        line.add("strange", strange_).add("wrong", wrong_).add("largest", largest_);
        line.add("cache", static_cast<long long>(getNumCache()));
        addProcess(line);
        Console::reportIfRoom(line);
    }

protected:
    /// Looks at the blocks that have come, in the order in which they came, before they are sorted in.
    void process_data(int earlier, int later) override {
        chosen_ = true;
        for (kor::KorData& block : getClient()->getData()) {
            if (!block.applied) { // one without a frame stays in the list
                take(block);
                block.applied = true;
            }
        }
        KorLogicClient::process_data(earlier, later);
    }

    void on_clear() override {
        ++clears_;
        next_ = -1;
        sessionLerp_ = 0;
        lerpBefore_ = false;
    }

    void on_connect(const kor::RTAddr& addr) override {
        sessions_ = sessions_ + 1;
        KorLogicClient::on_connect(addr);
    }

private:
    void take(const kor::KorData& block) {
        FrameContent content;
        if (!readFrame(block.data, block.size, content)) {
            ++strange_;
            return;
        }
        ++packets_;
        if (next_ >= 0) {
            missing_ += std::max(content.number - next_, 0LL);
            doubled_ += content.number < next_ ? 1 : 0;
        }
        next_ = std::max(next_, content.number + 1);
        wrong_ += content.payloadRight ? 0 : 1;
        largest_ = std::max(largest_, static_cast<long long>(content.payloadBytes));
    }

    void measureClock() {
        if (const kor::RTUser* master = getClient()->getUser()) {
            offset_ = master->getTimeOffset();
            bound_ = master->getTimeOffsetErrorBound();
        }
    }

    int announcePort_;
    int port_;
    std::string name_;
    kor::jVector<kor::jString> cameras_;
    bool spin_;
    double phase_;
    unsigned int timeout_; // milliseconds

    bool chosen_ = false;
    bool lerpBefore_ = false;
    kor::detail::SharedValue<long long> sessions_{0}; // counted on the connection layer's thread
    long long clears_ = 0;
    long long results_[5] = {};
    long long sessionLerp_ = 0;
    double vsync_ = 0;
    double position_ = 0;
    double offset_ = -1e9;
    double bound_ = 0;
    long long next_ = -1;
    long long packets_ = 0;
    long long missing_ = 0;
    long long doubled_ = 0;
    long long strange_ = 0;
    long long wrong_ = 0;
    long long largest_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    return runNode<Slave>(argc, argv);
}
