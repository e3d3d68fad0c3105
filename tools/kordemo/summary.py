"""The figures of a run, from what the processes reported and where their clocks really lay.

All processes run on one machine and say where their clock's zero lies on the system's steady clock. So the truth
is known without any network: the master's clock minus a slave's is the slave's zero minus the master's.

Per slave, from its first interpolated frame ("lock") on:

  lock_seconds       from the start of its process, or of the master's when that is later, to the end of the first
                     wait that interpolated; null when there was none
  waits, lerp, hit, over_hit, none
                     waits from that one on, in all and by result; when the slave never locked, all its waits
  offset_error_us    |clock offset as the slave saw it right after the wait - true offset|
  position_error_us  |applied position - true position of the master's frame clock at the vertical sync that the
                     wait was for|, times the frame interval; of waits that applied a frame

  series             the same over time, from the first wait on; see docs/demo.md

Of the master:

  frames             calls of update
  late_swaps         passes of the frame loop that had to catch up more than one frame
  frame_error_us     time of the call of update after the boundary of the frame that it was called for

Of every pair of locked slaves:

  disagreement_frames  for each wait of the one and the nearest in time of the other: |error - error|, where
                       error = applied position - true position, in frames, each at its own vertical sync. It is what
                       shows at the seam between the two pictures, beside how late each slave woke for its refresh.

Percentiles are the nearest rank. A list without values gives null.
"""

from __future__ import annotations

import math
from bisect import bisect_left
from itertools import combinations
from typing import Any, Iterable, Sequence

from korprocess import Process

from .cluster import Cluster
from .samples import RESULTS, MasterStream, SlaveStream

NONE = RESULTS.index("none")
NO_POSITION = -1.0
# In each series; an hour of 60 Hz has 216,000 waits.
MOST_POINTS = 1000
# A wait of one slave is compared with one of another that lies at most this far away.
PAIR_SECONDS = 0.02
# The scene's own time is written as a double and blended as one.
SCENE_TOLERANCE = 1e-6


def percentiles(values: Iterable[float], scale: float = 1.0) -> dict[str, float | None]:
    ordered = sorted(values)
    if not ordered:
        return {"p50": None, "p99": None, "max": None}

    def rank(share: float) -> float:
        return round(ordered[max(math.ceil(share * len(ordered)) - 1, 0)] * scale, 6)

    return {"p50": rank(0.50), "p99": rank(0.99), "max": rank(1.0)}


def extreme(values: Iterable[float]) -> float | None:
    """The value that is farthest from zero."""
    largest = max(values, key=abs, default=None)
    return None if largest is None else round(largest, 3)


class SlaveFigures:
    """One slave's samples against the truth."""

    def __init__(self, process: Process, master: Process, interval: float) -> None:
        assert isinstance(process.reports, SlaveStream) and isinstance(master.reports, MasterStream)
        self.stream = process.reports
        self.process = process
        self.locked = self.stream.first_blend is not None
        self.begin = self.stream.first_blend or 0
        self.interval = interval
        self._master_started = master.started
        self._true_offset = self.stream.zero - master.reports.zero
        # A connection that ends right behind a wait takes its position away before the slave has noted it.
        self.applied = [
            i
            for i in range(self.begin, len(self.stream.time))
            if self.stream.result[i] != NONE and self.stream.position[i] != NO_POSITION
        ]

    def lock_seconds(self) -> float | None:
        if self.stream.first_blend is None:
            return None
        locked_at = self.stream.zero + self.stream.time[self.stream.first_blend]
        return round(locked_at - max(self.process.started, self._master_started), 6)

    def position_error(self, index: int) -> float:
        """Applied minus true position, in frames."""
        true = (self.stream.vsync[index] + self._true_offset) / self.interval
        return self.stream.position[index] - true

    def offset_errors(self) -> list[float]:
        known = (self.stream.offset[i] for i in range(self.begin, len(self.stream.offset)))
        return [abs(offset - self._true_offset) for offset in known if not math.isnan(offset)]

    def series(self) -> dict[str, Any]:
        """All waits over time, a few of them together to a point where there are many."""
        count = len(self.stream.time)
        step = max(math.ceil(count / MOST_POINTS), 1)
        points = [range(first, min(first + step, count)) for first in range(0, count, step)]
        results, offset, bound = self.stream.result, self.stream.offset, self.stream.bound

        def placed(i: int) -> bool:
            return results[i] != NONE and self.stream.position[i] != NO_POSITION

        def clock_known(i: int) -> bool:
            return not math.isnan(offset[i])

        def seconds(i: int) -> float:
            return round(self.stream.zero + self.stream.time[i] - self._master_started, 6)

        to_us = 1e6 * self.interval
        return {
            "waits_per_point": step,
            "time_s": [seconds(point[0]) for point in points],
            "position_error_us": [
                extreme(self.position_error(i) * to_us for i in point if placed(i)) for point in points
            ],
            "clock_error_us": [
                extreme((offset[i] - self._true_offset) * 1e6 for i in point if clock_known(i)) for point in points
            ],
            "clock_bound_us": [extreme(bound[i] * 1e6 for i in point if clock_known(i)) for point in points],
            "results": {
                name: [results[point.start : point.stop].count(number) for point in points]
                for number, name in enumerate(RESULTS)
            },
        }

    def wrong_scenes(self) -> int:
        """Interpolated waits after which the scene was not the one of the position."""
        return sum(
            1
            for i in self.applied
            if RESULTS[self.stream.result[i]] == "lerp"
            and abs(self.stream.scene_time[i] - self.stream.position[i] * self.interval) > SCENE_TOLERANCE
        )

    def summary(self) -> dict[str, Any]:
        assert self.stream.header is not None
        results = self.stream.result[self.begin :]
        errors = (abs(self.position_error(i)) * self.interval for i in self.applied)
        return {
            "name": self.stream.header["name"],
            "cameras": self.stream.header["cameras"],
            "lock_seconds": self.lock_seconds(),
            "waits": len(results),
            **{name: results.count(i) for i, name in enumerate(RESULTS)},
            "offset_error_us": percentiles(self.offset_errors(), 1e6),
            "position_error_us": percentiles(errors, 1e6),
            "series": self.series(),
        }


def disagreement(a: SlaveFigures, b: SlaveFigures) -> list[float]:
    """Of each wait of `a` with the nearest in time of `b`, in frames."""
    times = [b.stream.zero + b.stream.vsync[i] for i in b.applied]
    result = []
    for i in a.applied:
        when = a.stream.zero + a.stream.vsync[i]
        right = bisect_left(times, when)
        near = [j for j in (right - 1, right) if 0 <= j < len(times) and abs(times[j] - when) <= PAIR_SECONDS]
        if near:
            j = min(near, key=lambda k: abs(times[k] - when))
            result.append(abs(a.position_error(i) - b.position_error(b.applied[j])))
    return result


def figures(cluster: Cluster) -> Sequence[SlaveFigures]:
    master, *slaves = cluster.members
    header = cluster.master.header
    assert header is not None
    interval = float(header["interval"])
    return [SlaveFigures(slave, master, interval) for slave in slaves]


def summarize(cluster: Cluster, slaves: Sequence[SlaveFigures], seconds: float) -> dict[str, Any]:
    """The object that --json writes."""
    master = cluster.master
    pairs = combinations([slave for slave in slaves if slave.locked], 2)
    return {
        "seconds": round(seconds, 3),
        "lead": cluster.plan.lead,
        "rate": cluster.plan.rate,
        "master": {
            "frames": len(master.lateness),
            "late_swaps": master.late_swaps,
            "frame_error_us": percentiles(master.lateness, 1e6),
        },
        "slaves": [slave.summary() for slave in slaves],
        "disagreement_frames": percentiles(value for pair in pairs for value in disagreement(*pair)),
    }
