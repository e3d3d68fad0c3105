#pragma once

#include "Export.h"
#include "RTAddr.h"

#include <cstdint>

namespace kor {

class RTUser;

/// One received packet. It belongs to the connection layer during the callback.
///
/// A handler that keeps the bytes sets `owned` to false and later gives them back itself: `memRemoveInfo`,
/// then `jAllocator::get()->localFree`.
struct Packet {
    std::uint32_t size = 0;        ///< number of bytes at `data`
    unsigned char* data = nullptr; ///< the bytes, from `jAllocator`, registered with `memAddInfo`
    bool owned = true;             ///< true: the connection layer frees the bytes after the callback
};

/// One finished send: the peer's layer has handed the packet to its application.
struct RS_SendPacketsQueue {
    std::uint64_t id = 0; ///< what `RTUser::sendAsyn` returned for it
};

/// Receiver of connection events.
///
/// Called on the connection layer's thread, one call at a time. Every `RTNet::connect` ends in exactly one
/// `onConnect`; after `onReConnect` an `onConnect` always follows.
class KOR_API RTUserHandler {
public:
    /// @{
    /// Without state of its own: what a derived class can do, this base does not hinder.
    RTUserHandler() = default;
    RTUserHandler(const RTUserHandler&) = default;
    RTUserHandler(RTUserHandler&&) = default;
    RTUserHandler& operator=(const RTUserHandler&) = default;
    RTUserHandler& operator=(RTUserHandler&&) = default;
    /// @}

    /// `established` true: a connection to that peer stands, whoever began it, and `RTNet::getUserByAddr`
    /// finds it for as long as the call runs. False: an attempt of this side has failed.
    virtual void onConnect(const RTAddr& addr, bool established) = 0;

    /// The old connection to that peer is gone and a new one is being made: on the side that connected,
    /// because the peer no longer knows the connection (it was restarted, or gave us up); on the accepting
    /// side, because the peer connects anew from the same address. The old `RTUser` takes no more sends.
    virtual void onReConnect(const RTAddr& addr) = 0;

    /// The peer closed the connection.
    virtual void onDisConnect(const RTAddr& addr) = 0;

    /// Nothing has been heard from the peer for the timeout, or (on the accepting side) it no longer knows
    /// the connection.
    virtual void onConnectLost(const RTAddr& addr) = 0;

protected:
    ~RTUserHandler() = default;
};

/// Receiver of one connection's traffic. Called on the connection layer's thread, one call at a time.
class KOR_API RTPacketHandler {
public:
    /// @{
    /// Without state of its own: what a derived class can do, this base does not hinder.
    RTPacketHandler() = default;
    RTPacketHandler(const RTPacketHandler&) = default;
    RTPacketHandler(RTPacketHandler&&) = default;
    RTPacketHandler& operator=(const RTPacketHandler&) = default;
    RTPacketHandler& operator=(RTPacketHandler&&) = default;
    /// @}

    /// A packet has arrived, whole, once and in the order sent.
    virtual void onPacket(RTUser* user, Packet* packet) = 0;

    /// The peer's application has consumed a packet of ours. Exactly one call per delivered packet.
    virtual void onSendOver(RTUser* user, RS_SendPacketsQueue* send) = 0;

protected:
    ~RTPacketHandler() = default;
};

} // namespace kor
