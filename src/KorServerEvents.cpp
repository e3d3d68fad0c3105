#include <kor/KorServer.h>

#include "src/ClientRecords.h"
#include "support/Tracked.h"
#include <support/AtomicLock.h>
#include <support/jLog.h>
#include <support/RTNet.h>

#include <memory>

namespace kor {

void KorServer::onConnect(const RTAddr& addr, bool established) {
    if (established) {
        AtomicLock guard(&lock);
        if (remove_client_by_addr(addr)) {
            jLog::message("%s:[%s] new connect, remove old ", "KorServer::onConnect",
                          addr.formatString().c_str());
        }
        Client* client = ownRecords().make();
        client->setAddr(addr);
        if (RTUser* user = net ? net->getUserByAddr(addr) : nullptr)
            client->setUser(user);
        clients.push_back(client);
    }
    if (KorServerHandler* receiver = handler)
        receiver->onConnect(addr, established);
    if (established)
        records->settle();
}

void KorServer::onReConnect(const RTAddr& addr) {
    AtomicLock guard(&lock);
    if (remove_client_by_addr(addr)) {
        jLog::message("%s:[%s] re connect, remove old ", "KorServer::onReConnect",
                      addr.formatString().c_str());
    }
    if (KorServerHandler* receiver = handler)
        receiver->onReConnect(addr);
}

void KorServer::onDisConnect(const RTAddr& addr) {
    AtomicLock guard(&lock);
    if (remove_client_by_addr(addr)) {
        jLog::message("%s:[%s] disconnect, remove it ", "KorServer::onDisConnect",
                      addr.formatString().c_str());
    }
    if (KorServerHandler* receiver = handler)
        receiver->onDisConnect(addr);
}

void KorServer::onConnectLost(const RTAddr& addr) {
    AtomicLock guard(&lock);
    if (remove_client_by_addr(addr)) {
        jLog::message("%s:[%s] connect lost, remove it ", "KorServer::onConnectLost",
                      addr.formatString().c_str());
    } else {
        jLog::error("%s:[%s] remove failed when connect lost", "KorServer::onConnectLost",
                    addr.formatString().c_str());
    }
    if (KorServerHandler* receiver = handler)
        receiver->onConnectLost(addr);
}

bool KorServer::remove_client_by_addr(const RTAddr& addr) {
    for (int i = 0; i < clients.count; ++i) {
        Client* client = clients[i];
        if (client->getAddr() == addr) {
            clients[i] = clients[clients.count - 1];
            --clients.count;
            ownRecords().retire(client);
            return true;
        }
    }
    return false;
}

void KorServer::forget_clients() {
    for (Client* client : clients)
        ownRecords().retire(client);
    clients.count = 0;
}

detail::ClientRecords& KorServer::ownRecords() {
    if (!records) {
        using Allocator =
            detail::TrackedAllocator<detail::ClientRecords, "src/KorServerEvents", "KorServer::ownRecords">;
        records = std::allocate_shared<detail::ClientRecords>(Allocator());
    }
    return *records;
}

} // namespace kor
