"""Starts the wall: a master, and a slave with a window for each part of the picture."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .cluster import BROADCAST, Cluster, Plan, joined
from .samples import Stream
from .xserver import XServer


class WindowClosed(Exception):
    """Somebody closed a window of the wall, or pressed q in it."""


class WallStream(Stream):
    """What a process of the wall tells: pictures and complaints."""

    def __init__(self) -> None:
        super().__init__()
        self.pictures: list[dict[str, Any]] = []
        self.complaints: list[str] = []

    def take_report(self, report: dict[str, Any]) -> None:
        if report["type"] == "picture":
            self.pictures.append(report)
        elif report["type"] == "complaint":
            self.complaints.append(report["text"])


@dataclass(frozen=True)
class WallPlan(Plan):
    """What to start; each window is `size` pixels and shows one camera."""

    size: tuple[int, int] = (320, 240)
    pictures: Path = Path()

    def camera(self, index: int) -> str:
        return f"part-{index + 1}"


class WallCluster(Cluster):
    plan: WallPlan

    @property
    def streams(self) -> list[WallStream]:
        return [p.reports for p in self.processes if isinstance(p.reports, WallStream)]

    @property
    def bars(self) -> list[dict[str, Any]]:
        """The bars that move evenly across the wall: colour, pixels per second, pixels until they start anew."""
        header = self.streams[0].header
        assert header is not None
        return list(header["bars"])

    def command(self, line: str) -> None:
        """Tells the master what to do."""
        self.members[0].tell(line)

    def _start(self) -> None:
        plan = self.plan
        count = plan.slaves
        width, height = plan.size
        servers = [] if on_a_display() else [XServer(self, width, height) for _ in range(count)]
        # One thread each: the machine's cores are the cluster's.
        software = {"LIBGL_ALWAYS_SOFTWARE": "1", "LP_NUM_THREADS": "1", "SDL_VIDEODRIVER": "x11"}
        environments = [software | {"DISPLAY": server.display()} for server in servers] or [None] * count
        ports = self.claim_ports(3 * count)
        announce, bind, data = ports[:count], ports[count : 2 * count], ports[2 * count :]
        # fmt: off
        self._launch("master", WallStream(), [
            "kor-wall-master", "--commands", "--wall", f"{width * count},{height}", "--broadcast", BROADCAST,
            "--announce-ports", joined(announce), "--bind-ports", joined(bind), "--data-ports", joined(data),
            "--rate", f"{plan.rate:.17g}", "--lead", str(plan.lead),
        ], stdin=True)
        for i in range(count):
            refresh = ["--refresh", f"{plan.refresh:.17g}"] if servers else []  # else what the display has
            self._launch(f"slave-{i + 1}", WallStream(), [
                "kor-wall-slave", "--name", f"slave-{i + 1}", "--announce-port", str(announce[i]),
                "--camera", f"{plan.camera(i)}={width * i},0,{width},{height}", "--rate", f"{plan.rate:.17g}",
                "--pictures", str(plan.pictures), "--window", f"{0 if servers else width * i},0",
                "--phase", f"{i / count:.6f}", *refresh,
            ], environment=environments[i])
        # fmt: on

    def check(self) -> None:
        for process in self.members[1:]:
            if process.status == 0 and not process.may_end:
                raise WindowClosed(process.name)
        super().check()


def on_a_display() -> bool:
    return bool(os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY"))

