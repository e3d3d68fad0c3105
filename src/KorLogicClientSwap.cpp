#include <kor/KorLogicClient.h>

#include "src/Numbers.h"
#include <support/jLog.h>
#include <support/jTimer.h>
#include <support/profile.h>
#include <support/RTUser.h>

namespace kor {

namespace {

constexpr double kWaitSeconds = 1.0;
constexpr double kClockUnknown = -1e9; // milliseconds
constexpr double kNoFrame = -1.0;

/// Belongs to a text that operators search the log for; it does not follow the code.
constexpr int kVsyncBehindMark = 196;

constexpr vec4 kPurple{0.5f, 0, 1, 1};
constexpr vec4 kRed{1, 0, 0, 1};
constexpr vec4 kYellow{1, 1, 0, 1};
constexpr vec4 kGreen{0, 1, 0, 1};

void profile(double value, const jString& label, const vec4& colour) {
    profileName(detail::toFloat(value), label, colour);
}

} // namespace

void KorLogicClient::swapBegin(bool check) {
    const RTUser* master = client ? client->getUser() : nullptr;
    if (!master || master->getTimeOffset() == kClockUnknown)
        return;
    const double deadline = getFrameDeadline();
    if (check && deadline != kNoFrame && expectedVsyncTime >= deadline) {
        jLog::error("%s:unknown error, line:%d,%f", "KorLogicClient::swapBegin", kVsyncBehindMark,
                    (deadline - expectedVsyncTime) * 1000);
    }
    swapBeginTimeLast = swapBeginTime;
    swapBeginTime = jTimer::getTimeSecond();
}

void KorLogicClient::swapEnd(bool check) {
    static const jString kFrame("frame");
    static const jString kGpu("gpu");
    static const jString kError("error");
    static const jString kWaitNet("wait_net");
    static const jString kCache("cache");
    static const jString kCheck("check");
    static const jString kIdDif("id_dif");

    if (!client)
        return;
    const double now = jTimer::getTimeSecond();
    profile((now - swapEndTime) * 1000, kFrame, kPurple);
    swapEndTimeLast = swapEndTime;
    const double previousID = check && swapEndTime > 0 ? getFrameID() : kNoFrame;
    const double swapSeconds = now - swapBeginTime;
    swapEndTime = now;
    expectedVsyncTime = now + frameInterval - static_cast<double>(unstableError);
    profile(swapSeconds * 1000, kGpu, kRed);
    const bool bigSwap = swapSeconds > frameInterval;
    profile(bigSwap ? 1 : 0, kError, kYellow);
    if (bigSwap && showLog)
        jLog::error("%s:big swap, frame_id:%f", "KorLogicClient::swapEnd", getFrameID());

    const double waitStart = jTimer::getTimeSecond();
    setFrameDeadlineExpected(expectedVsyncTime);
    while (wait(kWaitSeconds) == WAIT_OLD_FRAME) {
        if (showLog)
            jLog::warning("old frame ignore:%d", detail::toInt(getFrameID()));
        if (!client->isConnected())
            break;
    }
    profile((jTimer::getTimeSecond() - waitStart) * 1000, kWaitNet, vec4_red);
    profile(getNumCache(), kCache, vec4_red);
    profile(getTimeCheckResult() * 1000, kCheck, vec4_red);

    const double stored = frameID;
    frameID.replace(stored, getFrameID()); // but not over a reset that a connection event made meanwhile
    profile(getFrameID() - previousID, kIdDif, kGreen);
}

} // namespace kor
