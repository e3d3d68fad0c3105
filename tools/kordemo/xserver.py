"""X servers without a screen."""

from __future__ import annotations

import os
import selectors
import shutil
import subprocess
import tempfile

from .cluster import END_SECONDS, ClusterError

START_SECONDS = 30.0


class XServer:
    """A server of our own, on the first display number that is free."""

    def __init__(self, width: int, height: int) -> None:
        if shutil.which("Xvfb") is None:
            raise ClusterError("there is no display, and no Xvfb to make one (script/setup installs it)")
        self._log = tempfile.TemporaryFile()
        reading, writing = os.pipe()
        try:
            # The server goes with us, however we go.
            self._popen = subprocess.Popen(
                ["setpriv", "--pdeathsig", "TERM", "Xvfb", "-displayfd", str(writing), "-nolisten", "tcp"]
                + ["-screen", "0", f"{width}x{height}x24"],
                stdin=subprocess.DEVNULL,
                stdout=self._log,
                stderr=self._log,
                pass_fds=[writing],
            )
        except BaseException:
            os.close(reading)
            raise
        finally:
            os.close(writing)
        self._reading = reading

    def display(self) -> str:
        """Waits until it can be connected to."""
        number = b""
        with selectors.DefaultSelector() as selector:
            selector.register(self._reading, selectors.EVENT_READ)
            while not number.endswith(b"\n"):
                data = os.read(self._reading, 16) if selector.select(START_SECONDS) else b""
                if not data:
                    self._log.seek(0)
                    raise ClusterError(f"Xvfb does not start\n{self._log.read().decode(errors='replace')}")
                number += data
        return f":{number.decode().strip()}"

    def end(self) -> None:
        self._popen.terminate()
        try:
            self._popen.wait(END_SECONDS)
        except subprocess.TimeoutExpired:
            self._popen.kill()
            self._popen.wait()
        os.close(self._reading)
        self._log.close()
