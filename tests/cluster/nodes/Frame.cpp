#include "Frame.h"

#include <kor/kor.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr signed char kNumberRecord = 40;
constexpr signed char kPayloadRecord = 41;

/// Repeated over the payload; no two packets near each other have the same.
std::vector<std::uint8_t> pattern(long long number) {
    std::vector<std::uint8_t> bytes(1021); // prime, so that a shift by a power of two shows
    auto state = static_cast<std::uint64_t>(number) * 0x9E3779B97F4A7C15u + 1;
    for (std::uint8_t& byte : bytes) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        byte = static_cast<std::uint8_t>(state >> 56);
    }
    return bytes;
}

bool isPattern(const std::uint8_t* bytes, int size, long long number) {
    const std::vector<std::uint8_t> expected = pattern(number);
    const int piece = static_cast<int>(expected.size());
    for (int at = 0; at < size; at += piece) {
        const auto count = static_cast<std::size_t>(std::min(piece, size - at));
        if (std::memcmp(bytes + at, expected.data(), count) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace

int frameBytes(int payloadBytes) {
    return 10 + kor::kRecordHeaderBytes + 8 + kor::kRecordHeaderBytes + payloadBytes + 6;
}

void writeFrame(std::vector<std::uint8_t>& bytes, int frameId, long long number, int payloadBytes) {
    bytes.resize(static_cast<std::size_t>(frameBytes(payloadBytes)));
    kor::BufferWriter writer(bytes.data(), static_cast<int>(bytes.size()));
    kor::KorCoderBase::codeBegin(writer, frameId);
    int start = kor::beginRecord(writer, kNumberRecord);
    writer.writeDouble(static_cast<double>(number));
    kor::endRecord(writer, start);
    start = kor::beginRecord(writer, kPayloadRecord);
    const std::vector<std::uint8_t> expected = pattern(number);
    const int piece = static_cast<int>(expected.size());
    for (int at = 0; at < payloadBytes; at += piece) {
        writer.writeBytes(expected.data(), std::min(piece, payloadBytes - at));
    }
    kor::endRecord(writer, start);
    kor::KorCoderBase::codeEnd(writer);
}

bool readFrame(const void* data, int size, FrameContent& content) {
    content = {};
    kor::BufferReader reader(data, static_cast<std::uint32_t>(size));
    if (!kor::KorCoderBase::decodeBegin(reader, content.frameId) ||
        !kor::openRecord(reader, kNumberRecord, 8)) {
        return false;
    }
    content.number = static_cast<long long>(reader.readDouble());
    const int start = reader.position;
    if (!kor::openRecord(reader, kPayloadRecord, 0)) {
        return false;
    }
    const int payload = reader.position;
    if (!reader.seekSet(start) || !kor::skipRecord(reader)) {
        return false;
    }
    content.payloadBytes = reader.position - payload;
    content.payloadRight =
        isPattern(static_cast<const std::uint8_t*>(data) + payload, content.payloadBytes, content.number);
    return kor::KorCoderBase::decodeEnd(reader);
}
