"""A cable that loses, doubles and reorders: passes Ethernet frames between two interfaces.

    cable.py INTERFACE INTERFACE LOST DOUBLED HELD_BACK SEED

In each direction that share of the frames is lost, sent twice, or held back until the next one has passed. What
became of them is written to standard output ten times a second.
"""

import json
import random
import select
import socket
import sys
import time
from collections import Counter

ETH_P_ALL = 3
SOL_PACKET = 263
PACKET_VNET_HDR = 15
PACKET_IGNORE_OUTGOING = 23
HOLD_SECONDS = 0.002
STATUS_SECONDS = 0.1


def open_interface(name: str) -> socket.socket:
    """Frames carry a header that says what is left to do for the checksums, so that they can be passed on before the
    kernel has filled them in."""
    opened = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    opened.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
    opened.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
    opened.bind((name, ETH_P_ALL))
    return opened


class Direction:
    def __init__(self, source: socket.socket, target: socket.socket, shares: list[float], chance: random.Random) -> None:
        self.source = source
        self.held: bytes | None = None
        self.held_since = 0.0
        self._target = target
        self._lost, self._doubled, self._held_back = shares
        self._chance = chance

    def take(self, count: Counter[str]) -> None:
        frame = self.source.recv(70000)
        if self._chance.random() < self._lost:
            count["lost"] += 1
        elif self.held is None and self._chance.random() < self._held_back:
            count["held_back"] += 1
            self.held, self.held_since = frame, time.monotonic()
        else:
            self._target.send(frame)
            if self._chance.random() < self._doubled:
                count["doubled"] += 1
                self._target.send(frame)
            self.let_go()

    def let_go(self) -> None:
        if self.held is not None:
            self._target.send(self.held)
            self.held = None


def main() -> None:
    first, second = (open_interface(name) for name in sys.argv[1:3])
    shares = [float(share) for share in sys.argv[3:6]]
    chance = random.Random(int(sys.argv[6]))
    directions = [Direction(a, b, shares, chance) for a, b in ((first, second), (second, first))]
    count = Counter(lost=0, doubled=0, held_back=0)
    due = 0.0
    while True:
        ready = select.select([direction.source for direction in directions], [], [], 0.001)[0]
        for direction in directions:
            if direction.source in ready:
                direction.take(count)
            if direction.held is not None and time.monotonic() > direction.held_since + HOLD_SECONDS:
                direction.let_go()
        if time.monotonic() >= due:
            due = time.monotonic() + STATUS_SECONDS
            print(json.dumps({"type": "status", **count}), flush=True)


if __name__ == "__main__":
    main()
