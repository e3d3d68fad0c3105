"""What a figure is measured with."""

from __future__ import annotations

import os
from collections.abc import Callable, Sequence
from pathlib import Path

from korprocess import Answers, Process, Processes

from .table import Table

Measure = Callable[[], Sequence[float]]  # one round
Contest = dict[str, Measure]  # by what stands behind "vs"; "" is what all are held against
Medians = dict[str, list[float]]

ROLES = "bench/kor-bench-role"


def quantile(samples: Sequence[float], fraction: float) -> float:
    """The sample below which that part of them lies."""
    return sorted(samples)[int(fraction * (len(samples) - 1) + 0.5)]


def median(samples: Sequence[float]) -> float:
    return quantile(samples, 0.5)


def take_turns(rounds: int, *contests: Contest) -> list[Medians]:
    """Measures everything once a round, so that whatever else the machine does meets all of it alike.

    Returns the medians of the rounds in place of each measure.
    """
    results: list[dict[str, list[Sequence[float]]]] = [{label: [] for label in contest} for contest in contests]
    for _ in range(rounds):
        for contest, result in zip(contests, results):
            for label, measure in contest.items():
                result[label].append(measure())
    return [{label: [median(column) for column in zip(*all)] for label, all in result.items()} for result in results]


class Bench(Processes):
    """Starts the program in its roles; these are told in the C++ file of each. Leaving it ends them."""

    def __init__(self, builds: dict[str, Path], table: Table) -> None:
        """Of the build folders, the one with the label "" is to be measured, and any other held against it."""
        super().__init__()
        self._builds = builds
        self._table = table

    def start_role(self, role: str, *numbers: float, build: Path | None = None) -> tuple[Process, list[float]]:
        """Returns the process and what it answers once it is ready."""
        process = self._start(role, numbers, build)
        return process, process.hear()

    def start_roles(self, count: int, role: str, *numbers: float, build: Path | None = None) -> list[Process]:
        """The same many times at once."""
        processes = [self._start(role, numbers, build) for _ in range(count)]
        for process in processes:
            process.hear()
        return processes

    def _start(self, role: str, numbers: Sequence[float], build: Path | None) -> Process:
        command = [(build or self._builds[""]) / ROLES, role, *(f"{number:.17g}" for number in numbers)]
        return self.start(role, command, stdin=True, output=Answers())

    def start_pair(
        self, transport: str, roles: tuple[str, str], *settings: float, build: Path | None = None
    ) -> tuple[Process, Process]:
        """Starts two roles with the same settings, the second of which is told the port of the first."""
        first, ready = self.start_role(f"{transport}-{roles[0]}", *settings, build=build)
        second, _ = self.start_role(f"{transport}-{roles[1]}", *settings, ready[0], build=build)
        return first, second

    def ours(self, start: Callable[[Path], Measure]) -> Contest:
        """Starts what is to be measured in every build."""
        return {label: start(build) for label, build in self._builds.items()}

    def add(self, name: str, unit: str, ours: Medians, references: Medians | dict[str, list[float]], which: int = 0) -> None:
        """Adds a row for each reference. The measures give several numbers: `which` of them is this."""
        value = ours[""][which]
        for label, reference in {**references, **ours}.items():
            if label:
                self._table.add(f"{name}, vs {label}", unit, value, reference[which if len(reference) > 1 else 0])

    def memory_line(self) -> tuple[float, float] | None:
        """Nanoseconds until a line of memory is here from another processor, and out of own memory."""
        processors = sorted(os.sched_getaffinity(0))[:2]
        role, _ = self.start_role("memory-line")
        other = role.ask("other", *processors) if len(processors) == 2 else []
        return (median(other), median(role.ask("own"))) if other else None
