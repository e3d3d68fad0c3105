#include <kor/Client.h>

#include "src/Introduction.h"
#include "support/Tracked.h"
#include <kor/Record.h>
#include <support/AtomicLock.h>
#include <support/BufferReader.h>
#include <support/jLog.h>
#include <support/RTUser.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace kor {

namespace {

bool isIntroduction(const unsigned char* packet, std::uint32_t size) {
    BufferReader reader(packet, size);
    return openRecord(reader, detail::kIntroductionCode, 0);
}

/// Memory for a packet that waits: its bytes, its entry in the list and what the allocator adds.
std::size_t memoryFor(std::size_t bytes) {
    constexpr std::size_t kOverhead = 128;
    return bytes + kOverhead;
}

} // namespace

Client::Client() = default;
Client::Client(const Client& other) = default;
Client& Client::operator=(const Client& other) = default;
Client::~Client() = default;

void Client::onPacket(RTUser* from, Packet* packet) {
    state = KOR_CLIENT_STATE_ACTIVE;
    const RTAddr& peer = from ? from->getAddr() : addr;
    const std::uint32_t size = packet->data ? packet->size : 0;
    if (!isIntroduction(packet->data, size)) {
        if (size > 0 && !keep(*packet))
            jLog::warning("[%s] sends more than is taken in, packets are dropped",
                          peer.formatString().c_str());
        return;
    }
    BufferReader reader(packet->data, size);
    if (kor_init(reader)) {
        init = true;
        jLog::message("[%s] init, name:%s", peer.formatString().c_str(), identity.newestName().c_str());
        return;
    }
    refusedIntroductions = refusedIntroductions + 1;
    if (refusedIntroductions == 1)
        jLog::warning("[%s] introduction of %u bytes refused, at most %d are taken in",
                      peer.formatString().c_str(), size, kMaxIntroductionBytes);
}

void Client::onSendOver(RTUser*, RS_SendPacketsQueue* finished) {
    state = KOR_CLIENT_STATE_ACTIVE;
    AtomicLock guard(&lock);
    if (packetID != -1 && packetID == static_cast<std::int64_t>(finished->id)) {
        sendOver = true;
        packetID = -1;
    }
}

/// Takes an introduction of at most `kMaxIntroductionBytes`. Of the names that it claims, takes those that
/// the packet holds.
bool Client::kor_init(BufferReader& reader) {
    if (reader.remaining() > kMaxIntroductionBytes || !openRecord(reader, detail::kIntroductionCode, 0))
        return false;
    const jString slaveName = reader.readString();
    const int claimed = reader.readInt();
    jVector<jString> cameras;
    cameras.reserve(std::min(claimed, reader.remaining()), false); // a name takes one byte at least
    for (int i = 0; i < claimed && reader.remaining() > 0; ++i)
        cameras.push_back(reader.readString());
    identity.replace(slaveName, cameras);
    std::printf("CamNum:%d\n", claimed);
    for (const jString& camera : cameras)
        std::printf("%s\n", camera.c_str());
    return true;
}

/// False for the first packet of a run that finds no room.
bool Client::keep(Packet& packet) {
    AtomicLock guard(&lock);
    if (queuedBytes + memoryFor(packet.size) > maxQueuedBytes) {
        droppedPackets = droppedPackets + 1;
        return std::exchange(dropping, true);
    }
    KorData entry;
    entry.data = packet.data;
    entry.size = static_cast<std::int32_t>(packet.size);
    data.push_back(entry);
    queuedBytes += memoryFor(packet.size);
    packet.owned = false;
    dropping = false;
    return true;
}

void Client::setUser(RTUser* newUser) {
    RTUser* old = user;
    if (newUser == old)
        return;
    if (old)
        old->setPacketHandler(nullptr);
    user = newUser;
    if (newUser) {
        addr = newUser->getAddr();
        newUser->setPacketHandler(this);
    }
}

void Client::release() {
    if (RTUser* old = user.exchange(nullptr))
        old->setPacketHandler(nullptr);
}

bool Client::send(const void* bytes, int size) {
    RTUser* connection = user;
    if (!connection)
        return false;
    // Held across the send: the notice of its delivery may come before the identifier is stored.
    AtomicLock guard(&lock);
    if (!bytes || size < 1)
        return false;
    const std::uint64_t id = connection->sendAsyn(bytes, size);
    packetID = static_cast<std::int64_t>(id);
    sendOver = false;
    return id != RTUser::kRefused;
}

void Client::clearData() {
    for (KorData& entry : data)
        detail::freeBytes(entry.data, "src/Client", __LINE__, "Client::clearData");
    data.count = 0;
    queuedBytes = 0;
}

void Client::setData(const jVector<KorData>& entries) {
    data = entries;
    queuedBytes = 0;
    for (const KorData& entry : data)
        queuedBytes += memoryFor(static_cast<std::size_t>(std::max(entry.size, 0)));
}

} // namespace kor
