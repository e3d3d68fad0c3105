#include <kor/Client.h>

#include "src/Introduction.h"
#include "src/Tracked.h"
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

constexpr std::size_t kMostQueuedBytes = std::size_t{64} << 20;
constexpr int kMostQueuedPackets = 65536;
constexpr int kMostIntroductionBytes = 16 << 10;

/// False for another packet, or one that is too large to be an introduction. Of the names that the packet
/// claims, takes those that it holds.
bool readIntroduction(BufferReader& reader, jString& name, int& claimedCameras, jVector<jString>& cameras) {
    if (reader.remaining() > kMostIntroductionBytes || !openRecord(reader, detail::kIntroductionCode, 0)) {
        return false;
    }
    name = reader.readString();
    claimedCameras = reader.readInt();
    cameras.reserve(std::min(claimedCameras, reader.remaining()), false); // a name takes one byte at least
    for (int i = 0; i < claimedCameras && reader.remaining() > 0; ++i) {
        cameras.push_back(reader.readString());
    }
    return true;
}

} // namespace

Client::Client() = default;
Client::Client(const Client& other) = default;
Client& Client::operator=(const Client& other) = default;
Client::~Client() = default;

void Client::onPacket(RTUser* from, Packet* packet) {
    state = KOR_CLIENT_STATE_ACTIVE;
    BufferReader reader(packet->data, packet->data ? packet->size : 0);
    const RTAddr& peer = from ? from->getAddr() : addr;
    if (kor_init(reader)) {
        init = true;
        jLog::message("[%s] init, name:%s", peer.formatString().c_str(), identity.copyName().c_str());
        return;
    }
    if (!packet->data || packet->size == 0) {
        return;
    }
    if (!keep(*packet)) {
        jLog::warning("[%s] sends more than is taken in, packets are dropped", peer.formatString().c_str());
    }
}

void Client::onSendOver(RTUser*, RS_SendPacketsQueue* finished) {
    state = KOR_CLIENT_STATE_ACTIVE;
    AtomicLock guard(&lock);
    if (packetID != -1 && packetID == static_cast<std::int64_t>(finished->id)) {
        sendOver = true;
        packetID = -1;
    }
}

bool Client::kor_init(BufferReader& reader) {
    const int start = reader.position;
    jString slaveName;
    jVector<jString> cameras;
    int claimed = 0;
    if (!readIntroduction(reader, slaveName, claimed, cameras) || !identity.replace(slaveName, cameras)) {
        reader.seekSet(start);
        return false;
    }
    std::printf("CamNum:%d\n", claimed);
    for (const jString& camera : cameras) {
        std::printf("%s\n", camera.c_str());
    }
    return true;
}

/// False for the first packet of a run that finds the queue full.
bool Client::keep(Packet& packet) {
    AtomicLock guard(&lock);
    if (data.count >= kMostQueuedPackets || queuedBytes + packet.size > kMostQueuedBytes) {
        droppedPackets = droppedPackets + 1;
        return std::exchange(dropping, true);
    }
    KorData entry;
    entry.data = packet.data;
    entry.size = static_cast<std::int32_t>(packet.size);
    data.push_back(entry);
    queuedBytes += packet.size;
    packet.owned = false;
    dropping = false;
    return true;
}

void Client::setUser(RTUser* newUser) {
    RTUser* old = user;
    if (newUser == old) {
        return;
    }
    if (old) {
        old->setPacketHandler(nullptr);
    }
    user = newUser;
    if (newUser) {
        addr = newUser->getAddr();
        newUser->setPacketHandler(this);
    }
}

void Client::release() {
    if (RTUser* old = user.exchange(nullptr)) {
        old->setPacketHandler(nullptr);
    }
}

bool Client::send(const void* bytes, int size) {
    RTUser* connection = user;
    if (!connection) {
        return false;
    }
    // Held across the send: the notice of its delivery may come before the identifier is stored.
    AtomicLock guard(&lock);
    if (!bytes || size < 1) {
        return false;
    }
    const std::uint64_t id = connection->sendAsyn(bytes, size);
    packetID = static_cast<std::int64_t>(id);
    sendOver = false;
    return id != RTUser::kRefused;
}

void Client::clearData() {
    for (KorData& entry : data) {
        detail::freeBytes(entry.data, "src/Client", __LINE__, "Client::clearData");
    }
    data.count = 0;
    queuedBytes = 0;
}

void Client::setData(const jVector<KorData>& entries) {
    data = entries;
    queuedBytes = 0;
    for (const KorData& entry : data) {
        queuedBytes += static_cast<std::size_t>(std::max(entry.size, 0));
    }
}

} // namespace kor
