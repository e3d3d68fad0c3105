#include "src/ClientRecords.h"

#include "src/Tracked.h"
#include <support/AtomicLock.h>

#include <algorithm>

namespace kor::detail {

ClientRecords::~ClientRecords() {
    freeAll(listed_);
    freeAll(retired_);
    freeAll(leaving_);
}

Client* ClientRecords::make() {
    Client* client = makeTracked<Client>("src/KorServer", __LINE__, "KorServer::onConnect");
    listed_.push_back(client);
    return client;
}

void ClientRecords::retire(Client* client) {
    Client** found = std::find(listed_.begin(), listed_.end(), client);
    if (found == listed_.end()) {
        return;
    }
    *found = listed_[listed_.count - 1];
    --listed_.count;
    retired_.push_back(client);

    client->release();
    client->retired = true;
    AtomicLock guard(&client->getLock());
    client->clearData();
}

void ClientRecords::collect() {
    jVector<Client*> held;
    for (int i = 0; i < leaving_.count; ++i) {
        if (leaving_[i]->held) {
            held.push_back(leaving_[i]);
            leaving_[i--] = leaving_[--leaving_.count];
        }
    }
    freeAll(leaving_);
    leaving_.push_back(held);
    leaving_.push_back(retired_);
    retired_.count = 0;
}

void ClientRecords::freeAll(jVector<Client*>& clients) {
    for (Client* client : clients) {
        client->clearData();
        freeTracked(client, "src/KorServer", __LINE__, "KorServer::remove_client_by_addr");
    }
    clients.count = 0;
}

} // namespace kor::detail
