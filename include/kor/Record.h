#pragma once

#include "../support/BufferReader.h"
#include "../support/BufferWriter.h"
#include "../support/Export.h"

namespace kor {

/// Framing of records, for the library's own and for the application's.
///
/// A record is: type code (signed byte), length in bytes from the type code to the end of the record (32
/// bits), version 1 (byte), payload. Codes -1 and 1 to 6 are the library's; an application chooses others for
/// its own.
///
///     const int start = beginRecord(writer, kSceneRecord);
///     writer.writeDouble(angle);
///     endRecord(writer, start);

/// @{
/// Size of the head of a record in bytes, and the version in it.
inline constexpr int kRecordHeaderBytes = 6;
inline constexpr unsigned char kRecordVersion = 1;
/// @}

/// Writes the head of a record and returns where it starts, for `endRecord`. Leaves the length open. Where
/// the head does not fit, nothing is written.
KOR_API int beginRecord(BufferWriter& writer, signed char code);

/// Fills in the length of the record that starts at `start` and ends at the writer's position.
KOR_API void endRecord(BufferWriter& writer, int start);

/// Reads the head of a record of that code and version 1 and leaves the reader at its payload.
///
/// False, with the reader where it was, for another code or version and when fewer than `payloadBytes` follow
/// the head. The length is not looked at.
KOR_API bool openRecord(BufferReader& reader, signed char code, int payloadBytes);

/// Moves the reader behind the record at its position, whatever its code, by its length.
///
/// False, with the reader where it was, when there is nothing sound to skip: the data ends, or the length is
/// below 6 or reaches past the data. A scanner stops there; everywhere else it gets on by at least 6 bytes.
KOR_API bool skipRecord(BufferReader& reader);

} // namespace kor
