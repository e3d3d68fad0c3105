#pragma once

#include "WallFrame.h"

#include <kor/kor.h>

#include <string>
#include <vector>

/// Computes the scene, sends it to all slaves, and does what a key or a command asks for.
///
/// For one thread, that which calls `swap`.
class WallMaster : public kor::KorLogicServer {
public:
    /// The wall's size in pixels; how many frames data is sent ahead.
    WallMaster(const glm::vec2& wall, int lead) : wall_(wall), lead_(lead) {}

    /// A line such as "lock off" or "capture +30"; `kWallCommands` lists them. Empty when it was understood,
    /// else what is wrong with it.
    std::string command(const std::string& line);

    /// The key that was pressed at a slave's window; others than those of `kWallKeys` do nothing.
    void key(int character);

    /// The order that was given last.
    const CaptureOrder& order() const { return frame_.order; }
    const WallMode& mode() const { return frame_.mode; }

    void update() override;

    /// Takes in the keys that slaves have sent before the base class empties their mail.
    int wait(double timeout) override;

private:
    std::string capture(const std::string& when);

    glm::vec2 wall_;
    int lead_;
    WallFrame frame_; // what is sent, kept for its memory
    std::vector<unsigned char> bytes_;
    bool frozen_ = false;
    double time_ = 0;       // of the scene; stands still while frozen
    int captureNumber_ = 0; // of the last order
    int orderUntil_ = 0;    // frame with which it comes for the last time
};

constexpr const char* kWallCommands =
    "  lock on|off           off: each slave shows the newest frame it has\n"
    "  interpolation on|off  off: whole frames only\n"
    "  freeze on|off         the scene stands still; frames go on\n"
    "  overlay on|off        figures in each window\n"
    "  flash on|off          the frame number as black and white cells\n"
    "  capture [POSITION]    save the picture for that frame position; +N: N\n"
    "                        frames from now (+30.5)\n";
