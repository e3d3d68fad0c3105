#include <kor/KorClient.h>

#include "src/BlockMemory.h"
#include "src/Numbers.h"
#include "support/Tracked.h"
#include <support/AtomicLock.h>
#include <support/jLog.h>
#include <support/RTNet.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>
#include <support/Stopwatch.h>

#include <cstring>
#include <new>

namespace kor {

namespace {

const char* const kFile = "src/KorClient";

alignas(KorClient) unsigned char instanceStorage[sizeof(KorClient)];
KorClient* instance = nullptr;

std::size_t introductionBytes(const jString& name, const jVector<jString>& camNames) {
    std::size_t bytes = 10 + std::strlen(name.c_str()) + 1;
    for (const jString& camera : camNames)
        bytes += std::strlen(camera.c_str()) + 1;
    return bytes;
}

} // namespace

KorClient* KorClient::get() {
    if (!instance)
        instance = new (instanceStorage) KorClient;
    return instance;
}

void KorClient::del() {
    if (instance) {
        instance->release();
        instance->KorClient::~KorClient();
        instance = nullptr;
    }
}

KorClient::KorClient() = default;
KorClient::KorClient(const KorClient& other) = default;
KorClient& KorClient::operator=(const KorClient& other) = default;

KorClient::~KorClient() {
    releaseSlots(connectSignal);
    releaseSlots(reconnectSignal);
    releaseSlots(disconnectSignal);
    releaseSlots(connectLostSignal);
}

bool KorClient::init(int broadcastRecvPort, int bindPort, const jString& newName,
                     const jVector<jString>& newCamNames) {
    const std::size_t bytes = introductionBytes(newName, newCamNames);
    if (bytes > kMaxIntroductionBytes) {
        jLog::error("%s:introduction of %zu bytes is over the limit of %d bytes, shorten the names",
                    "KorClient::init", bytes, kMaxIntroductionBytes);
        return false;
    }
    release();
    connected = false;
    if (!open_broadcast_socket(broadcastRecvPort)) {
        free_socket();
        return false;
    }
    listen();
    if (!open_connection_layer(bindPort)) {
        free_socket();
        return false;
    }
    name = newName;
    camNames = newCamNames;
    jLog::message("broadcast_recv_port[%d],bind_port[%d],name:%s", broadcastRecvPort, bindPort, name.c_str());
    for (const jString& camera : camNames)
        jLog::message("-->camera:%s", camera.c_str());
    return true;
}

bool KorClient::open_broadcast_socket(int port) {
    broadcastSocket = detail::makeTracked<SocketUDP>(kFile, __LINE__, "KorClient::init");
    if (!broadcastSocket->create())
        return false;
    if (!broadcastSocket->bind(port)) {
        jLog::error("%s:broadcast can not bind to port:%d", "KorClient::init", port);
        return false;
    }
    return broadcastSocket->nonblock();
}

bool KorClient::open_connection_layer(int port) {
    net = detail::makeTracked<RTNet>(kFile, __LINE__, "KorClient::init");
    if (net->init(static_cast<unsigned short>(port)))
        return true;
    jLog::error("%s:can not init RTNet with port:%d", "KorClient::init", port);
    net->release();
    detail::freeTracked(net, kFile, __LINE__, "KorClient::init");
    net = nullptr;
    return false;
}

void KorClient::release() {
    // The connection layer's thread may wait for the lock in an event, so it is stopped first.
    if (net)
        net->setUserHandler(nullptr);
    if (RTUser* master = user.exchange(nullptr))
        master->setPacketHandler(nullptr);
    if (net)
        net->release();
    AtomicLock guard(&lock);
    free_socket();
    free_net();
    clearData();
}

void KorClient::free_socket() {
    AtomicLock guard(&discoveryLock);
    if (broadcastSocket) {
        broadcastSocket->release();
        detail::freeTracked(broadcastSocket, kFile, __LINE__, "KorClient::release");
        broadcastSocket = nullptr;
    }
}

void KorClient::free_net() {
    detail::freeTracked(net, kFile, __LINE__, "KorClient::release");
    net = nullptr;
}

void KorClient::wait(double timeout) {
    if (!net)
        return;
    if (discovering()) {
        check_connect();
        return;
    }
    if (!wait_for_data(detail::toFloat(timeout)) && timeout > 0)
        jLog::warning("wait too long time");
}

bool KorClient::wait_for_data(float timeout) {
    Stopwatch stopwatch;
    stopwatch.start();
    waitTime = 0;
    while (dataList.empty()) {
        waitTime += stopwatch.getElapsed();
        if (!(waitTime <= static_cast<double>(timeout)))
            return false;
    }
    return true;
}

void KorClient::clearData() {
    for (KorData& block : dataList)
        detail::freeBytes(block.data, kFile, __LINE__, "KorClient::clearData");
    dataList.release();
}

std::int64_t KorClient::sendAsyn(const void* data, int size) {
    RTUser* master = user;
    return master ? static_cast<std::int64_t>(master->sendAsyn(data, size)) : 0;
}

void KorClient::setData(const jList<KorData>& entries) {
    dataList = entries;
    countWhenFull = -1;
    queuedBytes = detail::memoryOf(dataList);
}

const jString& KorClient::getName() const {
    return name;
}
const jVector<jString>& KorClient::getCamNames() const {
    return camNames;
}
const jList<KorData>& KorClient::getData() const {
    return dataList;
}
double KorClient::getWaitTime() const {
    return waitTime;
}
bool KorClient::isConnected() const {
    return connected;
}

} // namespace kor
