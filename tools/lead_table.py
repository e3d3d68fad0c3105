#!/usr/bin/env python3
"""Measures what a lead is worth: runs the demo with several and prints the table of the README.

    script/demo --seconds 1 && python3 tools/lead_table.py [--leads 1 2 3] [--slaves 4] [--seconds 30]

Keep the machine otherwise idle. The slaves' refreshes are spread evenly over the frame.
"""

import argparse
import json
import subprocess
import sys
import tempfile
from pathlib import Path

MARGIN_MS = 9.0  # that kor-slave uses unless told otherwise
INTERVAL_MS = 1000 / 60


def measure(lead, slaves, seconds):
    """The demo's figures; its exit status tells only whether every slave locked, which the table shows too."""
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / "figures.json"
        demo = Path(__file__).resolve().parent / "demo.py"
        arguments = ["--lead", lead, "--slaves", slaves, "--seconds", seconds, "--json", file]
        run = subprocess.run([sys.executable, demo, *map(str, arguments)], capture_output=True, text=True)
        if not file.exists():
            sys.exit(run.stderr)
        return json.loads(file.read_text())


def row(figures):
    lead = figures["lead"]
    slaves = figures["slaves"]
    waits = sum(slave["waits"] for slave in slaves)
    if waits == 0:
        return f"| {lead} | no slave locked |"
    shares = (sum(slave[name] for slave in slaves) / waits for name in ("lerp", "hit", "over_hit", "none"))
    worst = max(slave["position_error_us"]["p99"] or 0 for slave in slaves)
    spread = figures["disagreement_frames"]
    return " | ".join(
        [
            f"| {lead}",
            f"{lead * INTERVAL_MS + MARGIN_MS:.0f} ms",
            f"{(lead - 2) * INTERVAL_MS + MARGIN_MS:.0f} ms",
            *(f"{100 * share:.2f} %" for share in shares),
            f"{worst:,.0f} µs",
            f"{spread['p99'] or 0:.4f} |",
        ]
    )


def main():
    parser = argparse.ArgumentParser(description="Prints the README's table of leads, measured now.")
    parser.add_argument("--leads", type=int, nargs="+", default=[1, 2, 3])
    parser.add_argument("--slaves", type=int, default=4)
    parser.add_argument("--seconds", type=float, default=30)
    options = parser.parse_args()
    print("| lead | latency | slack | `lerp` | `hit` | `over_hit` | `none` | position error p99 | disagreement p99, frames |")
    print("|---|---|---|---|---|---|---|---|---|")
    for lead in options.leads:
        print(row(measure(lead, options.slaves, options.seconds)), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
