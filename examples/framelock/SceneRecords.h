#pragma once

#include "Scene.h"

#include <support/BufferWriter.h>

#include <optional>

/// How the scene travels: one packet per frame, `Begin`, one record per part of the scene, `End`.
///
/// Every record is a type code (the application's own codes lie above 6), an int length that counts from the
/// type code to the record's end, a version byte 1 and the payload:
///
///     16 time      double time in seconds
///     17 camera    int index, dvec3 position, dquat orientation, mat4 projection
///     18 object    int id, int cut, vec3 position, quat orientation, vec4 colour
///     19 payload   int frame id, then bytes without meaning: stands for whatever else a renderer sends

/// Writes the whole packet at the writer's position. False when it does not fit; the packet is then
/// incomplete.
bool writeFrame(kor::BufferWriter& writer, int frameId, const Scene& scene, int payloadBytes);

/// Bytes that `writeFrame` needs for this scene.
int frameSize(const Scene& scene, int payloadBytes);

/// What a packet held.
struct ReceivedFrame {
    int frameId = -1;
    Scene scene;
    std::optional<int> payloadFrame; ///< frame id that the payload names, when there is one
};

/// Reads a packet, whatever its bytes are. False when it is not a whole frame: no `Begin`, no `End`, a record
/// cut off or with an impossible length. Reuses the vectors of `frame`.
bool readFrame(const void* data, int size, ReceivedFrame& frame);
