"""What has been measured, printed as it comes."""

from __future__ import annotations

import json
import sys
from dataclasses import asdict, dataclass
from pathlib import Path


@dataclass(frozen=True)
class Row:
    """One figure with what it is held against: another program measured in the same run, or a fixed limit."""

    name: str  # figure, case, and after "vs" what the reference is
    value: float
    unit: str
    reference: float  # in the same unit

    @property
    def ratio(self) -> float:
        return self.value / self.reference if self.reference else 0.0


def digits(value: float) -> str:
    """Four digits that count, without an exponent."""
    size = abs(value)
    decimals = sum(size < limit for limit in (1000, 100, 10))
    return f"{value:.{decimals}f}"


class Table:
    def __init__(self) -> None:
        self._rows: list[Row] = []

    def add(self, name: str, unit: str, value: float, reference: float) -> None:
        self._rows.append(Row(name, value, unit, reference))
        print(f"  {name}: {digits(value)} {unit} ({digits(reference)})", file=sys.stderr)

    def print(self) -> None:
        width = max((len(row.name) for row in self._rows), default=4)
        print(f"{'name':{width}} {'value':>12} {'unit':8} {'reference':>12} {'ratio':>8}")
        for row in self._rows:
            numbers = f"{digits(row.value):>12} {row.unit:8} {digits(row.reference):>12} {digits(row.ratio):>8}"
            print(f"{row.name:{width}} {numbers}")

    def write_json(self, file: Path) -> None:
        rows = [{**asdict(row), "ratio": row.ratio} for row in self._rows]
        file.write_text(json.dumps(rows, indent=2) + "\n")
