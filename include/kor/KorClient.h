#pragma once

#include "../kit/jList.h"
#include "../kit/jVector.h"
#include "../kit/SignalSlot.h"
#include "../support/Export.h"
#include "../support/jString.h"
#include "../support/RTAddr.h"
#include "../support/RTHandlers.h"
#include "detail/SharedValue.h"
#include "KorData.h"

#include <cstdint>

namespace kor {

class RTNet;
class RTUser;
class SocketUDP;

namespace detail {
struct KorClientAccess;
}

/// A slave's network endpoint: finds the master by its broadcast, connects, introduces the slave, and
/// collects the master's packets as frame-data blocks.
///
/// Lifetime: `init`, then `wait` from the render loop, then `release`.
///
/// Threads: the connection layer's thread appends blocks and runs the connection events with the lock of
/// `getLock` held, and so the slots of the signals: a slot must not take the lock, nor call `release`. All
/// else belongs to the application's thread; only `sendAsyn` is for any, but not while `release` runs.
/// `sendAsyn`, `getUser` and `isConnected` may be called with the lock held.
///
/// Whom it listens to: a connection counts as the master's only when its address is the one that the last
/// broadcast led to; others that connect to the slave's port are ignored. While a master is known, so are
/// events of other addresses. While none is, a reconnect, disconnect or loss of any address resets the slave
/// and is passed on.
///
/// Limits: blocks may take 512 MiB, those that wait here and those that a `KorLogicClient` has cached
/// together. A packet that would exceed that is dropped, counted, and logged once for each connection.
class KOR_API KorClient : public RTUserHandler, public RTPacketHandler {
public:
    /// Longest introduction, in bytes: 10, and one more than its length for the slave's name and for each
    /// camera's.
    static constexpr int kMaxIntroductionBytes = 256;

    /// The process-wide endpoint, made on the first call. Not to be raced for with another thread.
    static KorClient* get();

    /// Releases and destroys the process-wide endpoint; the next `get` makes a new one.
    static void del();

    KorClient();

    /// @{
    /// Copies share the socket, the connection layer, the connection and the bytes of the blocks: release
    /// only one of them, and clear the lists of the others without freeing.
    KorClient(const KorClient& other);
    KorClient& operator=(const KorClient& other);
    /// @}

    /// Does not release: call `release` first.
    ~KorClient();

    /// Opens the endpoint: listens for the master's broadcast on `broadcastRecvPort` and connects from
    /// `bindPort` (0: any free one). The names go into the introduction, as UTF-8.
    ///
    /// False, with nothing left open, when a port is in use, when `broadcastRecvPort` is outside 0 to 65535,
    /// when the introduction is over `kMaxIntroductionBytes`, or when the system gives no socket; the log
    /// tells why, but not for the last. May be called again after that. Of `bindPort` the low 16 bits count.
    /// An endpoint that is open is released first.
    bool init(int broadcastRecvPort, int bindPort, const jString& newName,
              const jVector<jString>& newCamNames);

    /// Without the lock held. Does nothing unless the endpoint is open.
    ///
    /// While no master is known, listens for one for 0.1 s at most and starts to connect to the first.
    /// Otherwise waits, spinning, until a block is there or `timeout` seconds have passed; a timeout that is
    /// not above 0 does not wait.
    void wait(double timeout);

    /// With the lock held: frees all blocks.
    void clearData();

    /// Sends bytes to the master as one packet. The result of `RTUser::sendAsyn` (-1 when it refuses), 0
    /// while there is no connection.
    std::int64_t sendAsyn(const void* data, int size);

    /// Without the lock held, and not from a slot: closes the connection, the socket and the connection
    /// layer, and frees all blocks. Names and signals stay. Safe to call twice.
    void release();

    /// With the lock held: the blocks received and not yet taken, oldest first.
    jList<KorData>& getData() { return dataList; }

    /// @{
    /// The connection to the master, null while there is none. It stays readable for long after it has ended.
    RTUser* getUser() { return user; }
    const RTUser* getUser() const { return user; }
    /// @}

    /// @{
    /// The connection layer, null unless open.
    RTNet* getNet() { return net; }
    const RTNet* getNet() const { return net; }
    /// @}

    /// The lock word, for `AtomicLock`.
    volatile int* getLock() { return &lock; }

    /// @{
    /// Most bytes of memory that blocks may take, received and cached together, with what is kept for each
    /// (below 200 bytes). 512 MiB unless set; it may be set at any time, and drops nothing by itself.
    std::uint64_t getMaxBlockBytes() const { return maxBlockBytes; }
    void setMaxBlockBytes(std::uint64_t bytes) { maxBlockBytes = bytes; }
    /// @}

    /// Packets dropped because the blocks took as much as they may.
    std::uint64_t getDroppedBlocks() const { return droppedBlocks; }

protected:
    void onConnect(const RTAddr& addr, bool established) override;
    void onReConnect(const RTAddr& addr) override;
    void onDisConnect(const RTAddr& addr) override;
    void onConnectLost(const RTAddr& addr) override;

public:
    /// The name given to `init`, empty before; unchanged until the next `init`.
    virtual const jString& getName() const;
    /// The camera names given to `init`, in its order, empty before; unchanged until the next `init`.
    virtual const jVector<jString>& getCamNames() const;

    /// With the lock held: the blocks received and not yet taken, oldest first.
    virtual const jList<KorData>& getData() const;

    /// With the lock held: replaces the blocks with copies of the entries, which share their bytes; those
    /// replaced are not freed.
    virtual void setData(const jList<KorData>& entries);

    /// Seconds that the last `wait` with a known master waited: 0 when a block was there already.
    virtual double getWaitTime() const;

    /// True from an established connection to the next reconnect, disconnect or loss.
    virtual bool isConnected() const;

protected:
    void onPacket(RTUser* from, Packet* packet) override;
    void onSendOver(RTUser* from, RS_SendPacketsQueue* send) override;

private:
    friend class KorLogicClient;           // tells what its cache holds
    friend struct detail::KorClientAccess; // for tests: the master's connection without a network

    bool wait_for_data(float timeout);
    void check_connect();
    int try_read_broadcast_frame(char* buffer, int size);
    void clear_udp_recv_buffer();
    bool set_reconnect_flag(const RTAddr& addr);

    bool open_broadcast_socket(int port);
    bool open_connection_layer(int port);
    bool discovering() const;
    bool is_master(const RTAddr& addr) const;
    bool is_foreign(const RTAddr& addr) const;
    bool another_is_master(const RTAddr& addr) const;
    void listen();
    void start_connection(int dataPort);
    void send_introduction(RTUser& master) const;
    bool admit(const Packet& packet);
    void drop_queued_datagrams();
    void free_socket();
    void free_net();

    SocketUDP* broadcastSocket = nullptr;
    RTNet* net = nullptr;
    detail::SharedValue<RTUser*> user{nullptr};
    jString masterIP;
    unsigned short masterPort = 65535;
    int lock = 0;
    jString name;
    jVector<jString> camNames;
    jList<KorData> dataList;
    double waitTime = 0;
    detail::SharedValue<bool> connected{false};

public:
    /// @{
    /// Emitted on the connection layer's thread, with the lock held and the peer's address. Connect slots
    /// before `init`, or with the lock held.

    /// A connection to the master has been established.
    jVector<Function<void(const RTAddr&)>> connectSignal;
    /// The connection is being made anew.
    jVector<Function<void(const RTAddr&)>> reconnectSignal;
    /// The master has closed the connection.
    jVector<Function<void(const RTAddr&)>> disconnectSignal;
    /// The master has gone silent.
    jVector<Function<void(const RTAddr&)>> connectLostSignal;
    /// @}

private:
    mutable int discoveryLock = 0; // guards masterIP, masterPort and the broadcast socket; innermost
    jString announcer;             // who sent the datagram read last; under discoveryLock
    std::uint64_t queuedBytes = 0; // at most this much in dataList: blocks taken out are not counted off
    std::uint64_t cachedBytes = 0; // of a KorLogicClient, under the lock like queuedBytes
    int countWhenFull = -1; // blocks when queuedBytes was last counted anew, -1 once one has come since
    bool warnedOfFullList = false;
    detail::SharedValue<std::uint64_t> maxBlockBytes{512u << 20};
    detail::SharedValue<std::uint64_t> droppedBlocks{0};
    bool warnedOfForeignPeer = false;
};

} // namespace kor
