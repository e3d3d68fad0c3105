"""The trace of a whole run, from what each process recorded."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Iterable


def merge(program: Path, folder: Path, processes: Iterable[str], output: Path) -> list[str]:
    """Joins the files that are there. Returns what went wrong."""
    faults = []
    files = []
    for name in processes:
        file = folder / f"{name}.json"
        if file.is_file():
            files.append(str(file))
        else:
            faults.append(f"{name} left no trace")
    if not files:
        return faults
    try:
        result = subprocess.run([program, "-o", output, *files], stdin=subprocess.DEVNULL, capture_output=True)
    except OSError as error:
        return [*faults, f"{program}: {error.strerror}; build it first (script/demo does)"]
    text = result.stderr.decode(errors="replace").strip()
    if result.returncode != 0:
        faults.append(f"no trace: {text}")
    elif text:
        print(text)
    return faults
