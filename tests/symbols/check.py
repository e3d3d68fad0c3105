"""Compares the binary interface of a shared library with the list that is kept of it.

A program that was linked with the library breaks when a line of the list vanishes; a new line is something to
keep from now on. Exit status: 0 equal, 1 different, 2 bad arguments, 77 this machine has another one.
"""

import argparse
import struct
import sys
from pathlib import Path

from interface import interface

HEAD = """\
# The binary interface of {name}: what programs that were compiled earlier rely on.
# Made by `script/symbols --update` and compared in the tests; not to be edited.
"""


def read_list(path):
    if not path.is_file():
        return []
    return [line for line in path.read_text().splitlines() if line and not line.startswith("#")]


def report(kept, found):
    """Prints what has changed; true when something has."""
    gone = sorted(set(kept) - set(found))
    new = sorted(set(found) - set(kept))
    for title, lines in (("Gone", gone), ("New", new)):
        if lines:
            print(f"{title}:", *lines, sep="\n  ")
    if gone:
        print(
            "\nPrograms linked with the library of the list may fail with this one. Bring the interface back; or, if\n"
            "it must change, raise the major version (unless the version of the list was never released)."
        )
    return bool(gone or new)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--library", dest="binary", metavar="FILE", type=Path, required=True, help="the shared library")
    parser.add_argument("--list", type=Path, required=True, help="the list that is kept")
    parser.add_argument("--include", type=Path, required=True, help="folder of the public headers")
    parser.add_argument("--header", required=True, help="header that includes the public ones")
    parser.add_argument("--without", type=Path, help="a list whose lines belong to another library")
    parser.add_argument("--compiler", default="c++")
    parser.add_argument("--update", action="store_true", help="write the list anew")
    arguments = parser.parse_args()
    if struct.calcsize("P") != 8 or not sys.platform.startswith("linux"):
        print("the list holds for 64-bit Linux, which this machine is not: nothing compared")
        return 77
    if not arguments.binary.is_file():
        parser.error(f"{arguments.binary} is not there; build it first")
    found = interface(arguments.binary, arguments.compiler, arguments.include, arguments.header)
    if arguments.without:
        others = set(read_list(arguments.without))
        found = [line for line in found if line not in others]
    kept = read_list(arguments.list)
    if arguments.update:
        report(kept, found)
        arguments.list.parent.mkdir(parents=True, exist_ok=True)
        arguments.list.write_text(HEAD.format(name=arguments.list.stem) + "\n".join(found) + "\n")
        return 0
    if report(kept, found):
        print(f"\nTo accept the change: script/symbols --update, and commit cmake/symbols/{arguments.list.name}")
        return 1
    print(f"{len(found)} lines of the interface are as they were")
    return 0


if __name__ == "__main__":
    sys.exit(main())
