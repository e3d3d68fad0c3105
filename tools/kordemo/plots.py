"""Pictures of a run over time, drawn by gnuplot from the series in the figures."""

from __future__ import annotations

import math
import subprocess
from pathlib import Path
from typing import Any, Sequence

from .samples import RESULTS

GNUPLOT = "gnuplot"
WIDTH, PANEL_HEIGHT, TITLE_HEIGHT = 1200, 220, 50  # pixels
COLOURS = {"lerp": "#2e8b57", "hit": "#e69f00", "over_hit": "#cc79a7", "none": "#c0392b"}


def quoted(text: str) -> str:
    """A string of gnuplot's in which nothing has a meaning."""
    return "'" + text.replace("'", "''").replace("\n", " ") + "'"


def rows(series: dict[str, Any]) -> str:
    """Columns: 1 time, 2 position error, 3 clock error, 4 its bound, 5 and on the results."""
    columns = [series[key] for key in ("time_s", "position_error_us", "clock_error_us", "clock_bound_us")]
    columns += [series["results"][result] for result in RESULTS]
    return "\n".join(" ".join("?" if value is None else f"{value:.9g}" for value in row) for row in zip(*columns))


def power_of_ten(values: Sequence[float | None]) -> int:
    """The least one, from 2 on, whose power is above all values."""
    largest = max((abs(value) for value in values if value is not None), default=0)
    return max(2, math.ceil(math.log10(largest)) if largest > 0 else 2)


def position_panel(slaves: Sequence[dict[str, Any]]) -> list[str]:
    # From microseconds, as long as the lock holds, to a whole frame, when it does not.
    power = power_of_ten([value for slave in slaves for value in slave["series"]["position_error_us"]])
    tics = [sign * 10**i for i in range(1, power + 1) for sign in (-1, 1)]
    return [
        "set nonlinear y via asinh(y) inverse sinh(y)",
        f"set yrange [{-(10**power)}:{10**power}]",
        "set ytics (" + ", ".join(map(str, [0, *tics])) + ")",
        "set ylabel 'µs'",
        "plot $data using 1:2 with points pointtype 7 pointsize 0.4 linecolor rgb '#1f4e9c' notitle",
    ]


def clock_panel(slaves: Sequence[dict[str, Any]]) -> list[str]:
    # The first moments of a connection are far off and would flatten everything else.
    def most(key: str) -> float:
        values = sorted(abs(value) for slave in slaves for value in slave["series"][key] if value is not None)
        return values[int(0.9 * len(values))] if values else 0.0

    typical = max(1.0, most("clock_bound_us"), most("clock_error_us"))
    return [
        "unset nonlinear y",
        f"set yrange [{-1.5 * typical:.6g}:{1.5 * typical:.6g}]",
        "set ytics auto",
        "set ylabel 'µs'",
        "plot $data using 1:(-$4):4 with filledcurves fillstyle solid 0.25 linecolor rgb '#7f8c8d' title 'bound', "
        "$data using 1:3 with lines linecolor rgb '#1f4e9c' title 'error'",
    ]


def waits_panel(_slaves: Sequence[dict[str, Any]]) -> list[str]:
    names = ", ".join(f"'{result.replace('_', ' ')}' {-i}" for i, result in enumerate(RESULTS))
    plots = ", ".join(
        f"$data using 1:(${i + 5} > 0 ? {-i} : NaN) with points pointtype 7 "
        f"pointsize {0.5 if result == 'lerp' else 0.9} linecolor rgb '{COLOURS[result]}' notitle"
        for i, result in enumerate(RESULTS)
    )
    return [
        "unset nonlinear y",
        f"set yrange [{0.5 - len(RESULTS)}:0.5]",
        f"set ytics ({names})",
        "unset ylabel",
        f"plot {plots}",
    ]


def shares(series: dict[str, Any]) -> str:
    totals = {result: sum(series["results"][result]) for result in RESULTS}
    waits = sum(totals.values())
    return "   ".join(f"{name.replace('_', ' ')} {100 * count / waits:.2f} %" for name, count in totals.items())


PICTURES = {
    "position-error": ("Applied position minus the true one at the refresh", position_panel),
    "clock-error": ("Clock offset minus the true one, and the bound that the slave gives", clock_panel),
    "waits": ("Results of waits", waits_panel),
}


def picture(title: str, panel: Any, slaves: Sequence[dict[str, Any]]) -> str:
    """The commands that draw one picture to standard output, one panel under another."""
    end = max((slave["series"]["time_s"][-1] for slave in slaves), default=1.0)
    lines = [
        f"set terminal pngcairo noenhanced size {WIDTH},{TITLE_HEIGHT + PANEL_HEIGHT * len(slaves)}",
        "set datafile missing '?'",
        f"set multiplot layout {len(slaves)},1 title {quoted(title)}",
        f"set xrange [0:{end:.6g}]",
        "set lmargin 12",
        "set grid",
        "set xlabel 's' offset 0,0.7",
    ]
    for slave in slaves:
        series = slave["series"]
        many = series["waits_per_point"]
        points = "" if many == 1 else f"   (each point: {many} waits)"
        lines += ["$data << END", rows(series), "END"]
        lines += [f"set title {quoted(slave['name'] + '   ' + shares(series) + points)} offset 0,-0.7"]
        lines += panel(slaves)
    return "\n".join([*lines, "unset multiplot", ""])


def plot(summary: dict[str, Any], folder: Path) -> list[str]:
    """Writes the pictures. Returns what went wrong."""
    slaves = [slave for slave in summary["slaves"] if slave["series"]["time_s"]]
    if not slaves:
        return ["nothing to plot: no slave has waited"]
    faults = []
    for name, (title, panel) in PICTURES.items():
        file = folder / f"{name}.png"
        commands = picture(title, panel, slaves).encode()
        try:
            result = subprocess.run([GNUPLOT], input=commands, capture_output=True, check=False)
            if result.returncode != 0 or not result.stdout:
                faults.append(f"{GNUPLOT} could not draw {file}: {result.stderr.decode(errors='replace').strip()}")
                continue
            file.write_bytes(result.stdout)
        except OSError as error:
            faults.append(f"cannot write {file}: {error.strerror}")
    return faults
