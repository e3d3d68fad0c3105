#include <kor/Client.h>

namespace kor {

const jVector<KorData>& Client::getData() const {
    return data;
}
RTUser* Client::getUser() const {
    return user;
}
RTUser* Client::getUser() {
    return user;
}
const RTAddr& Client::getAddr() const {
    return addr;
}
void Client::setAddr(const RTAddr& newAddr) {
    addr = newAddr;
}
const jString& Client::getName() const {
    return identity.name();
}
void Client::setName(const jString& newName) {
    identity.setName(newName);
}
const jVector<jString>& Client::getCamNames() const {
    return identity.camNames();
}
void Client::setCamNames(const jVector<jString>& names) {
    identity.setCamNames(names);
}
bool Client::isInit() const {
    return init;
}
bool Client::isSendOver() const {
    return sendOver;
}
void Client::setSendOver(bool over) {
    sendOver = over;
}
std::int64_t Client::getPacketID() const {
    return packetID;
}
void Client::setPacketID(std::int64_t id) {
    packetID = id;
}
KOR_CLIENT_STATE Client::getState() {
    return state;
}
void Client::setState(KOR_CLIENT_STATE newState) {
    state = newState;
}
double Client::getWaitTime() const {
    return waitTime;
}
void Client::setWaitTime(double seconds) {
    waitTime = seconds;
}
int Client::getIdleTimes() const {
    return idleTimes;
}
void Client::setIdleTimes(int times) {
    idleTimes = times;
}
double Client::getTotalWaitTime() const {
    return totalWaitTime;
}
void Client::setTotalWaitTime(double seconds) {
    totalWaitTime = seconds;
}
double Client::getIDCheck() const {
    return IDCheck;
}
void Client::setIDCheck(double position) {
    IDCheck = position;
}
double Client::getTimeCheck() const {
    return timeCheck;
}
void Client::setTimeCheck(double seconds) {
    timeCheck = seconds;
}
double Client::getTimeCheckResult() const {
    return timeCheckResult;
}
void Client::setTimeCheckResult(double result) {
    timeCheckResult = result;
}
int Client::getTotalIdleTimes() const {
    return totalIdleTimes;
}
void Client::setTotalIdleTimes(int times) {
    totalIdleTimes = times;
}
int Client::getDisconnectTimes() const {
    return disconnectTimes;
}
void Client::setDisconnectTimes(int times) {
    disconnectTimes = times;
}
bool Client::isDebugSendOver() const {
    return debugSendOver;
}
void Client::setDebugSendOver(bool over) {
    debugSendOver = over;
}
void Client::addIdleTimes() {
    ++idleTimes;
    ++totalIdleTimes;
}
void Client::addDisconnectTimes() {
    ++disconnectTimes;
}
void Client::addTotalWaitTime(double seconds) {
    totalWaitTime += seconds;
}

} // namespace kor
