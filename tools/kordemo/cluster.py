"""Starts a master and its slaves on this machine and ends them again, whatever happens."""

from __future__ import annotations

import math
import os
import selectors
import signal
import socket
import subprocess
import tempfile
import threading
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Iterator

from .samples import MasterStream, SlaveStream, Stream

BROADCAST = "127.255.255.255"
PORTS_IN_USE = 3  # exit status of both programs
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
END_SECONDS = 5.0  # after which a process that was asked to end is killed


class ClusterError(Exception):
    """Something went wrong with a process; the text says what, and holds the end of its log."""


class PortsTaken(ClusterError):
    """Another program took a port between our choosing it and the process opening it."""


@dataclass(frozen=True)
class Plan:
    """What to start."""

    programs: Path
    slaves: int
    lead: int
    rate: float
    payload: int
    refresh: float = 60.0
    margin: float = 0.009  # seconds before a refresh up to which a slave shows the scene
    traces: Path | None = None  # folder for what each process records

    def least_lead(self) -> int:
        """Frames that data must be sent ahead to be there in time wherever in a frame a refresh falls.

        At a refresh a slave chooses a moment that lies one refresh interval, less the margin, ahead, and needs the
        first frame after that moment.
        """
        return math.ceil(1 + (1 / self.refresh - self.margin) * self.rate)


@dataclass
class Process:
    name: str
    stream: Stream
    popen: subprocess.Popen[bytes]
    log: IO[bytes]
    started: float  # on the system's steady clock

    def log_tail(self) -> str:
        self.log.seek(0)
        lines = self.log.read().decode(errors="replace").splitlines()
        return "\n".join(f"  {self.name}: {line}" for line in lines[-8:])


@contextmanager
def ending_signals_blocked() -> Iterator[None]:
    before = signal.pthread_sigmask(signal.SIG_BLOCK, ENDING_SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


def free_ports(count: int) -> list[int]:
    """Different UDP ports that nobody uses now. Somebody may take one before its process opens it."""
    sockets = []
    try:
        for _ in range(count):
            holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            sockets.append(holder)
            holder.bind(("", 0))
        return [holder.getsockname()[1] for holder in sockets]
    finally:
        for holder in sockets:
            holder.close()


def joined(ports: list[int]) -> str:
    return ",".join(map(str, ports))


class Cluster:
    """A running master with its slaves. Use as a context: leaving it ends every process."""

    def __init__(self, plan: Plan) -> None:
        self.plan = plan
        self.processes: list[Process] = []
        self._selector = selectors.DefaultSelector()
        self._reader = threading.Thread(target=self._read, name="reports", daemon=True)
        self._lock = threading.Lock()

    def __enter__(self) -> Cluster:
        try:
            self._start()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.end()

    @property
    def master(self) -> MasterStream:
        stream = self.processes[0].stream
        assert isinstance(stream, MasterStream)
        return stream

    @property
    def slaves(self) -> list[SlaveStream]:
        return [p.stream for p in self.processes if isinstance(p.stream, SlaveStream)]

    def locked(self) -> threading.Lock:
        """Held while the streams take in new lines."""
        return self._lock

    def _start(self) -> None:
        plan = self.plan
        count = plan.slaves
        ports = free_ports(3 * count)
        announce, bind, data = ports[:count], ports[count : 2 * count], ports[2 * count :]
        # fmt: off
        self._launch("master", MasterStream(), [
            "kor-master", "--broadcast", BROADCAST, "--announce-ports", joined(announce),
            "--bind-ports", joined(bind), "--data-ports", joined(data),
            "--rate", f"{plan.rate:.17g}", "--lead", str(plan.lead), "--payload", str(plan.payload),
        ])
        for i in range(count):
            cameras = ["left", "front"] if i == 0 else [f"camera-{i + 1}"]
            self._launch(f"slave-{i + 1}", SlaveStream(), [
                "kor-slave", "--name", f"slave-{i + 1}", "--camera", ",".join(cameras),
                "--announce-port", str(announce[i]), "--rate", f"{plan.rate:.17g}",
                "--refresh", f"{plan.refresh:.17g}", "--phase", f"{i / count:.6f}",
                "--margin", f"{plan.margin * 1000:.17g}",
            ])
        # fmt: on
        with ending_signals_blocked():  # a new thread inherits this: only the main thread is to get them
            self._reader.start()

    def _launch(
        self,
        name: str,
        stream: Stream,
        command: list[str],
        stdin: int = subprocess.DEVNULL,
        environment: dict[str, str] | None = None,
    ) -> None:
        program = self.plan.programs / command[0]
        if not program.is_file():
            raise ClusterError(f"{program} is not there; build it first (script/demo does)")
        if self.plan.traces:
            command = [*command, "--trace", str(self.plan.traces / f"{name}.json")]
        log = tempfile.TemporaryFile()
        # The process writes to a pipe, so that it notices when this program is gone, however that went.
        reading, writing = os.pipe()
        try:
            started = time.monotonic()
            popen = subprocess.Popen(
                [str(program), *command[1:], "--quiet", "--verbose", "--report", f"/dev/fd/{writing}"],
                stdin=stdin,
                stdout=log,
                stderr=subprocess.STDOUT,
                pass_fds=[writing],
                env=None if environment is None else os.environ | environment,
            )
        except BaseException:
            os.close(reading)
            log.close()
            raise
        finally:
            os.close(writing)
        self.processes.append(Process(name, stream, popen, log, started))
        self._selector.register(reading, selectors.EVENT_READ, stream)

    def _read(self) -> None:
        while self._selector.get_map():
            for key, _ in self._selector.select(timeout=0.5):
                data = os.read(key.fd, 1 << 16)
                if not data:
                    self._selector.unregister(key.fd)
                    os.close(key.fd)
                    continue
                with self._lock:
                    key.data.feed(data)

    def check(self) -> None:
        """Raises when a process is no longer running."""
        for process in self.processes:
            status = process.popen.poll()
            if status is None:
                continue
            reason = f"ended with status {status}" if status >= 0 else f"was ended by {signal.Signals(-status).name}"
            text = f"{process.name} {reason}\n{process.log_tail()}"
            raise PortsTaken(text) if status == PORTS_IN_USE else ClusterError(text)

    def end(self) -> None:
        """Asks every process to end, slaves first, and kills what does not."""
        with ending_signals_blocked():  # one that comes meanwhile must not leave a process behind
            self._end()

    def _end(self) -> None:
        # The master last, so that no slave sees it go.
        for group in (self.processes[1:], self.processes[:1]):
            for process in group:
                process.popen.terminate()
            deadline = time.monotonic() + END_SECONDS
            for process in group:
                try:
                    process.popen.wait(max(deadline - time.monotonic(), 0.01))
                except subprocess.TimeoutExpired:
                    process.popen.kill()
                    process.popen.wait()
        if self._reader.is_alive():
            self._reader.join()

    def faults(self) -> list[str]:
        """After the end: what the processes have to say about it."""
        return [
            f"{p.name} ended with status {p.popen.returncode}\n{p.log_tail()}"
            for p in self.processes
            if p.popen.returncode != 0
        ]

    def check_reported(self) -> None:
        """After the end: raises when a process was ended before it had said anything."""
        for process in self.processes:
            if process.stream.header is None:
                raise ClusterError(
                    f"{process.name} had not begun when the time was over; give it more --seconds\n{process.log_tail()}"
                )

    def save_logs(self, folder: Path) -> None:
        for process in self.processes:
            process.log.seek(0)
            file = folder / f"{process.name}.log"
            try:
                file.write_bytes(process.log.read())
            except OSError as error:
                raise ClusterError(f"cannot write {file}: {error.strerror}") from None
