"""Processes that end with this program."""

from __future__ import annotations

import os
import random
import selectors
import signal
import socket
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from contextlib import contextmanager, suppress
from typing import TypeVar

from .lines import Lines
from .process import ENDING_SIGNALS, PATIENCE, Process, ProcessError

LOOK_SECONDS = 0.1  # between two looks at what a condition asks for, when no process says anything
END_SECONDS = 5.0  # after which a process that was asked to end is killed
PORTS = range(10000, 32000)  # below those that the system gives to whoever asks for any

Something = TypeVar("Something")


@contextmanager
def ending_signals_blocked() -> Iterator[None]:
    before = signal.pthread_sigmask(signal.SIG_BLOCK, ENDING_SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


class Processes:
    """What one thread starts and waits for. Use as a context: leaving it ends every process."""

    tail_lines = 8  # of each log that are shown when something goes wrong

    def __init__(self) -> None:
        self.processes: list[Process] = []
        self._selector = selectors.DefaultSelector()
        self._claims: list[socket.socket] = []

    def __enter__(self) -> Processes:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def claim_ports(self, count: int) -> list[int]:
        """UDP ports of this machine that nobody uses, nor any other run before this one is closed.

        Whoever holds the TCP port of the same number has the UDP port.
        """
        ports: list[int] = []
        for port in random.sample(PORTS, len(PORTS)):
            if len(ports) == count:
                return ports
            claim = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
                try:
                    claim.bind(("", port))
                    probe.bind(("", port))
                except OSError:
                    claim.close()
                    continue
            ports.append(port)
            self._claims.append(claim)
        raise ProcessError("there are not enough free ports")

    def start(
        self,
        name: str,
        command: Sequence[object],
        *,
        pipe: Lines | None = None,
        output: Lines | None = None,
        stdin: bool = False,
        environment: dict[str, str] | None = None,
        namespaces: Sequence[int] = (),
        own_session: bool = False,
    ) -> Process:
        """Starts a program.

        `pipe` takes in what it writes to the file descriptor that stands as {pipe} in the command, `output` its
        standard output, which else goes to the log. The environment is added to ours. `namespaces` are file
        descriptors; see `Hosts`. With `own_session` the terminal's Ctrl-C does not reach it, and whatever it
        has started and left behind ends with us, too.
        """
        process = Process(self, name, command, pipe, output, stdin, environment, namespaces, own_session)
        self.processes.append(process)
        for fd in (*process.pipes, process.end_fd):
            self._selector.register(fd, selectors.EVENT_READ, process)
        return process

    def pump(self, seconds: float) -> None:
        """Takes in what the processes say, until something has come or the time is over."""
        for key, _ in self._selector.select(max(seconds, 0)):
            process = key.data
            if key.fd == process.end_fd:
                for reading in process.pipes:
                    process.take(reading)
                process.bury()
                self._forget(process, *process.pipes, key.fd)
            elif key.fd in process.pipes and not process.take(key.fd):
                self._forget(process, key.fd)

    def _forget(self, process: Process, *fds: int) -> None:
        for fd in fds:
            self._selector.unregister(fd)
            os.close(fd)
            process.pipes.pop(fd, None)

    def pump_for(self, seconds: float) -> None:
        """The same until the time is over. Raises when a process has ended that nobody asked to."""
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            self.pump(left)
            self.check()

    def wait_until(self, condition: Callable[[], Something], what: str, seconds: float = PATIENCE) -> Something:
        """Returns what the condition says once that is true. Raises, with `what`, when it does not come about."""
        deadline = time.monotonic() + seconds
        while not (result := condition()):
            if (left := deadline - time.monotonic()) <= 0:
                tails = "\n".join(process.log_tail() for process in self.processes)
                raise ProcessError(f"{what} did not come about in {seconds:g} s\n{tails}")
            self.pump(min(left, LOOK_SECONDS))
            self.check()
        return result

    def check(self) -> None:
        """Raises when a process has ended that nobody asked to."""
        for process in self.processes:
            if process.status is not None and not process.may_end:
                raise ProcessError(process.describe_end())

    def wait_for_end(self, processes: Iterable[Process], seconds: float = PATIENCE) -> None:
        """Waits for processes that were asked to end, or do so by themselves."""
        deadline = time.monotonic() + seconds
        for process in processes:
            process.may_end = True
            while process.status is None:
                if (left := deadline - time.monotonic()) <= 0:
                    raise ProcessError(f"{process.name} does not end\n{process.log_tail()}")
                self.pump(left)

    def end(self, processes: Iterable[Process]) -> None:
        """Asks processes to end, and kills those that do not."""
        running = [process for process in processes if process.status is None]
        for process in running:
            process.close_stdin()
            process.signal(signal.SIGTERM)
            process.signal(signal.SIGCONT)
        with suppress(ProcessError):
            self.wait_for_end(running, END_SECONDS)
        for process in running:
            if process.status is None:
                process.kill()

    def close(self) -> None:
        """Ends all that still run. Their logs and what they said can still be read."""
        with ending_signals_blocked():  # one that comes meanwhile must not leave a process behind
            self.end(self.processes)
        for process in self.processes:
            process.clear_away()
        for claim in self._claims:
            claim.close()
        self._selector.close()
