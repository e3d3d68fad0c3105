"""The demo as a process, for the tests that run it."""

import os
import signal
import subprocess
import sys
from pathlib import Path

DEMO = Path(__file__).resolve().parents[2] / "tools" / "demo.py"
BUILD = Path(os.environ["KOR_BUILD"])
PATIENCE = 120  # seconds, for whatever must happen at some time

sys.path.insert(0, str(DEMO.parent))


def start(*arguments, **options):
    return subprocess.Popen(
        [sys.executable, str(DEMO), "--build", str(BUILD), *map(str, arguments)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
        **options,
    )


def finish(process):
    """Output and error text; the process must end by itself."""
    try:
        return process.communicate(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        raise


def group_lives(group):
    try:
        os.killpg(group, 0)
        return True
    except ProcessLookupError:
        return False
