#pragma once

#include "../support/BufferReader.h"
#include "../support/BufferWriter.h"
#include "../support/Export.h"
#include "../support/vec.h"

namespace kor {

/// Coders of the frame records; see Record.h for the framing.
///
/// An encoder writes one whole record at the writer's position; where it does not fit, nothing is written
/// (the result of those that have one is true all the same, so size the buffer). A decoder returns true, with
/// its results filled and the reader behind the record, or false, with nothing changed, when another record
/// or a cut one stands there. So decoders may be tried one after another at one place.
class KOR_API KorCoderBase {
public:
    /// @{
    /// Type codes of the records.
    static constexpr signed char kTimeCheckResult = 1;
    static constexpr signed char kFrameAck = 2;
    static constexpr signed char kSwap = 3;
    static constexpr signed char kBegin = 4;
    static constexpr signed char kEnd = 5;
    static constexpr signed char kSlaveTimeInServer = 6;
    /// @}

    /// @{
    /// Opens a packet of frame data: 10 bytes.
    static void codeBegin(BufferWriter& writer, int frame);
    static bool decodeBegin(BufferReader& reader, int& frame);
    /// @}

    /// @{
    /// Closes a packet of frame data: 6 bytes.
    static void codeEnd(BufferWriter& writer);
    static bool decodeEnd(BufferReader& reader);
    /// @}

    /// @{
    /// A slave's estimate of the master's clock in seconds, and its frame position: 22 bytes.
    static void codeSlaveTimeInServer(BufferWriter& writer, double timeInServer, double framePosition);
    static bool decodeSlaveTimeInServer(BufferReader& reader, double& timeInServer, double& framePosition);
    /// @}

    /// @{
    /// For applications: a double, 14 bytes. Shares its code with the introduction, so a slave must not send
    /// it.
    static bool codeTimeCheckResult(BufferWriter& writer, double result);
    static bool decodeTimeCheckResult(BufferReader& reader, double& result);
    /// @}

    /// @{
    /// For applications: an int, 10 bytes.
    static bool codeFrameAck(BufferWriter& writer, int frame);
    static bool decodeFrameAck(BufferReader& reader, int& frame);
    /// @}

    /// @{
    /// For applications: an int, 10 bytes.
    static bool codeSwap(BufferWriter& writer, int frame);
    static bool decodeSwap(BufferReader& reader, int& frame);
    /// @}
};

/// Bare values for frame data, element 0 first, without framing.
///
/// Writers always return true; where a value does not fit, nothing is written. Readers give zeros for what
/// the data does not hold.
class KOR_API KorKit {
public:
    static bool writeVec3(BufferWriter& writer, const vec3& value);   ///< 12 bytes
    static bool writeDVec3(BufferWriter& writer, const dvec3& value); ///< 24 bytes
    static bool writeVec4(BufferWriter& writer, const vec4& value);   ///< 16 bytes
    static bool writeQuat(BufferWriter& writer, const quat& value);   ///< 16 bytes
    static bool writeDQuat(BufferWriter& writer, const dquat& value); ///< 32 bytes
    static bool writeMat4(BufferWriter& writer, const mat4& value);   ///< 64 bytes
    static bool writeDMat4(BufferWriter& writer, const dmat4& value); ///< 128 bytes

    /// @{
    /// Reads what the writer of that name has written and moves behind it.
    static vec3 readVec3(BufferReader& reader);
    static dvec3 readDVec3(BufferReader& reader);
    static vec4 readVec4(BufferReader& reader);
    static quat readQuat(BufferReader& reader);
    static dquat readDQuat(BufferReader& reader);
    static mat4 readMat4(BufferReader& reader);
    static dmat4 readDMat4(BufferReader& reader);
    /// @}
};

/// Coder of the master's announcement, and most helpers of `KorKit` under one more name.
class KOR_API KorMsg {
public:
    /// Type code of the announcement.
    static constexpr signed char kBroadcast = -1;

    /// @{
    /// The data port on which the master accepts connections, and a frame number that receivers ignore: 14
    /// bytes. Same rules as the coders of `KorCoderBase`.
    static bool codeBroadcast(BufferWriter& writer, int port, int frame);
    static bool decodeBroadcast(BufferReader& reader, int& port, int& frame);
    /// @}

    /// @{
    /// The same as in `KorKit`.
    static bool writeVec3(BufferWriter& writer, const vec3& value) {
        return KorKit::writeVec3(writer, value);
    }
    static bool writeDVec3(BufferWriter& writer, const dvec3& value) {
        return KorKit::writeDVec3(writer, value);
    }
    static bool writeVec4(BufferWriter& writer, const vec4& value) {
        return KorKit::writeVec4(writer, value);
    }
    static bool writeQuat(BufferWriter& writer, const quat& value) {
        return KorKit::writeQuat(writer, value);
    }
    static bool writeMat4(BufferWriter& writer, const mat4& value) {
        return KorKit::writeMat4(writer, value);
    }
    static bool writeDMat4(BufferWriter& writer, const dmat4& value) {
        return KorKit::writeDMat4(writer, value);
    }

    static vec3 readVec3(BufferReader& reader) { return KorKit::readVec3(reader); }
    static dvec3 readDVec3(BufferReader& reader) { return KorKit::readDVec3(reader); }
    static vec4 readVec4(BufferReader& reader) { return KorKit::readVec4(reader); }
    static quat readQuat(BufferReader& reader) { return KorKit::readQuat(reader); }
    static mat4 readMat4(BufferReader& reader) { return KorKit::readMat4(reader); }
    static dmat4 readDMat4(BufferReader& reader) { return KorKit::readDMat4(reader); }
    /// @}
};

} // namespace kor
