#include <kor/KorLogicServer.h>

#include "src/Tracked.h"
#include <support/AtomicLock.h>
#include <support/jLog.h>

#include <algorithm>
#include <optional>

namespace kor {

namespace {

const char* const kFile = "src/KorLogicServer";

} // namespace

void KorLogicServer::onConnect(const RTAddr& addr, bool established) {
    if (!established) {
        return;
    }
    // With the endpoint's lock its record cannot go between the lookup and the entry in the registry.
    std::optional<AtomicLock> endpoint;
    if (server) {
        endpoint.emplace(server->getLock());
    }
    AtomicLock guard(&slaveLock);
    if (remove_slave(addr)) {
        jLog::message("%s:[%s] re connect, remove old ", "KorLogicServer::onConnect",
                      addr.formatString().c_str());
    }
    auto* slave = detail::makeTracked<Slave>(kFile, __LINE__, "KorLogicServer::onConnect");
    slave->client = server ? server->getClientByAddr(addr) : nullptr;
    if (slave->client) {
        slave->client->held = true;
    }
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
    if (found() == slaves.end()) {
        return false;
    }
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
        if (slave->isInit || !client || client->retired || !client->isInit()) {
            continue;
        }
        const jVector<jString>& names = client->getCamNames();
        if (names.empty()) {
            continue;
        }
        slave->cameras.reserve(names.count, false);
        slave->cameras.count = names.count;
        for (int i = 0; i < names.count; ++i) {
            if (!names[i].empty()) {
                slave->cameras[i].index = i;
                slave->cameras[i].name = names[i];
            }
        }
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
    for (Slave* slave : listed()) {
        if (slave->client && !slave->client->retired && slave->client->getName() == name) {
            return slave;
        }
    }
    return nullptr;
}

KorLogicServer::Slave* KorLogicServer::getSlave(const RTAddr& addr) {
    for (Slave* slave : listed()) {
        if (slave->addr == addr) {
            return slave;
        }
    }
    return nullptr;
}

KorLogicServer::Slave* KorLogicServer::getSlave(int index) {
    const jVector<Slave*>& all = listed();
    return index >= 0 && index < all.count ? all[index] : nullptr;
}

const jVector<KorLogicServer::Slave*>& KorLogicServer::listed() const {
    static const jVector<Slave*> kNone;
    const jVector<Slave*>* list = published.load(std::memory_order_acquire);
    return list ? *list : kNone;
}

/// Makes the registry of this moment what the lookups see. The list before stays for those who are reading
/// it.
void KorLogicServer::publish_slaves() {
    if (std::ranges::equal(slaves, listed())) {
        return;
    }
    auto* list = detail::makeTracked<jVector<Slave*>>(kFile, __LINE__, "KorLogicServer::publish_slaves");
    *list = slaves;
    if (const jVector<Slave*>* old = published.exchange(list, std::memory_order_acq_rel)) {
        departedLists.push_back(old);
    }
}

/// Frees what has left the registry. Only for the thread of the lookups, which thereby gives up its pointers.
void KorLogicServer::free_departed() {
    AtomicLock guard(&slaveLock);
    for (Slave* slave : slaves) {
        if (slave->client && slave->client->retired) {
            slave->client->held = false;
            slave->client = nullptr;
        }
    }
    publish_slaves();
    for (const jVector<Slave*>* list : departedLists) {
        detail::freeTracked(list, kFile, __LINE__, "KorLogicServer::free_departed");
    }
    departedLists.count = 0;
    for (Slave* slave : departedSlaves) {
        const auto sameClient = [&](const Slave* other) { return other->client == slave->client; };
        if (slave->client && std::none_of(slaves.begin(), slaves.end(), sameClient)) {
            slave->client->held = false;
        }
        detail::freeTracked(slave, kFile, __LINE__, "KorLogicServer::remove_slave");
    }
    departedSlaves.count = 0;
}

/// Empties the registry of slaves of an endpoint that is gone.
void KorLogicServer::forget_slaves() {
    AtomicLock guard(&slaveLock);
    for (int left = slaves.count; left > 0; --left) {
        const RTAddr addr = slaves[0]->addr;
        if (!remove_slave(addr) || slaves.empty()) {
            break;
        }
    }
    publish_slaves();
}

} // namespace kor
