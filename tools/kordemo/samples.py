"""What the programs of the demo report, line by line, as numbers on the system's steady clock."""

from __future__ import annotations

import json
from array import array
from typing import Any

RESULTS = ("lerp", "hit", "over_hit", "none")


class Stream:
    """The report of one process: JSON lines, fed as they come."""

    def __init__(self) -> None:
        self.header: dict[str, Any] | None = None
        self.status: dict[str, Any] = {}
        self.ended = False
        self._rest = b""

    def feed(self, data: bytes) -> None:
        """Takes in bytes as they come out of the pipe; a line may be cut anywhere."""
        lines = (self._rest + data).split(b"\n")
        self._rest = lines.pop()
        for line in lines:
            self._take(json.loads(line))

    def _take(self, line: dict[str, Any]) -> None:
        kind = line["type"]
        if kind == "header":
            self.header = line
        elif kind == "status":
            self.status = line
        elif kind == "end":
            self.ended = True
        else:
            self.take_sample(line)

    def take_sample(self, line: dict[str, Any]) -> None:
        raise NotImplementedError

    @property
    def zero(self) -> float:
        """Where this process's clock began, on the system's."""
        assert self.header is not None
        return float(self.header["zero"])


class MasterStream(Stream):
    """One sample per frame: by how much `update` came after the frame's boundary."""

    def __init__(self) -> None:
        super().__init__()
        self.frame = 0
        self.lateness = array("d")  # seconds
        self.late_swaps = 0

    def take_sample(self, line: dict[str, Any]) -> None:
        self.frame = int(line["frame"])
        self.lateness.append(line["time"] - line["boundary"])

    def _take(self, line: dict[str, Any]) -> None:
        super()._take(line)
        if "late_swaps" in line:
            self.late_swaps = int(line["late_swaps"])


class SlaveStream(Stream):
    """One sample per wait."""

    def __init__(self) -> None:
        super().__init__()
        self.time = array("d")  # of the wait's end, seconds of the process's clock
        self.vsync = array("d")  # for which the wait chose the frame, the same clock
        self.position = array("d")  # frames
        self.scene_time = array("d")  # seconds of the master's clock
        self.offset = array("d")  # master's clock minus the process's, seconds; NaN while unknown
        self.bound = array("d")  # on the offset's error, seconds
        self.result = bytearray()  # index into RESULTS
        self.first_blend: int | None = None  # index of the first sample that was interpolated
        self.totals = [0] * len(RESULTS)
        self.last: dict[str, Any] = {}

    def take_sample(self, line: dict[str, Any]) -> None:
        result = RESULTS.index(line["result"])
        if line["blended"] and self.first_blend is None:
            self.first_blend = len(self.time)
        offset = line["offset_ms"]
        self.time.append(line["time"])
        self.vsync.append(line["vsync"])
        self.position.append(line["position"])
        self.scene_time.append(line["scene_time"])
        self.offset.append(float("nan") if offset is None else offset / 1000)
        self.bound.append(line["bound_ms"] / 1000)
        self.result.append(result)
        self.totals[result] += 1
        self.last = line
