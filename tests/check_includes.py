"""Checks that the parts of the tree depend on each other one way only: python3 check_includes.py ROOT

Reads the #include lines and nothing else, so a file may use what another one includes for it.
"""

import re
import sys
from pathlib import Path

PUBLIC = ["include/kor", "include/kit", "include/support"]
SERVICES = ["include/kit", "include/support", "support"]
MIDDLE = ["support/net/handshake", "support/net/clock", "support/net/delivery"]
CORE = ["support/net/wire", *MIDDLE, "support/net/connection"]
LIBRARY = [*PUBLIC, "support", "support/platform", *CORE, "support/net/driver", "src"]

# Each room, and the other rooms that it may use. A room goes without its subfolders when these are rooms.
ROOMS = {
    "include/support": ["include/kit"],
    "include/kit": ["include/support"],
    "include/kor": ["include/kit", "include/support"],
    "support": [*SERVICES, "support/platform"],
    "support/platform": SERVICES,
    "support/net/wire": [*SERVICES, "support/platform"],
    **{room: [*SERVICES, "support/net/wire"] for room in MIDDLE},
    "support/net/connection": [*SERVICES, *CORE],
    "support/net/driver": [*SERVICES, *CORE, "support/platform"],
    "src": [*PUBLIC, "support"],
    "trace": PUBLIC,
    "present": [*PUBLIC, "trace"],
    "monitor": [*PUBLIC, "trace"],
    "simulator": [*SERVICES, *CORE],
    "tools": [*PUBLIC, "trace", "present", "monitor", "simulator"],
    "examples": [*PUBLIC, "present", "tools"],
    "bench": [*LIBRARY, "trace", "simulator"],
}
WITH_SYSTEM_HEADERS = {"support/platform", "tools", "examples", "bench"}

# Within the library: files whose name begins like the first never come to one like the second, through others either.
MASTERS = "Client|KorServer|KorLogicServer"
SLAVES = "KorClient|KorLogicClient"
APART = [
    (MASTERS, SLAVES),
    (SLAVES, MASTERS),
    ("Client|KorServer|KorClient", "KorLogic"),
    ("KorCoders|Record", f"{MASTERS}|{SLAVES}"),
]


def room_of(path):
    names = [room for room in ROOMS if path.is_relative_to(room)]
    return max(names, key=len, default=path.parts[0])


class Tree:
    def __init__(self, root):
        self.root = root
        self.includes = {}
        for folder in sorted({room.split("/")[0] for room in ROOMS}):
            for file in sorted((root / folder).rglob("*")):
                if file.suffix in (".h", ".cpp"):
                    lines = re.findall(r'^\s*#\s*include\s+[<"]([^>"]+)[>"]', file.read_text(), re.MULTILINE)
                    self.includes[file.relative_to(root)] = lines

    def find(self, file, name):
        """The file of the tree that is meant; None for one from elsewhere."""
        for folder in (self.root / file.parent, self.root, self.root / "include"):
            if (folder / name).is_file():
                return (folder / name).resolve().relative_to(self.root)
        return None

    def reach(self, file):
        """All that the file includes itself or through others."""
        found = {file}
        waiting = [file]
        while waiting:
            current = waiting.pop()
            for name in self.includes.get(current, []):
                target = self.find(current, name)
                if target is not None and target not in found:
                    found.add(target)
                    waiting.append(target)
        return found - {file}

    def faults(self):
        for file, names in self.includes.items():
            room = room_of(file)
            for name in names:
                target = self.find(file, name)
                if target is None:
                    if ("/" in name or name.endswith(".h")) and room not in WITH_SYSTEM_HEADERS:
                        yield f"{file} includes <{name}>, which is neither ours nor the language's"
                elif room_of(target) not in [room, *ROOMS.get(room, [])]:
                    yield f"{file} includes {target}"
        for file in self.includes:
            if room_of(file) not in ("src", "include/kor"):
                continue
            for names, others in APART:
                if re.match(names, file.stem):
                    for target in sorted(self.reach(file)):
                        if room_of(target) in ("src", "include/kor") and re.match(others, target.stem):
                            yield f"{file} depends on {target}"


def main():
    tree = Tree(Path(sys.argv[1]).resolve())
    faults = list(tree.faults())
    print("\n".join(faults) or f"{len(tree.includes)} files depend on each other one way only")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
