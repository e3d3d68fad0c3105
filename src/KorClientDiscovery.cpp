#include <kor/KorClient.h>

#include <kor/KorCoders.h>
#include <support/AtomicLock.h>
#include <support/BufferReader.h>
#include <support/jKit.h>
#include <support/jLog.h>
#include <support/RTNet.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>
#include <support/Stopwatch.h>

// Discovery runs on the application's thread, the events that end or restart it on the connection layer's.
// What both touch is under discoveryLock, which is innermost: nothing else is taken, and no connection is
// called, under it.
namespace kor {

namespace {

constexpr int kAttemptMilliseconds = 1000;
constexpr int kAttempts = 3;
constexpr int kOpenBuffer = 1024;
constexpr int kMaxDrained = 4096; // a sender that never pauses must not keep us here

} // namespace

bool KorClient::discovering() const {
    AtomicLock guard(&discoveryLock);
    return masterIP.empty();
}

void KorClient::check_connect() {
    char buffer[64];
    const int size = try_read_broadcast_frame(buffer, sizeof(buffer));
    if (size <= 0)
        return;
    BufferReader reader(buffer, static_cast<std::uint32_t>(size));
    int dataPort = 0;
    int frame = 0;
    if (KorMsg::decodeBroadcast(reader, dataPort, frame))
        start_connection(dataPort);
}

void KorClient::start_connection(int dataPort) {
    jString ip;
    unsigned short port = 0;
    {
        AtomicLock guard(&discoveryLock);
        masterPort = static_cast<unsigned short>(static_cast<unsigned int>(dataPort) & 0xFFFFu);
        masterIP = announcer;
        drop_queued_datagrams();
        broadcastSocket->recv(0);
        ip = masterIP;
        port = masterPort;
    }
    jLog::message("[%s:%d] recv broadcast", ip.c_str(), port);
    net->setUserHandler(this);
    net->connect(ip, port, kAttemptMilliseconds, kAttempts);
}

int KorClient::try_read_broadcast_frame(char* buffer, int size) {
    Stopwatch stopwatch;
    stopwatch.start();
    float remaining = 0.1f;
    int count = 0;
    for (;;) {
        remaining -= static_cast<float>(stopwatch.getElapsed());
        {
            AtomicLock guard(&discoveryLock);
            count = broadcastSocket->read(buffer, 1, size);
            announcer = broadcastSocket->getRecvIP();
        }
        if (count > 0)
            break;
        jKit::sleep(1);
        if (!(remaining > 0))
            break;
    }
    stopwatch.stop();
    return count;
}

void KorClient::clear_udp_recv_buffer() {
    AtomicLock guard(&discoveryLock);
    drop_queued_datagrams();
}

void KorClient::drop_queued_datagrams() {
    char buffer[1024];
    int drained = 0;
    while (drained < kMaxDrained && broadcastSocket && broadcastSocket->read(buffer, 1, sizeof(buffer)) > 0)
        ++drained;
}

/// Forgets the master and searches again. False, and nothing happens, for a foreign address.
bool KorClient::set_reconnect_flag(const RTAddr& addr) {
    {
        AtomicLock guard(&discoveryLock); // or a master that is heard in between would be forgotten
        if (another_is_master(addr))
            return false;
        listen();
    }
    if (RTUser* master = user.exchange(nullptr))
        master->setPacketHandler(nullptr);
    return true;
}

/// With discoveryLock held.
void KorClient::listen() {
    masterIP.clear();
    if (broadcastSocket)
        broadcastSocket->recv(kOpenBuffer);
}

/// With discoveryLock held.
bool KorClient::another_is_master(const RTAddr& addr) const {
    RTAddr master;
    return !masterIP.empty() && !(master.set(masterIP, masterPort) && master == addr);
}

bool KorClient::is_master(const RTAddr& addr) const {
    AtomicLock guard(&discoveryLock);
    return !masterIP.empty() && !another_is_master(addr);
}

/// Whether a master is known, and this is another address.
bool KorClient::is_foreign(const RTAddr& addr) const {
    AtomicLock guard(&discoveryLock);
    return another_is_master(addr);
}

} // namespace kor
