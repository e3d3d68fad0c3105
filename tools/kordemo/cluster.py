"""Starts a master and its slaves on this machine and ends them again, whatever happens."""

from __future__ import annotations

import math
from dataclasses import dataclass
from pathlib import Path

from korprocess import Process, ProcessError, Processes

from .samples import MasterStream, SlaveStream, Stream

BROADCAST = "127.255.255.255"


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


def joined(ports: list[int]) -> str:
    return ",".join(map(str, ports))


class Cluster(Processes):
    """A running master with its slaves."""

    def __init__(self, plan: Plan) -> None:
        super().__init__()
        self.plan = plan

    def __enter__(self) -> Cluster:
        try:
            self._start()
        except BaseException:
            self.close()
            raise
        return self

    @property
    def members(self) -> list[Process]:
        """The master and then the slaves, without what else was needed."""
        return [process for process in self.processes if isinstance(process.reports, Stream)]

    @property
    def master(self) -> MasterStream:
        stream = self.members[0].reports
        assert isinstance(stream, MasterStream)
        return stream

    @property
    def slaves(self) -> list[SlaveStream]:
        return [p.reports for p in self.members if isinstance(p.reports, SlaveStream)]

    def _start(self) -> None:
        plan = self.plan
        count = plan.slaves
        ports = self.claim_ports(3 * count)
        announce, bind, data = ports[:count], ports[count : 2 * count], ports[2 * count :]
        # fmt: off
        self._launch("master", MasterStream(), [
            "kor-master", "--broadcast", BROADCAST, "--announce-ports", joined(announce),
            "--bind-ports", joined(bind), "--data-ports", joined(data),
            "--rate", f"{plan.rate:.17g}", "--lead", plan.lead, "--payload", plan.payload,
        ])
        for i in range(count):
            cameras = ["left", "front"] if i == 0 else [f"camera-{i + 1}"]
            self._launch(f"slave-{i + 1}", SlaveStream(), [
                "kor-slave", "--name", f"slave-{i + 1}", "--camera", ",".join(cameras),
                "--announce-port", announce[i], "--rate", f"{plan.rate:.17g}",
                "--refresh", f"{plan.refresh:.17g}", "--phase", f"{i / count:.6f}",
                "--margin", f"{plan.margin * 1000:.17g}",
            ])
        # fmt: on

    def _launch(
        self,
        name: str,
        stream: Stream,
        command: list[object],
        stdin: bool = False,
        environment: dict[str, str] | None = None,
    ) -> None:
        program = self.plan.programs / str(command[0])
        if not program.is_file():
            raise ProcessError(f"{program} is not there; build it first (script/demo does)")
        if self.plan.traces:
            command = [*command, "--trace", self.plan.traces / f"{name}.json"]
        command = [program, *command[1:], "--quiet", "--verbose", "--report", "/dev/fd/{pipe}"]
        self.start(name, command, pipe=stream, stdin=stdin, environment=environment)

    def end(self, processes: list[Process]) -> None:
        # The master last, so that no slave sees it go.
        for group in (self.members[1:], processes):
            super().end(group)

    def faults(self) -> list[str]:
        """After the end: what the processes have to say about it."""
        return [process.describe_end() for process in self.members if process.status != 0]

    def check_reported(self) -> None:
        """After the end: raises when a process was ended before it had said anything."""
        for process in self.members:
            if process.reports.header is None:
                raise ProcessError(
                    f"{process.name} had not begun when the time was over; give it more --seconds\n{process.log_tail()}"
                )

    def save_logs(self, folder: Path) -> None:
        for process in self.members:
            file = folder / f"{process.name}.log"
            try:
                file.write_text(process.log())
            except OSError as error:
                raise ProcessError(f"cannot write {file}: {error.strerror}") from None
