"""A master and its slaves, as users run them, and what must be true of them."""

import json
import os
import signal
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))

from korprocess import Processes, Reports

PROGRAMS = Path(os.environ.get("KOR_BUILD", ROOT / "build")) / "bin"
SANITIZED = bool(os.environ.get("KOR_SANITIZED"))
BROADCAST = "127.255.255.255"
FRAMES_TO_PROVE = 30  # interpolated in one connection
SKIPPED = 77


class MasterReports(Reports):
    """What the master tells; every frame that it has counted, to know what slaves must get."""

    def __init__(self):
        super().__init__()
        self.frames = set()

    def take_report(self, report):
        if report["type"] == "update":
            self.frames.add(report["frame"])

    def names(self):
        return {slave["name"] for slave in self.status.get("slaves", [])}


class SlaveReports(Reports):
    def __init__(self):
        super().__init__()
        self.connections = 0
        self.lerps = 0
        self.lerps_since_connected = 0
        self.offset_ms = {}  # of the master's clock, as last known in each connection
        self.sample = None  # of the newest wait that was interpolated
        self._lerp_before = False

    def take_report(self, report):
        if report["type"] == "connection":
            self.connections = report["connections"]
            self.lerps_since_connected = 0
        elif report["type"] == "wait":
            lerp = report["result"] == "lerp"
            self.lerps += lerp
            self.lerps_since_connected += lerp
            if report["offset_ms"] is not None:
                self.offset_ms[self.connections] = report["offset_ms"]
            # The first frame after a reset is taken without a weight, so it is beside the exact position.
            if lerp and self._lerp_before:
                self.sample = report
            self._lerp_before = lerp

    @property
    def connected(self):
        return self.last.get("connection", {}).get("connected", False)


class Slave:
    """A slave's process, with what it says held against a master's truth."""

    def __init__(self, cluster, name, arguments, namespaces=(), clock_ahead=0, traced=True):
        self.cluster = cluster
        self.name = name
        self.trace = cluster.folder / f"{name}.json" if traced else None
        self._arguments = arguments
        self._namespaces = namespaces
        self.clock_ahead = clock_ahead  # seconds, of the system's steady clock where it runs
        self.start()

    def start(self):
        trace = ["--trace", self.trace] if self.trace else []
        self.reports = SlaveReports()
        self.process = self.cluster.start_program(
            self.name,
            ["kor-slave", "--name", self.name, *self._arguments, *trace],
            self.reports,
            self._namespaces,
        )

    def mark(self):
        """Where it stands, to tell what comes after."""
        return self.reports.connections, self.reports.lerps

    def locked_anew(self, mark=(0, 0)):
        """It shows the right frames, in a connection made since the mark."""
        return (
            self.reports.connections > mark[0]
            and self.reports.lerps_since_connected >= FRAMES_TO_PROVE
            and self.shows_right_frames()
        )

    def locked_still(self, mark):
        """It shows the right frames, in the connection that it had at the mark."""
        return (
            self.reports.connections == mark[0]
            and self.reports.lerps >= mark[1] + FRAMES_TO_PROVE
            and self.shows_right_frames()
        )

    def true_offset(self):
        """The master's clock minus its own, in seconds."""
        return self.reports.header["zero"] - self.clock_ahead - self.cluster.master.reports.header["zero"]

    def shows_right_frames(self):
        sample, header = self.reports.sample, self.cluster.master.reports.header
        if not (self.reports.connected and sample and header):
            return False
        frames_off = sample["position"] - (sample["vsync"] + self.true_offset()) / header["interval"]
        return abs(frames_off) < 0.5

    def clock_within_bound(self):
        """Its estimate of the master's clock is as good as it says."""
        sample = self.reports.sample
        return abs(sample["offset_ms"] - self.true_offset() * 1000) <= sample["bound_ms"] + 0.001


class Cluster(Processes):
    """A master and slaves on one machine, or on hosts of a network of their own."""

    tail_lines = 60

    def __init__(self, most_slaves=8):
        super().__init__()
        self._scratch = tempfile.TemporaryDirectory()
        self.folder = Path(self._scratch.name)
        ports = self.claim_ports(3 * most_slaves)
        self.ports = [ports[i : i + 3] for i in range(0, len(ports), 3)]  # of a slave: announce, bind, data
        self.masters = []  # processes of all that there have been
        self.slaves = []
        self.lead = 3

    def close(self):
        super().close()
        self._scratch.cleanup()

    def start_program(self, name, command, reports=None, namespaces=()):
        command = [PROGRAMS / command[0], *command[1:], "--quiet", "--verbose", "--report", "/dev/fd/{pipe}"]
        return self.start(name, command, pipe=reports or Reports(), namespaces=namespaces)

    def start_master(self, *arguments, **surroundings):
        self.master = self.launch_master(*arguments, **surroundings)
        self.masters.append(self.master)

    def launch_master(self, *arguments, ports=None, broadcast=BROADCAST, namespaces=()):
        """It sleeps while it has nothing to do, unless told otherwise: others want the processors, too."""
        lists = (",".join(map(str, kind)) for kind in zip(*(ports or self.ports)))
        command = ["kor-master", "--broadcast", broadcast, "--lead", self.lead]
        for option, kind in zip(("--announce-ports", "--bind-ports", "--data-ports"), lists):
            command += [option, kind]
        spin = [] if "--spin" in arguments else ["--spin", 2]
        return self.start_program("master", [*command, *spin, *arguments], MasterReports(), namespaces)

    def start_slaves(self, count, *arguments):
        for i in range(count):
            place = ["--announce-port", self.ports[i][0], "--phase", f"{0.37 * i % 1:.2f}"]
            self.slaves.append(Slave(self, f"slave{i}", [*place, *arguments]))

    def marks(self):
        return [slave.mark() for slave in self.slaves]

    def await_locked_anew(self, marks=None):
        marks = marks or [(0, 0)] * len(self.slaves)
        self.wait_until(lambda: all(map(Slave.locked_anew, self.slaves, marks)), "a new lock of every slave")

    def await_locked_still(self, marks=None, without=None):
        """Every slave goes on in its connection."""
        marks = marks or self.marks()
        watched = [(slave, mark) for slave, mark in zip(self.slaves, marks) if slave is not without]
        self.wait_until(lambda: all(slave.locked_still(mark) for slave, mark in watched), "the lock's going on")

    def await_slaves(self, count):
        """Waits until the master knows that many by name."""
        self.wait_until(lambda: len(self.master.reports.names()) == count, f"a master with {count} slaves")

    def stop_for(self, process, seconds):
        process.signal(signal.SIGSTOP)
        self.pump_for(seconds)
        process.signal(signal.SIGCONT)

    def finish(self, process):
        """Asks it to end, and checks that it does, with nothing left allocated."""
        self.wait_until(lambda: process.reports.header, f"the first line of {process.name}")  # it hears signals then
        process.signal(signal.SIGTERM)
        self.wait_for_end([process])
        assert process.status == 0, process.describe_end()
        assert process.reports.last["end"]["live_blocks"] == 0, f"{process.name} leaks\n{process.log_tail()}"

    def finish_slave(self, slave):
        """The same; and everything that arrived has arrived whole, once and in order, and nothing was lost."""
        self.finish(slave.process)
        assert slave.reports.last["end"]["bad_frames"] == 0, f"{slave.name} got damaged frames"
        if slave.trace:
            self.check_arrivals(slave)

    def check_arrivals(self, slave):
        reports = slave.reports
        last = reports.last["end"]["connections"]
        for connection, frames in zip(range(last, 0, -1), reversed(arrivals(slave.trace))):
            doubled = [b for a, b in zip(frames, frames[1:]) if a >= b]
            assert not doubled, f"{slave.name} got frames doubled or out of order: {doubled} of {frames}"
            if not frames or connection not in reports.offset_ms:
                continue
            # Which master it was is known by its clock.
            zero = reports.header["zero"] - slave.clock_ahead - reports.offset_ms[connection] / 1000
            master = min(self.masters, key=lambda master: abs(master.reports.header["zero"] - zero))
            sent = {frame + self.lead for frame in master.reports.frames}
            missing = sent.intersection(range(frames[0], frames[-1])).difference(frames)
            assert not missing, f"{slave.name} did not get {sorted(missing)} from the master in its connection {connection}"

    def finish_all(self):
        for slave in self.slaves:
            self.finish_slave(slave)
        self.finish(self.master)


def arrivals(trace):
    """Frames in the order in which they arrived, for each connection. The trace may lack the oldest."""
    connections = [[]]
    for event in json.loads(trace.read_text())["traceEvents"]:
        if event["name"] in ("master connected", "master connects anew"):
            connections.append([])
        elif event["name"] == "block arrived":
            connections[-1].append(event["args"]["frame"])
    return connections


class ClusterTest(unittest.TestCase):
    def setUp(self):
        self.cluster = self.enterContext(Cluster())

    def lock(self, slaves, *arguments):
        self.cluster.start_master(*arguments)
        self.cluster.start_slaves(slaves)
        self.cluster.await_locked_anew()


def resident_kib(process):
    pages = int(Path(f"/proc/{process.pid}/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGESIZE") // 1024


def main():
    """Runs the tests. Where none could be run, the exit status says so."""
    result = unittest.main(exit=False, verbosity=2).result
    if result.skipped and len(result.skipped) == result.testsRun:
        sys.exit(SKIPPED)
    sys.exit(not result.wasSuccessful())
