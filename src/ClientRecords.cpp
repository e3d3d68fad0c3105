#include "src/ClientRecords.h"

#include "support/Tracked.h"
#include <support/AtomicLock.h>

#include <algorithm>

namespace kor::detail {

namespace {

void freeRecord(Client* client) {
    client->clearData();
    freeTracked(client, "src/KorServer", __LINE__, "KorServer::remove_client_by_addr");
}

} // namespace

ClientRecords::~ClientRecords() {
    std::for_each(listed_.begin(), listed_.end(), freeRecord);
    std::for_each(retired_.begin(), retired_.end(), freeRecord);
}

Client* ClientRecords::make() {
    Client* client = makeTracked<Client>("src/KorServer", __LINE__, "KorServer::onConnect");
    listed_.push_back(client);
    fresh_ = client;
    return client;
}

void ClientRecords::retire(Client* client) {
    Client** found = std::find(listed_.begin(), listed_.end(), client);
    if (found == listed_.end())
        return;
    *found = listed_[listed_.count - 1];
    --listed_.count;
    retired_.push_back(client);

    client->release();
    client->retired = true;
    AtomicLock guard(&client->getLock());
    client->clearData();
}

void ClientRecords::collect() {
    Client* const fresh = fresh_;
    int kept = 0;
    for (Client* client : retired_)
        if (client == fresh)
            retired_[kept++] = client;
        else
            freeRecord(client);
    retired_.count = kept;
}

} // namespace kor::detail
