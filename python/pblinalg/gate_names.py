"""Recorded gates under the names that people use, for pictures, counts and text formats."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any, NamedTuple

import numpy as np

from . import gates
from ._core import GateSequence

#: Name and number of controls by the library's name.
_NAMES = {
    "H": ("h", 0), "X": ("x", 0), "Y": ("y", 0), "Z": ("z", 0), "S": ("s", 0), "T": ("t", 0),
    "PH": ("p", 0), "RX": ("rx", 0), "RY": ("ry", 0), "RZ": ("rz", 0), "CNOT": ("x", 1),
    "CCNOT": ("x", 2), "CSIGN": ("z", 1), "SWAP": ("swap", 0), "ISWAP": ("iswap", 0),
    "SQRTSWAP": ("sqrt_swap", 0), "YtoZ": ("y_to_z", 0), "ZtoY": ("z_to_y", 0),
}  # fmt: skip
_MATRICES = {
    "sdg": gates.SDG, "tdg": gates.TDG, "sx": gates.SX, "sxdg": gates.SX.conj(),
    "swap": gates.SWAP, "sqrt_swap": gates.SQRTSWAP,
    "y_to_z": gates.Y_TO_Z, "z_to_y": gates.Y_TO_Z.conj().T,
}  # fmt: skip


class NamedGate(NamedTuple):
    """A gate by name: `angle` where there is one, `value` the matrix of "u" and "unitary" and the
    marked values of "phase_oracle"."""

    name: str
    angle: float | None
    controls: list[int]
    targets: list[int]
    value: Any = None

    @property
    def full_name(self) -> str:
        """The name with its controls: "cx", "ccz", "c3h"."""
        count = len(self.controls)
        return ("c" * count if count < 3 else f"c{count}") + self.name

    def matrix(self) -> np.ndarray:
        """The matrix of a gate without angle, the first target most significant."""
        return np.asarray(_MATRICES[self.name] if self.value is None else self.value, dtype=complex)


def named_gates(sequence: GateSequence) -> Iterator[NamedGate]:
    """The gates of a recorded sequence in order."""
    for i in range(len(sequence)):
        name, qubits, controls, value = sequence.gate(i)
        if name in _NAMES:
            simple, count = _NAMES[name]
            targets = list(qubits[count:])
            yield NamedGate(simple, value, [*controls, *qubits[:count]], targets)  # type: ignore[arg-type]
        elif name == "phase_oracle":
            # The recorded oracle counts qubits from the other end.
            places = [sequence.nqubits - 1 - qubit for qubit in qubits]
            yield NamedGate(name, None, list(controls), places, value)
        else:
            yield _named_matrix(list(qubits), list(controls), np.asarray(value))


def _named_matrix(qubits: list[int], controls: list[int], matrix: np.ndarray) -> NamedGate:
    for name, known in _MATRICES.items():
        if matrix.shape == known.shape and np.abs(matrix - known).max() < 1e-15:
            return NamedGate(name, None, controls, qubits)
    return NamedGate("u" if len(qubits) == 1 else "unitary", None, controls, qubits, matrix)
