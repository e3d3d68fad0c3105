#include <kor/KorLogicClient.h>

#include "src/Numbers.h"
#include "support/Tracked.h"
#include <kor/KorCoders.h>
#include <support/AtomicLock.h>
#include <support/BufferWriter.h>
#include <support/jLog.h>
#include <support/RTUser.h>

#include <algorithm>
#include <cmath>

namespace kor {

namespace {

const char* const kFile = "src/KorLogicClient";

constexpr double kClockUnknown = -1e9; // milliseconds
constexpr double kJustBehind = static_cast<double>(0.000001f);

int reportLock = 0;

} // namespace

unsigned char KorLogicClient::reportBuffer[0x400000];

/// Where the expected vsync lies among the master's frames.
struct KorLogicClient::Position {
    double serverTime = 0; // seconds of the master's clock
    double frame = 0;      // fractional
    int earlier = 0;
    int later = 0;
    double weight = 0; // of the later frame
};

KorLogicClient::KorLogicClient() {
    KorLogicClient::clear_cache();
}

KorLogicClient::~KorLogicClient() {
    free_client();
    KorLogicClient::clear_cache();
}

bool KorLogicClient::init(int broadcastRecvPort, int bindPort, const jString& name,
                          const jVector<jString>& cameras) {
    const jString ownName(name); // the arguments may belong to the endpoint that goes
    const jVector<jString> ownCameras(cameras);
    if (client) {
        free_client();
        clearState();
    }
    client = detail::makeTracked<KorClient>(kFile, __LINE__, "KorLogicClient::init");
    if (!client->init(broadcastRecvPort, bindPort, ownName, ownCameras)) {
        jLog::error("%s:init KorClient failed", "KorLogicClient::init");
        free_client();
        return false;
    }
    connect(client->connectSignal, this, &KorLogicClient::on_connect);
    connect(client->reconnectSignal, this, &KorLogicClient::on_reconnect);
    connect(client->disconnectSignal, this, &KorLogicClient::on_disconnect);
    connect(client->connectLostSignal, this, &KorLogicClient::on_connect_lost);
    initialized = true;
    return true;
}

void KorLogicClient::free_client() {
    if (client) {
        client->release();
        detail::freeTracked(client, kFile, __LINE__, "KorLogicClient::init");
        client = nullptr;
    }
    initialized = false;
}

KorLogicClient::WAIT_RESULT KorLogicClient::wait(double timeout) {
    if (!client)
        return WAIT_NONE;
    if (cache.empty())
        client->wait(timeout);
    AtomicLock guard(client->getLock());
    if (clearPending) {
        on_clear();
        clearPending = false;
    }
    RTUser* master = client->getUser();
    if (!master)
        return WAIT_NONE;
    const double offset = master->getTimeOffset();
    Position position;
    if (offset == kClockUnknown || !choose_position(offset, position))
        return apply_everything();
    send_report(*master, position);
    process_data(position.earlier, position.later);
    return apply_neighbours(position);
}

/// False when the position does not fit the frame ids.
bool KorLogicClient::choose_position(double clockOffset, Position& position) const {
    position.serverTime = clockOffset * 0.001 + frameDeadlineExpected;
    position.frame = position.serverTime / frameInterval;
    const double earlier = std::floor(position.frame);
    const double later = std::ceil(position.frame);
    if (!detail::fitsInt(earlier) || !detail::fitsInt(later))
        return false;
    position.earlier = static_cast<int>(earlier);
    position.later = static_cast<int>(later);
    position.weight = frameID == -1.0 ? 0.0 : std::clamp(position.frame - earlier, 0.0, 1.0);
    return true;
}

/// Tells the master where this slave is, about once a second.
void KorLogicClient::send_report(RTUser& master, const Position& position) const {
    const float nearest = std::nearbyint(static_cast<float>(position.frame)); // ties to even
    if (std::fmod(nearest, 60.0f) != 0.0f)
        return;
    AtomicLock guard(&reportLock);
    BufferWriter writer(reportBuffer, sizeof(reportBuffer));
    KorCoderBase::codeBegin(writer, position.later);
    KorCoderBase::codeSlaveTimeInServer(writer, position.serverTime, position.frame);
    KorCoderBase::codeEnd(writer);
    master.sendAsyn(writer.getData(), writer.tell());
}

KorLogicClient::WAIT_RESULT KorLogicClient::apply_neighbours(const Position& position) {
    KorData* earlier = find_cache(position.earlier);
    KorData* later = find_cache(position.later);
    if (!earlier && !later) {
        frameID = -1.0;
        frameDeadline = -1.0;
        return WAIT_NONE;
    }
    // What applyData has changed counts: the deadline and the ids are read behind it.
    if (!earlier) {
        applyData(later, 1.0);
        frameID = position.later;
        frameDeadline = frameDeadlineExpected + kJustBehind;
        if (showLog) {
            jLog::message("over hit no lerp, frame_id[%d] not found, apply frame[%d], should tweak",
                          position.earlier, position.later);
        }
        return WAIT_OVER_HIT;
    }
    if (!later) {
        applyData(earlier, 1.0);
        frameDeadline = frameDeadlineExpected + kJustBehind;
        if (showLog)
            jLog::message("hit but no lerp, frame_id[%d] not ready, should tweak", position.later);
        frameID = position.earlier;
        return WAIT_HIT;
    }
    if (earlier == later || position.weight == 0.0) {
        applyData(earlier, 1.0);
    } else if (position.weight == 1.0) {
        applyData(later, 1.0);
    } else {
        applyData(earlier, 1.0);
        applyData(later, position.weight);
    }
    frameDeadline = frameDeadlineExpected + kJustBehind;
    const double distance = static_cast<double>(later->frameID) - earlier->frameID;
    frameID = earlier->frameID + distance * position.weight;
    return WAIT_LERP;
}

/// For as long as no frame can be chosen: whatever has come is applied in full, in order, and dropped.
KorLogicClient::WAIT_RESULT KorLogicClient::apply_everything() {
    for (KorData& block : client->getData())
        applyData(&block, 1.0);
    client->clearData();
    return WAIT_NONE;
}

void KorLogicClient::clearState() {
    frameID = -1.0;
    frameDeadline = 0.0;
    frameDeadlineExpected = 0.0;
    timeCheckResult = 0.0;
    if (client)
        client->clearData();
    clearPending = true;
    clear_cache();
    if (client)
        client->cachedBytes = 0;
    warnedOfFullCache = false;
}

void KorLogicClient::on_connect(const RTAddr&) {
    clearState();
}
void KorLogicClient::on_reconnect(const RTAddr&) {
    clearState();
}
void KorLogicClient::on_disconnect(const RTAddr&) {
    clearState();
}
void KorLogicClient::on_connect_lost(const RTAddr&) {
    clearState();
}

void KorLogicClient::on_clear() {}

void KorLogicClient::release() {}

} // namespace kor
