#pragma once

#include "Scene.h"

#include <support/BufferWriter.h>

/// How the scene travels: one packet per frame, `Begin`, one record per part of the scene, `End`.
///
/// Every record is a type code (the application's own codes lie above 6), an int length that counts from the
/// type code to the record's end, a version byte 1 and the payload:
///
///     16 time      double time in seconds
///     17 camera    int index, dvec3 position, dquat orientation, mat4 projection
///     18 object    int id, int cut, vec3 position, quat orientation, vec4 colour
///     19 payload   int frame id, then bytes: stands for whatever else a renderer sends
///
/// Of the payload's bytes, each whole 1024 begin with an int frame id and the int position among them, so
/// that a piece of another frame, or at another place, shows. The others have no meaning.

/// Writes the packet at the writer's position. False, and the packet is incomplete, when it does not fit.
bool writeFrame(kor::BufferWriter& writer, int frameId, const Scene& scene, int payloadBytes);

/// Bytes that `writeFrame` needs for this scene.
int frameSize(const Scene& scene, int payloadBytes);

/// What a packet held.
struct ReceivedFrame {
    int frameId = -1;
    Scene scene;
    bool payloadRight = true; ///< it is that of the frame and every piece is in its place, or there is none
};

/// Reads a packet, whatever its bytes are. False when it is not a whole frame: no `Begin`, no `End`, a record
/// cut off or with an impossible length. Reuses the vectors of `frame`.
bool readFrame(const void* data, int size, ReceivedFrame& frame);
