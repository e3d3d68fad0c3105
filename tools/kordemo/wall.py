"""The demo with windows: runs the wall, proves its lock by pictures, and says what that came to."""

from __future__ import annotations

import argparse
import json
import sys
import time
from pathlib import Path
from typing import Any

from korprocess import ProcessError
from rich.console import Console

from .proof import LOCKED, Proof, join_all, measure
from .screen import number, plain_table
from .wallcluster import WallCluster, WallPlan, WindowClosed, on_a_display

ALLOWED_STEP = 1.0  # pixels, of pictures for one position

EXIT_PROVED, EXIT_FAILED = 0, 1


def figures_table(figures: dict[str, Any], slaves: int) -> Any:
    table = plain_table("Largest step at a seam, in pixels, at up to 1,000 pixels a second")
    for name in ("same\nposition", "as\npresented", "of those\nwith data", "pictures", "without\ndata"):
        table.add_column(name, justify="right")
    for mode, row in figures.items():
        cells = (number(row[key], 2) for key in ("exact_px", "shown_px", "shown_with_data_px"))
        table.add_row(mode, *cells, str(row["captures"] * slaves), str(row["without_data"]))
    return table


def linger(cluster: WallCluster, until: float | None) -> None:
    """Leaves the windows open until then, or until somebody closes one."""
    while until is None or time.monotonic() < until:
        cluster.pump_for(0.1)


def run_wall(plan: WallPlan, arguments: argparse.Namespace) -> tuple[WallCluster, Proof, bool]:
    """Runs the wall to its end. The last value: whether all pictures were taken before a window was closed."""
    cluster = WallCluster(plan)
    begin = time.monotonic()
    proof = Proof(cluster, arguments.captures)
    proved = False
    try:
        with cluster:
            try:
                proof.take()
                proved = True
                if on_a_display() or arguments.seconds:
                    linger(cluster, begin + arguments.seconds if arguments.seconds else None)
            except WindowClosed as name:
                print(f"demo: the window of {name} was closed", file=sys.stderr)
        return cluster, proof, proved
    finally:
        if arguments.logs:
            cluster.save_logs(arguments.logs)


def show(figures: dict[str, Any], slaves: int, wall: Path, console: Console) -> None:
    console.print(figures_table(figures, slaves))
    print("same position: every slave draws the picture for one position; as presented: what the windows showed, less the")
    print("motion between their refreshes. Without data: a frame had not come in time, as when the machine is busy.")
    print(f"pictures: {wall} and others next to it")


def told(folder: Path, figures: Path | None) -> str:
    return f"into {folder} or {figures}" if figures else f"into {folder}"


def run(arguments: argparse.Namespace) -> int:
    """Runs the demo; returns its exit status."""
    folder = arguments.pictures or arguments.build / "wall"
    plan = WallPlan(
        programs=arguments.build / "bin",
        slaves=arguments.slaves,
        lead=arguments.lead,
        rate=arguments.rate,
        payload=0,
        refresh=arguments.rate,
        size=(480, 360) if on_a_display() else (320, 240),
        pictures=folder,
    )
    try:
        folder.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        print(f"demo: cannot make {folder}: {error.strerror}", file=sys.stderr)
        return EXIT_FAILED
    try:
        cluster, proof, proved = run_wall(plan, arguments)
        if not proved:
            return EXIT_PROVED
        figures = measure(proof, cluster)
        wall = join_all(proof, cluster.bars, folder)
        if arguments.json:
            arguments.json.write_text(json.dumps({"wall": figures}, indent=2) + "\n")
    except ProcessError as error:
        print(f"demo: {error}", file=sys.stderr)
        return EXIT_FAILED
    except OSError as error:
        # A disk that is full is not told with the name of the file.
        print(f"demo: cannot write {error.filename or told(folder, arguments.json)}: {error.strerror}", file=sys.stderr)
        return EXIT_FAILED
    show(figures, plan.slaves, wall, Console())
    step = figures[LOCKED]["exact_px"]
    if plan.slaves == 1:
        print("demo: one window has no seam, so there was nothing to measure", file=sys.stderr)
        return EXIT_PROVED
    if step is None:
        print("demo: in none of the pictures a bar crossed a seam; take more --captures", file=sys.stderr)
        return EXIT_FAILED
    if step > ALLOWED_STEP:
        print(f"demo: the pictures of one position do not meet within {ALLOWED_STEP:g} pixel", file=sys.stderr)
        return EXIT_FAILED
    return EXIT_PROVED
