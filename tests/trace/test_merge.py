"""kor-trace-merge with good files and bad ones: python3 test_merge.py PROGRAM"""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PROGRAM = sys.argv.pop(1)


def span(name, ts, dur, tid=1, cat="frame", **args):
    return {"ph": "X", "pid": 1, "tid": tid, "ts": ts, "dur": dur, "cat": cat, "name": name, "args": args}


def trace(process, identity, events, **about):
    name = {"ph": "M", "pid": 1, "tid": 0, "name": "process_name", "args": {"name": process}}
    data = {"format": "kor-trace 1", "process": process, "id": identity, "clock": "master", **about}
    return {"otherData": data, "traceEvents": [name, *events]}


MASTER = trace("master", "1", [span("frame sent", 100, 10, frame=7)], role="master", clock="own")
SLAVE = trace("slave", "2", [span("block arrived", 150, 2, frame=7), span("block applied", 170, 1, frame=7)])


class Merge(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)
        self.output = self.folder / "out.json"

    def file(self, name, content):
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
        return path

    def run_program(self, *arguments):
        return subprocess.run([PROGRAM, *map(str, arguments)], capture_output=True, text=True, timeout=120)

    def merge(self, *traces):
        paths = [self.file(f"{i}.json", content) for i, content in enumerate(traces)]
        result = self.run_program("-o", self.output, *paths)
        self.assertEqual(result.returncode, 0, result.stderr)
        return json.loads(self.output.read_text()), result.stderr

    def assert_refused(self, text, *arguments):
        result = self.run_program("-o", self.output, *arguments)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(text, result.stderr)
        self.assertFalse(self.output.exists())

    def test_processes_become_distinct_and_events_ordered(self):
        twin = trace("slave", "3", [span("wait lerp", 50, 1)])
        merged, _ = self.merge(SLAVE, twin, MASTER)
        names = {e["pid"]: e["args"]["name"] for e in merged["traceEvents"] if e["name"] == "process_name"}
        self.assertEqual(names, {1: "master", 2: "slave", 3: "slave"})
        times = [e["ts"] for e in merged["traceEvents"] if e["ph"] != "M"]
        self.assertEqual(times, sorted(times))
        self.assertEqual([p["process"] for p in merged["otherData"]["processes"]], ["master", "slave", "slave"])

    def test_arrows_lead_from_sent_to_applied(self):
        again = span("block applied", 180, 1, frame=7)
        lost = span("frame sent", 300, 10, frame=8)
        unknown = span("block arrived", 320, 1, frame=-1)
        master = trace("master", "1", [*MASTER["traceEvents"], lost], role="master")
        slave = trace("slave", "2", [*SLAVE["traceEvents"], again, unknown])
        other = trace("other", "3", [span("block arrived", 160, 2, frame=7)])
        early = trace("too early", "4", [span("block arrived", 90, 2, frame=7)])
        merged, _ = self.merge(master, slave, other, early)
        flows = {}
        for event in merged["traceEvents"]:
            if event["ph"] in "stf":
                flows.setdefault(event["id"], []).append((event["ph"], event["pid"], event["ts"]))
        self.assertEqual(sorted(flows.values()), [
            [("s", 1, 100), ("f", 2, 161)],
            [("s", 1, 100), ("t", 3, 151), ("f", 3, 170.5)],
        ])

    def test_time_before_the_master_began_moves_everything(self):
        early = trace("slave", "2", [span("swapEnd", 500000.5, 1)], zero_us=-3e6)
        merged, _ = self.merge(MASTER, early)
        times = {e["name"]: e["ts"] for e in merged["traceEvents"] if e["ph"] == "X"}
        self.assertEqual(times, {"swapEnd": 500000.5, "frame sent": 3000100})
        self.assertEqual(merged["otherData"]["zero_us"], -3e6)

    def test_warnings(self):
        lonely = trace("slave", "2", [span("wait none", 1, 1)], role="slave", clock="own", overwritten=5)
        _, warnings = self.merge(MASTER, lonely)
        self.assertIn("never knew the master's clock", warnings)
        self.assertIn("lacks the oldest 5 events", warnings)

    def test_bad_files(self):
        whole = json.dumps(SLAVE).encode()
        deep = json.dumps(trace("x", "9", [span("a", 1, 1, deep=0)])).replace('"deep": 0', '"deep": %s')
        bad_event = trace("x", "9", [{"ph": "X", "tid": 1, "name": "a", "ts": 1}])
        for content, text in (
            (b"", "is empty"),
            (whole[:-20], "not all of it is there"),
            (b"\x00\xff\x7fELF", "is no JSON"),
            (b"[" * 50, "is no JSON"),
            ((deep % ("[" * 300000 + "]" * 300000)).encode(), "nested too deeply"),
            (b"[]", "is no trace"),
            (b"null", "is no trace"),
            ({"traceEvents": []}, "is no trace"),
            ({"otherData": {"format": "kor-trace 1", "id": 5}, "traceEvents": {}}, "is no trace"),
            (bad_event, "event 1 has no duration"),
            (trace("x", "9", [7]), "event 1 has no phase"),
            (trace("x", "9", [span("a", "now", 1)]), "event 1 has no time"),
            (trace("x", "9", [span("a", 1, 1, tid=None)]), "event 1 has no thread"),
        ):
            with self.subTest(text=text, content=str(content)[:40]):
                path = self.file("bad.json", content)
                self.assert_refused(text, self.file("good.json", MASTER), path)
                self.assert_refused(str(path), path)
        self.assert_refused("No such file", self.folder / "missing.json")
        self.assert_refused("is a directory", self.folder)
        sparse = self.folder / "large.json"
        with open(sparse, "wb") as file:
            file.truncate((1 << 30) + 1)
        self.assert_refused("is larger than any trace", sparse)

    def test_one_process_twice_and_merged_files(self):
        first, second = self.file("1.json", SLAVE), self.file("2.json", SLAVE)
        self.assert_refused(f"{first} and {second} are of the same process", first, second)
        self.merge(MASTER, SLAVE)
        merged = self.output.rename(self.folder / "merged.json")
        self.assert_refused("has been merged already", merged)
        result = self.run_program("-o", first, first)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(json.loads(first.read_text()), SLAVE)

    def test_output_that_cannot_be_written(self):
        path = self.file("1.json", SLAVE)
        for output, text in (("/dev/full", "No space left"), ("/nowhere/out", "No such file"), (self.folder, "directory")):
            result = self.run_program("-o", output, path)
            self.assertEqual(result.returncode, 1)
            self.assertIn(text, result.stderr)
        self.assertEqual(list(self.folder.iterdir()), [path])

    def test_arguments(self):
        self.assertEqual(self.run_program().returncode, 2)
        self.assertEqual(self.run_program("-o", self.output).returncode, 2)
        self.assertEqual(self.run_program("--help").returncode, 0)


if __name__ == "__main__":
    unittest.main(verbosity=1)
