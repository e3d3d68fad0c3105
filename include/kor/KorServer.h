#pragma once

#include "../kit/jVector.h"
#include "../kit/SignalSlot.h"
#include "../support/Export.h"
#include "../support/jString.h"
#include "../support/RTAddr.h"
#include "../support/RTHandlers.h"
#include "Client.h"
#include "detail/SharedValue.h"

#include <functional>
#include <memory>

namespace kor {

class RTNet;
class SocketUDP;

/// Receiver of the master endpoint's connection events, called on the connection layer's thread.
///
/// `onConnect` is called with no lock held, the other three with the endpoint's: they must not call anything
/// that takes it, such as `KorServer::send`.
class KOR_API KorServerHandler {
public:
    /// @{
    /// Without state of its own: what a derived class can do, this base does not hinder.
    KorServerHandler() = default;
    KorServerHandler(const KorServerHandler&) = default;
    KorServerHandler(KorServerHandler&&) = default;
    KorServerHandler& operator=(const KorServerHandler&) = default;
    KorServerHandler& operator=(KorServerHandler&&) = default;
    /// @}

    /// A slave has connected, and its record stands; `established` false when an attempt has failed.
    virtual void onConnect(const RTAddr& addr, bool established) = 0;

    /// A slave connects anew; its record has been removed, and `onConnect` follows.
    virtual void onReConnect(const RTAddr& addr) = 0;

    /// A slave has closed its connection; its record has been removed.
    virtual void onDisConnect(const RTAddr& addr) = 0;

    /// A slave has gone silent; its record has been removed.
    virtual void onConnectLost(const RTAddr& addr) = 0;

protected:
    ~KorServerHandler() = default;
};

/// The master's network endpoint: announces the master by UDP broadcast, accepts slaves, keeps one `Client`
/// record for each, and sends to all of them.
///
/// Threads: the connection events run on the connection layer's thread, everything else on the application's.
/// The lock of `getLock` guards the list of records. `wait`, `send` and the events take it themselves; the
/// lookups, `removeClientByAddr`, `isClientsSendOver`, `clearClientsSendOver` and `printStatistics` do not,
/// so hold it around them while slaves may come and go. It is taken before a record's lock, never after.
///
/// Lifetime: `init`, then `wait` once per frame, then `release`. A record that has left the list stays
/// readable for the application until its next `wait`. The records belong to the endpoint and to its copies
/// together and are freed with the last of these, those that have left the list by `wait` of the endpoint,
/// even while a copy lists them.
class KOR_API KorServer : public RTUserHandler {
public:
    /// The process-wide endpoint, made on the first call. Not to be raced for with another thread.
    static KorServer* get();

    /// Releases and destroys the process-wide endpoint; the next `get` makes a new one.
    static void del();

    KorServer();

    /// @{
    /// Copies share the connection layer, the sockets, the records and the handler: release only one of them.
    KorServer(const KorServer& other);
    KorServer& operator=(const KorServer& other);
    /// @}

    /// Does not release: call `release` first.
    ~KorServer();

    /// Opens the endpoint. For each i one announcement socket, bound to `bindPorts[i]`, sends to
    /// `broadcastIP` at `sendPorts[i]` that slaves may connect to `dataPorts[i]`.
    ///
    /// False, with an error in the log and nothing changed, when the lists of bind and data ports differ in
    /// length, there are fewer send ports than bind ports, or the IP does not contain ".255". An announcement
    /// socket that cannot be opened is logged and ends the making of further ones; a data port that cannot be
    /// opened is logged by the connection layer. Both leave the result true. Port 0 takes any free one. An
    /// endpoint that is open is released first, and the records of its slaves go.
    bool init(const jString& broadcastIP, jVector<unsigned short>& sendPorts,
              jVector<unsigned short>& bindPorts, jVector<unsigned short>& dataPorts);

    /// The same with one port of each kind.
    bool init(const jString& broadcastIP, unsigned short sendPort, unsigned short bindPort,
              unsigned short dataPort);

    /// Closes the sockets and every connection. The records stay listed, without a connection. Do not hold
    /// the lock. Safe to call twice.
    void release();

    /// The endpoint's share of a master frame: announces the master on every announcement socket, sets the
    /// wait time of every record to 0 and frees what slaves that have gone left behind. Returns 0 at once,
    /// whatever `timeout`.
    int wait(double timeout);

    /// Sends the bytes as one packet to every slave. False when there is none; true otherwise, with an error
    /// in the log for each slave that could not be sent to.
    bool send(const void* data, int size);

    /// Number of records, one for each connected slave.
    int getClientCount() const;

    /// Null for an index outside 0 to count - 1. A removal moves the last record into the gap.
    Client* getClientByIndex(int index) const;

    /// The record whose connection has that address, or null.
    Client* getClientByAddr(const RTAddr& addr) const;

    /// Removes and detaches the record of that address; the connection itself stays. False when there is
    /// none. The handler is not told.
    bool removeClientByAddr(const RTAddr& addr);

    /// True when the last send to every slave has been delivered; records that are
    /// `KOR_CLIENT_STATE_INACTIVE` do not count.
    bool isClientsSendOver() const;
    /// Marks the last send to every slave as not delivered.
    void clearClientsSendOver();

    /// Writes the figures of every slave's connection to the log, as messages.
    void printStatistics() const;

    /// The lock word, for `AtomicLock`.
    volatile int* getLock() { return &lock; }

    /// @{
    /// The connection layer, null unless open.
    RTNet* getNet() { return net; }
    const RTNet* getNet() const { return net; }
    /// @}

protected:
    void onConnect(const RTAddr& addr, bool established) override;
    void onReConnect(const RTAddr& addr) override;
    void onDisConnect(const RTAddr& addr) override;
    void onConnectLost(const RTAddr& addr) override;

public:
    /// The broadcast IP given to `init`; empty before.
    virtual const jString& getBroadcastIP() const;

    /// Always 0.
    virtual int getBroadcastPort() const;

    /// The data ports given to `init`; one given as 0 is the port that it became.
    virtual jVector<unsigned short> getPorts() const;

    /// The frame number in every announcement: always 0.
    virtual int getFrameID() const;

    /// Always 0.
    virtual double getWaitTime() const;

    /// The receiver set by `setHandler`, null for none. Not owned.
    virtual KorServerHandler* getHandler() const;

    /// Receiver of connection events, not owned; null for none. It must stay until `release`. Set it before
    /// `init`, so that it misses no slave.
    virtual void setHandler(KorServerHandler* newHandler);

private:
    friend class KorLogicServer;

    void broadcast_connect();
    bool remove_client_by_addr(const RTAddr& addr);
    bool open_announcement(const jString& ip, unsigned short sendPort, unsigned short bindPort);
    void forget_clients();
    Client* connected_client(const RTAddr& addr) const;
    detail::ClientRecords& ownRecords();

    RTNet* net = nullptr;
    jVector<SocketUDP*> announcementSockets;
    jVector<Client*> clients;
    int lock = 0;
    jString broadcastIP;
    int broadcastPort = 0;
    jVector<unsigned short> ports;
    int frameID = 0;
    double waitTime = 0;
    detail::SharedValue<KorServerHandler*> handler{nullptr};
    jVector<Function<void(Client*&&)>> clientIdleSignal;

    // Owns the records; made with the first one.
    std::shared_ptr<detail::ClientRecords> records;

    // Takes away a registry's pointers to records that have gone; false when it cannot for the moment. Called
    // with the lock held. A copy has none: the registry knows the records of this endpoint only.
    struct RegistryHook {
        RegistryHook() = default;
        RegistryHook(const RegistryHook&) {}
        RegistryHook& operator=(const RegistryHook&) { return *this; }
        std::function<bool()> call;
    };
    RegistryHook letGoOfRetired;
};

} // namespace kor
