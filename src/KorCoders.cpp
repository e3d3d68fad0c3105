#include <kor/KorCoders.h>

#include <kor/Record.h>

namespace kor {

namespace {

void put(BufferWriter& writer, int value) {
    writer.writeInt(value);
}
void put(BufferWriter& writer, float value) {
    writer.writeFloat(value);
}
void put(BufferWriter& writer, double value) {
    writer.writeDouble(value);
}
void take(BufferReader& reader, int& value) {
    value = reader.readInt();
}
void take(BufferReader& reader, float& value) {
    value = reader.readFloat();
}
void take(BufferReader& reader, double& value) {
    value = reader.readDouble();
}

template <class... Fields>
constexpr int kPayloadBytes = (0 + ... + static_cast<int>(sizeof(Fields)));

template <class... Fields>
bool encode(BufferWriter& writer, signed char code, Fields... fields) {
    if (writer.remaining() >= kRecordHeaderBytes + kPayloadBytes<Fields...>) {
        const int start = beginRecord(writer, code);
        (put(writer, fields), ...);
        endRecord(writer, start);
    }
    return true;
}

template <class... Fields>
bool decode(BufferReader& reader, signed char code, Fields&... fields) {
    if (!openRecord(reader, code, kPayloadBytes<Fields...>))
        return false;
    (take(reader, fields), ...);
    return true;
}

template <class... Elements>
bool writeElements(BufferWriter& writer, Elements... elements) {
    if (writer.remaining() >= kPayloadBytes<Elements...>)
        (put(writer, elements), ...);
    return true;
}

template <class... Elements>
void readElements(BufferReader& reader, Elements&... elements) {
    (take(reader, elements), ...);
}

template <class Element>
bool writeMatrix(BufferWriter& writer, const Element (&elements)[16]) {
    if (writer.remaining() >= static_cast<int>(sizeof(elements)))
        for (const Element element : elements)
            put(writer, element);
    return true;
}

template <class Matrix>
Matrix readMatrix(BufferReader& reader) {
    Matrix value;
    for (auto& element : value.m)
        take(reader, element);
    return value;
}

} // namespace

void KorCoderBase::codeBegin(BufferWriter& writer, int frame) {
    encode(writer, kBegin, frame);
}
bool KorCoderBase::decodeBegin(BufferReader& reader, int& frame) {
    return decode(reader, kBegin, frame);
}
void KorCoderBase::codeEnd(BufferWriter& writer) {
    encode(writer, kEnd);
}
bool KorCoderBase::decodeEnd(BufferReader& reader) {
    return decode(reader, kEnd);
}
void KorCoderBase::codeSlaveTimeInServer(BufferWriter& writer, double timeInServer, double framePosition) {
    encode(writer, kSlaveTimeInServer, timeInServer, framePosition);
}
bool KorCoderBase::decodeSlaveTimeInServer(BufferReader& reader, double& timeInServer,
                                           double& framePosition) {
    return decode(reader, kSlaveTimeInServer, timeInServer, framePosition);
}
bool KorCoderBase::codeTimeCheckResult(BufferWriter& writer, double result) {
    return encode(writer, kTimeCheckResult, result);
}
bool KorCoderBase::decodeTimeCheckResult(BufferReader& reader, double& result) {
    return decode(reader, kTimeCheckResult, result);
}
bool KorCoderBase::codeFrameAck(BufferWriter& writer, int frame) {
    return encode(writer, kFrameAck, frame);
}
bool KorCoderBase::decodeFrameAck(BufferReader& reader, int& frame) {
    return decode(reader, kFrameAck, frame);
}
bool KorCoderBase::codeSwap(BufferWriter& writer, int frame) {
    return encode(writer, kSwap, frame);
}
bool KorCoderBase::decodeSwap(BufferReader& reader, int& frame) {
    return decode(reader, kSwap, frame);
}

bool KorMsg::codeBroadcast(BufferWriter& writer, int port, int frame) {
    return encode(writer, kBroadcast, port, frame);
}
bool KorMsg::decodeBroadcast(BufferReader& reader, int& port, int& frame) {
    return decode(reader, kBroadcast, port, frame);
}

bool KorKit::writeVec3(BufferWriter& writer, const vec3& value) {
    return writeElements(writer, value.x, value.y, value.z);
}
bool KorKit::writeDVec3(BufferWriter& writer, const dvec3& value) {
    return writeElements(writer, value.x, value.y, value.z);
}
bool KorKit::writeVec4(BufferWriter& writer, const vec4& value) {
    return writeElements(writer, value.x, value.y, value.z, value.w);
}
bool KorKit::writeQuat(BufferWriter& writer, const quat& value) {
    return writeElements(writer, value.x, value.y, value.z, value.w);
}
bool KorKit::writeDQuat(BufferWriter& writer, const dquat& value) {
    return writeElements(writer, value.x, value.y, value.z, value.w);
}
bool KorKit::writeMat4(BufferWriter& writer, const mat4& value) {
    return writeMatrix(writer, value.m);
}
bool KorKit::writeDMat4(BufferWriter& writer, const dmat4& value) {
    return writeMatrix(writer, value.m);
}

vec3 KorKit::readVec3(BufferReader& reader) {
    vec3 value;
    readElements(reader, value.x, value.y, value.z);
    return value;
}
dvec3 KorKit::readDVec3(BufferReader& reader) {
    dvec3 value;
    readElements(reader, value.x, value.y, value.z);
    return value;
}
vec4 KorKit::readVec4(BufferReader& reader) {
    vec4 value;
    readElements(reader, value.x, value.y, value.z, value.w);
    return value;
}
quat KorKit::readQuat(BufferReader& reader) {
    quat value;
    readElements(reader, value.x, value.y, value.z, value.w);
    return value;
}
dquat KorKit::readDQuat(BufferReader& reader) {
    dquat value;
    readElements(reader, value.x, value.y, value.z, value.w);
    return value;
}
mat4 KorKit::readMat4(BufferReader& reader) {
    return readMatrix<mat4>(reader);
}
dmat4 KorKit::readDMat4(BufferReader& reader) {
    return readMatrix<dmat4>(reader);
}

} // namespace kor
