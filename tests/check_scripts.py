"""Checks that every script explains itself without touching the machine: python3 check_scripts.py ROOT

Whoever asks for help has not agreed to an installation or a build, so each script is asked on a path where the
programs that do either only leave a mark.
"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

WORKERS = ["apt-get", "dpkg-query", "sudo", "cmake", "ctest", "clang-format-16", "run-clang-tidy", "ninja"]


def fault(script, option, folder):
    mark = folder / "mark"
    for name in WORKERS:
        program = folder / name
        program.write_text(f'#!/bin/sh\necho "{name} $*" >>"{mark}"\nexit 1\n')
        program.chmod(0o755)
    result = subprocess.run(
        [str(script), option],
        env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=60,
    )
    if mark.exists():
        return f"called {mark.read_text().strip()}"
    if result.returncode != 0:
        return f"ended with status {result.returncode}: {result.stderr}"
    return None if result.stdout.strip() else "said nothing"


def main():
    root = Path(sys.argv[1])
    scripts = [path for path in sorted((root / "script").iterdir()) if os.access(path, os.X_OK)]
    assert scripts, "no scripts found"
    faults = 0
    for script in [*scripts, root / ".ci" / "run"]:
        for option in ("--help", "-h"):
            with tempfile.TemporaryDirectory() as folder:
                if said := fault(script, option, Path(folder)):
                    print(f"{script.relative_to(root)} {option}: {said}")
                    faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
