#pragma once

#include <cstdint>
#include <vector>

/// A packet of frame data as the test's master sends it: `Begin`, a record with the number of the packet, a
/// record with bytes that follow from that number, `End`.

/// Bytes of the whole packet.
int frameBytes(int payloadBytes);

/// Writes a packet into `bytes`, which is resized.
void writeFrame(std::vector<std::uint8_t>& bytes, int frameId, long long number, int payloadBytes);

/// What a packet held.
struct FrameContent {
    int frameId = -1;
    long long number = -1; ///< -1: none
    int payloadBytes = 0;
    bool payloadRight = false; ///< every byte is what it must be
};

/// Reads a packet, whatever its bytes are. False when it is not a whole one.
bool readFrame(const void* data, int size, FrameContent& content);
