"""Runs programs for another one: the demo, the tests, the benchmarks.

Everything belongs to one thread: what a process says is taken in while this program waits for something. So nothing
is locked, and a condition sees one state. Every process ends with the `Processes` that started it, and with this
program, however that ends.
"""

from .hosts import Hosts, NotPermitted
from .lines import Answers, Lines, Reports
from .process import ENDING_SIGNALS, PATIENCE, Process, ProcessError
from .processes import Processes

__all__ = [
    *("Answers", "Lines", "Reports"),
    *("ENDING_SIGNALS", "PATIENCE", "Process", "ProcessError", "Processes"),
    *("Hosts", "NotPermitted"),
]
