#!/usr/bin/env python3
"""Runs the decoder that was written from docs/protocol.md against the library's encoder and decoder.

check_decoder.py GENERATOR PROTOCOL_DOCUMENT [SEED [COUNT]]
"""

import collections
import json
import pathlib
import re
import subprocess
import sys

import datagram_decoder

VERDICTS = {"none", "tooShort", "checksum", "unknownKind", "badFrame"}
PARTS = {"ack", "time", "ping", "padding", "close", "fragments"}


def verdict_and_fields(data):
    try:
        return "none", datagram_decoder.decode(data)
    except datagram_decoder.Rejected as rejected:
        return str(rejected), None


def check_examples(document):
    """The examples in the document are datagrams, too."""
    examples = re.findall(r"^```hex\n(.*?)^```", document.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)
    decoded = [datagram_decoder.decode(bytes.fromhex(example)) for example in examples]
    kinds = [fields["kind"] for fields in decoded]
    assert datagram_decoder.REQUEST in kinds and datagram_decoder.DATA in kinds, kinds
    return len(decoded)


def check_generated(generator, arguments):
    verdicts, kinds, parts = (collections.Counter() for _ in range(3))
    with subprocess.Popen([generator, *arguments], stdout=subprocess.PIPE, text=True) as process:
        for line in process.stdout:
            case = json.loads(line)
            verdict, fields = verdict_and_fields(bytes.fromhex(case["bytes"]))
            if verdict != case["verdict"] or fields != case.get("fields"):
                process.kill()
                sys.exit(f"differs: {line}\ndecoded here: {verdict} {json.dumps(fields)}\n"
                         f"repeat with: {' '.join([generator, *arguments])}")
            verdicts[verdict] += 1
            if fields is not None:
                kinds[fields["kind"]] += 1
                parts.update(name for name in PARTS if fields.get(name))
    if process.returncode != 0:
        sys.exit(f"{generator} failed with {process.returncode}")
    # A comparison of nothing must not pass for agreement.
    assert set(verdicts) == VERDICTS and min(verdicts.values()) >= 10, verdicts
    assert set(kinds) == set(range(1, 7)) and min(kinds.values()) >= 10, kinds
    assert set(parts) == PARTS and min(parts.values()) >= 10, parts
    return verdicts


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__.strip())
    examples = check_examples(pathlib.Path(sys.argv[2]))
    verdicts = check_generated(sys.argv[1], sys.argv[3:])
    print(f"{examples} examples and {verdicts.total()} generated datagrams agree: {dict(verdicts)}")


if __name__ == "__main__":
    main()
