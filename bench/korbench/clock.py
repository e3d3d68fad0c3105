"""Two processes whose clocks drift apart."""

from __future__ import annotations

import time
from pathlib import Path

from .bench import Bench, quantile, take_turns

DRIFT_PPM = 30
START_APART = 7 * 3.6e12  # nanoseconds: the drifting clock is hours ahead
SETTLE_SECONDS = 5
SAMPLES = 3000
EVERY_MS = 5


def clock(bench: Bench) -> None:
    def measure(build: Path) -> list[float]:
        base = time.monotonic_ns()
        true, drifting = (base, 0, 0), (base, START_APART, DRIFT_PPM)
        master, ready = bench.start_role("kor-clock", *true, *drifting, 0, build=build)
        slave, _ = bench.start_role("kor-clock", *drifting, *true, ready[0], build=build)
        ends = (master, slave)

        def errors() -> list[float]:
            """At both ends at once."""
            for end in ends:
                end.tell(f"errors {SAMPLES} {EVERY_MS}")
            samples = [abs(error) for end in ends for error in end.hear()]
            return [quantile(samples, 0.5), quantile(samples, 0.99)]

        bench.pump_for(SETTLE_SECONDS)
        idle = errors()
        master.ask("load", 1)
        bench.pump_for(SETTLE_SECONDS)
        loaded = errors()
        master.ask("load", 0)
        bench.end(ends)
        return idle + loaded

    (medians,) = take_turns(1, bench.ours(lambda build: lambda: measure(build)))
    limits = {"limit": [2.0, 10.0, 20.0, 100.0]}
    bench.add("clock, error idle, p50", "us", medians, limits, 0)
    bench.add("clock, error idle, p99", "us", medians, limits, 1)
    bench.add("clock, error beside 60 Hz x 1 MiB, p50", "us", medians, limits, 2)
    bench.add("clock, error beside 60 Hz x 1 MiB, p99", "us", medians, limits, 3)
