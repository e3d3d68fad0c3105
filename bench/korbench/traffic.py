"""Two processes that send each other data."""

from __future__ import annotations

from pathlib import Path

from .bench import Bench, Contest, Measure, median, take_turns

ETHERNET_PAYLOAD = 1472
LOOPBACK_PAYLOAD = 65507


def round_trip(bench: Bench) -> None:
    rounds, warm_up, samples = 11, 500, 2000

    def start(transport: str, *settings: float, order: str = "round", build: Path | None = None) -> Measure:
        _, ping = bench.start_pair(transport, ("echo", "ping"), *settings, build=build)
        ping.ask("round", warm_up)
        return lambda: [median(ping.ask(order, samples))]

    references = {
        "UDP with the same calls": start("udp", 1),
        "UDP in blocking recv": start("udp", 0),
        "ENet": start("enet"),
    }
    dds = {"CycloneDDS": start("dds", 0)}
    dds_from_thread = {"CycloneDDS": start("dds", 1)}
    # One pair for each direction: the scheduler remembers whom a thread wakes, and one would shape the other.
    callbacks = bench.ours(lambda build: start("kor", build=build))
    threads = bench.ours(lambda build: start("kor", order="thread", build=build))
    from_callbacks, others, of_dds, from_thread, of_dds_thread = take_turns(
        rounds, callbacks, references, dds, threads, dds_from_thread
    )
    bench.add("round-trip, 64 bytes, from callbacks", "us", from_callbacks, others | of_dds)
    bench.add("round-trip, 64 bytes, from a thread", "us", from_thread, others | of_dds_thread)


def start_stream(bench: Bench, transport: str, *settings: float, build: Path | None = None) -> Measure:
    """Megabytes per second that arrive."""
    warm_up, seconds = 0.3, 0.6
    sink, source = bench.start_pair(transport, ("sink", "source"), *settings, build=build)
    source.ask("run", warm_up)
    sink.ask("take")

    def measure() -> list[float]:
        source.ask("run", seconds)
        taken, span = sink.ask("take")
        return [taken * 1e-6 / span if span > 0 else 0.0]

    return measure


def measure_bulk(bench: Bench, name: str, payload: int, offloads: bool, references: Contest) -> None:
    ours = bench.ours(lambda build: start_stream(bench, "kor", payload, offloads, build=build))
    rates, others = take_turns(7, ours, references)
    bench.add(name, "MB/s", rates, others)


def start_udp(bench: Bench, payload: int, offloads: bool) -> Contest:
    return {
        "UDP with the same calls": start_stream(bench, "udp", payload, offloads, 1),
        "UDP with the fewest calls": start_stream(bench, "udp", payload, offloads, 0),
    }


def bulk(bench: Bench) -> None:
    others = {
        "ENet": start_stream(bench, "enet"),
        "CycloneDDS": start_stream(bench, "dds", ETHERNET_PAYLOAD),
        "TCP": start_stream(bench, "tcp"),
    }
    references = others | start_udp(bench, ETHERNET_PAYLOAD, True)
    measure_bulk(bench, "bulk, 1472-byte datagrams", ETHERNET_PAYLOAD, True, references)


def bulk_plain(bench: Bench) -> None:
    references = start_udp(bench, ETHERNET_PAYLOAD, False)
    measure_bulk(bench, "bulk, offloads off", ETHERNET_PAYLOAD, False, references)


def bulk_loopback(bench: Bench) -> None:
    udp = start_stream(bench, "udp", LOOPBACK_PAYLOAD, True, 1)
    dds = start_stream(bench, "dds", LOOPBACK_PAYLOAD)
    references = {"CycloneDDS": dds, "TCP": start_stream(bench, "tcp"), "UDP with the same calls": udp}
    measure_bulk(bench, "bulk, 65507-byte datagrams", LOOPBACK_PAYLOAD, True, references)


def large_packet(bench: Bench) -> None:
    rounds, messages, size, limit_ms = 7, 40, 2 << 20, 1.0

    def start(transport: str, *settings: float, build: Path | None = None) -> Measure:
        sink, source = bench.start_pair(transport, ("delay-sink", "delay-source"), *settings, build=build)

        def measure() -> list[float]:
            source.ask("send", messages, size)
            return [median(sink.ask("take"))]

        measure()
        return measure

    small = bench.ours(lambda build: start("kor", ETHERNET_PAYLOAD, 1, build=build))
    tcp = {"TCP": start("tcp", size)}
    large = bench.ours(lambda build: start("kor", LOOPBACK_PAYLOAD, 1, build=build))
    of_small, of_tcp, of_large = take_turns(rounds, small, tcp, large)
    limit = {"limit": [limit_ms]}
    bench.add("large-packet, 2 MiB, 1472-byte datagrams", "ms", of_small, limit | of_tcp)
    bench.add("large-packet, 2 MiB, 65507-byte datagrams", "ms", of_large, limit)
