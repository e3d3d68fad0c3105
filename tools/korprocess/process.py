"""One process, with pipes to it and a log."""

from __future__ import annotations

import ctypes
import fcntl
import os
import signal
import subprocess
import tempfile
import time
from collections.abc import Sequence
from contextlib import contextmanager, suppress
from typing import IO, TYPE_CHECKING, Iterator

from .lines import Answers, Lines

if TYPE_CHECKING:
    from .processes import Processes

PATIENCE = 120.0  # seconds; a machine must be more than busy to need them
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
PIPE_BYTES = 1 << 20  # so that nobody waits for us while we do something else
READ_BYTES = 1 << 16
PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)


class ProcessError(Exception):
    """Something went wrong with a process; the text says what, and holds the end of its log."""


def become_child(namespaces: Sequence[int], parent: int) -> None:
    """Runs in the child, before its program does."""
    for namespace in namespaces:
        if libc.setns(namespace, 0) != 0:
            raise OSError(ctypes.get_errno(), "setns")
    # After the namespaces, because new credentials undo it.
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(127)


@contextmanager
def new_pipe(lines: Lines | None) -> Iterator[tuple[int, int] | None]:
    """The reading end, for us, and the writing end, for the child alone."""
    if lines is None:
        yield None
        return
    reading, writing = os.pipe()
    os.set_blocking(reading, False)
    with suppress(OSError):  # ordinary users have a limit on all their pipes together
        fcntl.fcntl(reading, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
    try:
        yield reading, writing
    except BaseException:
        os.close(reading)
        raise
    finally:
        os.close(writing)


class Process:
    """A program that runs, or has ended. What it says is known once its `Processes` have taken it in.

    Made by `Processes.start`, which tells what the arguments are.
    """

    def __init__(
        self,
        owner: Processes,
        name: str,
        command: Sequence[object],
        pipe: Lines | None,
        output: Lines | None,
        stdin: bool,
        environment: dict[str, str] | None,
        namespaces: Sequence[int],
        own_session: bool,
    ) -> None:
        self.name = name
        self.may_end = False
        self.status: int | None = None  # exit status, minus the signal's number when one ended it; None while it runs
        self.started = time.monotonic()
        self.reports = pipe
        self.output = output
        self._owner = owner
        self._own_session = own_session
        self._log: IO[bytes] = tempfile.TemporaryFile()
        # It shares the position with the process: reading must not send the writer back to the beginning.
        fcntl.fcntl(self._log, fcntl.F_SETFL, fcntl.fcntl(self._log, fcntl.F_GETFL) | os.O_APPEND)
        parent = os.getpid()
        try:
            with new_pipe(pipe) as first, new_pipe(output) as second:
                self._popen = subprocess.Popen(
                    [str(word).replace("{pipe}", str(first[1] if first else "")) for word in command],
                    bufsize=0,
                    stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                    stdout=second[1] if second else self._log,
                    stderr=self._log,
                    pass_fds=[first[1]] if first else [],
                    env=None if environment is None else os.environ | environment,
                    start_new_session=own_session,
                    preexec_fn=lambda: become_child(namespaces, parent),
                )
        except (OSError, subprocess.SubprocessError) as error:
            raise ProcessError(f"{name} cannot be started: {error}") from None
        self.pid = self._popen.pid
        self.end_fd = os.pidfd_open(self.pid)  # readable once it has ended
        self.pipes = {ends[0]: lines for ends, lines in ((first, pipe), (second, output)) if ends and lines}

    def log(self) -> str:
        """What it has written to standard error, and to standard output unless that is a pipe."""
        if not self._log.closed:
            self._log.seek(0)
            self._text = self._log.read().decode(errors="replace")
        return self._text

    def log_tail(self) -> str:
        return "\n".join(f"  {self.name}: {line}" for line in self.log().splitlines()[-self._owner.tail_lines :])

    def describe_end(self) -> str:
        assert self.status is not None
        reason = f"ended with status {self.status}"
        if self.status < 0:
            reason = f"was ended by {signal.Signals(-self.status).name}"
        return f"{self.name} {reason}\n{self.log_tail()}"

    def signal(self, number: int) -> None:
        """Does nothing once it has ended. Whoever is asked to end, or killed, may end."""
        self.may_end = self.may_end or number in (*ENDING_SIGNALS, signal.SIGKILL)
        self._popen.send_signal(number)

    def kill(self) -> None:
        """Ends it at once, and waits until it has."""
        self.signal(signal.SIGKILL)
        self._owner.wait_for_end([self])

    def close_stdin(self) -> None:
        if self._popen.stdin:
            self._popen.stdin.close()

    def tell(self, line: str) -> None:
        """Writes a line to its standard input; it was started with `stdin=True`."""
        assert self._popen.stdin is not None
        try:
            self._popen.stdin.write(line.encode() + b"\n")
        except BrokenPipeError:
            self._owner.wait_for_end([self])
            raise ProcessError(self.describe_end()) from None

    def hear(self, seconds: float = PATIENCE) -> list[float]:
        """The next line of numbers that it writes to standard output; it was started with `output=Answers()`."""
        answers = self.output
        assert isinstance(answers, Answers)
        self._owner.wait_until(lambda: answers.waiting or self.status is not None, f"an answer of {self.name}", seconds)
        if not answers.waiting:
            raise ProcessError(self.describe_end())
        return answers.waiting.popleft()

    def ask(self, order: str, *numbers: float, seconds: float = PATIENCE) -> list[float]:
        """Tells it an order with numbers, exact to the last bit, and returns the numbers that it answers."""
        self.tell(" ".join([order, *(f"{number:.17g}" for number in numbers)]))
        return self.hear(seconds)

    # -------------------------------------------------------------------------------------- for Processes

    def clear_away(self) -> None:
        """What it has left behind, and the file of its log."""
        if self._own_session:
            with suppress(ProcessLookupError):
                os.killpg(self.pid, signal.SIGKILL)
        self.log()
        self._log.close()

    def take(self, reading: int) -> bool:
        """Takes in what has come through a pipe. False when no more will."""
        try:
            while data := os.read(reading, READ_BYTES):
                self.pipes[reading].feed(data)
        except BlockingIOError:
            return True
        return False

    def bury(self) -> None:
        """After its end, and after all that it said."""
        self.status = self._popen.wait()
        self.close_stdin()
