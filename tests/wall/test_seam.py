"""The measuring of seams, on pictures whose steps are known."""

import sys
import tempfile
import unittest
from pathlib import Path

import numpy
from PIL import Image, PngImagePlugin

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))

from kordemo.proof import seam_steps
from kordemo.seam import Picture, join, steps, wrapped

WIDTH, HEIGHT = 60, 100


def draw(bars, behind=0.04):
    """A picture with bars (channel, height of the middle at the left border, slope, thickness)."""
    pixels = numpy.full((HEIGHT, WIDTH, 3), behind)
    y, x = numpy.mgrid[0:HEIGHT, 0:WIDTH] + 0.5
    for channel, middle, slope, thickness in bars:
        away = abs(y - (middle + slope * x)) / (1 + slope**2) ** 0.5
        pixels[:, :, channel] += numpy.clip(thickness / 2 - away + 0.5, 0, 1)
    return Image.fromarray((numpy.clip(pixels, 0, 1) * 255).round().astype(numpy.uint8))


class Steps(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.saved = 0

    def picture(self, *bars, behind=0.04, **texts):
        info = PngImagePlugin.PngInfo()
        for key, value in texts.items():
            info.add_text(key, str(value))
        self.saved += 1
        path = self.folder / f"{self.saved}.png"
        draw(bars, behind).save(path, pnginfo=info)
        return Picture(path)

    def assert_steps(self, left, right, colour, expected):
        found = steps(left, right, colour)
        self.assertEqual(len(found), 2)
        for step in found:
            self.assertAlmostEqual(step, expected, delta=0.2)

    def test_level_bar(self):
        for step in (0, 0.3, 1, -2.5, 16.7):
            with self.subTest(step=step):
                self.assert_steps(
                    self.picture((0, 40.2, 0, 12)), self.picture((0, 40.2 + step, 0, 12)), "red", step
                )

    def test_slanted_bar_goes_on_behind_the_seam(self):
        for slope in (0.15, -0.6):
            left = self.picture((1, 60, slope, 10))
            self.assert_steps(left, self.picture((1, 60 + slope * WIDTH, slope, 10)), "green", 0)
            self.assert_steps(left, self.picture((1, 63 + slope * WIDTH, slope, 10)), "green", 3)

    def test_other_bars_and_what_is_behind_do_not_disturb(self):
        left = self.picture((0, 40, 0, 12), (1, 42, 0.1, 10), (2, 20, 0.3, 10), behind=0.25)
        right = self.picture((0, 44, 0, 12), (1, 48, 0.1, 10), (2, 38, 0.3, 10), behind=0.25)
        self.assert_steps(left, right, "red", 4)
        self.assert_steps(left, right, "green", 0)
        self.assert_steps(left, right, "blue", 0)

    def test_nothing_to_measure(self):
        bar = self.picture((0, 40, 0, 12))
        for other in (
            self.picture(),  # not there
            self.picture((0, 2, 0, 12)),  # cut off by the border
            self.picture((0, 20, 0, 6), (0, 60, 0, 6)),  # two
            self.picture((0, 0, 2.0, 12)),  # too steep
        ):
            self.assertEqual(steps(bar, other, "red"), [])
            self.assertEqual(steps(other, bar, "red"), [])

    def test_motion_between_refreshes_is_taken_off(self):
        bars = [{"colour": "red", "speed": 1000.0, "track": 124.0}]
        left = self.picture((0, 40, 0, 12), vsync=7.000)
        evenly = self.picture((0, 45, 0, 12), vsync=7.005)
        behind = self.picture((0, 40, 0, 12), vsync=7.005)
        self.assertLess(max(seam_steps([left, evenly], bars)), 0.2)
        self.assertAlmostEqual(max(seam_steps([left, behind], bars)), 5, delta=0.2)
        self.assertAlmostEqual(max(seam_steps([left, evenly], None)), 5, delta=0.2)

    def test_wrapped(self):
        self.assertAlmostEqual(wrapped(-123.0, 124.0), 1.0)
        self.assertAlmostEqual(wrapped(130.0, 124.0), 6.0)
        self.assertAlmostEqual(wrapped(-6.0, 124.0), -6.0)

    def test_join(self):
        join([self.picture((0, 40, 0, 12)), self.picture()], self.folder / "wall.png")
        with Image.open(self.folder / "wall.png") as wall:
            self.assertEqual(wall.size, (2 * WIDTH, HEIGHT))
            self.assertEqual(wall.getpixel((10, 40))[0], 255)
            self.assertLess(wall.getpixel((WIDTH + 10, 40))[0], 20)


if __name__ == "__main__":
    unittest.main(verbosity=2)
