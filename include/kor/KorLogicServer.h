#pragma once

#include "../kit/jVector.h"
#include "../kit/SignalSlot.h"
#include "../support/Export.h"
#include "../support/jString.h"
#include "../support/RTAddr.h"
#include "KorServer.h"

#include <atomic>
#include <thread>

namespace kor {

/// The master's logic: keeps a registry of slaves and their cameras and paces the master's frames. A master
/// application derives from it and provides `update`.
///
///     class Wall : public kor::KorLogicServer {
///         void update() override { ... server->send(buffer, size); }
///     };
///     Wall wall;
///     wall.init("10.0.0.255", 7000, 7001, 7002);
///     while (running) {
///         wall.swap();
///     }
///     wall.release();
///
/// Frame clock: frame n begins at n x frame interval on the clock of `jTimer`. `swap` spins up to the next
/// boundary and calls `update` once for each frame that has begun.
///
/// Threads: the connection events run on the connection layer's thread, everything else belongs to the one
/// thread that calls `swap`. The lookups take no lock. From the end of the `wait` in a `swap` to the end of
/// its last `update` they show that thread one and the same registry: slaves, order and names. Between
/// frames, and on every other thread, they show the present one. A `Slave`, and the `Client` behind it, stays
/// readable for that thread until its next `wait` outside a frame, the logic's or the endpoint's.
///
/// Lifetime: `init`, `swap` once per frame, `release`. A destructor of the base releases what is still open,
/// but the events may by then no longer reach the overrides of a derived class: release first. Not copyable.
class KOR_API KorLogicServer : public KorServerHandler {
public:
    /// A camera that a slave renders.
    struct SlaveCamera {
        static constexpr const char* kTypeLabel = "struct KorLogicServer::SlaveCamera";

        int index = -1; ///< position in the slave's list of cameras; -1 when the name is empty
        jString name;   ///< name that the slave gave it
    };

    /// A connected slave.
    struct Slave {
        static constexpr const char* kTypeLabel = "struct KorLogicServer::Slave";

        /// The endpoint's record of the slave; null when the endpoint has none any more. Not owned.
        Client* client = nullptr;
        RTAddr addr;                  ///< address that the slave connects from
        jVector<SlaveCamera> cameras; ///< empty until `isInit`
        bool isInit = false;          ///< the slave has introduced itself with at least one camera
    };

    KorLogicServer();
    KorLogicServer(const KorLogicServer&) = delete;
    KorLogicServer& operator=(const KorLogicServer&) = delete;

protected:
    void onConnect(const RTAddr& addr, bool established) override;
    void onReConnect(const RTAddr& addr) override;
    void onDisConnect(const RTAddr& addr) override;
    void onConnectLost(const RTAddr& addr) override;

public:
    /// @{
    /// Length of a frame in seconds, 1/60 by default; all slaves must use the same. Must be above 0: while it
    /// is zero, negative, infinite or not a number, or so small that the frame id would leave 32 bits, `swap`
    /// neither paces nor advances.
    virtual double getFrameInterval() const;
    virtual void setFrameInterval(double seconds);
    /// @}

    /// @{
    /// When the current frame began, in seconds: frame id x frame interval.
    virtual double getFrameTime() const;
    virtual void setFrameTime(double seconds);
    /// @}

    /// @{
    /// Id of the current frame. The clock runs from the start of the process, so the first advance calls
    /// `update` for every frame since frame 0. A master that starts late skips those by setting the clock's
    /// present frame before its first `swap`:
    ///
    ///     setFrameID(int(jTimer::getTimeSecond() / getFrameInterval()));
    virtual int getFrameID() const;
    virtual void setFrameID(int id);
    /// @}

    /// @{
    /// When the last `swap` passed its frame boundary, in seconds of `jTimer`; -1 before the first. Setting 0
    /// or less makes the next `swap` a first one again, which neither paces nor advances.
    virtual double getSwapTime() const;
    virtual void setSwapTime(double seconds);
    /// @}

    /// @{
    /// Timeout in seconds that `swap` passes to `wait`, 0.05 by default.
    virtual float getWaitTime() const;
    virtual void setWaitTime(float seconds);
    /// @}

    /// Releases what `release` has not, and frees the registry.
    virtual ~KorLogicServer();

    /// Opens the master's endpoint; see `KorServer::init` for the arguments and what they must be. False,
    /// with the reason in the log, when it cannot be opened; may be called again after that. An endpoint that
    /// is open is released first. Slaves of an earlier endpoint leave the registry, each with a
    /// `slaveRemoveSignal`.
    virtual bool init(const jString& broadcastIP, jVector<unsigned short>& broadcastSendPorts,
                      jVector<unsigned short>& broadcastBindPorts, jVector<unsigned short>& dataPorts);

    /// The same with one port of each kind.
    virtual bool init(const jString& broadcastIP, unsigned short broadcastSendPort,
                      unsigned short broadcastBindPort, unsigned short dataPort);

    /// Closes the endpoint. The registry stays as it is, but each slave's `client` becomes null. Not from a
    /// slot of a signal or from `update`. Safe to call twice.
    virtual void release();

    /// The application's step of one frame: `getFrameID` and `getFrameTime` give the new frame. It usually
    /// sends the frame's data, a packet of a `Begin` record with a frame id, the application's own records
    /// and an `End` record, through `KorServer::send` on `server` (null unless open). Called by `swap`,
    /// without any lock.
    virtual void update() = 0;

    /// Takes in what happened since the last call: new slaves' cameras, the slaves' reports; and announces
    /// the master. Does not wait: `timeout` (seconds) is only passed on. Returns 0; does nothing unless the
    /// endpoint is open.
    virtual int wait(double timeout);

    /// One master frame: calls `wait`, spins until the next frame boundary, then advances the frame id to the
    /// clock's and calls `update` once for each frame on the way. Always true.
    virtual bool swap();

    /// @{
    /// A slave is known by its name once its introduction has arrived, by its address from its connection on.
    virtual bool isSlaveExist(const jString& name);
    virtual bool isSlaveExist(const RTAddr& addr);
    /// @}

    /// Number of slaves in the registry, with or without cameras.
    virtual int getNumSlaves() const;

    /// @{
    /// The first slave that fits, or null.
    virtual Slave* getSlave(const jString& name);
    virtual Slave* getSlave(const RTAddr& addr);
    /// @}

    /// Null for an index outside 0 to `getNumSlaves` - 1. When a slave goes, the last one takes its index.
    virtual Slave* getSlave(int index);

    /// Does nothing; for derived classes.
    virtual void clear();

protected:
    /// Takes the slave of that address out of the registry, after raising `slaveRemoveSignal`. False when
    /// there is none. Hold `slaveLock`.
    virtual bool remove_slave(const RTAddr& addr);

    /// Takes over the cameras of slaves that have introduced themselves, and raises `slaveInitSignal` for
    /// each. Called by `wait`.
    virtual void check_slave();

    /// Connected to the endpoint's client-idle signal, which the library never raises. Does nothing.
    virtual void on_client_idle(Client* client);

    KorServer* server = nullptr; ///< the endpoint, from `init` to `release`; owned
    jVector<Slave*> slaves;      ///< the registry; owns the slaves. Hold `slaveLock`
    int slaveLock = 0;           ///< taken after the endpoint's lock, never before

private:
    class FrameView;

    void publish_slaves();
    void watch_records();
    bool let_go();
    void forget_slaves();
    void read_reports();
    bool next_frame(int& target) const;
    bool in_frame() const;
    const jVector<Slave*>& present() const;
    const jVector<Slave*>& listed() const;
    static const jString* name_of(const Slave& slave);

    double frameInterval = 1.0 / 60.0;
    double frameTime = 0.0;
    int frameID = 0;
    double swapTime = -1.0;
    float waitTime = 0.05f;

public:
    /// Raised by `check_slave`, on the application's thread, with the address of a slave whose cameras are
    /// known now.
    ///
    /// Both signals are raised with `slaveLock` held: a slot may use the lookups, but must not take that lock
    /// or the endpoint's, which `KorServer::send` does. Connect slots before `init`, or with `slaveLock`
    /// held.
    jVector<Function<void(const RTAddr&)>> slaveInitSignal;

    /// Raised by `remove_slave` with the address of a slave that is about to leave the registry. It comes on
    /// the connection layer's thread, there with the endpoint's lock held too; only for slaves of an earlier
    /// endpoint does it come on the thread that calls `init` again.
    jVector<Function<void(const RTAddr&)>> slaveRemoveSignal;

private:
    // A slave's name, or none; keeps its memory.
    struct FrameName {
        static constexpr const char* kTypeLabel = "struct KorLogicServer::FrameName";

        const jString* get() const { return given ? &text : nullptr; }
        void set(const jString* name) {
            given = name != nullptr;
            if (name)
                text = *name;
        }

        bool given = false;
        jString text;
    };

    // The present registry: never changed, only replaced.
    std::atomic<const jVector<Slave*>*> published{nullptr};

    // Freed by the next wait.
    jVector<const jVector<Slave*>*> departedLists;
    jVector<Slave*> departedSlaves;

    // What the lookups of one thread show during its frame; the thread is none between frames.
    std::atomic<std::thread::id> frameThread{};
    const jVector<Slave*>* frameSlaves = nullptr;
    jVector<FrameName> frameNames;
};

} // namespace kor
