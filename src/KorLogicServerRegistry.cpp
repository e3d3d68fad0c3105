#include <kor/KorLogicServer.h>

#include "support/Tracked.h"
#include <support/AtomicLock.h>
#include <support/jLog.h>

#include <algorithm>

namespace kor {

namespace {

const char* const kFile = "src/KorLogicServer";

} // namespace

void KorLogicServer::onConnect(const RTAddr& addr, bool established) {
    if (!established)
        return;
    AtomicLock guard(&slaveLock);
    if (remove_slave(addr)) {
        jLog::message("%s:[%s] re connect, remove old ", "KorLogicServer::onConnect",
                      addr.formatString().c_str());
    }
    auto* slave = detail::makeTracked<Slave>(kFile, __LINE__, "KorLogicServer::onConnect");
    slave->client = server ? server->connected_client(addr) : nullptr;
    slave->addr = addr;
    slaves.push_back(slave);
    publish_slaves();
    jLog::message("%s:[%s] new connect, remove old, total:%d", "KorLogicServer::onConnect",
                  addr.formatString().c_str(), slaves.count);
}

void KorLogicServer::onReConnect(const RTAddr& addr) {
    AtomicLock guard(&slaveLock);
    if (remove_slave(addr)) {
        publish_slaves();
        jLog::message("%s:[%s] re connect, remove old, total:%d", "KorLogicServer::onReConnect",
                      addr.formatString().c_str(), slaves.count);
    }
}

void KorLogicServer::onDisConnect(const RTAddr& addr) {
    AtomicLock guard(&slaveLock);
    if (remove_slave(addr)) {
        publish_slaves();
        jLog::message("%s:[%s] disconnect, remove it, total:%d", "KorLogicServer::onDisConnect",
                      addr.formatString().c_str(), slaves.count);
    }
}

void KorLogicServer::onConnectLost(const RTAddr& addr) {
    AtomicLock guard(&slaveLock);
    if (remove_slave(addr)) {
        publish_slaves();
        jLog::message("%s:[%s] connect lost, remove it, total:%d", "KorLogicServer::onConnectLost",
                      addr.formatString().c_str(), slaves.count);
    }
}

bool KorLogicServer::remove_slave(const RTAddr& addr) {
    const auto found = [&] {
        return std::find_if(slaves.begin(), slaves.end(),
                            [&](const Slave* slave) { return slave->addr == addr; });
    };
    if (found() == slaves.end())
        return false;
    emitSignal(slaveRemoveSignal, addr);
    Slave** place = found();
    departedSlaves.push_back(*place);
    *place = slaves[slaves.count - 1];
    --slaves.count;
    publish_slaves();
    return true;
}

void KorLogicServer::check_slave() {
    AtomicLock guard(&slaveLock);
    for (Slave* slave : slaves) {
        Client* client = slave->client;
        if (slave->isInit || !client || client->retired || !client->isInit())
            continue;
        const jVector<jString>& names = client->getCamNames();
        if (names.empty())
            continue;
        slave->cameras.count = 0;
        for (int i = 0; i < names.count; ++i)
            slave->cameras.push_back(names[i].empty() ? SlaveCamera{} : SlaveCamera{i, names[i]});
        slave->isInit = true;
        jLog::message("%s:[%s] new client init, total:%d", "KorLogicServer::check_slave",
                      slave->addr.formatString().c_str(), slaves.count);
        emitSignal(slaveInitSignal, client->getAddr());
    }
}

bool KorLogicServer::isSlaveExist(const jString& name) {
    return getSlave(name) != nullptr;
}

bool KorLogicServer::isSlaveExist(const RTAddr& addr) {
    return getSlave(addr) != nullptr;
}

int KorLogicServer::getNumSlaves() const {
    return listed().count;
}

KorLogicServer::Slave* KorLogicServer::getSlave(const jString& name) {
    const bool inFrame = in_frame();
    const jVector<Slave*>& all = listed();
    for (int i = 0; i < all.count; ++i) {
        const jString* known = inFrame ? frameNames[i].get() : name_of(*all[i]);
        if (known && *known == name)
            return all[i];
    }
    return nullptr;
}

KorLogicServer::Slave* KorLogicServer::getSlave(const RTAddr& addr) {
    for (Slave* slave : listed())
        if (slave->addr == addr)
            return slave;
    return nullptr;
}

KorLogicServer::Slave* KorLogicServer::getSlave(int index) {
    const jVector<Slave*>& all = listed();
    return index >= 0 && index < all.count ? all[index] : nullptr;
}

/// Null when the endpoint has no record of the slave any more.
const jString* KorLogicServer::name_of(const Slave& slave) {
    return slave.client && !slave.client->retired ? &slave.client->getName() : nullptr;
}

const jVector<KorLogicServer::Slave*>& KorLogicServer::present() const {
    static const jVector<Slave*> kNone;
    const jVector<Slave*>* list = published.load(std::memory_order_acquire);
    return list ? *list : kNone;
}

/// What the lookups of this thread show.
const jVector<KorLogicServer::Slave*>& KorLogicServer::listed() const {
    return in_frame() ? *frameSlaves : present();
}

bool KorLogicServer::in_frame() const {
    return frameThread.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

/// Makes the registry of this moment the present one. The list before stays for those who are reading it.
void KorLogicServer::publish_slaves() {
    if (std::ranges::equal(slaves, present()))
        return;
    auto* list = detail::makeTracked<jVector<Slave*>>(kFile, __LINE__, "KorLogicServer::publish_slaves");
    *list = slaves;
    if (const jVector<Slave*>* old = published.exchange(list, std::memory_order_acq_rel))
        departedLists.push_back(old);
}

/// Has the endpoint ask before it frees records that the registry points to.
void KorLogicServer::watch_records() {
    AtomicLock guard(server->getLock());
    server->letGoOfRetired.call = [this] { return let_go(); };
}

/// Frees what has left the registry, and takes away its pointers to records that the endpoint is about to
/// free. Does nothing and returns false during a frame, which may show them still.
bool KorLogicServer::let_go() {
    if (frameThread.load() != std::thread::id())
        return false;
    AtomicLock guard(&slaveLock);
    for (Slave* slave : slaves)
        if (slave->client && slave->client->retired)
            slave->client = nullptr;
    publish_slaves();
    for (const jVector<Slave*>* list : departedLists)
        detail::freeTracked(list, kFile, __LINE__, "KorLogicServer::let_go");
    departedLists.count = 0;
    for (Slave* slave : departedSlaves)
        detail::freeTracked(slave, kFile, __LINE__, "KorLogicServer::remove_slave");
    departedSlaves.count = 0;
    return true;
}

/// Empties the registry of slaves of an endpoint that is gone.
void KorLogicServer::forget_slaves() {
    AtomicLock guard(&slaveLock);
    for (int left = slaves.count; left > 0; --left) {
        const RTAddr addr = slaves[0]->addr;
        if (!remove_slave(addr) || slaves.empty())
            break;
    }
    publish_slaves();
}

} // namespace kor
