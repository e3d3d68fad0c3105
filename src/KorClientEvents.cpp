#include <kor/KorClient.h>

#include "src/BlockMemory.h"
#include "src/Introduction.h"
#include <kor/Record.h>
#include <support/AtomicLock.h>
#include <support/BufferWriter.h>
#include <support/jLog.h>
#include <support/RTNet.h>
#include <support/RTUser.h>

#include <utility>

namespace kor {

void KorClient::onConnect(const RTAddr& addr, bool established) {
    if (!established) {
        set_reconnect_flag(addr);
        return;
    }
    if (!is_master(addr)) {
        if (!std::exchange(warnedOfForeignPeer, true)) {
            jLog::warning("[%s] is not the master, ignored like others that connect here",
                          addr.formatString().c_str());
        }
        return;
    }
    AtomicLock guard(&lock);
    clearData();
    RTUser* master = net ? net->getUserByAddr(addr) : nullptr;
    if (!master) {
        set_reconnect_flag(addr);
        return;
    }
    master->setPacketHandler(this);
    send_introduction(*master);
    user = master; // last, so that nothing is sent ahead of the introduction
    connected = true;
    warnedOfFullList = false;
    emitSignal(connectSignal, addr);
}

void KorClient::onReConnect(const RTAddr& addr) {
    if (is_foreign(addr))
        return;
    AtomicLock guard(&lock);
    clearData();
    user = nullptr;
    connected = false;
    emitSignal(reconnectSignal, addr);
}

void KorClient::onDisConnect(const RTAddr& addr) {
    AtomicLock guard(&lock);
    if (!set_reconnect_flag(addr))
        return;
    clearData();
    connected = false;
    emitSignal(disconnectSignal, addr);
}

void KorClient::onConnectLost(const RTAddr& addr) {
    AtomicLock guard(&lock);
    if (!set_reconnect_flag(addr))
        return;
    clearData();
    connected = false;
    clear_udp_recv_buffer();
    emitSignal(connectLostSignal, addr);
}

void KorClient::send_introduction(RTUser& master) const {
    unsigned char buffer[kMaxIntroductionBytes];
    BufferWriter writer(buffer, sizeof(buffer));
    const int start = beginRecord(writer, detail::kIntroductionCode);
    writer.writeString(name.c_str());
    writer.writeInt(camNames.count);
    for (const jString& camera : camNames)
        writer.writeString(camera.c_str());
    endRecord(writer, start);
    master.sendAsyn(writer.getData(), writer.tell());
}

void KorClient::onPacket(RTUser*, Packet* packet) {
    if (!packet->data || packet->size == 0)
        return;
    AtomicLock guard(&lock);
    if (!admit(*packet))
        return;
    KorData block;
    block.data = packet->data;
    block.size = static_cast<std::int32_t>(packet->size);
    dataList.push_back(block);
    packet->owned = false;
}

/// False, and counted, when the blocks take as much as they may already.
bool KorClient::admit(const Packet& packet) {
    const std::uint64_t size = detail::memoryOf(packet.size);
    const auto full = [&] { return queuedBytes + cachedBytes + size > maxBlockBytes; };
    if (dataList.empty())
        queuedBytes = 0;
    if (full() && dataList.count != countWhenFull) {
        queuedBytes = detail::memoryOf(dataList);
        countWhenFull = dataList.count;
    }
    if (!full()) {
        queuedBytes += size;
        countWhenFull = -1;
        return true;
    }
    droppedBlocks = droppedBlocks + 1;
    if (!std::exchange(warnedOfFullList, true)) {
        jLog::warning("KorClient:%d blocks wait to be taken and are all the memory allows, further ones are "
                      "dropped",
                      dataList.count);
    }
    return false;
}

void KorClient::onSendOver(RTUser*, RS_SendPacketsQueue*) {}

} // namespace kor
