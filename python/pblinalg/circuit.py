"""The circuit that people use: a program with the gate methods and with `run`."""

from __future__ import annotations

from typing import SupportsIndex

from .arguments import Precision
from .counts import Counts
from .gates import GateMethods
from .program import Program
from .progress import Progress
from .running import run


class Circuit(GateMethods, Program):
    """A circuit on `num_qubits` qubits; every gate method appends a gate and returns the circuit.

    >>> bell = Circuit(2).h(0).cx(0, 1)

    The gates are kept compiled, so that running a circuit costs what the library's own driver
    costs. A circuit runs in either precision and any number of times, in several threads at once,
    too; it can be copied and pickled. `len` and iteration are about its gates alone, those of
    conditions included; a circuit is true when it has any step.
    """

    __slots__ = ()

    def run(
        self,
        shots: SupportsIndex = 1024,
        precision: Precision = "double",
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
        progress: Progress = None,
    ) -> Counts:
        """`pblinalg.run` on this circuit: counts of what its measurements read."""
        return run(self, shots, precision, threads, seed, progress)
