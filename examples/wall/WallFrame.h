#pragma once

#include "WallScene.h"

#include <support/BufferWriter.h>

#include <vector>

/// What the wall does at the moment; the same on all slaves, because it comes with the frames.
struct WallMode {
    bool lock = true;          ///< off: each slave shows the newest frame that it has
    bool interpolation = true; ///< off: the frame before the position is shown as it is
    bool overlay = false;
    bool flash = false; ///< the frame number as a pattern, instead of the scene
};

/// "Save the picture for this position." Comes with every frame until its time is long over; carried out
/// once.
struct CaptureOrder {
    int number = 0; ///< counts from 1; 0: there is no order
    double position = 0;
};

/// One frame's data.
///
/// It travels as one packet: `Begin`, one record for each of the following, `End`. A record is a type code
/// (the application's own lie above 6), its length, a version and the payload:
///
///     16 mode      int flags: 1 lock, 2 interpolation, 4 overlay, 8 flash
///     17 capture   int number, double position
///     18 eye       double time, dvec3 eye
///     19 box       int id, int cut, int glow, vec3 position, quat orientation, vec3 size, vec3 colour
struct WallFrame {
    int id = -1;
    WallMode mode;
    CaptureOrder order;
    WallScene scene;
};

/// A packet in the other direction: the key that was pressed at a slave's window.
///
///     20 key       int character
constexpr signed char kKeyRecord = 20;

constexpr const char* kWallKeys =
    "f freeze, l lock, i interpolation, o overlay, p flash pattern, c capture, q close the window";

/// Bytes that a packet needs at most.
int packetSize(const WallFrame& frame);

/// Writes the packet at the writer's position.
void writeFrame(kor::BufferWriter& writer, const WallFrame& frame);

/// Reads a packet, whatever its bytes are. False when it is not a whole frame.
bool readFrame(const void* data, int size, WallFrame& frame);
