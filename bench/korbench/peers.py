"""A master process and many peers."""

from __future__ import annotations

from collections import defaultdict
from collections.abc import Sequence
from pathlib import Path

from korprocess import Process, ProcessError

from .bench import Bench, Measure, median, take_turns

PEERS = 250
HOSTS = 2
READERS = (16, 100)
LATEST_SECONDS = 0.1  # after which the last packet has arrived, or never will


def spreads(hosts: Sequence[Process], peers: int) -> list[float]:
    """Milliseconds from the first to the last arrival of each tick that has reached every peer since the last call."""
    arrivals: dict[float, list[float]] = defaultdict(list)
    for host in hosts:
        numbers = host.ask("arrivals")
        for tick, time in zip(numbers[0::2], numbers[1::2]):
            arrivals[tick].append(time)
    return [(max(times) - min(times)) * 1e-6 for times in arrivals.values() if len(times) == peers]


class Peers:
    """250 peers in two processes."""

    def __init__(self, bench: Bench, transport: str, build: Path | None = None) -> None:
        self.master, ready = bench.start_role(f"{transport}-master", build=build)
        self.hosts: list[Process] = []
        for _ in range(HOSTS):
            host, _ = bench.start_role(f"{transport}-peer-host", ready[0], PEERS / HOSTS, build=build)
            self.hosts.append(host)
        self.master.ask("users", PEERS)


def load(before: list[float], after: list[float]) -> float:
    """Of a process between two answers of what it has used, in percent of one processor."""
    return 100 * (after[0] - before[0]) / (after[1] - before[1])


def start_ticks(bench: Bench, master: Process, hosts: Sequence[Process], peers: int) -> Measure:
    """1 KiB to each of the peers 240 times a second. The master's load, and the spread of a tick in milliseconds."""
    per_second, ticks, size = 240, 480, 1024
    master.ask("ticks", per_second, per_second, size)
    bench.pump_for(LATEST_SECONDS)
    spreads(hosts, peers)

    def measure() -> list[float]:
        before = master.ask("usage")
        after = master.ask("ticks", ticks, per_second, size)
        bench.pump_for(LATEST_SECONDS)
        whole = spreads(hosts, peers)
        if len(whole) < ticks / 2:
            raise ProcessError(f"{master.name}: most ticks did not reach every peer")
        return [load(before, after), median(whole)]

    return measure


def fan_out(bench: Bench) -> None:
    rounds = 5
    limits = {"limit": [35.0, 1.0]}  # percent, milliseconds

    def start(transport: str, build: Path | None = None) -> Measure:
        peers = Peers(bench, transport, build)
        return start_ticks(bench, peers.master, peers.hosts, PEERS)

    ours = bench.ours(lambda build: start("kor", build))
    medians, others = take_turns(rounds, ours, {"UDP in batches": start("udp")})
    bench.add("fan-out, 250 peers at 240 Hz, sender's load", "%", medians, limits | others, 0)
    bench.add("fan-out, 250 peers at 240 Hz, spread of a tick", "ms", medians, limits | others, 1)


def readers(bench: Bench) -> None:
    """One after the other, since participants at rest keep a machine busy."""
    rounds = 5

    def measure(count: int, transport: str, *settings: float, build: Path | None = None) -> list[float]:
        master, ready = bench.start_role(f"{transport}-master", *settings, build=build)
        hosts = bench.start_roles(count, f"{transport}-reader", *settings, ready[0], build=build)
        master.ask("users", count)
        (medians,) = take_turns(rounds, {"": start_ticks(bench, master, hosts, count)})
        bench.end([master, *hosts])
        return medians[""]

    for count in READERS:
        (ours,) = take_turns(1, bench.ours(lambda build: lambda: measure(count, "kor", build=build)))
        others = {
            "CycloneDDS by unicast": measure(count, "dds", 0),
            "CycloneDDS by multicast": measure(count, "dds", 1),
        }
        name = f"readers, {count} processes at 240 Hz"
        bench.add(f"{name}, sender's load", "%", ours, others, 0)
        bench.add(f"{name}, spread of a tick", "ms", ours, others, 1)


def idle(bench: Bench) -> None:
    rounds, settle_seconds, round_seconds = 5, 3, 2
    limits = {"limit": [1.0, 64.0]}  # percent, MiB

    def start(build: Path) -> Measure:
        peers = Peers(bench, "kor", build)
        bench.pump_for(settle_seconds)

        def measure() -> list[float]:
            before = peers.master.ask("usage")
            bench.pump_for(round_seconds)
            after = peers.master.ask("usage")
            return [load(before, after), after[2]]

        return measure

    (medians,) = take_turns(rounds, bench.ours(start))
    bench.add("idle, 250 connections, master's load", "%", medians, limits, 0)
    bench.add("idle, 250 connections, master's resident memory", "MiB", medians, limits, 1)
