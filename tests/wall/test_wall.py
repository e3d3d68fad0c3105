"""The wall as a user runs it, on X servers without a screen: pictures, keys, windows, and what goes wrong.

No figure that depends on how busy the machine is, is looked at.
"""

import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
from contextlib import ExitStack, closing
from pathlib import Path

import Xlib.display
import Xlib.ext.xtest
import Xlib.protocol.event
import Xlib.X
import Xlib.XK

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "demo"))

from demo_process import BUILD, PATIENCE, finish, group_lives, start
from kordemo.cluster import free_ports
from kordemo.seam import Picture
from kordemo.xserver import XServer

SKIPPED = 77

HEADLESS = {key: value for key, value in os.environ.items() if key not in ("DISPLAY", "WAYLAND_DISPLAY")}


def await_true(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} does not come about")
        time.sleep(0.02)


def start_wall(*arguments):
    """The demo with --wall, without a display."""
    return start("--wall", "--lead", 8, *arguments, env=HEADLESS)


class Run(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def test_pictures_of_one_position_meet(self):
        figures = self.folder / "figures.json"
        demo = start_wall("--slaves", 2, "--captures", 3, "--pictures", self.folder, "--json", figures)
        output, errors = finish(demo)
        self.assertEqual(demo.returncode, 0, output + errors)
        self.assertFalse(group_lives(demo.pid), "a process was left behind")
        wall = json.loads(figures.read_text())["wall"]
        self.assertEqual(list(wall), ["lock on", "lock on, no interpolation", "lock off"])
        self.assertGreater(wall["lock on"]["exact_edges"], 0)
        self.assertLessEqual(wall["lock on"]["exact_px"], 1)
        for name in ("lock on", "no interpolation", "lock off"):
            self.assertIn(name, output)
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
        demo = start_wall("--slaves", 1, "--captures", 1, "--pictures", self.folder, "--json", "/dev/full")
        output, errors = finish(demo)
        self.assertEqual(demo.returncode, 1, output + errors)
        self.assertIn("/dev/full: No space left", errors)

    def test_two_at_once_and_one_that_is_killed(self):
        killed = start_wall("--slaves", 2, "--captures", 100, "--pictures", self.folder / "killed")
        demo = start_wall("--slaves", 2, "--captures", 1, "--pictures", self.folder / "other")
        await_true(lambda: list(self.folder.glob("killed/*.png")), "the first picture")
        killed.kill()
        finish(killed)
        await_true(lambda: not group_lives(killed.pid), "the end of every process")
        output, errors = finish(demo)
        # Whether a bar crosses the seam in the one picture is chance.
        if "take more --captures" not in errors:
            self.assertEqual(demo.returncode, 0, output + errors)


class Programs(unittest.TestCase):
    """The programs themselves, on one X server."""

    def setUp(self):
        stack = ExitStack()
        self.addCleanup(stack.close)
        self.folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        self.server = XServer(400, 300)
        stack.callback(self.server.end)
        self.environment = HEADLESS | {
            "DISPLAY": self.server.display(),
            "LIBGL_ALWAYS_SOFTWARE": "1",
            "LP_NUM_THREADS": "1",
            "SDL_VIDEODRIVER": "x11",
        }
        self.stack = stack
        self.announce, self.bind, self.data = free_ports(3)

    def start(self, name, *arguments, **options):
        process = subprocess.Popen(
            [str(BUILD / "examples" / name), *map(str, arguments)],
            **{
                "stdin": subprocess.DEVNULL,
                "stdout": subprocess.DEVNULL,
                "stderr": subprocess.PIPE,
                "text": True,
                "env": self.environment,
            }
            | options,
        )
        self.stack.callback(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.communicate()

    def master(self):
        return self.start(
            "kor-wall-master",
            *("--commands", "--announce-ports", self.announce, "--bind-ports", self.bind, "--data-ports", self.data),
            *("--lead", 8, "--wall", "320,240", "--report", self.folder / "master"),
            stdin=subprocess.PIPE,
        )

    def slave(self, **options):
        return self.start(
            "kor-wall-slave",
            *("--camera", "left=0,0,160,240", "--camera", "right=160,0,160,240", "--announce-port", self.announce),
            *("--pictures", self.folder, "--report", self.folder / "slave"),
            **options,
        )

    def lines(self, who, kind):
        """What a process has reported so far."""
        file = self.folder / who
        text = file.read_text() if file.exists() else ""
        return [line for line in map(json.loads, text.splitlines()) if line["type"] == kind]

    def await_lock(self):
        await_true(lambda: any(line["lerp"] > 0 for line in self.lines("slave", "status")), "the lock")

    def tell(self, master, line):
        master.stdin.write(line + "\n")
        master.stdin.flush()

    def capture(self, master, kind):
        """Pictures of that kind of a capture that is ordered now."""
        before = len(self.lines("slave", "picture"))
        self.tell(master, "capture +20.5")

        def pictures():
            return [line for line in self.lines("slave", "picture")[before:] if line["kind"] == kind]

        await_true(lambda: len(pictures()) == 2, "the picture")
        return [Picture(Path(line["file"])) for line in pictures()]


class Window(Programs):
    """What somebody does at a window."""

    def window(self):
        display = self.stack.enter_context(closing(Xlib.display.Display(self.environment["DISPLAY"])))
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
        master, slave = self.master(), self.slave()
        self.await_lock()
        self.assertEqual(self.capture(master, "shown")[0].text["interpolation"], "on")
        self.press("i")
        await_true(lambda: self.capture(master, "shown")[0].text["interpolation"] == "off", "the key's effect")

        self.tell(master, "interpolation on")
        self.tell(master, "overlay on")
        self.tell(master, "flash on")
        left, right = self.capture(master, "exact")
        number = int(left.number("position"))
        for picture in (left, right):
            cells = picture.pixels[60::120, 10::20].reshape(2 * 8, 3)
            self.assertEqual(sum(int(cell[0]) << bit for bit, cell in enumerate(cells)), number & 0xFFFF)

        self.close()
        _, errors = slave.communicate(timeout=PATIENCE)
        self.assertEqual(slave.returncode, 0, errors)
        self.assertTrue(self.lines("slave", "end")[0]["closed"])
        master.terminate()
        _, errors = master.communicate(timeout=PATIENCE)
        self.assertEqual(master.returncode, 0, errors)

    def test_frozen_scene_stands_still(self):
        master, _ = self.master(), self.slave()
        self.await_lock()
        self.tell(master, "freeze on")
        # The counters go on.
        first, second = (self.capture(master, "exact")[0].pixels[60:] for _ in range(2))
        self.assertTrue((first == second).all())
        self.tell(master, "freeze off")
        self.assertFalse((first == self.capture(master, "exact")[0].pixels[60:]).all())


class BadInput(Programs):
    def assert_refused(self, status, part, program, *arguments, **options):
        process = self.start(program, *arguments, **options)
        _, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, status, errors)
        self.assertIn(part, errors)

    def test_arguments(self):
        for part, *arguments in (
            ("at least one camera",),
            ("--camera", "--camera", "left"),
            ("--camera", "--camera", "left=0,0,320"),
            ("--camera", "--camera", "left=0,0,320,240,1"),
            ("--camera", "--camera", "left=0,0,-320,240"),
            ("--camera", "--camera", "left=0,0,320,99999"),
            ("--camera", "--camera", "a/b=0,0,320,240"),
            ("--pictures", "--camera", "left=0,0,320,240", "--pictures", "/nowhere"),
            ("--window", "--camera", "left=0,0,320,240", "--window", "1"),
            ("--rate", "--camera", "left=0,0,320,240", "--rate", "nan"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_refused(2, part, "kor-wall-slave", *arguments)
        for part, *arguments in (
            ("--wall", "--wall", "960"),
            ("--wall", "--wall", "0,0"),
            ("ports", "--bind-ports", 1),
            ("--broadcast", "--broadcast", "network.255"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_refused(2, part, "kor-wall-master", *arguments)

    def test_no_display(self):
        slave = ("kor-wall-slave", "--camera", "left=0,0,320,240")
        self.assert_refused(1, "no display", *slave, env=HEADLESS)
        self.assert_refused(1, "no display", *slave, env=HEADLESS | {"DISPLAY": ":nowhere"})

    def test_no_opengl(self):
        old = self.environment | {"MESA_GL_VERSION_OVERRIDE": "2.1"}
        self.assert_refused(1, "OpenGL", "kor-wall-slave", "--camera", "left=0,0,320,240", env=old)

    def test_captures_that_cannot_be(self):
        master, slave = self.master(), self.slave()
        await_true(lambda: len(self.lines("master", "status")) > 1, "some frames")
        self.await_lock()
        self.tell(master, "capture 1")
        await_true(lambda: self.lines("slave", "complaint"), "the complaint")
        self.assertIn("frame 1 is long past", self.lines("slave", "complaint")[0]["text"])
        for line in ("capture nan", "capture soon", "capture +1e300", "capture 1 2", "lock maybe", "x" * 5000):
            self.tell(master, line)
        self.capture(master, "exact")  # all that did no harm
        master.terminate()
        _, errors = master.communicate(timeout=PATIENCE)
        self.assertEqual(errors.count("kor-wall-master:"), 6, errors)
        slave.terminate()
        _, errors = slave.communicate(timeout=PATIENCE)
        self.assertEqual(slave.returncode, 1)
        self.assertIn("frame 1 is long past", errors)

    def test_full_disk(self):
        # A limit on the size of files takes the place of a disk that is full; the report goes to a pipe.
        master = self.master()
        slave = self.start(
            "kor-wall-slave",
            *("--camera", "left=0,0,160,240", "--announce-port", self.announce, "--pictures", self.folder),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (512, 512)),
        )
        await_true(lambda: any(line["slaves"] for line in self.lines("master", "status")), "the slave")
        self.tell(master, "capture +60.5")
        await_true(lambda: self.lines("master", "order"), "the order")
        line = slave.stderr.readline()
        while "cannot write" not in line:
            self.assertTrue(line, "the slave ended")
            line = slave.stderr.readline()
        self.assertIn("capture 1: cannot write", line)
        slave.terminate()
        slave.communicate(timeout=PATIENCE)
        self.assertEqual(slave.returncode, 1)
        self.assertEqual(list(self.folder.glob("*.png")), [])


if __name__ == "__main__":
    if shutil.which("Xvfb") is None:
        print("skipped: there is no Xvfb (script/setup installs it)")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)
