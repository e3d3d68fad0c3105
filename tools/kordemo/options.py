"""The demo's arguments."""

from __future__ import annotations

import argparse
import os
import shutil
from pathlib import Path
from typing import Callable


def between(low: float, high: float, kind: Callable[[str], float]) -> Callable[[str], float]:
    def parse(text: str) -> float:
        try:
            value = kind(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"'{text}' is not a number") from None
        if not low <= value <= high:
            raise argparse.ArgumentTypeError(f"{text} is not between {low:.10g} and {high:.10g}")
        return value

    return parse


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="script/demo",
        description="Runs a master and slaves on this machine over loopback broadcast and measures their lock.",
        epilog="Exit status: 0 every slave locked, 1 one did not or a process failed, 2 bad arguments, "
        "130 interrupted. docs/demo.md tells what is measured and how.",
    )
    parser.add_argument("--slaves", metavar="N", type=between(1, 64, int), default=3, help="slaves (3)")
    parser.add_argument(
        "--seconds",
        metavar="S",
        type=between(0.5, 3600, float),
        help="duration (10; with --wall, until a window is closed, or where there is no display, until measured)",
    )
    parser.add_argument(
        "--wall",
        action="store_true",
        help="open a window for each slave, or draw out of sight where there is no display, and measure the pictures",
    )
    parser.add_argument(
        "--captures", metavar="N", type=between(1, 1000, int), default=8, help="with --wall: pictures per mode (8)"
    )
    parser.add_argument(
        "--pictures", metavar="DIR", type=Path, help="with --wall: where to put them (wall/ in the build folder)"
    )
    parser.add_argument(
        "--lead", metavar="L", type=between(0, 120, int), help="frames that data is sent ahead (2; with --wall 6)"
    )
    parser.add_argument(
        "--rate", metavar="HZ", type=between(1, 1000, float), default=60.0, help="frames per second (60)"
    )
    parser.add_argument(
        "--payload", metavar="BYTES", type=between(0, 32 << 20, int), default=0, help="more bytes per frame (0)"
    )
    parser.add_argument("--json", metavar="FILE", type=Path, help="write the figures to this file")
    parser.add_argument(
        "--trace", metavar="FILE", type=Path, help="write where every frame went, for https://ui.perfetto.dev"
    )
    parser.add_argument(
        "--plot", metavar="DIR", type=Path, help="draw errors and results of waits over time into this folder"
    )
    parser.add_argument(
        "--grace",
        metavar="S",
        type=between(0, 3600, float),
        default=0.0,
        help="wait so much longer for slaves that have not locked by then (0)",
    )
    parser.add_argument("--logs", metavar="DIR", type=Path, help="keep what the processes printed")
    parser.add_argument(
        "--build",
        metavar="DIR",
        type=Path,
        default=Path(__file__).resolve().parents[2] / "build",
        help="build folder (build)",
    )
    arguments = parser.parse_args()
    for option in ("json", "trace"):
        file = getattr(arguments, option)
        if file and not writable(file):
            parser.error(f"argument --{option}: cannot write {file}")
    if arguments.seconds is None and not arguments.wall:
        arguments.seconds = 10.0
    if arguments.lead is None:
        arguments.lead = 6 if arguments.wall else 2
    if arguments.wall:
        for option in ("trace", "plot", "payload", "grace"):
            if getattr(arguments, option):
                parser.error(f"argument --wall: not together with --{option}")
    if arguments.plot and not shutil.which("gnuplot"):
        parser.error("argument --plot: gnuplot is not installed; script/setup does it")
    for option in ("plot", "logs", "pictures"):
        folder = getattr(arguments, option)
        if folder and (reason := unusable(folder)):
            parser.error(f"argument --{option}: {reason}")
    return arguments


def unusable(folder: Path) -> str | None:
    """Makes a folder. Returns why files cannot be put into it."""
    try:
        folder.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        return f"cannot make {folder}: {error.strerror}"
    return None if os.access(folder, os.W_OK) else f"cannot write into {folder}"


def writable(path: Path) -> bool:
    """Whether a file can be put there. Leaves what is there as it is."""
    if path.exists():
        return not path.is_dir() and os.access(path, os.W_OK)
    return path.parent.is_dir() and os.access(path.parent, os.W_OK)
