#include <kor/KorLogicClient.h>

namespace kor {

jVector<int>& KorLogicClient::getCmds() {
    return cmds;
}
KorClient* KorLogicClient::getClient() {
    return client;
}
int KorLogicClient::getNumCache() const {
    return cache.size();
}
double KorLogicClient::getFrameDeadline() const {
    return frameDeadline;
}
double KorLogicClient::getFrameID() const {
    return frameID;
}
double KorLogicClient::getFrameInterval() const {
    return frameInterval;
}
void KorLogicClient::setFrameInterval(double seconds) {
    frameInterval = seconds;
}
double KorLogicClient::getFrameDeadlineExpected() const {
    return frameDeadlineExpected;
}
void KorLogicClient::setFrameDeadlineExpected(double seconds) {
    frameDeadlineExpected = seconds;
}
double KorLogicClient::getTimeCheckResult() const {
    return timeCheckResult;
}
void KorLogicClient::setTimeCheckResult(double seconds) {
    timeCheckResult = seconds;
}
float KorLogicClient::getUnstableError() const {
    return unstableError;
}
void KorLogicClient::setUnstableError(float seconds) {
    unstableError = seconds;
}
bool KorLogicClient::isInit() const {
    return initialized;
}
bool KorLogicClient::isShowLog() const {
    return showLog;
}
void KorLogicClient::setShowLog(bool show) {
    showLog = show;
}
double KorLogicClient::getExpectedVsyncime() const {
    return expectedVsyncTime;
}
void KorLogicClient::setExpectedVsyncime(double seconds) {
    expectedVsyncTime = seconds;
}
double KorLogicClient::getSwapBeginTime() const {
    return swapBeginTime;
}
void KorLogicClient::setSwapBeginTime(double seconds) {
    swapBeginTime = seconds;
}
double KorLogicClient::getSwapEndTime() const {
    return swapEndTime;
}
void KorLogicClient::setSwapEndTime(double seconds) {
    swapEndTime = seconds;
}
double KorLogicClient::getSwapBeginTimeLast() const {
    return swapBeginTimeLast;
}
void KorLogicClient::setSwapBeginTimeLast(double seconds) {
    swapBeginTimeLast = seconds;
}
double KorLogicClient::getSwapEndTimeLast() const {
    return swapEndTimeLast;
}
void KorLogicClient::setSwapEndTimeLast(double seconds) {
    swapEndTimeLast = seconds;
}

} // namespace kor
