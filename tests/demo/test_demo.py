"""The demo as a user runs it: what it prints and writes, how it ends, and that two of them do not meet.

No figure that depends on how busy the machine is, is looked at.
"""

import json
import signal
import socket
import struct
import tempfile
import unittest
from pathlib import Path

from demo_process import PATIENCE, ProcessTest, Processes, group_lives, start_demo


class Run(ProcessTest):
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
        file = self.folder / "figures.json"
        process = self.start_demo("--grace", PATIENCE / 2, "--json", file, *arguments)
        self.finish(process)
        self.assertFalse(group_lives(process), "a process was left behind")
        return json.loads(file.read_text()), process.output.text

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
        demos = [self.start_demo("--slaves", 2, "--seconds", 2, "--grace", PATIENCE / 2) for _ in range(2)]
        for demo in demos:
            self.finish(demo)


class Proof(unittest.TestCase):
    """What the demo writes beside its figures: where every frame went, and pictures."""

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.folder = Path(scratch.name)
        files = ["--json", cls.folder / "figures.json", "--trace", cls.folder / "trace.json"]
        files += ["--plot", cls.folder / "new" / "plots"]
        with Processes() as processes:
            demo = start_demo(processes, "--slaves", 2, "--seconds", 2, "--grace", PATIENCE / 2, *files)
            processes.wait_for_end([demo])
        assert demo.status == 0, demo.describe_end()
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


class End(ProcessTest):
    """However the demo is ended, its processes end too."""

    def test_by_every_signal(self):
        for number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 130), (signal.SIGKILL, -signal.SIGKILL)):
            with self.subTest(signal=number):
                demo = self.start_demo("--slaves", 2, "--seconds", 3600)
                self.processes.wait_until(lambda: demo.output.text, "the first line")  # something is running
                demo.signal(number)
                self.finish(demo, status)
                self.processes.wait_until(lambda: not group_lives(demo), "the end of every process")


class Arguments(ProcessTest):
    def test_bad_arguments(self):
        for arguments in (["--seconds", "nan"], ["--json", "/nowhere/figures.json"], ["--wall", "--payload", "5"]):
            with self.subTest(arguments=arguments):
                self.assertIn(arguments[0], self.finish(self.start_demo(*arguments), 2))
        for part, *command in (
            ("--payload", "kor-master", "--payload", "4000000000"),
            ("ports", "kor-master", "--data-ports", "7300,7301"),
            ("broadcast", "kor-master", "--broadcast", "network.255"),
            ("--camera", "kor-slave", "--camera", "x" * 300),
            ("--rate", "kor-slave", "--rate", "nan"),
        ):
            with self.subTest(command=command):
                self.assert_refused(2, part, *command)

    def test_ports_in_use_and_a_report_that_cannot_be_written(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("", 0))
            port = str(taken.getsockname()[1])
            for program, option in (
                ("kor-master", "--data-ports"),
                ("kor-master", "--bind-ports"),
                ("kor-slave", "--announce-port"),
                ("kor-slave", "--port"),
            ):
                with self.subTest(option=option):
                    self.assert_refused(3, port, program, option, port, "--seconds", 1)
        for program in ("kor-master", "kor-slave"):
            self.assert_refused(1, "/nowhere/report", program, "--report", "/nowhere/report", "--seconds", 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
