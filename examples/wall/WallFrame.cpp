#include "WallFrame.h"

#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/BufferReader.h>

namespace {

using kor::BufferReader;
using kor::BufferWriter;
using kor::KorKit;

enum RecordType : signed char { kMode = 16, kCapture = 17, kEye = 18, kBox = 19 };
enum ModeFlag : int { kLock = 1, kInterpolation = 2, kOverlay = 4, kFlash = 8 };

constexpr int kModeBytes = 4; // payloads
constexpr int kCaptureBytes = 4 + 8;
constexpr int kEyeBytes = 8 + 24;
constexpr int kBoxBytes = 3 * 4 + 12 + 16 + 12 + 12;

void writeVec3(BufferWriter& writer, const glm::vec3& v) {
    KorKit::writeVec3(writer, {v.x, v.y, v.z});
}

glm::vec3 readVec3(BufferReader& reader) {
    const kor::vec3 v = KorKit::readVec3(reader);
    return {v.x, v.y, v.z};
}

void writeMode(BufferWriter& writer, const WallMode& mode) {
    const int record = kor::beginRecord(writer, kMode);
    writer.writeInt((mode.lock ? kLock : 0) | (mode.interpolation ? kInterpolation : 0) |
                    (mode.overlay ? kOverlay : 0) | (mode.flash ? kFlash : 0));
    kor::endRecord(writer, record);
}

WallMode readMode(BufferReader& reader) {
    const int flags = reader.readInt();
    return {(flags & kLock) != 0, (flags & kInterpolation) != 0, (flags & kOverlay) != 0,
            (flags & kFlash) != 0};
}

void writeOrder(BufferWriter& writer, const CaptureOrder& order) {
    const int record = kor::beginRecord(writer, kCapture);
    writer.writeInt(order.number);
    writer.writeDouble(order.position);
    kor::endRecord(writer, record);
}

CaptureOrder readOrder(BufferReader& reader) {
    CaptureOrder order;
    order.number = reader.readInt();
    order.position = reader.readDouble();
    return order;
}

void writeEye(BufferWriter& writer, const WallScene& scene) {
    const int record = kor::beginRecord(writer, kEye);
    writer.writeDouble(scene.time);
    KorKit::writeDVec3(writer, {scene.eye.x, scene.eye.y, scene.eye.z});
    kor::endRecord(writer, record);
}

void readEye(BufferReader& reader, WallScene& scene) {
    scene.time = reader.readDouble();
    const kor::dvec3 eye = KorKit::readDVec3(reader);
    scene.eye = {eye.x, eye.y, eye.z};
}

void writeBox(BufferWriter& writer, const Box& box) {
    const int record = kor::beginRecord(writer, kBox);
    writer.writeInt(box.id);
    writer.writeInt(box.cut);
    writer.writeInt(box.glow ? 1 : 0);
    writeVec3(writer, box.position);
    KorKit::writeQuat(writer, {box.orientation.x, box.orientation.y, box.orientation.z, box.orientation.w});
    writeVec3(writer, box.size);
    writeVec3(writer, box.colour);
    kor::endRecord(writer, record);
}

Box readBox(BufferReader& reader) {
    Box box;
    box.id = reader.readInt();
    box.cut = reader.readInt();
    box.glow = reader.readInt() != 0;
    box.position = readVec3(reader);
    const kor::quat q = KorKit::readQuat(reader);
    box.orientation = glm::quat(q.w, q.x, q.y, q.z);
    box.size = readVec3(reader);
    box.colour = readVec3(reader);
    return box;
}

// Takes in the record at the reader's position when it is one of ours.
void readRecord(BufferReader& reader, WallFrame& frame) {
    if (kor::openRecord(reader, kMode, kModeBytes))
        frame.mode = readMode(reader);
    else if (kor::openRecord(reader, kCapture, kCaptureBytes))
        frame.order = readOrder(reader);
    else if (kor::openRecord(reader, kEye, kEyeBytes))
        readEye(reader, frame.scene);
    else if (kor::openRecord(reader, kBox, kBoxBytes))
        frame.scene.boxes.push_back(readBox(reader));
}

} // namespace

int packetSize(const WallFrame& frame) {
    const int boxes = static_cast<int>(frame.scene.boxes.size());
    return 10 + (3 + boxes) * kor::kRecordHeaderBytes + kModeBytes + kCaptureBytes + kEyeBytes +
           boxes * kBoxBytes + 6;
}

void writeFrame(BufferWriter& writer, const WallFrame& frame) {
    kor::KorCoderBase::codeBegin(writer, frame.id);
    writeMode(writer, frame.mode);
    if (frame.order.number > 0)
        writeOrder(writer, frame.order);
    writeEye(writer, frame.scene);
    for (const Box& box : frame.scene.boxes)
        writeBox(writer, box);
    kor::KorCoderBase::codeEnd(writer);
}

bool readFrame(const void* data, int size, WallFrame& frame) {
    frame.order = CaptureOrder();
    frame.scene.boxes.clear();
    if (size < 0)
        return false;
    BufferReader reader(data, static_cast<std::uint32_t>(size));
    if (!kor::KorCoderBase::decodeBegin(reader, frame.id))
        return false;
    while (!kor::KorCoderBase::decodeEnd(reader)) {
        const int start = reader.position;
        readRecord(reader, frame);
        reader.seekSet(start);
        if (!kor::skipRecord(reader))
            return false;
    }
    return true;
}
