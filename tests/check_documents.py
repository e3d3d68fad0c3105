"""Checks that the documents tell the truth about the tree: python3 check_documents.py ROOT

- a code block that follows a line `<!-- FILE -->` is that file, word for word;
- a link that is not to the web leads to a file;
- a command `script/NAME` or `./script/NAME` that is mentioned exists.
"""

import re
import sys
from pathlib import Path


def quoted_files(text):
    """Pairs of file name and quoted content."""
    return re.findall(r"<!-- (\S+\.\w+) -->\n```\w*\n(.*?)```\n", text, re.DOTALL)


def local_links(text):
    without_code = re.sub(r"```.*?```", "", text, flags=re.DOTALL)
    targets = re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", without_code)
    targets += re.findall(r'<img src="([^"]+)"', without_code)
    return [target for target in targets if not re.match(r"[a-z]+:", target)]


def scripts(text):
    return set(re.findall(r"(?<![\w/.])(?:\./)?(script/[a-z]+)", text))


def faults(root, document):
    text = document.read_text()
    for name, content in quoted_files(text):
        file = root / name
        if not file.is_file():
            yield f"quotes {name}, which is not there"
        elif file.read_text() != content:
            yield f"quotes {name} otherwise than it is"
    for target in local_links(text):
        if not (document.parent / target).exists():
            yield f"links to {target}, which is not there"
    for script in scripts(text):
        if not (root / script).is_file():
            yield f"mentions {script}, which is not there"


def main():
    root = Path(sys.argv[1])
    documents = sorted([*root.glob("*.md"), *root.glob("docs/**/*.md")])
    readme = (root / "README.md").read_text()
    found = [f"{d.relative_to(root)}: {fault}" for d in documents for fault in faults(root, d)]
    for program in ("examples/minimal/master.cpp", "examples/minimal/slave.cpp"):
        if program not in dict(quoted_files(readme)):
            found.append(f"README.md: does not quote {program}")
    print("\n".join(found) or f"{len(documents)} documents agree with the tree")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
