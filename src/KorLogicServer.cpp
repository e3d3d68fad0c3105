#include <kor/KorLogicServer.h>

#include "support/Tracked.h"
#include <support/AtomicLock.h>
#include <support/jLog.h>

namespace kor {

namespace {

const char* const kFile = "src/KorLogicServer";

} // namespace

KorLogicServer::KorLogicServer() = default;

KorLogicServer::~KorLogicServer() {
    KorLogicServer::release();
    releaseSlots(slaveInitSignal);
    releaseSlots(slaveRemoveSignal);
    let_go();
    for (Slave* slave : slaves)
        detail::freeTracked(slave, kFile, __LINE__, "KorLogicServer::~KorLogicServer");
    detail::freeTracked(published.load(), kFile, __LINE__, "KorLogicServer::~KorLogicServer");
}

bool KorLogicServer::init(const jString& broadcastIP, jVector<unsigned short>& broadcastSendPorts,
                          jVector<unsigned short>& broadcastBindPorts, jVector<unsigned short>& dataPorts) {
    const jString ip(broadcastIP); // the argument may belong to the endpoint that goes
    if (server)
        release();
    forget_slaves();
    server = detail::makeTracked<KorServer>(kFile, __LINE__, "KorLogicServer::init");
    watch_records();
    server->setHandler(this); // first, or a slave that connects at once would be missed
    if (!server->init(ip, broadcastSendPorts, broadcastBindPorts, dataPorts)) {
        jLog::error("%s:init KorServer failed", "KorLogicServer::init");
        server->release();
        detail::freeTracked(server, kFile, __LINE__, "KorLogicServer::init");
        server = nullptr;
        return false;
    }
    connect(server->clientIdleSignal, this, &KorLogicServer::on_client_idle);
    return true;
}

bool KorLogicServer::init(const jString& broadcastIP, unsigned short broadcastSendPort,
                          unsigned short broadcastBindPort, unsigned short dataPort) {
    jVector<unsigned short> sendPorts{broadcastSendPort};
    jVector<unsigned short> bindPorts{broadcastBindPort};
    jVector<unsigned short> dataPorts{dataPort};
    return init(broadcastIP, sendPorts, bindPorts, dataPorts);
}

void KorLogicServer::release() {
    if (!server)
        return;
    server->release();
    {
        AtomicLock guard(&slaveLock);
        for (const jVector<Slave*>* all : {&slaves, &departedSlaves})
            for (Slave* slave : *all)
                slave->client = nullptr; // freed with the endpoint
    }
    releaseSlots(server->clientIdleSignal);
    detail::freeTracked(server, kFile, __LINE__, "KorLogicServer::release");
    server = nullptr;
}

void KorLogicServer::clear() {}

void KorLogicServer::on_client_idle(Client*) {}

double KorLogicServer::getFrameInterval() const {
    return frameInterval;
}
void KorLogicServer::setFrameInterval(double seconds) {
    frameInterval = seconds;
}
double KorLogicServer::getFrameTime() const {
    return frameTime;
}
void KorLogicServer::setFrameTime(double seconds) {
    frameTime = seconds;
}
int KorLogicServer::getFrameID() const {
    return frameID;
}
void KorLogicServer::setFrameID(int id) {
    frameID = id;
}
double KorLogicServer::getSwapTime() const {
    return swapTime;
}
void KorLogicServer::setSwapTime(double seconds) {
    swapTime = seconds;
}
float KorLogicServer::getWaitTime() const {
    return waitTime;
}
void KorLogicServer::setWaitTime(float seconds) {
    waitTime = seconds;
}

} // namespace kor
