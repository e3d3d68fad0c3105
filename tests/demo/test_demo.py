"""The demo as a user runs it: what it prints and writes, how it ends, and that two of them do not meet.

No figure that depends on how busy the machine is, is looked at.
"""

import io
import json
import os
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest
from pathlib import Path
from types import SimpleNamespace

from demo_process import BUILD, PATIENCE, finish, group_lives, start


def run_program(name, *arguments):
    return subprocess.run(
        [str(BUILD / "examples" / name), *map(str, arguments)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=PATIENCE,
    )


class Run(unittest.TestCase):
    def assert_percentiles(self, figures):
        self.assertEqual(list(figures), ["p50", "p99", "max"])
        self.assertLessEqual(0, figures["p50"])
        self.assertLessEqual(figures["p50"], figures["p99"])
        self.assertLessEqual(figures["p99"], figures["max"])

    def assert_summary(self, summary, slaves, lead, rate):
        self.assertEqual(
            list(summary), ["seconds", "lead", "rate", "master", "slaves", "disagreement_frames"]
        )
        self.assertEqual((summary["lead"], summary["rate"]), (lead, rate))
        self.assertEqual(list(summary["master"]), ["frames", "late_swaps", "frame_error_us"])
        self.assertGreater(summary["master"]["frames"], 0)
        self.assert_percentiles(summary["master"]["frame_error_us"])
        self.assertEqual(len(summary["slaves"]), slaves)
        for slave in summary["slaves"]:
            self.assert_slave(slave)

    def assert_slave(self, slave):
        results = ["lerp", "hit", "over_hit", "none"]
        self.assertEqual(
            list(slave),
            ["name", "cameras", "lock_seconds", "waits", *results, "offset_error_us", "position_error_us", "series"],
        )
        self.assertTrue(slave["cameras"])
        self.assertGreater(slave["lock_seconds"], 0)
        self.assertGreater(slave["lerp"], 0)
        self.assertEqual(slave["waits"], sum(slave[result] for result in results))
        self.assert_percentiles(slave["offset_error_us"])
        self.assert_percentiles(slave["position_error_us"])
        self.assert_series(slave)

    def assert_series(self, slave):
        series = slave["series"]
        self.assertEqual(
            list(series),
            ["waits_per_point", "time_s", "position_error_us", "clock_error_us", "clock_bound_us", "results"],
        )
        points = len(series["time_s"])
        self.assertEqual(series["time_s"], sorted(series["time_s"]))
        for key in ("position_error_us", "clock_error_us", "clock_bound_us"):
            self.assertEqual(len(series[key]), points)
        self.assertEqual(list(series["results"]), ["lerp", "hit", "over_hit", "none"])
        per_point = [sum(counts) for counts in zip(*series["results"].values())]
        self.assertEqual(len(per_point), points)
        self.assertEqual(set(per_point[:-1]) - {series["waits_per_point"]}, set())
        # The figures begin with the lock, the series with the first wait.
        self.assertGreaterEqual(sum(per_point), slave["waits"])
        known = [abs(value) for value in series["position_error_us"] if value is not None]
        worst = slave["position_error_us"]["max"]
        self.assertTrue([value for value in known if abs(value - worst) < 0.01], worst)

    def demo(self, *arguments):
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "figures.json"
            process = start("--grace", PATIENCE / 2, "--json", file, *arguments)
            output, errors = finish(process)
            self.assertEqual(process.returncode, 0, output + errors)
            self.assertFalse(group_lives(process.pid), "a process was left behind")
            return json.loads(file.read_text()), output

    def test_two_slaves(self):
        summary, output = self.demo("--slaves", 2, "--seconds", 3)
        self.assert_summary(summary, slaves=2, lead=2, rate=60)
        self.assert_percentiles(summary["disagreement_frames"])
        self.assertEqual([slave["name"] for slave in summary["slaves"]], ["slave-1", "slave-2"])
        self.assertIn("slave-2", output)

    def test_other_rate_and_lead_with_payload(self):
        summary, _ = self.demo("--slaves", 1, "--seconds", 2, "--rate", 30, "--lead", 12, "--payload", 100000)
        self.assert_summary(summary, slaves=1, lead=12, rate=30)
        self.assertEqual(summary["disagreement_frames"], {"p50": None, "p99": None, "max": None})

    def test_two_at_once_do_not_meet(self):
        demos = [start("--slaves", 2, "--seconds", 2, "--grace", PATIENCE / 2) for _ in range(2)]
        for demo in demos:
            output, errors = finish(demo)
            self.assertEqual(demo.returncode, 0, output + errors)


class SlowStart(unittest.TestCase):
    """A process that has not come to its first line when the time is over."""

    def test_says_who(self):
        with tempfile.TemporaryDirectory() as folder:
            programs = Path(folder) / "examples"
            programs.mkdir()
            (programs / "kor-master").symlink_to(BUILD / "examples" / "kor-master")
            slave = programs / "kor-slave"
            slave.write_text("#!/bin/sh\nexec sleep 3600\n")
            slave.chmod(0o755)
            process = start("--build", folder, "--slaves", 1, "--seconds", 1)
            _, errors = finish(process)
            self.assertEqual(process.returncode, 1)
            self.assertIn("slave-1", errors)
            self.assertNotIn("Traceback", errors)


class Proof(unittest.TestCase):
    """What the demo writes beside its figures: where every frame went, and pictures."""

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.folder = Path(scratch.name)
        files = ["--json", cls.folder / "figures.json", "--trace", cls.folder / "trace.json"]
        files += ["--plot", cls.folder / "new" / "plots"]
        demo = start("--slaves", 2, "--seconds", 2, "--grace", PATIENCE / 2, *files)
        output, errors = finish(demo)
        if demo.returncode != 0:
            raise AssertionError(output + errors)
        cls.figures = json.loads((cls.folder / "figures.json").read_text())
        cls.trace = json.loads((cls.folder / "trace.json").read_text())
        cls.events = cls.trace["traceEvents"]
        cls.processes = {e["pid"]: e["args"]["name"] for e in cls.events if e["name"] == "process_name"}

    def test_pictures(self):
        pictures = sorted((self.folder / "new" / "plots").iterdir())
        self.assertEqual([p.name for p in pictures], ["clock-error.png", "position-error.png", "waits.png"])
        for picture in pictures:
            content = picture.read_bytes()
            self.assertEqual(content[:8], b"\x89PNG\r\n\x1a\n")
            self.assertTrue(content.endswith(b"IEND\xaeB`\x82"))
            width, height = struct.unpack(">II", content[16:24])
            self.assertEqual((width, height), (1200, 50 + 2 * 220))

    def spans(self, process, prefix=""):
        return [
            event
            for event in self.events
            if event["ph"] == "X"
            and self.processes[event["pid"]] == process
            and event["name"].startswith(prefix)
        ]

    def test_every_process_is_there_once(self):
        self.assertEqual(self.processes, {1: "master", 2: "slave-1", 3: "slave-2"})

    def test_events_are_in_order_and_slices_lie_within_each_other_or_apart(self):
        times = [event["ts"] for event in self.events if event["ph"] != "M"]
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[0], 0)
        open_ends = {}
        for event in self.events:
            if event["ph"] == "X":
                ends = open_ends.setdefault((event["pid"], event["tid"]), [])
                while ends and ends[-1] <= event["ts"]:
                    ends.pop()
                end = event["ts"] + event["dur"]
                if ends:
                    self.assertLessEqual(end, ends[-1] + 0.002, event)
                ends.append(end)

    def test_waits_are_those_of_the_figures(self):
        for slave in self.figures["slaves"]:
            waits = self.spans(slave["name"], "wait ")
            blends = [e["ts"] for e in self.spans(slave["name"], "block applied") if e["args"]["weight"] < 1]
            locked = [e for e in waits if e["ts"] + e["dur"] >= blends[0]]
            for result in ("lerp", "hit", "over_hit", "none"):
                count = sum(event["args"]["result"] == result for event in locked)
                self.assertEqual(count, slave[result], (slave["name"], result))

    def test_a_frame_is_sent_arrives_and_is_shown_in_this_order(self):
        sent = {event["args"]["frame"]: event["ts"] for event in self.spans("master", "frame sent")}
        for slave in ("slave-1", "slave-2"):
            arrived = {event["args"]["frame"]: event for event in self.spans(slave, "block arrived")}
            self.assertGreater(len(arrived), 20)
            slack = max(e["args"]["value"] for e in self.events if e["name"] == "clock bound us") + 1
            for frame, event in arrived.items():
                self.assertLess(sent[frame], event["ts"] + event["dur"] + slack)
            for event in self.spans(slave, "block applied"):
                self.assertLess(arrived[event["args"]["frame"]]["ts"], event["ts"])


class End(unittest.TestCase):
    """However the demo is ended, its processes end too."""

    def end_by(self, number):
        process = start("--slaves", 2, "--seconds", 3600)
        process.stdout.readline()  # something is running
        process.send_signal(number)
        finish(process)
        deadline = time.monotonic() + PATIENCE
        while group_lives(process.pid):
            self.assertLess(time.monotonic(), deadline, "a process was left behind")
            time.sleep(0.05)
        return process.returncode

    def test_interrupt(self):
        self.assertEqual(self.end_by(signal.SIGINT), 130)

    def test_terminate(self):
        self.assertEqual(self.end_by(signal.SIGTERM), 130)

    def test_kill(self):
        self.assertEqual(self.end_by(signal.SIGKILL), -signal.SIGKILL)


class Table(unittest.TestCase):
    """Nothing that is asked for falls off a narrow terminal."""

    def lines(self, width):
        from kordemo.samples import MasterStream, SlaveStream
        from kordemo.screen import live_table
        from rich.console import Console

        slave = SlaveStream()
        slave.header = {"name": "slave-1", "cameras": ["left", "front"]}
        slave.last = {"position": 6543.21, "ping_ms": 0.02, "offset_ms": -123.456, "bound_ms": 0.01, "cache": 78}
        cluster = SimpleNamespace(
            master=MasterStream(), slaves=[slave], plan=SimpleNamespace(rate=60.0, lead=2)
        )
        console = Console(width=width, record=True, file=io.StringIO())
        console.print(live_table(cluster, 1, 10, width))
        return console.export_text()

    def test_is_whole_at_any_usual_width(self):
        for width in (60, 77, 78, 80, 120):
            with self.subTest(width=width):
                text = self.lines(width)
                for part in ("slave-1", "left", "front", "-123.456", "6,543.21", "78"):
                    self.assertIn(part, text)


class Arguments(unittest.TestCase):
    def test_bad_arguments_of_the_demo(self):
        for arguments in (
            ["--slaves", "0"],
            ["--slaves", "many"],
            ["--seconds", "nan"],
            ["--seconds", "-1"],
            ["--lead", "1.5"],
            ["--rate", "0"],
            ["--payload", "1000000000000"],
            ["--json", "/nowhere/figures.json"],
            ["--trace", "/nowhere/trace.json"],
            ["--plot", "/dev/null/plots"],
            ["--logs", "/dev/null/logs"],
            ["--pictures", "/dev/null/pictures"],
            ["--wall", "--payload", "5"],
            ["--unknown"],
        ):
            with self.subTest(arguments=arguments):
                process = start(*arguments)
                _, errors = finish(process)
                self.assertEqual(process.returncode, 2, errors)
                self.assertIn(arguments[0], errors)
                self.assertNotIn("Traceback", errors)

    def test_plots_need_gnuplot(self):
        with tempfile.TemporaryDirectory() as empty:
            process = start("--plot", empty, env={**os.environ, "PATH": empty})
            _, errors = finish(process)
            self.assertEqual(process.returncode, 2)
            self.assertIn("gnuplot is not installed", errors)

    def test_programs_explain_themselves(self):
        for program in ("kor-master", "kor-slave"):
            result = run_program(program, "--help")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("--report", result.stdout)
            self.assertIn("Exit status", result.stdout)

    def test_bad_arguments_of_the_programs(self):
        for command in (
            ["kor-master", "--rate", "0"],
            ["kor-master", "--lead", "-1"],
            ["kor-master", "--payload", "4000000000"],
            ["kor-master", "--data-ports", "70000"],
            ["kor-master", "--data-ports", "7300,7301"],
            ["kor-master", "--broadcast", "127.0.0.1"],
            ["kor-master", "--broadcast", "network.255"],
            ["kor-slave", "--announce-port", "0"],
            ["kor-slave", "--camera", "x" * 300],
            ["kor-slave", "--rate", "nan"],
            ["kor-slave", "surplus"],
        ):
            with self.subTest(command=command):
                result = run_program(*command, "--seconds", "1")
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertTrue(result.stderr)

    def test_report_that_cannot_be_written(self):
        for program in ("kor-master", "kor-slave"):
            result = run_program(program, "--report", "/nowhere/report", "--seconds", 1)
            self.assertEqual(result.returncode, 1)
            self.assertIn("/nowhere/report", result.stderr)

    def test_ports_in_use(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("", 0))
            port = taken.getsockname()[1]
            for command in (
                ["kor-master", "--data-ports", port],
                ["kor-master", "--bind-ports", port],
                ["kor-slave", "--announce-port", port],
                ["kor-slave", "--port", port],
            ):
                with self.subTest(command=command):
                    result = run_program(*command, "--seconds", 1)
                    self.assertEqual(result.returncode, 3, result.stderr)
                    self.assertIn(str(port), result.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
