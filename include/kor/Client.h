#pragma once

#include "../kit/jVector.h"
#include "../support/Export.h"
#include "../support/jString.h"
#include "../support/RTAddr.h"
#include "../support/RTHandlers.h"
#include "detail/ClientIdentity.h"
#include "detail/SharedValue.h"
#include "KorData.h"

#include <cstddef>
#include <cstdint>

namespace kor {

class BufferReader;
class RTUser;

namespace detail {
class ClientRecords;
}

/// Whether the endpoint counts a slave in when it asks for finished sends.
enum KOR_CLIENT_STATE : int {
    /// Left out of `KorServer::isClientsSendOver`; only an application sets it.
    KOR_CLIENT_STATE_INACTIVE = 0,
    /// Set at construction, by every received packet and by every finished send.
    KOR_CLIENT_STATE_ACTIVE = 1
};

/// The master's record of one connected slave, and the packet handler of that slave's connection.
///
/// `KorServer` makes one for each connection. It takes in the slave's introduction (its name and cameras),
/// queues every other packet for the master logic, sends to the slave and notes when the last send has
/// arrived. The counters and clock figures are kept for the master logic and for applications.
///
/// Threads: the connection layer's thread calls `onPacket` and `onSendOver`, the application's everything
/// else. The lock of `getLock` guards the received packets and the state of the send; take it around
/// `getData`, `setData` and `clearData`. Where the endpoint's lock is needed too, take that one first.
/// References from `getName` and `getCamNames` stay readable until the application's next `KorServer::wait`,
/// even when the slave introduces itself anew; so does the record itself after its slave has gone.
///
/// Limits: drops and counts packets over `setMaxQueuedBytes` and introductions over `kMaxIntroductionBytes`.
class KOR_API Client : public RTPacketHandler {
public:
    /// Longest introduction that is taken in.
    static constexpr int kMaxIntroductionBytes = 64 << 10;

    Client();

    /// @{
    /// A copy has the same connection and lock word by value, and shares the bytes of the received packets.
    Client(const Client& other);
    Client& operator=(const Client& other);
    /// @}

    /// Frees the lists, not the bytes of packets still queued (`clearData` does), and does not detach from
    /// the connection (`release` does). `KorServer` does both for its records.
    ~Client();

protected:
    void onPacket(RTUser* user, Packet* packet) override;
    void onSendOver(RTUser* user, RS_SendPacketsQueue* send) override;

public:
    /// Received packets that are no introduction, oldest first. Hold the lock.
    virtual const jVector<KorData>& getData() const;

    /// Replaces the received packets with copies of the entries, which share their bytes; those replaced are
    /// not freed. Hold the lock.
    virtual void setData(const jVector<KorData>& entries);

    /// The slave's connection, null while detached. Not owned.
    virtual RTUser* getUser() const;

    /// @{
    /// The slave's address; kept after the connection has gone.
    virtual const RTAddr& getAddr() const;
    virtual void setAddr(const RTAddr& newAddr);
    /// @}

    /// @{
    /// The slave's name, empty before its introduction.
    virtual const jString& getName() const;
    virtual void setName(const jString& newName);
    /// @}

    /// @{
    /// Names of the slave's cameras in the slave's order, empty before its introduction.
    virtual const jVector<jString>& getCamNames() const;
    virtual void setCamNames(const jVector<jString>& names);
    /// @}

    /// True once an introduction has been taken in.
    virtual bool isInit() const;

    /// @{
    /// True once the last send has been delivered completely.
    virtual bool isSendOver() const;
    virtual void setSendOver(bool over);
    /// @}

    /// @{
    /// Identifier of the send in flight; -1 when there is none, and after a send that was refused.
    virtual std::int64_t getPacketID() const;
    virtual void setPacketID(std::int64_t id);
    /// @}

    /// @{
    /// Whether `KorServer::isClientsSendOver` counts the slave in. Atomic.
    virtual KOR_CLIENT_STATE getState();
    virtual void setState(KOR_CLIENT_STATE newState);
    /// @}

    /// @{
    /// Seconds. The endpoint sets it to 0 once per master frame.
    virtual double getWaitTime() const;
    virtual void setWaitTime(double seconds);
    /// @}

    /// @{
    /// A count for the application, 0 at first; `addIdleTimes` raises it.
    virtual int getIdleTimes() const;
    virtual void setIdleTimes(int times);
    /// @}

    /// @{
    /// Seconds, for the application, 0 at first; `addTotalWaitTime` adds to it and
    /// `KorServer::printStatistics` shows it.
    virtual double getTotalWaitTime() const;
    virtual void setTotalWaitTime(double seconds);
    /// @}

    /// @{
    /// The slave's fractional frame position from its last report; -1 before the first. Whatever the slave
    /// sent, so it may be any double.
    virtual double getIDCheck() const;
    virtual void setIDCheck(double position);
    /// @}

    /// @{
    /// The slave's estimate of the master's clock from its last report, in seconds; 0 before the first.
    /// Whatever the slave sent, so it may be any double.
    virtual double getTimeCheck() const;
    virtual void setTimeCheck(double seconds);
    /// @}

    /// @{
    /// A value for the application, 0 at first; the library neither sets nor reads it.
    virtual double getTimeCheckResult() const;
    virtual void setTimeCheckResult(double result);
    /// @}

    /// @{
    /// A count for the application, 0 at first; `addIdleTimes` raises it and `KorServer::printStatistics`
    /// shows it.
    virtual int getTotalIdleTimes() const;
    virtual void setTotalIdleTimes(int times);
    /// @}

    /// @{
    /// A count for the application, 0 at first; `addDisconnectTimes` raises it and
    /// `KorServer::printStatistics` shows it.
    virtual int getDisconnectTimes() const;
    virtual void setDisconnectTimes(int times);
    /// @}

    /// @{
    /// A mark for the application, false at first; the library neither sets nor reads it.
    virtual bool isDebugSendOver() const;
    virtual void setDebugSendOver(bool over);
    /// @}

    /// The slave's connection, null while detached. Not owned.
    RTUser* getUser();

    /// The lock word, for `AtomicLock`.
    volatile int& getLock() { return lock; }

    /// Adds 1 to the idle times and to the total idle times.
    void addIdleTimes();
    /// Adds 1 to the disconnect times.
    void addDisconnectTimes();
    /// Adds seconds to the total wait time.
    void addTotalWaitTime(double seconds);

    /// Attaches the record to a connection (not null) and takes its address; detaches it from another one
    /// first. Does nothing when it is attached to that one already.
    void setUser(RTUser* newUser);

    /// Detaches the record from its connection. Off the connection layer's thread it returns only when no
    /// handler of this record runs any more, so do not hold the lock.
    void release();

    /// Queues bytes for the slave as one packet. False when there is no connection, no data, a size below 1,
    /// or when the connection refuses; `RTUser::sendAsyn` says when it does.
    bool send(const void* bytes, int size);

    /// Frees all received packets. Hold the lock.
    void clearData();

    /// @{
    /// Memory that received packets may take until somebody takes them, in bytes: their own, and 128 for each
    /// packet. 64 MiB by default. A packet that finds no room is dropped; those queued stay. Atomic.
    std::size_t getMaxQueuedBytes() const { return maxQueuedBytes; }
    void setMaxQueuedBytes(std::size_t bytes) { maxQueuedBytes = bytes; }
    /// @}

    /// Packets dropped because there was no room for them.
    std::uint64_t getDroppedPackets() const { return droppedPackets; }

    /// Introductions dropped because they were over `kMaxIntroductionBytes`.
    std::uint64_t getRefusedIntroductions() const { return refusedIntroductions; }

private:
    friend class KorLogicServer;
    friend class KorServer;
    friend class detail::ClientRecords;

    bool kor_init(BufferReader& reader);
    bool keep(Packet& packet);

    int lock = 0;
    jVector<KorData> data;
    detail::SharedValue<RTUser*> user{nullptr};
    RTAddr addr;
    detail::ClientIdentity identity; // name and camera names
    detail::SharedValue<bool> init{false};
    detail::SharedValue<bool> sendOver{false};
    detail::SharedValue<std::int64_t> packetID{-1};
    detail::SharedValue<KOR_CLIENT_STATE> state{KOR_CLIENT_STATE_ACTIVE};
    double waitTime = 0;
    int idleTimes = 0;
    double totalWaitTime = 0;
    double IDCheck = -1.0;
    double timeCheck = 0;
    double timeCheckResult = 0;
    int totalIdleTimes = 0;
    int disconnectTimes = 0;
    bool debugSendOver = false;

    detail::SharedValue<std::size_t> maxQueuedBytes{std::size_t{64} << 20};
    std::size_t queuedBytes = 0;
    bool dropping = false;
    detail::SharedValue<std::uint64_t> droppedPackets{0};
    detail::SharedValue<std::uint64_t> refusedIntroductions{0};
    detail::SharedValue<bool> retired{false}; // no longer listed, freed by the endpoint's next wait
};

} // namespace kor
