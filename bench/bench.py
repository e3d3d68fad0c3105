#!/usr/bin/env python3
"""Measures the connection layer beside bare UDP, TCP, ENet and CycloneDDS, all in one run.

The ratio is value / reference; what the reference is, the row's name tells after "vs". Usually started by
script/bench, which builds the program first.
"""

from __future__ import annotations

import argparse
import signal
import sys
from pathlib import Path
from types import FrameType

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))

from korbench.bench import Bench
from korbench.figures import FIGURES
from korbench.table import Table
from korprocess import ENDING_SIGNALS, ProcessError


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench", description=__doc__.splitlines()[0])
    names = [figure.name for figure in FIGURES]
    parser.add_argument(
        "--only", metavar="NAME", action="append", choices=names, help="measure this figure; may be given more than once"
    )
    parser.add_argument("--list", action="store_true", help="name the figures and measure nothing")
    parser.add_argument("--json", metavar="FILE", type=Path, help="also write the table as a list of objects")
    parser.add_argument(
        "--against", metavar="DIR", type=Path, help="measure this build folder too, in turns, as a further reference"
    )
    parser.add_argument(
        "--build", metavar="DIR", type=Path, default=Path("build-bench"), help="build folder (build-bench)"
    )
    return parser.parse_args()


def measure(arguments: argparse.Namespace, table: Table) -> None:
    builds = {"": arguments.build}
    if arguments.against:
        builds["other build"] = arguments.against
    for figure in FIGURES:
        if arguments.only and figure.name not in arguments.only:
            continue
        print(f"{figure.name}: {figure.what}", file=sys.stderr)
        with Bench(builds, table) as bench:
            before = bench.memory_line() if figure.side_by_side else None
            figure.measure(bench)
        with Bench(builds, table) as bench:
            after = bench.memory_line() if before else None
        for when, times in (("before", before), ("after", after)):
            if times:
                table.add(f"{figure.name}, {when}: memory line between two processors, vs own memory", "ns", *times)


def stop(number: int, _frame: FrameType | None) -> None:
    sys.exit(128 + number)


def main() -> int:
    arguments = parse_arguments()
    if arguments.list:
        for figure in FIGURES:
            print(f"{figure.name:14} {figure.what}")
        return 0
    for number in ENDING_SIGNALS:
        signal.signal(number, stop)
    table = Table()
    status = 0
    try:
        measure(arguments, table)
    except ProcessError as error:
        print(f"bench: {str(error).rstrip()}", file=sys.stderr)
        status = 1
    table.print()
    try:
        if arguments.json:
            table.write_json(arguments.json)
    except OSError as error:
        print(f"bench: cannot write {arguments.json}: {error.strerror}", file=sys.stderr)
        status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
