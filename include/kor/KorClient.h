#pragma once

#include <kit/jList.h>
#include <kit/jVector.h>
#include <kit/SignalSlot.h>
#include <kor/detail/SharedValue.h>
#include <kor/KorData.h>
#include <support/Export.h>
#include <support/jString.h>
#include <support/RTAddr.h>
#include <support/RTHandlers.h>

#include <cstddef>
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
/// Threads: the connection layer's thread runs the connection events and appends blocks; the application's
/// thread calls everything else, `sendAsyn` from any (but not while `release` runs). The lock of `getLock`
/// guards the list of blocks; hold it around `getData`, `setData` and `clearData`. The events run with it
/// held, and so do the slots of the signals: a slot must not take it, nor call `release`. `sendAsyn`,
/// `getUser`, `isConnected` and `wait` take nothing but what is innermost, so the first three may be called
/// with the lock held.
///
/// Lifetime: `init`, then `wait` from the render loop, then `release`. Only the master that was heard and
/// connected to is listened to; other peers that connect to the slave's port are ignored.
///
/// Limits: once 512 MiB or 65536 blocks wait to be taken, further ones are dropped and counted.
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
    /// False, with the reason in the log and nothing left open, when a port is outside 0 to 65535 or in use,
    /// or when the introduction is over `kMaxIntroductionBytes`. It may be called again after that. An
    /// endpoint that is open is released first.
    bool init(int broadcastRecvPort, int bindPort, const jString& newName,
              const jVector<jString>& newCamNames);

    /// While no master is known, listens for one for 0.1 s at most and starts to connect to the first.
    /// Otherwise waits, spinning, until a block is there or `timeout` seconds have passed; a timeout that is
    /// not above 0 does not wait. Does nothing unless the endpoint is open. Do not hold the lock.
    void wait(double timeout);

    /// Frees all blocks. Hold the lock.
    void clearData();

    /// Sends bytes to the master as one packet. The result of `RTUser::sendAsyn` (-1 when it refuses), 0
    /// while there is no connection.
    std::int64_t sendAsyn(const void* data, int size);

    /// Closes the connection, the socket and the connection layer, and frees all blocks. Names and signals
    /// stay. Do not hold the lock, and do not call it from a slot. Safe to call twice.
    void release();

    /// Blocks received and not yet taken, oldest first. Hold the lock.
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

    /// Blocks dropped because too many were waiting.
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

    /// Blocks received and not yet taken, oldest first. Hold the lock.
    virtual const jList<KorData>& getData() const;

    /// Replaces the blocks with copies of the entries, which share their bytes; those replaced are not freed.
    /// Hold the lock.
    virtual void setData(const jList<KorData>& entries);

    /// Seconds that the last `wait` with a known master waited: 0 when a block was there already.
    virtual double getWaitTime() const;

    /// True from an established connection to the next reconnect, disconnect or loss.
    virtual bool isConnected() const;

protected:
    void onPacket(RTUser* from, Packet* packet) override;
    void onSendOver(RTUser* from, RS_SendPacketsQueue* send) override;

private:
    friend struct detail::KorClientAccess; // for tests: the master's connection without a network

    bool wait_for_data(float timeout);
    void check_connect();
    int try_read_broadcast_frame(char* buffer, int size);
    void clear_udp_recv_buffer();
    void set_reconnect_flag();

    bool open_broadcast_socket(int port);
    bool open_connection_layer(int port);
    bool discovering() const;
    bool is_master(const RTAddr& addr) const;
    bool is_foreign(const RTAddr& addr) const;
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
    /// Emitted on the connection layer's thread, with the lock held and the master's address. Connect slots
    /// before `init`, or with the lock held.
    jVector<Function<void(const RTAddr&)>> connectSignal; ///< a connection to the master has been established
    jVector<Function<void(const RTAddr&)>> reconnectSignal;   ///< the connection is being made anew
    jVector<Function<void(const RTAddr&)>> disconnectSignal;  ///< the master has closed the connection
    jVector<Function<void(const RTAddr&)>> connectLostSignal; ///< the master has gone silent

private:
    mutable int discoveryLock = 0; // guards masterIP, masterPort and the broadcast socket; innermost
    jString announcer;             // who sent the datagram read last; under discoveryLock
    std::size_t queuedBytes = 0;   // at most this much in dataList: blocks taken out are not counted off
    int countWhenFull = -1;
    bool dropping = false;
    detail::SharedValue<std::uint64_t> droppedBlocks{0};
    bool warnedOfForeignPeer = false;
};

} // namespace kor
