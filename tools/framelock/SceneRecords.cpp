#include "SceneRecords.h"

#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/BufferReader.h>

namespace {

using kor::BufferReader;
using kor::BufferWriter;
using kor::KorCoderBase;
using kor::KorKit;

enum RecordType : signed char { kTime = 16, kCamera = 17, kObject = 18, kPayload = 19 };

constexpr int kBeginBytes = 10;
constexpr int kEndBytes = 6;
constexpr int kTimeBytes = 8; // payloads, without the record's head
constexpr int kCameraBytes = 4 + 24 + 32 + 64;
constexpr int kObjectBytes = 4 + 4 + 12 + 16 + 16;
constexpr int kPayloadHeadBytes = 4;
constexpr int kPieceBytes = 1024; // fewer than a datagram carries

void writeTime(BufferWriter& writer, double time) {
    const int record = kor::beginRecord(writer, kTime);
    writer.writeDouble(time);
    kor::endRecord(writer, record);
}

void writeCamera(BufferWriter& writer, const SceneCamera& camera) {
    const int record = kor::beginRecord(writer, kCamera);
    writer.writeInt(camera.index);
    KorKit::writeDVec3(writer, camera.position);
    KorKit::writeDQuat(writer, camera.orientation);
    KorKit::writeMat4(writer, camera.projection);
    kor::endRecord(writer, record);
}

void writeObject(BufferWriter& writer, const SceneObject& object) {
    const int record = kor::beginRecord(writer, kObject);
    writer.writeInt(object.id);
    writer.writeInt(object.cut);
    KorKit::writeVec3(writer, object.position);
    KorKit::writeQuat(writer, object.orientation);
    KorKit::writeVec4(writer, object.colour);
    kor::endRecord(writer, record);
}

// Between the marks the bytes stay as they are: filling megabytes per frame would measure the filling.
void writePayload(BufferWriter& writer, int frameId, int bytes) {
    const int record = kor::beginRecord(writer, kPayload);
    writer.writeInt(frameId);
    const int start = writer.tell();
    for (int at = 0; at + kPieceBytes <= bytes; at += kPieceBytes) {
        writer.seekSet(start + at);
        writer.writeInt(frameId);
        writer.writeInt(at);
    }
    writer.seekSet(start + bytes);
    kor::endRecord(writer, record);
}

// Leaves the reader somewhere in the record, which ends at `end`.
bool isPayloadRight(BufferReader& reader, int frameId, int end) {
    bool right = reader.readInt() == frameId;
    const int start = reader.position;
    for (int at = 0; at + kPieceBytes <= end - start; at += kPieceBytes) {
        reader.seekSet(start + at);
        const int frame = reader.readInt();
        right = right && frame == frameId && reader.readInt() == at;
    }
    return right;
}

SceneCamera readCamera(BufferReader& reader) {
    SceneCamera camera;
    camera.index = reader.readInt();
    camera.position = KorKit::readDVec3(reader);
    camera.orientation = KorKit::readDQuat(reader);
    camera.projection = KorKit::readMat4(reader);
    return camera;
}

SceneObject readObject(BufferReader& reader) {
    SceneObject object;
    object.id = reader.readInt();
    object.cut = reader.readInt();
    object.position = KorKit::readVec3(reader);
    object.orientation = KorKit::readQuat(reader);
    object.colour = KorKit::readVec4(reader);
    return object;
}

// Takes in the record at the reader's position, which ends at `end`, when it is one of ours, and leaves the
// reader somewhere behind its head.
void readRecord(BufferReader& reader, int end, ReceivedFrame& frame) {
    if (kor::openRecord(reader, kTime, kTimeBytes))
        frame.scene.time = reader.readDouble();
    else if (kor::openRecord(reader, kCamera, kCameraBytes))
        frame.scene.cameras.push_back(readCamera(reader));
    else if (kor::openRecord(reader, kObject, kObjectBytes))
        frame.scene.objects.push_back(readObject(reader));
    else if (kor::openRecord(reader, kPayload, kPayloadHeadBytes))
        frame.payloadRight = isPayloadRight(reader, frame.frameId, end);
}

} // namespace

bool writeFrame(BufferWriter& writer, int frameId, const Scene& scene, int payloadBytes) {
    if (payloadBytes < 0 || writer.remaining() < frameSize(scene, payloadBytes))
        return false;
    KorCoderBase::codeBegin(writer, frameId);
    writeTime(writer, scene.time);
    for (const SceneCamera& camera : scene.cameras)
        writeCamera(writer, camera);
    for (const SceneObject& object : scene.objects)
        writeObject(writer, object);
    if (payloadBytes > 0)
        writePayload(writer, frameId, payloadBytes);
    KorCoderBase::codeEnd(writer);
    return true;
}

int frameSize(const Scene& scene, int payloadBytes) {
    const int records =
        1 + static_cast<int>(scene.cameras.size() + scene.objects.size()) + (payloadBytes > 0 ? 1 : 0);
    return kBeginBytes + records * kor::kRecordHeaderBytes + kTimeBytes +
           kCameraBytes * static_cast<int>(scene.cameras.size()) +
           kObjectBytes * static_cast<int>(scene.objects.size()) +
           (payloadBytes > 0 ? kPayloadHeadBytes + payloadBytes : 0) + kEndBytes;
}

bool readFrame(const void* data, int size, ReceivedFrame& frame) {
    frame.scene.cameras.clear();
    frame.scene.objects.clear();
    frame.payloadRight = true;
    if (size < 0)
        return false;
    BufferReader reader(data, static_cast<std::uint32_t>(size));
    if (!KorCoderBase::decodeBegin(reader, frame.frameId))
        return false;
    while (!KorCoderBase::decodeEnd(reader)) {
        const int start = reader.position;
        if (!kor::skipRecord(reader))
            return false;
        const int end = reader.position;
        reader.seekSet(start);
        readRecord(reader, end, frame);
        reader.seekSet(end);
    }
    return true;
}
