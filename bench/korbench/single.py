"""One process alone."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

from .bench import Bench, Measure, median, quantile, take_turns

ROUNDS = 15
MIB = 1 << 20


def repair(bench: Bench) -> None:
    shortest_ms = 0.1  # no repair takes less than one delay of the path

    def start(build: Path) -> Measure:
        role, _ = bench.start_role("repair", build=build)

        def extra_delays(size: int, packets: int) -> list[float]:
            """Of those packets that had to wait for a repair, in milliseconds."""
            clean = max(role.ask("delays", 1, 0, size, 50))
            delays = role.ask("delays", 2, 0.01, size, packets)
            return [delay - clean for delay in delays if delay > clean + shortest_ms]

        def measure() -> Sequence[float]:
            # A packet of 65 datagrams mostly loses one in its middle; one of a single datagram loses its tail.
            middle, tail = extra_delays(65 * 1437, 6000), extra_delays(1000, 40000)
            return [quantile(extra, fraction) for extra in (middle, tail) for fraction in (0.99, 0.5)]

        return measure

    (medians,) = take_turns(1, bench.ours(start))
    limits = {"limit": [2.0, 2.0, 4.0, 4.0]}
    bench.add("repair, 1 % loss, extra delay of packets hit, p99", "ms", medians, limits, 0)
    bench.add("repair, 1 % loss, extra delay of packets hit, p50", "ms", medians, limits, 1)
    bench.add("repair, 1 % loss, lost tail, p99", "ms", medians, limits, 2)
    bench.add("repair, 1 % loss, lost tail, p50", "ms", medians, limits, 3)


def wire_bytes(bench: Bench) -> None:
    packet, loss, headers = 10 * MIB, 0.001, 28  # of IPv4 and UDP

    def start(build: Path) -> Measure:
        role, _ = bench.start_role("repair", build=build)

        def measure() -> list[float]:
            sent = [role.ask("wire", seed, loss, packet) for seed in range(1, 16)]
            return [
                median([size / MIB for size, _ in sent]),
                median([(size + headers * datagrams) / MIB for size, datagrams in sent]),
            ]

        return measure

    (medians,) = take_turns(1, bench.ours(start))
    references = {"packet": [packet / MIB]}
    bench.add("wire-bytes, 10 MiB at 0.1 % loss, datagrams", "MiB", medians, references, 0)
    bench.add("wire-bytes, 10 MiB at 0.1 % loss, with IP and UDP", "MiB", medians, references, 1)


def start_alone(bench: Bench, role: str, build: Path) -> Measure:
    process, _ = bench.start_role(role, build=build)
    return lambda: process.ask("round")


def tracking(bench: Bench) -> None:
    (medians,) = take_turns(ROUNDS, bench.ours(lambda build: start_alone(bench, "tracking", build)))
    limit = {"limit": [100.0]}
    one_thread = {"one thread": medians[""][:1]}
    bench.add("tracking, one thread, a pair", "ns", medians, limit, 0)
    bench.add("tracking, two threads at once, a pair", "ns", medians, limit | one_thread, 1)


def trace(bench: Bench) -> None:
    (medians,) = take_turns(ROUNDS, bench.ours(lambda build: start_alone(bench, "trace", build)))
    limit = {"limit": [1000.0]}
    bench.add("trace, a span, one thread", "ns", medians, limit, 1)
    bench.add("trace, a span, two threads at once", "ns", medians, limit, 2)
    bench.add("trace, a profiler value", "ns", medians, limit, 3)
    bench.add("trace, a span while nothing records", "ns", medians, limit, 0)
