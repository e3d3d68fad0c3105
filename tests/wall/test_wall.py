"""The wall as a user runs it, on X servers without a screen: pictures, keys, windows, and what goes wrong.

No figure that depends on how busy the machine is, is looked at.
"""

import json
import os
import shutil
import signal
import sys
import unittest
from contextlib import closing
from pathlib import Path

import Xlib.display
import Xlib.ext.xtest
import Xlib.protocol.event
import Xlib.X
import Xlib.XK

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "demo"))

from demo_process import BUILD, ProcessTest, Text, group_lives
from kordemo.seam import Picture
from kordemo.xserver import XServer
from korprocess import Reports

SKIPPED = 77

for name in ("DISPLAY", "WAYLAND_DISPLAY"):
    os.environ.pop(name, None)


class Run(ProcessTest):
    def start_wall(self, *arguments):
        return self.start_demo("--wall", "--lead", 8, *arguments)

    def test_pictures_of_one_position_meet(self):
        figures = self.folder / "figures.json"
        demo = self.start_wall("--slaves", 2, "--captures", 3, "--pictures", self.folder, "--json", figures)
        self.finish(demo)
        self.assertFalse(group_lives(demo), "a process was left behind")
        wall = json.loads(figures.read_text())["wall"]
        self.assertEqual(list(wall), ["lock on", "lock on, no interpolation", "lock off"])
        self.assertGreater(wall["lock on"]["exact_edges"], 0)
        self.assertLessEqual(wall["lock on"]["exact_px"], 1)
        for name in ("lock on", "no interpolation", "lock off"):
            self.assertIn(name, demo.output.text)
        self.assertEqual(Picture(self.folder / "wall.png").image.size, (640, 240))
        self.assert_exact_pictures()

    def assert_exact_pictures(self):
        for number in (1, 2, 3):
            left, right = (Picture(self.folder / f"capture-{number}-exact-part-{i}.png") for i in (1, 2))
            position = left.number("position")
            earlier, later = map(int, left.text["frames"].split())
            self.assertTrue(earlier <= position <= later)
            self.assertAlmostEqual(left.number("weight"), position - earlier, places=5)
            self.assertAlmostEqual(left.number("clock"), position / 60, places=5)
            for key in ("position", "weight", "clock", "frames"):
                self.assertEqual(left.text[key], right.text[key])
            shown = Picture(self.folder / f"capture-{number}-shown-part-1.png")
            self.assertGreaterEqual(shown.number("clock"), left.number("clock") - 1e-6)

    def test_figures_that_cannot_be_written(self):
        demo = self.start_wall("--slaves", 1, "--captures", 1, "--pictures", self.folder, "--json", "/dev/full")
        self.assertIn("/dev/full: No space left", self.finish(demo, 1))

    def test_two_at_once_and_one_that_is_killed(self):
        killed = self.start_wall("--slaves", 2, "--captures", 100, "--pictures", self.folder / "killed")
        demo = self.start_wall("--slaves", 2, "--captures", 1, "--pictures", self.folder / "other")
        self.processes.wait_until(lambda: list(self.folder.glob("killed/*.png")), "the first picture")
        killed.kill()
        self.processes.wait_until(lambda: not group_lives(killed), "the end of every process")
        self.processes.wait_for_end([demo])
        # Whether a bar crosses the seam in the one picture is chance.
        if "take more --captures" not in demo.log():
            self.assertEqual(demo.status, 0, demo.describe_end())


class WallReports(Reports):
    """All of them, by type."""

    def __init__(self):
        super().__init__()
        self.all = {}

    def take_report(self, report):
        self.all.setdefault(report["type"], []).append(report)


class Programs(ProcessTest):
    """The programs themselves, on one X server."""

    def setUp(self):
        super().setUp()
        self.environment = {
            "DISPLAY": XServer(self.processes, 400, 300).display(),
            "LIBGL_ALWAYS_SOFTWARE": "1",
            "LP_NUM_THREADS": "1",
            "SDL_VIDEODRIVER": "x11",
        }
        self.announce, self.bind, self.data = self.processes.claim_ports(3)

    def start(self, name, *arguments, prefix=(), **options):
        command = [*prefix, BUILD / "bin" / name, *arguments, "--report", "/dev/fd/{pipe}"]
        return self.processes.start(name, command, pipe=WallReports(), environment=self.environment, **options)

    def start_master(self):
        return self.start(
            "kor-wall-master",
            *("--commands", "--announce-ports", self.announce, "--bind-ports", self.bind, "--data-ports", self.data),
            *("--lead", 8, "--wall", "320,240"),
            stdin=True,
        )

    def start_slave(self, *arguments, **options):
        return self.start(
            "kor-wall-slave",
            *("--camera", "left=0,0,160,240", "--camera", "right=160,0,160,240", "--announce-port", self.announce),
            *("--pictures", self.folder, *arguments),
            **options,
        )

    def lock(self):
        self.master, self.slave = self.start_master(), self.start_slave()
        self.processes.wait_until(lambda: self.slave.reports.status.get("lerp"), "the lock")

    def capture(self, kind):
        """Pictures of that kind of a capture that is ordered now."""
        pictures = self.slave.reports.all.setdefault("picture", [])
        before = len(pictures)
        self.master.tell("capture +20.5")

        def come():
            return [line for line in pictures[before:] if line["kind"] == kind]

        self.processes.wait_until(lambda: len(come()) == 2, "the picture")
        return [Picture(Path(line["file"])) for line in come()]


class Window(Programs):
    """What somebody does at a window."""

    def window(self):
        display = self.enterContext(closing(Xlib.display.Display(self.environment["DISPLAY"])))
        windows = display.screen().root.query_tree().children
        return display, next(w for w in windows if w.get_wm_name() == "node-a")

    def press(self, key):
        display, window = self.window()
        window.set_input_focus(Xlib.X.RevertToParent, Xlib.X.CurrentTime)
        code = display.keysym_to_keycode(Xlib.XK.string_to_keysym(key))
        for event in (Xlib.X.KeyPress, Xlib.X.KeyRelease):
            Xlib.ext.xtest.fake_input(display, event, code)
        display.sync()

    def close(self):
        display, window = self.window()
        data = (32, [display.get_atom("WM_DELETE_WINDOW"), Xlib.X.CurrentTime, 0, 0, 0])
        protocols = display.get_atom("WM_PROTOCOLS")
        window.send_event(Xlib.protocol.event.ClientMessage(window=window, client_type=protocols, data=data))
        display.sync()

    def test_keys_flash_and_closing(self):
        self.lock()
        self.assertEqual(self.capture("shown")[0].text["interpolation"], "on")
        self.press("i")
        self.processes.wait_until(lambda: self.capture("shown")[0].text["interpolation"] == "off", "the key's effect")

        for order in ("interpolation on", "overlay on", "flash on"):
            self.master.tell(order)
        left, right = self.capture("exact")
        number = int(left.number("position"))
        for picture in (left, right):
            cells = picture.pixels[60::120, 10::20].reshape(2 * 8, 3)
            self.assertEqual(sum(int(cell[0]) << bit for bit, cell in enumerate(cells)), number & 0xFFFF)

        self.close()
        self.finish(self.slave)
        self.assertTrue(self.slave.reports.last["end"]["closed"])
        self.master.signal(signal.SIGTERM)
        self.finish(self.master)

    def test_frozen_scene_stands_still(self):
        self.lock()
        self.master.tell("freeze on")
        # The counters go on.
        first, second = (self.capture("exact")[0].pixels[60:] for _ in range(2))
        self.assertTrue((first == second).all())
        self.master.tell("freeze off")
        self.assertFalse((first == self.capture("exact")[0].pixels[60:]).all())


class BadInput(Programs):
    def test_arguments(self):
        for part, program, *arguments in (
            ("--camera", "kor-wall-slave", "--camera", "left=0,0,-320,240"),
            ("--pictures", "kor-wall-slave", "--camera", "left=0,0,320,240", "--pictures", "/nowhere"),
            ("--wall", "kor-wall-master", "--wall", "0,0"),
        ):
            self.assert_refused(2, part, program, *arguments)
        self.assert_refused(1, "no display", "kor-wall-slave", "--camera", "left=0,0,320,240")

    def test_captures_that_cannot_be(self):
        self.lock()
        complaints = self.slave.reports.all.setdefault("complaint", [])
        self.master.tell("capture 1")
        self.processes.wait_until(lambda: complaints, "the complaint")
        self.assertIn("frame 1 is long past", complaints[0]["text"])
        for line in ("capture nan", "capture soon", "capture +1e300", "capture 1 2", "lock maybe", "x" * 5000):
            self.master.tell(line)
        self.capture("exact")  # all that did no harm
        self.master.signal(signal.SIGTERM)
        self.assertEqual(self.finish(self.master).count("kor-wall-master:"), 6)
        self.slave.signal(signal.SIGTERM)
        self.assertIn("frame 1 is long past", self.finish(self.slave, 1))

    def test_full_disk(self):
        # A limit on the size of files takes the place of a disk that is full; what it writes goes to pipes.
        limited = ["sh", "-c", 'exec prlimit --fsize=512 "$@" 2>&1', "sh"]
        master, slave = self.start_master(), self.start_slave(prefix=limited, output=Text())
        self.processes.wait_until(lambda: master.reports.status.get("slaves"), "the slave")
        master.tell("capture +60.5")
        self.processes.wait_until(lambda: "capture 1: cannot write" in slave.output.text, "the complaint")
        slave.signal(signal.SIGTERM)
        self.finish(slave, 1)
        self.assertEqual(list(self.folder.glob("*.png")), [])


if __name__ == "__main__":
    if shutil.which("Xvfb") is None:
        print("skipped: there is no Xvfb (script/setup installs it)")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)
