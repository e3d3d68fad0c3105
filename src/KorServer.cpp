#include <kor/KorServer.h>

#include "src/ClientRecords.h"
#include "support/Tracked.h"
#include <kor/KorCoders.h>
#include <support/AtomicLock.h>
#include <support/BufferWriter.h>
#include <support/jLog.h>
#include <support/RTNet.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>

#include <new>

namespace kor {

namespace {

const char* const kFile = "src/KorServer";

alignas(KorServer) unsigned char instanceStorage[sizeof(KorServer)];
KorServer* instance = nullptr;

} // namespace

KorServer* KorServer::get() {
    if (!instance)
        instance = new (instanceStorage) KorServer;
    return instance;
}

void KorServer::del() {
    if (instance) {
        instance->release();
        instance->KorServer::~KorServer();
        instance = nullptr;
    }
}

KorServer::KorServer() = default;
KorServer::KorServer(const KorServer& other) = default;
KorServer& KorServer::operator=(const KorServer& other) = default;
KorServer::~KorServer() = default;

bool KorServer::init(const jString& ip, jVector<unsigned short>& sendPorts,
                     jVector<unsigned short>& bindPorts, jVector<unsigned short>& dataPorts) {
    if (bindPorts.count != dataPorts.count) {
        jLog::error("%s:broadcast_bind_ports size[%d] is not equal data_ports[%d]", "KorServer::init",
                    bindPorts.count, dataPorts.count);
        return false;
    }
    if (sendPorts.count < bindPorts.count) {
        jLog::error("%s:broadcast_send_ports size[%d] is less than broadcast_bind_ports[%d]",
                    "KorServer::init", sendPorts.count, bindPorts.count);
        return false;
    }
    if (ip.find_last_of(".255") == -1) {
        jLog::error("%s:invalid broadcast ip:%s", "KorServer::init", ip.c_str());
        return false;
    }
    release();
    forget_clients();
    for (int i = 0; i < bindPorts.count; ++i)
        if (!open_announcement(ip, sendPorts[i], bindPorts[i]))
            break;
    broadcastIP = ip;
    ports = dataPorts;
    net = detail::makeTracked<RTNet>(kFile, __LINE__, "KorServer::init");
    net->setUserHandler(this); // first, or a slave that connects at once would be missed
    if (net->init(ports))
        ports = net->getLocalPorts(); // a port 0 has become a real one, to be announced
    return true;
}

bool KorServer::init(const jString& ip, unsigned short sendPort, unsigned short bindPort,
                     unsigned short dataPort) {
    jVector<unsigned short> sendPorts{sendPort};
    jVector<unsigned short> bindPorts{bindPort};
    jVector<unsigned short> dataPorts{dataPort};
    return init(ip, sendPorts, bindPorts, dataPorts);
}

bool KorServer::open_announcement(const jString& ip, unsigned short sendPort, unsigned short bindPort) {
    auto* socket = detail::makeTracked<SocketUDP>(kFile, __LINE__, "KorServer::init");
    bool open = socket->create();
    if (open && !socket->bind(bindPort)) {
        jLog::error("%s:broadcast can not bind to port:%d", "KorServer::init", bindPort);
        open = false;
    }
    if (!open || !socket->nonblock()) {
        detail::freeTracked(socket, kFile, __LINE__, "KorServer::init");
        return false;
    }
    socket->setSendIP(ip);
    socket->setSendPort(sendPort);
    jLog::message("broadcast_ip[%s], broadcast_bind_port[%d],broadcast_send_port[%d]", ip.c_str(), bindPort,
                  sendPort);
    announcementSockets.push_back(socket);
    return true;
}

void KorServer::release() {
    if (net) {
        // Without events the list stays as it is, so that the records can be detached without the lock, which
        // their handlers' thread may be waiting for.
        net->setUserHandler(nullptr);
        for (Client* client : clients)
            client->release();
    }
    for (SocketUDP* socket : announcementSockets) {
        socket->release();
        detail::freeTracked(socket, kFile, __LINE__, "KorServer::release");
    }
    announcementSockets.count = 0;
    if (net) {
        net->release();
        detail::freeTracked(net, kFile, __LINE__, "KorServer::release");
        net = nullptr;
    }
}

int KorServer::wait(double) {
    AtomicLock guard(&lock);
    for (Client* client : clients)
        client->setWaitTime(0);
    if (!letGoOfRetired.call || letGoOfRetired.call()) {
        for (Client* client : clients)
            client->identity.collect();
        if (records)
            records->collect();
    }
    broadcast_connect();
    return 0;
}

void KorServer::broadcast_connect() {
    for (int i = 0; i < announcementSockets.count; ++i) {
        unsigned char buffer[64];
        BufferWriter writer(buffer, sizeof(buffer));
        KorMsg::codeBroadcast(writer, ports[i], frameID);
        if (announcementSockets[i]->write(writer.getData(), 1, writer.tell()) < 1)
            jLog::error("%s:send failed", "KorServer::broadcast_connect");
    }
}

bool KorServer::send(const void* data, int size) {
    AtomicLock guard(&lock);
    if (clients.empty())
        return false;
    for (Client* client : clients)
        if (!client->send(data, size))
            jLog::error("[%s] send failed", client->getName().c_str());
    return true;
}

int KorServer::getClientCount() const {
    return clients.count;
}

Client* KorServer::getClientByIndex(int index) const {
    return index >= 0 && index < clients.count ? clients[index] : nullptr;
}

Client* KorServer::getClientByAddr(const RTAddr& addr) const {
    for (Client* client : clients) {
        const RTUser* user = client->getUser();
        if (user && user->getAddr() == addr)
            return client;
    }
    return nullptr;
}

/// As `getClientByAddr`, but for the handler's `onConnect`, without the lock: the record that it is told of.
Client* KorServer::connected_client(const RTAddr& addr) const {
    Client* made = records ? records->fresh() : nullptr;
    if (!made || made->getAddr() != addr)
        return getClientByAddr(addr);
    return made->getUser() && !made->retired ? made : nullptr;
}

bool KorServer::removeClientByAddr(const RTAddr& addr) {
    return remove_client_by_addr(addr);
}

bool KorServer::isClientsSendOver() const {
    for (Client* client : clients)
        if (client->getState() != KOR_CLIENT_STATE_INACTIVE && !client->isSendOver())
            return false;
    return true;
}

void KorServer::clearClientsSendOver() {
    for (Client* client : clients)
        client->setSendOver(false);
}

void KorServer::printStatistics() const {
    for (int i = 0; i < clients.count; ++i) {
        Client* client = clients[i];
        jLog::message("#%d", i);
        if (RTUser* user = client->getUser()) {
            user->printStatistics();
            jLog::message("Ping:%f", user->getPing());
        }
        jLog::message("TotalIdleTimes:%d", client->getTotalIdleTimes());
        jLog::message("TotalWaitTime:%fs", client->getTotalWaitTime());
        jLog::message("DisconnectTimes:%d", client->getDisconnectTimes());
    }
    jLog::message("WaitTime:%fs", waitTime);
}

const jString& KorServer::getBroadcastIP() const {
    return broadcastIP;
}
int KorServer::getBroadcastPort() const {
    return broadcastPort;
}
jVector<unsigned short> KorServer::getPorts() const {
    return ports;
}
int KorServer::getFrameID() const {
    return frameID;
}
double KorServer::getWaitTime() const {
    return waitTime;
}
KorServerHandler* KorServer::getHandler() const {
    return handler;
}
void KorServer::setHandler(KorServerHandler* newHandler) {
    handler = newHandler;
}

} // namespace kor
