#include <kor/KorLogicServer.h>

#include "src/Numbers.h"
#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/AtomicLock.h>
#include <support/BufferReader.h>
#include <support/jTimer.h>
#include <support/profile.h>

#include <cmath>
#include <cstdio>

namespace kor {

namespace {

/// What a slave's report says; the frame tells only whether there was one.
struct Report {
    int frame = -1;
    double slaveTime = 0;
    double framePosition = 0;
};

/// Takes the report out of a packet, as far as it is sound; a later record outdoes an earlier one.
void scanReport(const KorData& block, Report& report) {
    BufferReader reader(block.data, static_cast<std::uint32_t>(block.size));
    while (!KorCoderBase::decodeEnd(reader)) {
        const bool known =
            KorCoderBase::decodeBegin(reader, report.frame) ||
            KorCoderBase::decodeSlaveTimeInServer(reader, report.slaveTime, report.framePosition);
        if (!known && !skipRecord(reader))
            return;
    }
}

} // namespace

/// Keeps what the lookups of this thread show as it is, while it lives. Inside another it does nothing.
class KorLogicServer::FrameView {
public:
    explicit FrameView(KorLogicServer& owner) : logic(owner), outermost(!owner.in_frame()) {
        if (!outermost)
            return;
        const jVector<Slave*>& shown = logic.present();
        logic.frameSlaves = &shown;
        logic.frameNames.reserve(shown.count, false);
        for (int i = 0; i < shown.count; ++i)
            logic.frameNames[i].set(name_of(*shown[i]));
        logic.frameThread = std::this_thread::get_id();
    }
    FrameView(const FrameView&) = delete;
    FrameView& operator=(const FrameView&) = delete;
    ~FrameView() {
        if (outermost)
            logic.frameThread = std::thread::id();
    }

private:
    KorLogicServer& logic;
    const bool outermost;
};

int KorLogicServer::wait(double timeout) {
    if (!server)
        return 0;
    check_slave();
    watch_records(); // a class of the application's own may have set the endpoint
    const int result = server->wait(timeout);
    read_reports();
    return result;
}

void KorLogicServer::read_reports() {
    AtomicLock endpoint(server->getLock());
    const int count = server->getClientCount();
    for (int i = 0; i < count; ++i) {
        Client* client = server->getClientByIndex(i);
        AtomicLock guard(&client->getLock());
        Report report;
        for (const KorData& block : client->getData())
            scanReport(block, report);
        if (report.frame != -1) {
            client->setIDCheck(report.framePosition);
            client->setTimeCheck(report.slaveTime);
        }
        client->clearData();
    }
}

bool KorLogicServer::swap() {
    static const jString kWait("wait");
    static const jString kIdle("idle[ms]");
    static const jString kFps("fps");

    const double start = jTimer::getTimeSecond();
    wait(static_cast<double>(waitTime));
    const double waited = jTimer::getTimeSecond();
    const FrameView view(*this);
    profileName(detail::toFloat((waited - start) * 1000.0), kWait, vec4_red);

    int target = -1;
    bool advance = next_frame(target);
    if (advance) {
        const double targetTime = target * frameInterval;
        if (getFrameID() == target) {
            std::printf("ignore id:%d\n", target);
            advance = false;
        } else {
            const double spinStart = jTimer::getTimeSecond();
            double now = spinStart;
            while (targetTime >= now)
                now = jTimer::getTimeSecond();
            profileName(detail::toFloat((now - spinStart) * 1000.0), kIdle, vec4_yellow);
            profileName(detail::toFloat(1.0 / (now - swapTime)), kFps, vec4_one);
        }
    }
    swapTime = jTimer::getTimeSecond();
    while (advance && target > frameID) {
        const int id = frameID + 1;
        setFrameID(id);
        setFrameTime(id * frameInterval);
        update();
    }
    return true;
}

/// The frame whose boundary is nearest to one interval after the last swap. False when there was none, or
/// when the interval gives no frame within 32 bits.
bool KorLogicServer::next_frame(int& target) const {
    if (!(swapTime > 0.0) || !(frameInterval > 0.0))
        return false;
    const double frame = std::round((frameInterval + swapTime) / frameInterval);
    if (!detail::fitsInt(frame))
        return false;
    target = static_cast<int>(frame);
    return true;
}

} // namespace kor
