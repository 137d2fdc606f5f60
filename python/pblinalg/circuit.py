"""The circuit that people use: a program with the gate methods and with `run`."""

from __future__ import annotations

from .counts import Counts
from .gates import GateMethods
from .program import Program
from .running import run


class Circuit(GateMethods, Program):
    """A circuit on `num_qubits` qubits; every gate method appends a gate and returns the circuit.

    >>> bell = Circuit(2).h(0).cx(0, 1)

    The gates are kept compiled, so that running a circuit costs what the library's own driver
    costs. A circuit runs in either precision and any number of times.
    """

    __slots__ = ()

    def run(self, shots: int = 1024, **options) -> Counts:
        """`pblinalg.run` on this circuit: counts of what its measurements read."""
        return run(self, shots, **options)
