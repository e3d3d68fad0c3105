#pragma once

#include "../kit/jList.h"
#include "../kit/jVector.h"
#include "../support/Export.h"
#include "../support/jString.h"
#include "../support/RTAddr.h"
#include "detail/SharedValue.h"
#include "KorClient.h"
#include "KorData.h"

#include <cstdint>

namespace kor {

/// A slave's logic: chooses the frame for the next vertical sync from the master's clock, and keeps blocks
/// that come early. A slave application derives from it and provides `applyData`.
///
///     while (running) {
///         render();
///         slave.swapBegin(true);
///         present();
///         slave.swapEnd(true); // calls applyData for the next frame
///     }
///
/// Frame position: the master's clock at the coming vsync, divided by the frame interval. `wait` applies the
/// block of the frame below it in full, then that of the frame above it with the fraction as weight.
///
/// Threads: all calls belong to the application's thread. Connection events reset the state on the connection
/// layer's thread, with the endpoint's lock held. `wait` holds that lock from its first look at the blocks to
/// its end, so `applyData` and `on_clear` run under it: they must not call `wait`, `clearState` or an
/// endpoint operation that takes it; `getClient()->sendAsyn` is allowed.
///
/// Lifetime: the destructor releases the endpoint and frees what is cached. Connection events may by then no
/// longer reach the overrides of a derived class; one that overrides the handlers calls
/// `getClient()->release()` first. Not copyable.
class KOR_API KorLogicClient {
public:
    /// What became of a `wait`.
    enum WAIT_RESULT {
        /// Nothing to show: no master, its clock is not known yet, or neither frame is there.
        WAIT_NONE = 0,
        /// Both frames were there.
        WAIT_LERP = 1,
        /// Only the earlier frame was there and was applied.
        WAIT_HIT = 2,
        /// Only the later frame was there and was applied in its place.
        WAIT_OVER_HIT = 3,
        /// For a `wait` of a derived class: `swapEnd` then waits again.
        WAIT_OLD_FRAME = 4
    };

    KorLogicClient();
    KorLogicClient(const KorLogicClient&) = delete;
    KorLogicClient& operator=(const KorLogicClient&) = delete;

    /// Local time in seconds by which the frame that the last `wait` applied is due: just behind
    /// `getFrameDeadlineExpected` as `applyData` left it; -1 after a `wait` that found none.
    virtual double getFrameDeadline() const;

    /// Frame that was applied last, fractional between two; -1 when none was since the last reset.
    virtual double getFrameID() const;

    /// @{
    /// Length of a frame of the master's in seconds, 1/60 by default; must be the master's and above 0. While
    /// it gives no frame position within 32 bits (zero, not a number), `wait` treats the master's clock as
    /// unknown. A negative one gives negative positions, for which a master sends no frames.
    virtual double getFrameInterval() const;
    virtual void setFrameInterval(double seconds);
    /// @}

    /// @{
    /// Local time in seconds of the vsync for which the next `wait` chooses the frame. `swapEnd` sets it; an
    /// application that calls `wait` itself sets it before.
    virtual double getFrameDeadlineExpected() const;
    virtual void setFrameDeadlineExpected(double seconds);
    /// @}

    /// @{
    /// Seconds; for the application, shown by the profiler as "check".
    virtual double getTimeCheckResult() const;
    virtual void setTimeCheckResult(double seconds);
    /// @}

    /// @{
    /// Margin in seconds by which the expected vsync lies before one interval after the swap; default 0.009.
    virtual float getUnstableError() const;
    virtual void setUnstableError(float seconds);
    /// @}

    /// True once `init` has succeeded.
    virtual bool isInit() const;

    /// @{
    /// Whether `wait` and `swapEnd` log missing frames and swaps that took too long; true by default.
    virtual bool isShowLog() const;
    virtual void setShowLog(bool show);
    /// @}

    /// @{
    /// Local time in seconds at which `swapEnd` expects the next vsync; -1 before the first. The spelling is
    /// part of the interface.
    virtual double getExpectedVsyncime() const;
    virtual void setExpectedVsyncime(double seconds);
    /// @}

    /// @{
    /// Local times in seconds of the last `swapBegin` and `swapEnd`, and of those before; -1 before the
    /// first.
    virtual double getSwapBeginTime() const;
    virtual void setSwapBeginTime(double seconds);
    virtual double getSwapEndTime() const;
    virtual void setSwapEndTime(double seconds);
    virtual double getSwapBeginTimeLast() const;
    virtual void setSwapBeginTimeLast(double seconds);
    virtual double getSwapEndTimeLast() const;
    virtual void setSwapEndTimeLast(double seconds);
    /// @}

    /// Releases the endpoint and frees the cached blocks.
    virtual ~KorLogicClient();

    /// Opens the slave's endpoint; see `KorClient::init` for the arguments and what they must be. False, with
    /// the reason in the log, when it cannot be opened; may be called again after that. An endpoint that is
    /// open is released first.
    virtual bool init(int broadcastRecvPort, int bindPort, const jString& name,
                      const jVector<jString>& cameras);

    /// Chooses and applies the frame for `getFrameDeadlineExpected`. While nothing is cached, waits up to
    /// `timeout` seconds for a block first, or takes one step of the search for the master (0.1 s at most).
    /// Once a second, reports the slave's clock and position to the master. `WAIT_NONE` at once before
    /// `init`.
    ///
    /// While the master's clock is unknown, every block is applied in full as it comes, and none is kept.
    virtual WAIT_RESULT wait(double timeout);

    /// A list for the application's own use.
    virtual jVector<int>& getCmds();

    /// The endpoint, null before `init`. Owned by this object.
    virtual KorClient* getClient();

    /// Number of blocks kept for later frames.
    virtual int getNumCache() const;

    /// Blocks that left the cache unseen because it was full; see `process_data`.
    std::uint64_t getDroppedBlocks() const { return droppedBlocks; }

    /// Forgets the frame state and frees every block, received or cached; the next `wait` calls `on_clear`.
    /// Hold the endpoint's lock.
    virtual void clearState();

    /// Does nothing; for derived classes. The destructor releases the endpoint, `getClient()->release()` does
    /// it earlier.
    virtual void release();

    /// Takes a frame's data. A weight of 1 asks for it in full; a smaller one, above 0, only ever follows a
    /// call with 1 for the frame before and asks to move from there towards this data by that fraction. A
    /// block whose frame has passed comes (again) with weight 1 as it leaves the cache, unless its `applied`
    /// was set.
    ///
    /// Called by `wait`, with the endpoint's lock held. The block and its bytes are gone after the call.
    virtual void applyData(KorData* block, double weight) = 0;

    /// To be called right before presenting. Does nothing until the master's clock is known. `check` true
    /// logs an error when the expected vsync has been moved behind the deadline of the frame that was
    /// applied.
    virtual void swapBegin(bool check);

    /// To be called right after presenting: predicts the next vsync and calls `wait` for it. `check` true
    /// lets the profiler's "id_dif" count from the frame before instead of from -1. Does nothing before
    /// `init`.
    virtual void swapEnd(bool check);

protected:
    /// Moves the received blocks into the cache; applies those before the earlier frame, cached and received,
    /// in full.
    ///
    /// A block without a `Begin` record is logged as an error and left where it is, and logged again by every
    /// later call, until the endpoint's list is cleared.
    ///
    /// The cache keeps to half of `KorClient::getMaxBlockBytes`, so that what arrives always finds room: the
    /// blocks furthest ahead are dropped, counted, and logged once for each connection. None up to the later
    /// frame is.
    virtual void process_data(int earlierFrame, int laterFrame);

    /// Applies (unless `applied`) and frees every cached block before that frame.
    virtual void process_cache(int frame);

    /// Frees every cached block.
    virtual void clear_cache();

    /// The first cached block of that frame, or null.
    virtual KorData* find_cache(int frame);

    /// @{
    /// These four call `clearState`, on the connection layer's thread.
    virtual void on_connect(const RTAddr& addr);
    virtual void on_reconnect(const RTAddr& addr);
    virtual void on_disconnect(const RTAddr& addr);
    virtual void on_connect_lost(const RTAddr& addr);
    /// @}

    /// Called by the first `wait` after a reset, on its thread. Does nothing.
    virtual void on_clear();

    jList<KorData> cache;        ///< blocks for later frames, in order of arrival. Hold the endpoint's lock
    KorClient* client = nullptr; ///< the endpoint; owned

private:
    struct Position;

    static unsigned char reportBuffer[0x400000];

    bool choose_position(double clockOffset, Position& position) const;
    void send_report(RTUser& master, const Position& position) const;
    WAIT_RESULT apply_neighbours(const Position& position);
    WAIT_RESULT apply_everything();
    void trim_cache(int presentFrame);
    void free_client();

    jVector<int> cmds;
    detail::SharedValue<bool> clearPending{true};
    detail::SharedValue<double> frameDeadline{0.0};
    detail::SharedValue<double> frameID{-1.0};
    double frameInterval = 1.0 / 60.0;
    detail::SharedValue<double> frameDeadlineExpected{0.0};
    detail::SharedValue<double> timeCheckResult{0.0};
    float unstableError = 0.009f;
    bool initialized = false;
    bool showLog = true;
    double expectedVsyncTime = -1.0;
    double swapBeginTime = -1.0;
    double swapEndTime = -1.0;
    double swapBeginTimeLast = -1.0;
    double swapEndTimeLast = -1.0;
    detail::SharedValue<std::uint64_t> droppedBlocks{0};
    bool warnedOfFullCache = false;
};

} // namespace kor
