"""What the programs of the demo report, line by line, as numbers on the system's steady clock."""

from __future__ import annotations

from array import array
from typing import Any

from korprocess import Reports

RESULTS = ("lerp", "hit", "over_hit", "none")


class Stream(Reports):
    """The report of one process."""

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

    def take_report(self, report: dict[str, Any]) -> None:
        self.late_swaps = int(report.get("late_swaps", self.late_swaps))
        if report["type"] == "update":
            self.frame = int(report["frame"])
            self.lateness.append(report["time"] - report["boundary"])


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

    @property
    def wait(self) -> dict[str, Any]:
        """The newest sample; empty before the first."""
        return self.last.get("wait", {})

    def take_report(self, line: dict[str, Any]) -> None:
        if line["type"] != "wait":
            return
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
