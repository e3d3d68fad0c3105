"""Proves what the lock is worth: orders pictures in each mode, and measures their seams.

Two kinds of pictures, because two things are to be shown.

exact   Every slave draws the picture of one and the same position. If seams step here, frames, weights or cameras
        differ between slaves. Only a wall that locks and interpolates can show any position.
shown   Every slave saves what its window presents at its first refresh at or after the position. Refreshes of
        different displays lie apart, so the pictures do, too. An object that moves evenly has to be where it is at
        the time of each refresh: from the step between two pictures, speed times the true time between the
        refreshes that they were chosen for is taken off. What is left is what an eye that follows the object sees
        as a step.

The true times are known because all processes run on this machine: a slave's expectation of its refresh, in its own
clock, is turned into the system's without any estimate. Whether a display then refreshes when it was expected to is
the display's affair and no part of this.
"""

from __future__ import annotations

import statistics
from collections.abc import Callable
from pathlib import Path
from typing import Any

from korprocess import ProcessError

from .seam import CHANNELS, Picture, join, steps, wrapped
from .wallcluster import WallCluster

MODES = {
    "lock on": ("lock on", "interpolation on"),
    "lock on, no interpolation": ("lock on", "interpolation off"),
    "lock off": ("lock off", "interpolation off"),
}
LOCKED = "lock on"
AHEAD = 30  # frames from an order to its position
PATIENCE = 60.0  # seconds for a picture that was ordered
FILES = {"lock on": "shown-lock-on", "lock on, no interpolation": "shown-no-interpolation", "lock off": "shown-lock-off"}


class Proof:
    """Takes the pictures in every mode."""

    def __init__(self, cluster: WallCluster, captures: int) -> None:
        self._cluster = cluster
        self._captures = captures
        self._ordered = 0
        self.taken: dict[str, list[dict[str, list[Picture]]]] = {mode: [] for mode in MODES}

    def take(self) -> None:
        self._await(self._all_locked, "the lock of every slave")
        for mode, commands in MODES.items():
            for command in commands:
                self._cluster.command(command)
            for i in range(self._captures):
                self._ordered += 1
                # Every place between two frames, and no two captures alike.
                self._cluster.command(f"capture +{AHEAD + i + (i + 0.5) / self._captures:.4f}")
                kinds = ("exact", "shown") if mode == LOCKED else ("shown",)
                self.taken[mode].append(self._pictures(self._ordered, kinds))
        for command in MODES[LOCKED]:
            self._cluster.command(command)

    def _all_locked(self) -> bool:
        return all(stream.status.get("lerp", 0) > 0 for stream in self._cluster.streams[1:])

    def _await(self, done: Callable[[], bool], what: str) -> None:
        def done_without_complaint() -> bool:
            if complaints := [text for stream in self._cluster.streams for text in stream.complaints]:
                raise ProcessError("\n".join(complaints))
            return done()

        self._cluster.wait_until(done_without_complaint, what, PATIENCE)

    def _pictures(self, number: int, kinds: tuple[str, ...]) -> dict[str, list[Picture]]:
        def files(kind: str) -> list[Path]:
            return [
                Path(line["file"])
                for stream in self._cluster.streams
                for line in stream.pictures
                if line["number"] == number and line["kind"] == kind
            ]

        def complete() -> bool:
            return all(len(files(kind)) == self._cluster.plan.slaves for kind in kinds)

        self._await(complete, f"the pictures of capture {number}")
        return {kind: [Picture(file) for file in files(kind)] for kind in kinds}


def seam_steps(pictures: list[Picture], bars: list[dict[str, Any]] | None) -> list[float]:
    """Each measurable step: of exact pictures of every bar, of shown ones (with `bars`) of those that move evenly."""
    found = []
    for left, right in zip(pictures, pictures[1:]):
        for colour in CHANNELS:
            bar = next((bar for bar in bars or [] if bar["colour"] == colour), None)
            if bars is not None and bar is None:
                continue
            for step in steps(left, right, colour):
                if bar is not None:
                    apart = right.number("vsync") - left.number("vsync")
                    step = wrapped(step - bar["speed"] * apart, bar["track"])
                found.append(abs(step))
    return found


def had_data(picture: Picture) -> bool:
    """Whether both frames around its position had come in time."""
    return picture.text["result"] == "lerp"


def largest(found: list[float]) -> float | None:
    return round(max(found), 3) if found else None


def measure(proof: Proof, cluster: WallCluster) -> dict[str, Any]:
    """The figures of every mode, in pixels; null where there was nothing to measure."""
    result = {}
    for mode, captures in proof.taken.items():
        exact = [step for capture in captures for step in seam_steps(capture.get("exact", []), None)]
        shown = [step for capture in captures for step in seam_steps(capture["shown"], cluster.bars)]
        timely = [capture["shown"] for capture in captures if all(map(had_data, capture["shown"]))]
        pictures = [picture for capture in captures for picture in capture["shown"]]
        result[mode] = {
            "captures": len(captures),
            "exact_px": largest(exact),
            "exact_edges": len(exact),
            "shown_px": largest(shown),
            "shown_median_px": round(statistics.median(shown), 3) if shown else None,
            "shown_with_data_px": largest([step for ps in timely for step in seam_steps(ps, cluster.bars)]),
            "shown_edges": len(shown),
            "without_data": sum(not had_data(picture) for picture in pictures),
        }
    return result


def join_all(proof: Proof, bars: list[dict[str, Any]], folder: Path) -> Path:
    """wall.png from the capture with most to see in it; next to it, what was presented in each mode at its worst."""
    for mode, captures in proof.taken.items():
        worst = max((c["shown"] for c in captures), key=lambda pictures: max(seam_steps(pictures, bars), default=0.0))
        join(worst, folder / f"{FILES[mode]}.png")
    best = max((c["exact"] for c in proof.taken[LOCKED]), key=lambda pictures: len(seam_steps(pictures, None)))
    join(best, folder / "wall.png")
    return folder / "wall.png"
