#pragma once

#include "Captures.h"
#include "WallFrame.h"

#include <kor/kor.h>

/// The master's clock as seen from here, in milliseconds.
struct MasterClock {
    double offset = -1e9; ///< exactly -1e9 while unknown
    double bound = 0;
    double ping = 0;
    bool known() const { return offset != -1e9; }
};

/// What is to be seen, and where it came from.
struct ShownFrame {
    double position = -1; ///< of the scene, in frames
    double refresh = -1;  ///< position of the refresh that it is for; -1 while the clock is unknown
    double vsync = -1;    ///< when that refresh is expected, local time in seconds
    double weight = 0;    ///< by which the later frame was blended in
    kor::KorLogicClient::WAIT_RESULT result = kor::KorLogicClient::WAIT_NONE;
};

/// Receives the scene and keeps it as it is to be drawn.
///
/// For one thread, that which presents.
class WallSlave : public kor::KorLogicClient {
public:
    /// Called inside swapEnd() under the endpoint's lock: decodes and leaves.
    void applyData(kor::KorData* block, double weight) override;

    WAIT_RESULT wait(double timeout) override;

    /// Asks the master to do what the key stands for. False while there is none.
    bool sendKey(int character);

    const WallScene& scene() const { return scene_; }
    const WallMode& mode() const { return mode_; }
    const ShownFrame& shown() const { return shown_; }
    Captures& captures() { return captures_; }
    MasterClock clock();
    long long badFrames() const { return badFrames_; }

    /// Waits so far that ended with this result.
    long long count(WAIT_RESULT result) const { return counts_[result]; }

protected:
    void on_clear() override;

private:
    void showNewest();

    WallScene scene_;
    WallMode mode_;
    ShownFrame shown_;
    Captures captures_;
    WallFrame received_; // kept for its memory
    long long badFrames_ = 0;
    long long counts_[5] = {};
};
