"""Several hosts on one machine: network namespaces that hang on a switch."""

from __future__ import annotations

import os
import shutil
from pathlib import Path

from .lines import Answers, Reports
from .process import Process, ProcessError
from .processes import Processes

HOLD = ["sh", "-c", "echo 1; exec cat"]  # says that it is there, and stays until it is let go


class NotPermitted(Exception):
    """This system does not let us make namespaces; the text says why."""


class Hosts:
    """Hosts of a network of our own, each with an interface eth0 whose cable ends at a switch.

    Needs root, or a system that lets everybody make user namespaces, and `ip`; else it raises NotPermitted. Nothing
    of it outlives the processes. Unless `bridged`, nothing passes but through `start_switch`.
    """

    BROADCAST = "10.77.0.255"

    def __init__(self, processes: Processes, count: int, bridged: bool = True) -> None:
        self._processes = processes
        self._ip = shutil.which("ip", path=f"{os.environ.get('PATH', '')}:/usr/sbin:/sbin")
        if self._ip is None:
            raise NotPermitted("there is no program 'ip' (iproute2)")
        self._user: tuple[int, ...] = ()  # the namespace that lets an ordinary user do all this
        self._pids: list[int] = []
        self._switch = self._first_namespace()
        self._run(self._switch, "link set lo up", "link add switch type bridge", "link set switch up")
        self._bridged = bridged
        self._hosts = [self._add_host(host) for host in range(count)]

    @staticmethod
    def address(host: int) -> str:
        return f"10.77.0.{host + 1}"

    def of(self, host: int) -> tuple[int, ...]:
        """The namespaces of a process that is to run on that host."""
        return self._hosts[host]

    def with_clock_ahead(self, host: int, seconds: int) -> tuple[int, ...]:
        """The same, with a steady clock that is so far ahead. Raises NotPermitted where that cannot be."""
        options = ["--time", "--monotonic", seconds, "--boottime", seconds, "--fork"]
        holder = self._hold(options, self._user)
        return (*self._hosts[host], open_namespace(holder.pid, "time_for_children"))

    def set_port(self, host: int, state: str) -> None:
        """ "down" pulls the host's cable out of the switch, "up" plugs it in again."""
        self._run(self._switch, f"link set port{host} {state}")

    def set_interface(self, host: int, state: str) -> None:
        """ "down" and "up", as the host's administrator might."""
        self._run(self._hosts[host], f"link set eth0 {state}")

    def start_switch(self, program: Path, *laws: object) -> Process:
        """Begins to switch by the program kor-test-switch, which tells what laws there are. It reports its counts."""
        ports = [f"port{host}" for host in range(len(self._hosts))]
        return self._processes.start("switch", [program, *laws, *ports], output=Reports(), namespaces=self._switch)

    def _first_namespace(self) -> tuple[int, ...]:
        try:
            return (open_namespace(self._hold(["--net"], ()).pid, "net"),)
        except NotPermitted:
            holder = self._hold(["--map-root-user", "--net"], ())
            self._user = (open_namespace(holder.pid, "user"),)
            return (*self._user, open_namespace(holder.pid, "net"))

    def _add_host(self, host: int) -> tuple[int, ...]:
        holder = self._hold(["--net"], self._user)
        port = f"port{host}"
        self._run(self._switch, f"link add name {port} type veth peer name eth0 netns {holder.pid}", f"link set {port} up")
        if self._bridged:
            self._run(self._switch, f"link set {port} master switch")
        namespaces = (*self._user, open_namespace(holder.pid, "net"))
        # One segment: each datagram is to travel, and to be lost, on its own.
        address = f"address add {self.address(host)}/24 broadcast {self.BROADCAST} dev eth0"
        self._run(namespaces, "link set lo up", "link set eth0 gso_max_segs 1", "link set eth0 up", address)
        return namespaces

    def _hold(self, options: list[object], namespaces: tuple[int, ...]) -> Process:
        """A process that does nothing but keep its new namespaces alive."""
        holder = self._processes.start(
            "namespace", ["unshare", *options, *HOLD], stdin=True, output=Answers(), namespaces=namespaces
        )
        holder.may_end = True
        try:
            holder.hear()
        except ProcessError as error:
            raise NotPermitted(str(error)) from None
        return holder

    def _run(self, namespaces: tuple[int, ...], *commands: str) -> None:
        process = self._processes.start("ip", [self._ip, "-batch", "-"], stdin=True, namespaces=namespaces)
        process.tell("\n".join(commands))
        process.close_stdin()
        self._processes.wait_for_end([process])
        if process.status != 0:
            raise ProcessError(process.describe_end())


def open_namespace(pid: int, kind: str) -> int:
    return os.open(f"/proc/{pid}/ns/{kind}", os.O_RDONLY | os.O_CLOEXEC)
