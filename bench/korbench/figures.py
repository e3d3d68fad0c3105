"""All that is measured, in this order."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

from .bench import Bench
from .clock import clock
from .peers import fan_out, idle, readers
from .single import repair, trace, tracking, wire_bytes
from .traffic import bulk, bulk_loopback, bulk_plain, large_packet, round_trip


@dataclass(frozen=True)
class Figure:
    """Something measured, with one row or several."""

    name: str
    what: str
    measure: Callable[[Bench], None]
    side_by_side: bool = False  # processes that hand each other data on several processors


# fmt: off
FIGURES = [
    Figure("round-trip", "64 bytes there and back, both ends waiting in the kernel; median", round_trip, True),
    Figure("bulk", "1 MiB packets to one peer in 1472-byte datagrams, kernel offloads in use", bulk, True),
    Figure("bulk-plain", "the same without offloads", bulk_plain, True),
    Figure("bulk-loopback", "the same in datagrams of loopback's full size", bulk_loopback, True),
    Figure("large-packet", "one packet of 2 MiB, from sendAsyn to onPacket; median", large_packet, True),
    Figure("fan-out", "1 KiB to each of 250 peers 240 times a second: sender's load, spread of a tick", fan_out, True),
    Figure("readers", "1 KiB to 16 and 100 readers 240 times a second, each reader a process", readers, True),
    Figure("idle", "250 connections without traffic: load and memory of the master", idle),
    Figure("repair", "simulated: what a lost datagram costs at 1 % loss and 0.2 ms round trip", repair),
    Figure("wire-bytes", "simulated: bytes on the wire for a packet of 10 MiB at 0.1 % loss", wire_bytes),
    Figure("clock", "error of the estimated clock of a peer that drifts by 30 ppm", clock),
    Figure("tracking", "memAddInfo and memRemoveInfo of one block", tracking),
    Figure("trace", "an event of a recording, clock readings included", trace),
]
