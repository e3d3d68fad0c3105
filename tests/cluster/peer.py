"""Somebody who speaks the protocol with a master and says what no slave would; after docs/protocol.md."""

import random
import socket
import struct
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "protocol"))

from datagram_decoder import ACCEPT, CHALLENGE, DATA, FRAGMENT, REQUEST, RESPONSE, Rejected, crc32c, decode

PARAMETERS = struct.pack("<IIII", 1 << 20, 1 << 20, 1 << 18, 1472)
IN_FLIGHT = 50  # packets; a receiver's buffer may be small


def record(code, body):
    return struct.pack("<bIB", code, 6 + len(body), 1) + body


def announcement(port):
    return record(-1, struct.pack("<ii", port, 0))


def introduction(name, cameras, claimed=None):
    names = [camera.encode() + b"\0" for camera in cameras]
    return record(1, name.encode() + b"\0" + struct.pack("<i", claimed or len(names)) + b"".join(names))


class Peer:
    def __init__(self, cluster, port):
        self._cluster = cluster
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.connect(("127.0.0.1", port))
        self._socket.setblocking(False)
        self._id = random.getrandbits(64)  # a nonce at first
        self._number = 0
        self._packets = {}  # sent and not yet consumed, by id
        self._sent = 0
        self.pieces_heard = 0
        self._connect()

    def _write(self, kind, body):
        datagram = struct.pack("<BBBBQ", kind, 1, 1, 0, self._id) + body
        try:
            self._socket.send(struct.pack("<I", crc32c(datagram)) + datagram)
        except BlockingIOError:
            pass  # it is sent again

    def _read(self):
        """What has come since the last time."""
        heard = []
        while True:
            try:
                heard.append(decode(self._socket.recv(1 << 16)))
            except BlockingIOError:
                return heard
            except Rejected as reason:
                raise AssertionError(f"a datagram breaks the protocol: {reason}") from None

    def _ask(self, kind, body, answer):
        def answered():
            self._write(kind, body)
            self._cluster.pump(0.01)
            return [datagram for datagram in self._read() if datagram["kind"] == answer]

        return self._cluster.wait_until(answered, f"a datagram of kind {answer}")[0]

    def _connect(self):
        challenge = self._ask(REQUEST, bytes(112), CHALLENGE)
        cookie = struct.pack("<Qq", challenge["cookie"], challenge["cookieTime"])
        self._id = self._ask(RESPONSE, cookie + PARAMETERS + bytes(80), ACCEPT)["newConnectionId"]

    def _write_packet(self, packet_id, packet, size=None):
        self._number += 1
        head = struct.pack("<IBIIIH", self._number, FRAGMENT, packet_id, size or len(packet), 0, len(packet))
        self._write(DATA, head + packet)

    def send(self, packet):
        """A packet of at most a datagram."""
        self._cluster.wait_until(lambda: self._consumed(IN_FLIGHT), "the packets' being consumed")
        self._sent += 1
        self._packets[self._sent] = packet
        self._write_packet(self._sent, packet)

    def begin(self, size):
        """The first bytes of a packet of that size, and never the others."""
        self._sent += 1
        self._write_packet(self._sent, b"x", size)

    def await_consumed(self):
        self._cluster.wait_until(lambda: self._consumed(1), "the last packet's being consumed")

    def _consumed(self, most):
        """Whether fewer than so many packets have not been consumed; else sends some of them again."""
        for datagram in self._read():
            self.pieces_heard += len(datagram.get("fragments", ()))
            for packet_id in [i for i in self._packets if i <= datagram.get("ack", {}).get("consumed", 0)]:
                del self._packets[packet_id]
        if len(self._packets) < most:
            return True
        self._cluster.pump(0.005)
        for packet_id in sorted(self._packets)[:5]:
            self._write_packet(packet_id, self._packets[packet_id])
        return False

    def go(self):
        """Without a word."""
        self._socket.close()
