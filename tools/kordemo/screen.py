"""What somebody sees while the demo runs, and at its end."""

from __future__ import annotations

import math
from typing import Any

from rich import box
from rich.console import Console
from rich.live import Live
from rich.table import Table
from rich.text import Text

from .cluster import Cluster
from .samples import RESULTS, SlaveStream


def number(value: float | None, digits: int = 1, unit: str = "") -> str:
    if value is None or math.isnan(value):
        return "-"
    return f"{value:,.{digits}f}{unit}"


def cell(slave: SlaveStream, key: str, digits: int, scale: float = 1.0) -> str:
    value = slave.wait.get(key)
    return "-" if value is None else number(value * scale, digits)


def slave_row(slave: SlaveStream) -> list[str]:
    header = slave.header
    if header is None or not slave.wait:
        return ["starting", *[""] * (len(COLUMNS) - 1)]
    position = slave.wait["position"]
    return [
        header["name"],
        " ".join(header["cameras"]),
        cell(slave, "ping_ms", 0, 1000),
        cell(slave, "offset_ms", 3),
        cell(slave, "bound_ms", 1, 1000),
        "searching" if position < 0 else number(position, 2),
        *(str(count) for count in slave.totals),
        str(slave.wait["cache"]),
    ]


# Heading and least width; where there is none, text is wrapped.
COLUMNS = [
    ("name", 8),
    ("cameras", 0),
    ("ping\nµs", 4),
    ("clock\noffset ms", 9),
    ("error\n± µs", 5),
    ("frame\nposition", 8),
    *((f"\n{name.split('_')[0]}", 4) for name in RESULTS),
    ("\ncache", 5),
]


# Below this the cameras go under the name, and the column that one can do without goes.
NARROW = 78
CAMERAS, ERROR = 1, 4


def narrowed(cells: list[str]) -> list[str]:
    return [cell for i, cell in enumerate(cells) if i not in (CAMERAS, ERROR)]


def live_table(cluster: Cluster, elapsed: float, seconds: float, width: int) -> Table:
    master = cluster.master
    plan = cluster.plan
    table = Table(
        box=box.SIMPLE_HEAD,
        padding=0,
        title=f"master: frame {master.frame:,}  {plan.rate:g} Hz  lead {plan.lead}  late swaps {master.late_swaps}"
        f"  [{min(elapsed, seconds):.0f} of {seconds:g} s]",
        title_style="",
        title_justify="left",
    )
    narrow = width < NARROW
    for i, (heading, least) in enumerate(COLUMNS):
        if narrow and i in (CAMERAS, ERROR):
            continue
        justify = "left" if heading in ("name", "cameras") else "right"
        wraps = least == 0 or (narrow and i == 0)
        table.add_column(heading, justify=justify, min_width=least or None, no_wrap=not wraps)
    for slave in cluster.slaves:
        row = slave_row(slave)
        table.add_row(*(narrowed(row) if narrow else row))
        if narrow and row[CAMERAS]:
            table.add_row(*narrowed([row[CAMERAS], *[""] * (len(COLUMNS) - 1)]))
    return table


class Screen:
    """A live table on a terminal, a line per slave and second elsewhere."""

    def __init__(self, console: Console) -> None:
        self._console = console
        self._live = Live(console=console, auto_refresh=False, transient=True) if console.is_terminal else None
        self._printed = 0.0

    def __enter__(self) -> Screen:
        if self._live:
            self._live.__enter__()
        return self

    def __exit__(self, *error: Any) -> None:
        if self._live:
            self._live.__exit__(*error)

    def show(self, cluster: Cluster, elapsed: float, seconds: float) -> None:
        if self._live:
            self._live.update(live_table(cluster, elapsed, seconds, self._console.width), refresh=True)
        elif elapsed - self._printed >= 1:
            self._printed = math.floor(elapsed)
            for slave in cluster.slaves:
                cells = zip((heading.replace("\n", " ").strip() for heading, _ in COLUMNS[1:]), slave_row(slave)[1:])
                text = "  ".join(f"{heading} {value}" for heading, value in cells)
                print(f"{self._printed:4.0f} s  {slave_row(slave)[0]}  {text}", flush=True)


def plain_table(title: str) -> Table:
    table = Table(box=box.SIMPLE_HEAD, padding=(0, 1, 0, 0), title=title, title_style="", title_justify="left")
    table.add_column("")
    return table


def waits_table(summary: dict[str, Any]) -> Table:
    table = plain_table("Waits from each slave's lock on")
    for name in ("lock s", "waits", *(f"{name.replace('_', ' ')} %" for name in RESULTS)):
        table.add_column(name, justify="right")
    for slave in summary["slaves"]:
        waits = slave["waits"]
        locked = slave["lock_seconds"]
        table.add_row(
            slave["name"],
            Text("never", style="red") if locked is None else number(locked, 3),
            str(waits),
            *(f"{100 * slave[name] / waits:.2f}" if waits else "-" for name in RESULTS),
        )
    return table


def errors_table(summary: dict[str, Any]) -> Table:
    table = plain_table("Errors against the truth, from each slave's lock on")
    for name in ("p50", "p99", "max"):
        table.add_column(name, justify="right")

    def add(name: str, figures: dict[str, float | None], digits: int) -> None:
        table.add_row(name, *(number(figures[key], digits) for key in ("p50", "p99", "max")))

    for slave in summary["slaves"]:
        add(f"{slave['name']}: clock, µs", slave["offset_error_us"], 1)
        add(f"{slave['name']}: position, µs", slave["position_error_us"], 1)
    add("between slaves: disagreement, frames", summary["disagreement_frames"], 5)
    add("master: update after boundary, µs", summary["master"]["frame_error_us"], 1)
    return table


def print_summary(console: Console, summary: dict[str, Any]) -> None:
    master = summary["master"]
    console.print(waits_table(summary))
    console.print(errors_table(summary))
    print(f"master: {master['frames']:,} frames, {master['late_swaps']} late swaps")
