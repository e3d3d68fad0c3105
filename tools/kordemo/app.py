"""One run of the demo: start, watch, end, sum up."""

from __future__ import annotations

import argparse
import json
import re
import signal
import sys
import tempfile
import time
from contextlib import ExitStack
from pathlib import Path
from types import FrameType
from typing import Any

from korprocess import ENDING_SIGNALS, ProcessError
from rich.console import Console

from .cluster import Cluster, Plan
from .plots import plot
from .screen import Screen, print_summary
from .summary import SlaveFigures, figures, summarize
from .trace import merge

REFRESH_SECONDS = 0.1

EXIT_LOCKED, EXIT_FAILED, EXIT_INTERRUPTED = 0, 1, 130


class Interrupted(Exception):
    """SIGINT, SIGTERM or SIGHUP."""


def interrupt(number: int, _frame: FrameType | None) -> None:
    raise Interrupted(signal.Signals(number).name)


def all_locked(cluster: Cluster) -> bool:
    return all(slave.first_blend is not None for slave in cluster.slaves)


def watch(cluster: Cluster, arguments: argparse.Namespace, screen: Screen) -> float:
    """Shows the cluster until its time is over. Returns how long that was."""
    begin = time.monotonic()
    while True:
        cluster.pump_for(REFRESH_SECONDS)
        elapsed = time.monotonic() - begin
        screen.show(cluster, elapsed, arguments.seconds)
        over = elapsed >= arguments.seconds and all_locked(cluster)
        if over or elapsed >= arguments.seconds + arguments.grace:
            return elapsed


def run_cluster(plan: Plan, arguments: argparse.Namespace, console: Console) -> tuple[Cluster, float]:
    """Runs the cluster to its end."""
    cluster = Cluster(plan)
    try:
        with cluster, Screen(console) as screen:
            seconds = watch(cluster, arguments, screen)
        cluster.check_reported()
        return cluster, seconds
    finally:
        if arguments.logs:
            cluster.save_logs(arguments.logs)


def complaints(cluster: Cluster, slaves: list[SlaveFigures]) -> list[str]:
    """What was not as it should be."""
    result = cluster.faults()
    for slave in slaves:
        name = slave.process.name
        if not slave.locked:
            result.append(f"{name} did not lock: {why_unlocked(slave, cluster.plan)}")
        if wrong := slave.wrong_scenes():
            result.append(f"{name} showed a scene that does not belong to its frame position, {wrong} times")
        if bad := slave.stream.status.get("bad_frames", 0):
            result.append(f"{name} received {bad} frames that cannot be read")
    return result


def why_unlocked(slave: SlaveFigures, plan: Plan) -> str:
    if slave.stream.wait.get("offset_ms") is None:
        return "it found no master"
    lead = max(plan.least_lead(), plan.lead + 1)
    return f"data sent {plan.lead} frames ahead came too late for its refreshes; with --lead {lead} it may"


def run_guarded_wall(arguments: argparse.Namespace) -> int:
    from . import wall  # needs libraries that nothing else does

    try:
        return wall.run(arguments)
    except Interrupted as reason:
        print(f"demo: ended by {reason}", file=sys.stderr)
        return EXIT_INTERRUPTED


def formatted(summary: dict[str, Any]) -> str:
    """As JSON, with the series in a line each."""
    text = json.dumps(summary, indent=2)
    return re.sub(r"\[[-\d.e,\snul]*\]", lambda numbers: re.sub(r"\s+", " ", numbers[0]), text) + "\n"


def run(arguments: argparse.Namespace) -> int:
    """Runs the demo; returns its exit status."""
    for name in ENDING_SIGNALS:
        signal.signal(name, interrupt)
    if arguments.wall:
        return run_guarded_wall(arguments)
    try:
        with ExitStack() as stack:
            traces = None
            if arguments.trace:
                traces = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="kor-demo-")))
            return run_recorded(arguments, traces)
    except Interrupted as reason:
        print(f"demo: ended by {reason}", file=sys.stderr)
        return EXIT_INTERRUPTED


def run_recorded(arguments: argparse.Namespace, traces: Path | None) -> int:
    """The same, with a folder for what the processes record."""
    plan = Plan(
        programs=arguments.build / "bin",
        slaves=arguments.slaves,
        lead=arguments.lead,
        rate=arguments.rate,
        payload=arguments.payload,
        traces=traces,
    )
    console = Console()
    try:
        cluster, seconds = run_cluster(plan, arguments, console)
    except ProcessError as error:
        print(f"demo: {error}", file=sys.stderr)
        return EXIT_FAILED

    slaves = list(figures(cluster))
    summary = summarize(cluster, slaves, seconds)
    print_summary(console, summary)
    if arguments.json:
        try:
            arguments.json.write_text(formatted(summary))
        except OSError as error:
            print(f"demo: cannot write {arguments.json}: {error.strerror}", file=sys.stderr)
            return EXIT_FAILED
    faults = complaints(cluster, slaves)
    if traces:
        names = (process.name for process in cluster.members)
        faults += merge(arguments.build / "bin" / "kor-trace-merge", traces, names, arguments.trace)
    if arguments.plot:
        faults += plot(summary, arguments.plot)
    for fault in faults:
        print(f"demo: {fault}", file=sys.stderr)
    return EXIT_FAILED if faults else EXIT_LOCKED
