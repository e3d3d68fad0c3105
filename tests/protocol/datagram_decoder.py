#!/usr/bin/env python3
"""Decodes Kor's datagrams, written from docs/protocol.md alone.

As a program: datagram_decoder.py HEX... prints what each datagram says.
"""

import json
import struct
import sys

HEADER_BYTES = 16
REQUEST, CHALLENGE, RESPONSE, ACCEPT, RESET, DATA = range(1, 7)
EXACT_SIZE = {REQUEST: 128, CHALLENGE: 32, RESPONSE: 128, ACCEPT: 40, RESET: 16}
INITIATOR_FLAG = {REQUEST: 1, CHALLENGE: 0, RESPONSE: 1, ACCEPT: 0}
ACK, FRAGMENT, TIME, TIME_WITH_ECHO, PING, PADDING, CLOSE = range(1, 8)
PARAMETERS = ("maxPacketBytes", "receiveLimitBytes", "socketBufferBytes", "maxDatagramPayload")


class Rejected(Exception):
    """The datagram breaks a rule; its text is the reason under which it is counted."""


def _crc_table():
    table = []
    for byte in range(256):
        for _ in range(8):
            byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)  # 0x1EDC6F41 with its bits reflected
        table.append(byte)
    return table


_CRC_TABLE = _crc_table()


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ _CRC_TABLE[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFFFFFF


class Cursor:
    """Reads forward through a datagram; whatever does not lie within it is a bad frame."""

    def __init__(self, data, at):
        self.data, self.at = data, at

    def left(self):
        return len(self.data) - self.at

    def bytes(self, count):
        require(count <= self.left())
        self.at += count
        return self.data[self.at - count:self.at]

    def take(self, layout):
        return struct.unpack("<" + layout, self.bytes(struct.calcsize("<" + layout)))

    def zeros(self):
        require(not any(self.bytes(self.left())))


def require(condition, reason="badFrame"):
    if not condition:
        raise Rejected(reason)


def decode(data):
    """Returns the fields of a datagram; raises Rejected."""
    require(len(data) >= HEADER_BYTES, "tooShort")
    checksum, kind, version, flags, reserved, connection_id = struct.unpack("<IBBBBQ", data[:HEADER_BYTES])
    require(checksum == crc32c(data[4:]), "checksum")
    require(REQUEST <= kind <= DATA and version == 1, "unknownKind")
    require(flags <= 1 and reserved == 0)
    require(kind not in EXACT_SIZE or len(data) == EXACT_SIZE[kind])
    require(kind not in INITIATOR_FLAG or flags == INITIATOR_FLAG[kind])
    fields = {"kind": kind, "fromInitiator": flags == 1, "connectionId": connection_id}
    cursor = Cursor(data, HEADER_BYTES)
    if kind in (CHALLENGE, RESPONSE):
        fields["cookie"], fields["cookieTime"] = cursor.take("Qq")
    if kind == ACCEPT:
        fields["newConnectionId"], = cursor.take("Q")
    if kind in (RESPONSE, ACCEPT):
        fields["parameters"] = dict(zip(PARAMETERS, cursor.take("IIII")))
    if kind == DATA:
        fields.update(decode_data(cursor))
    cursor.zeros()
    return fields


def decode_data(cursor):
    fields = {"fragments": []}
    fields["number"], = cursor.take("I")
    require(cursor.left() > 0)
    while cursor.left() > 0:
        frame_type, = cursor.take("B")
        if frame_type == FRAGMENT:
            fields["fragments"].append(decode_fragment(cursor))
            require(len(fields["fragments"]) <= 64)
            continue
        require(frame_type in ONLY_FRAMES)
        name, decode_frame = ONLY_FRAMES[frame_type]
        require(name not in fields)
        fields[name] = decode_frame(cursor)
    return fields


def decode_fragment(cursor):
    packet_id, packet_size, offset, length = cursor.take("IIIH")
    require(length >= 1 and offset + length <= packet_size)
    return {"packetId": packet_id, "packetSize": packet_size, "offset": offset, "bytes": cursor.bytes(length).hex()}


def decode_ack(cursor):
    largest, delay, consumed, range_count, length = cursor.take("IIIBH")
    require(1 <= range_count <= 32 and length >= 1)
    ranges = [[largest, length]]
    for _ in range(range_count - 1):
        missing, next_length = cursor.take("HH")
        require(missing >= 1 and next_length >= 1)
        last, length = ranges[-1]
        ranges.append([(last - length - missing) % 2**32, next_length])
    return {"delayMicroseconds": delay, "consumed": consumed, "ranges": ranges}


def decode_time(cursor):
    return {"sent": cursor.take("q")[0]}


def decode_time_with_echo(cursor):
    return dict(zip(("sent", "echoSent", "echoReceived"), cursor.take("qqq")))


def decode_padding(cursor):
    cursor.zeros()
    return True


# Frames of which a datagram has at most one; both kinds of time count as the same.
ONLY_FRAMES = {
    ACK: ("ack", decode_ack),
    TIME: ("time", decode_time),
    TIME_WITH_ECHO: ("time", decode_time_with_echo),
    PING: ("ping", lambda cursor: True),
    PADDING: ("padding", decode_padding),
    CLOSE: ("close", lambda cursor: True),
}


def main():
    if len(sys.argv) < 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__.strip())
    for text in sys.argv[1:]:
        try:
            print(json.dumps(decode(bytes.fromhex(text)), indent=2))
        except ValueError:
            sys.exit(f"datagram_decoder.py: not hexadecimal: {text}")
        except Rejected as rejected:
            print(f"rejected: {rejected}")


if __name__ == "__main__":
    main()
