"""What a process says through a pipe, line by line."""

from __future__ import annotations

import json
from collections import Counter, deque
from typing import Any


class Lines:
    """Takes in bytes as they come out of a pipe, which may be cut anywhere."""

    def __init__(self) -> None:
        self._cut = b""

    def feed(self, data: bytes) -> None:
        *lines, self._cut = (self._cut + data).split(b"\n")
        for line in lines:
            self.take(line)

    def take(self, line: bytes) -> None:
        raise NotImplementedError


class Reports(Lines):
    """JSON objects with a "type", such as the programs write with --report."""

    def __init__(self) -> None:
        super().__init__()
        self.last: dict[str, dict[str, Any]] = {}  # the newest of each type
        self.count: Counter[str] = Counter()  # how many there were of each

    def take(self, line: bytes) -> None:
        report = json.loads(line)
        self.last[report["type"]] = report
        self.count[report["type"]] += 1
        self.take_report(report)

    def take_report(self, report: dict[str, Any]) -> None:
        """For those who want every one."""

    @property
    def header(self) -> dict[str, Any] | None:
        return self.last.get("header")

    @property
    def status(self) -> dict[str, Any]:
        """The newest one; empty before the first."""
        return self.last.get("status", {})


class Answers(Lines):
    """Lines of numbers, one for each order; see `Process.ask`."""

    def __init__(self) -> None:
        super().__init__()
        self.waiting: deque[list[float]] = deque()

    def take(self, line: bytes) -> None:
        self.waiting.append([float(word) for word in line.split()])
