"""Measures, in pictures alone, how far the edges of an object lie apart on both sides of a seam.

The wall shows three bars that cross every seam, each in a colour channel of its own. In the columns next to the
seam, an edge is where the channel passes half its height; a straight line through those columns is continued to the
seam. The two pictures' lines meet there, or miss each other by the step.
"""

from __future__ import annotations

from pathlib import Path
from typing import Sequence

import numpy
from PIL import Image

CHANNELS = {"red": 0, "green": 1, "blue": 2}
COLUMNS = 8  # of each picture that are looked at
MARGIN = 4  # pixels between a bar and the upper and lower border, for its edges to count
STEEPEST = 1.0  # edge, in pixels per column; steeper ones tell little about their height
STRAIGHT = 0.25  # pixels by which columns may deviate from the line


class Picture:
    """One camera's picture with what its file says about it."""

    def __init__(self, path: Path) -> None:
        with Image.open(path) as image:
            self.text: dict[str, str] = dict(getattr(image, "text", {}))
            self.image = image.convert("RGB")
        self.pixels = numpy.asarray(self.image, dtype=float) / 255

    def number(self, key: str) -> float:
        return float(self.text[key])


def crossing(column: numpy.ndarray, outside: int, inside: int) -> float:
    """Where a bar's edge lies between two pixels of a column: how much of a pixel it covers tells. Its light adds to
    what is behind, and is cut off at full brightness, so the pixel that is covered less tells more."""
    step = inside - outside
    behind = column[outside - 2 * step]
    while column[outside] - behind >= 0.5:  # the soft edge reaches one pixel further
        outside -= step
    covered = column[outside] - behind
    if covered > 0.02:
        return outside + 0.5 + step * (0.5 - covered)
    covered = column[outside + step] - behind
    return outside + step + 0.5 - step * (covered - 0.5)


def edges(column: numpy.ndarray) -> tuple[float, float] | None:
    """Upper and lower edge of the one bar in a column, in pixels from above; none when there is not just one."""
    bright = column > 0.6
    changes = numpy.flatnonzero(bright[1:] != bright[:-1])
    if len(changes) != 2 or bright[0] or bright[-1]:
        return None
    top, bottom = int(changes[0]), int(changes[1])
    if top < MARGIN or bottom >= len(column) - 1 - MARGIN:
        return None
    return crossing(column, top, top + 1), crossing(column, bottom + 1, bottom)


def edges_at_border(picture: Picture, channel: int, right: bool) -> tuple[float, float] | None:
    """The same, continued from the columns next to the right or left border to the border itself."""
    width = picture.pixels.shape[1]
    columns = range(width - COLUMNS, width) if right else range(COLUMNS)
    found = [edges(picture.pixels[:, x, channel]) for x in columns]
    if None in found:
        return None
    centres = numpy.array(columns) + 0.5
    result = []
    for heights in zip(*found):
        slope, height = numpy.polyfit(centres - (width if right else 0), heights, 1)
        away = numpy.abs(heights - (slope * (centres - (width if right else 0)) + height)).max()
        if abs(slope) > STEEPEST or away > STRAIGHT:
            return None
        result.append(float(height))
    return result[0], result[1]


def steps(left: Picture, right: Picture, colour: str) -> list[float]:
    """By how much each edge of the bar of that colour lies lower in the right picture, at the seam; empty when the
    bar is not to be seen on both sides."""
    channel = CHANNELS[colour]
    here = edges_at_border(left, channel, right=True)
    there = edges_at_border(right, channel, right=False)
    if here is None or there is None:
        return []
    return [b - a for a, b in zip(here, there)]


def wrapped(step: float, track: float) -> float:
    """The same step for an object that starts anew after so many pixels."""
    return (step + track / 2) % track - track / 2


def join(pictures: Sequence[Picture], path: Path) -> None:
    """One picture of several, side by side."""
    width = sum(picture.image.width for picture in pictures)
    wall = Image.new("RGB", (width, max(picture.image.height for picture in pictures)))
    x = 0
    for picture in pictures:
        wall.paste(picture.image, (x, 0))
        x += picture.image.width
    wall.save(path, optimize=True)
