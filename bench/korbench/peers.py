"""A master process and 250 peers of it in two others."""

from __future__ import annotations

from collections import defaultdict
from pathlib import Path

from korprocess import Process, ProcessError

from .bench import Bench, Measure, median, take_turns

PEERS = 250
HOSTS = 2
LATEST_SECONDS = 0.1  # after which the last packet has arrived, or never will


class Peers:
    def __init__(self, bench: Bench, transport: str, build: Path | None = None) -> None:
        self.master, ready = bench.start_role(f"{transport}-master", build=build)
        self._hosts: list[Process] = []
        for _ in range(HOSTS):
            host, _ = bench.start_role(f"{transport}-peer-host", ready[0], PEERS / HOSTS, build=build)
            self._hosts.append(host)
        self.master.ask("users", PEERS)

    def spreads(self) -> list[float]:
        """Milliseconds from the first to the last arrival of each tick that has reached every peer since the last call."""
        arrivals: dict[float, list[float]] = defaultdict(list)
        for host in self._hosts:
            numbers = host.ask("arrivals")
            for tick, time in zip(numbers[0::2], numbers[1::2]):
                arrivals[tick].append(time)
        return [(max(times) - min(times)) * 1e-6 for times in arrivals.values() if len(times) == PEERS]


def load(before: list[float], after: list[float]) -> float:
    """Of a process between two answers of what it has used, in percent of one processor."""
    return 100 * (after[0] - before[0]) / (after[1] - before[1])


def fan_out(bench: Bench) -> None:
    rounds, per_second, ticks, size = 5, 240, 480, 1024
    limits = {"limit": [35.0, 1.0]}  # percent, milliseconds

    def start(transport: str, build: Path | None = None) -> Measure:
        peers = Peers(bench, transport, build)
        peers.master.ask("ticks", per_second, per_second, size)
        peers.spreads()

        def measure() -> list[float]:
            before = peers.master.ask("usage")
            after = peers.master.ask("ticks", ticks, per_second, size)
            bench.pump_for(LATEST_SECONDS)
            spreads = peers.spreads()
            if len(spreads) < ticks / 2:
                raise ProcessError(f"{transport}-master: most ticks did not reach every peer")
            return [load(before, after), median(spreads)]

        return measure

    ours = bench.ours(lambda build: start("kor", build))
    medians, others = take_turns(rounds, ours, {"UDP in batches": start("udp")})
    bench.add("fan-out, 250 peers at 240 Hz, sender's load", "%", medians, limits | others, 0)
    bench.add("fan-out, 250 peers at 240 Hz, spread of a tick", "ms", medians, limits | others, 1)


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
