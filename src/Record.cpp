#include <kor/Record.h>

namespace kor {

int beginRecord(BufferWriter& writer, signed char code) {
    const int start = writer.tell();
    if (writer.remaining() >= kRecordHeaderBytes) {
        writer.writeChar(code);
        writer.seekSet(start + kRecordHeaderBytes - 1);
        writer.writeUChar(kRecordVersion);
    }
    return start;
}

void endRecord(BufferWriter& writer, int start) {
    const int end = writer.tell();
    if (start < 0 || end - start < kRecordHeaderBytes)
        return;
    writer.seekSet(start + 1);
    writer.writeInt(end - start);
    writer.seekSet(end);
}

bool openRecord(BufferReader& reader, signed char code, int payloadBytes) {
    const int start = reader.position;
    if (reader.readChar() == code) {
        reader.readInt();
        if (reader.readUChar() == kRecordVersion && reader.remaining() >= payloadBytes)
            return true;
    }
    reader.position = start;
    return false;
}

bool skipRecord(BufferReader& reader) {
    const int start = reader.position;
    const int available = reader.remaining();
    reader.readChar();
    const int length = reader.readInt();
    if (length < kRecordHeaderBytes || length > available) {
        reader.position = start;
        return false;
    }
    return reader.seekSet(start + length);
}

} // namespace kor
