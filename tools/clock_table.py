#!/usr/bin/env python3
"""Measures the estimated clock of a master beside chrony, over one switch at the same time, and prints a table.

Usually started by script/clock-table, which builds the programs. Needs chrony, and root or a system that lets everybody
make namespaces. Master, slave, chrony's server and its client have a namespace each. All of them have the one clock of
the kernel, so that the truth is known: both clocks of chrony are the same, and those of Kor begin where they say.
"""

from __future__ import annotations

import argparse
import json
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from korprocess import Hosts, Lines, NotPermitted, Processes, ProcessError, Reports

PORTS = (7100, 7200, 7300)
MASTER, SLAVE, SERVER, CLIENT = range(4)
ASK_SECONDS = 1 / 60  # as often as a slave tells

# What the switch does to each frame, each way. Without a delay it would forward as soon as it wakes up, which takes it
# longer on one way than on the other.
CLEAN = ("--delay-ms", 0.1, 0.1)
PATHS: dict[str, tuple[object, ...]] = {
    "clean": CLEAN,
    "5 % lost, 5 % late by 2 to 6 ms, 5 % twice": (
        *CLEAN,
        *("--lost", 0.05, "--late", 0.05, "--late-ms", 2, 6, "--doubled", 0.05),
    ),
    "0.1 ms + 0 to 0.1 ms": ("--delay-ms", 0.1, 0.2),
    "0.1 ms + 0 to 0.3 ms": ("--delay-ms", 0.1, 0.4),
    "1 ms + 0 to 4 ms": ("--delay-ms", 1, 5),
}

SERVER_CONFIGURATION = """
local stratum 1
allow all
cmdport 0
bindcmdaddress /
pidfile {folder}/server.pid
"""
CLIENT_CONFIGURATION = """
server {server} minpoll -4 maxpoll -4 xleave
cmdport 0
bindcmdaddress {folder}/client.sock
pidfile {folder}/client.pid
"""


class SlaveErrors(Reports):
    """Of a slave's estimate, in microseconds, and of its bound."""

    def __init__(self, master: Reports) -> None:
        super().__init__()
        self.errors: list[float] = []
        self.outside = 0  # of its own bound
        self._master = master

    def take_report(self, report: dict[str, Any]) -> None:
        if report["type"] != "wait" or report["offset_ms"] is None or not (self.header and self._master.header):
            return
        truth = (self.header["zero"] - self._master.header["zero"]) * 1e6
        self.errors.append(abs(report["offset_ms"] * 1e3 - truth))
        self.outside += self.errors[-1] > report["bound_ms"] * 1e3


class TrackingErrors(Lines):
    """What chrony takes its own clock to be wrong by, in microseconds; it is right."""

    def __init__(self) -> None:
        super().__init__()
        self.errors: list[float] = []

    def take(self, line: bytes) -> None:
        words = line.split(b",")
        if len(words) > 4 and int(words[2]) > 0:  # before it knows of a server its stratum is 0
            self.errors.append(abs(float(words[4])) * 1e6)


def quantile(samples: Sequence[float], fraction: float) -> float:
    return sorted(samples)[round(fraction * (len(samples) - 1))]


def start_chrony(processes: Processes, hosts: Hosts, folder: Path) -> tuple[TrackingErrors, Any]:
    """Returns what has been answered, and the process to ask."""
    for name, host, text in (("server", SERVER, SERVER_CONFIGURATION), ("client", CLIENT, CLIENT_CONFIGURATION)):
        file = folder / f"{name}.conf"
        file.write_text(text.format(folder=folder, server=Hosts.address(SERVER)))
        # -x: they never set the clock that all share.
        processes.start(f"chrony-{name}", ["chronyd", "-x", "-d", "-u", "root", "-f", file], namespaces=hosts.of(host))
    processes.wait_until(lambda: (folder / "client.sock").exists(), "chrony's socket")
    tracking = TrackingErrors()
    command = ["chronyc", "-c", "-h", folder / "client.sock"]
    return tracking, processes.start("chronyc", command, stdin=True, output=tracking)


def measure(build: Path, path: str, settle: float, seconds: float) -> dict[str, Any]:
    with Processes() as processes, tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        hosts = Hosts(processes, 4, bridged=False)
        hosts.start_switch(build / "bin/kor-test-switch", *PATHS[path])
        master, ports = Reports(), [f"--{kind}-ports={port}" for kind, port in zip(("announce", "bind", "data"), PORTS)]
        slave = SlaveErrors(master)
        command = [build / "bin/kor-master", "--broadcast", Hosts.BROADCAST, *ports, "--report", "/dev/fd/{pipe}"]
        processes.start("master", command, pipe=master, namespaces=hosts.of(MASTER))
        command = [build / "bin/kor-slave", "--announce-port", PORTS[0], "--report", "/dev/fd/{pipe}"]
        processes.start("slave", command, pipe=slave, namespaces=hosts.of(SLAVE))
        tracking, asked = start_chrony(processes, hosts, folder)

        def listen(seconds: float) -> None:
            for _ in range(round(seconds / ASK_SECONDS)):
                asked.tell("tracking")
                processes.pump_for(ASK_SECONDS)

        listen(1)
        while not (slave.errors and tracking.errors):
            listen(0.2)
        listen(settle)
        first = len(slave.errors), len(tracking.errors)
        outside = slave.outside
        listen(seconds)
        ours, theirs = slave.errors[first[0] :], tracking.errors[first[1] :]
        return {
            "path": path,
            "kor": [quantile(ours, 0.5), quantile(ours, 0.99)],
            "chrony": [quantile(theirs, 0.5), quantile(theirs, 0.99)],
            "samples": [len(ours), len(theirs)],
            "outside": slave.outside - outside,
        }


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="clock-table", description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build"), help="build folder (build)")
    parser.add_argument("--seconds", type=float, default=60, help="that each path is measured (60)")
    parser.add_argument("--settle", type=float, default=4, help="before that, once both know a clock (4)")
    parser.add_argument("--only", metavar="TEXT", default="", help="only the paths whose name holds this")
    parser.add_argument("--json", metavar="FILE", type=Path, help="also write the figures as a list of objects")
    return parser.parse_args()


def main() -> int:
    options = parse_arguments()
    print("| path, each way | Kor p50 / p99 | chrony p50 / p99 | ratio | beyond its bound |")
    print("|---|---:|---:|---:|---:|")
    figures = []
    try:
        for path in PATHS:
            if options.only not in path:
                continue
            row = measure(options.build, path, options.settle, options.seconds)
            figures.append(row)
            kor, chrony = row["kor"], row["chrony"]
            ratios = " / ".join(f"{a / b:.2f}" for a, b in zip(kor, chrony))
            print(
                f"| {path} | {kor[0]:.1f} / {kor[1]:.1f} | {chrony[0]:.1f} / {chrony[1]:.1f} | {ratios} "
                f"| {row['outside']} of {row['samples'][0]} |",
                flush=True,
            )
    except (NotPermitted, ProcessError) as error:
        print(f"clock-table: {str(error).rstrip()}", file=sys.stderr)
        return 1
    if options.json:
        options.json.write_text(json.dumps(figures, indent=2) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
