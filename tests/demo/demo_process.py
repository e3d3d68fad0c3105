"""The demo as a process, for the tests that run it."""

import os
import sys
import tempfile
import unittest
from pathlib import Path

TOOLS = Path(__file__).resolve().parents[2] / "tools"
BUILD = Path(os.environ["KOR_BUILD"])
sys.path.insert(0, str(TOOLS))

from korprocess import PATIENCE, Lines, Processes


class Text(Lines):
    """Whole lines as they have come."""

    text = ""

    def take(self, line):
        self.text += line.decode() + "\n"


def start_demo(processes, *arguments):
    """What it prints is in `output.text`, errors in `log()`. It may end at any time."""
    command = [sys.executable, TOOLS / "demo.py", "--build", BUILD, *arguments]
    process = processes.start("demo", command, output=Text(), own_session=True)
    process.may_end = True
    return process


def group_lives(process):
    """Whether it has left something behind, or lives itself."""
    try:
        os.killpg(process.pid, 0)
        return True
    except ProcessLookupError:
        return False


class ProcessTest(unittest.TestCase):
    def setUp(self):
        self.processes = self.enterContext(Processes())
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def start_demo(self, *arguments):
        return start_demo(self.processes, *arguments)

    def finish(self, process, status=0):
        """Waits until it ends by itself, as it must, and returns its error text."""
        self.processes.wait_for_end([process])
        self.assertEqual(process.status, status, process.describe_end())
        return process.log()

    def assert_refused(self, status, part, program, *arguments):
        process = self.processes.start(program, [BUILD / "bin" / program, *arguments])
        self.assertIn(part, self.finish(process, status))
