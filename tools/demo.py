#!/usr/bin/env python3
"""Runs a master and its slaves on this machine, shows how they lock, and measures it.

Usually started by script/demo, which builds the programs first. docs/demo.md tells what the figures mean and
how they are computed.
"""

import os
import sys

from kordemo.options import parse_arguments


def main() -> int:
    arguments = parse_arguments()
    # Only now, so that --help works where the library that draws the table is not installed yet.
    from kordemo.app import run

    return run(arguments)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BrokenPipeError:
        # Whoever read our output has seen enough, as `head` has. Nothing is left to be flushed at the exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(1)
