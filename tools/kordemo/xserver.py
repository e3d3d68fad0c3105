"""X servers without a screen."""

from __future__ import annotations

import shutil

from korprocess import Lines, ProcessError, Processes


class DisplayNumber(Lines):
    """The one line that a server writes when it can be connected to."""

    text = ""

    def take(self, line: bytes) -> None:
        self.text = line.decode().strip()


class XServer:
    """A server of our own, on the first display number that is free. It ends with the processes."""

    def __init__(self, processes: Processes, width: int, height: int) -> None:
        if shutil.which("Xvfb") is None:
            raise ProcessError("there is no display, and no Xvfb to make one (script/setup installs it)")
        self._processes = processes
        self._number = DisplayNumber()
        # fmt: off
        processes.start("Xvfb", [
            "Xvfb", "-displayfd", "{pipe}", "-nolisten", "tcp", "-screen", "0", f"{width}x{height}x24",
        ], pipe=self._number)
        # fmt: on

    def display(self) -> str:
        """Waits until it can be connected to."""
        self._processes.wait_until(lambda: self._number.text, "an X server's display")
        return f":{self._number.text}"
