"""Density matrices: gates from both sides, and channels."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from .gates import GateMethods, apply_gate, as_qubits, conjugate
from .program import Program
from .progress import Progress, reporter
from .readout import Readout

if TYPE_CHECKING:
    from typing_extensions import Self


class _BothSides:
    """Takes the gates of m qubits and applies them to the rows and, conjugated, to the columns of
    a density matrix kept as 2m qubits: rows on qubits 0 to m-1, columns on qubits m to 2m-1."""

    __slots__ = ("_core", "_m")

    def __init__(self, core: Any) -> None:
        self._core = core
        self._m = core.nqubits // 2

    def __getattr__(self, name: str):
        def apply(*arguments) -> None:
            gates = _core.GateSequence(self._m)
            getattr(gates, name)(*arguments)
            self.doubled(gates).apply(self._core)

        return apply

    def doubled(self, gates: _core.GateSequence) -> _core.GateSequence:
        m = self._m
        result = _core.GateSequence(2 * m)
        for i in range(len(gates)):
            gate = gates.gate(i)
            for shift, (name, qubits, controls, value) in ((0, gate), (m, conjugate(*gate))):
                if name == "phase_oracle":
                    # Numbers of an oracle count from the last qubit down.
                    qubits = [q + m - shift for q in qubits]
                else:
                    qubits = [q + shift for q in qubits]
                apply_gate(result, name, qubits, [c + shift for c in controls], value)
        return result


class DensityMatrix(Readout, GateMethods):
    """The mixed state of `num_qubits` qubits, in |0...0><0...0| at first; arguments and order of
    qubits as in `StateVector`. It takes the memory of a state vector of twice the qubits."""

    __slots__ = ("_gates", "__weakref__")

    def __init__(
        self,
        num_qubits: int,
        precision: str = "double",
        threads: int | None = None,
        seed: int | None = None,
    ) -> None:
        if isinstance(num_qubits, bool) or not hasattr(num_qubits, "__index__"):
            raise TypeError(f"num_qubits must be an integer, got {num_qubits!r}")
        self._allocate(2 * num_qubits, precision, threads, seed)
        self._core.density_matrix = True
        self._gates = _BothSides(self._core)

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return self._core.nqubits // 2

    def reset(self) -> Self:
        """Returns to |0...0><0...0|."""
        self._core.reset()
        return self

    def set_matrix(self, matrix: ArrayLike) -> Self:
        """Loads a 2^n x 2^n matrix, qubit 0 being the most significant bit of its indices."""
        size = 1 << self.num_qubits
        array = np.asarray(matrix, dtype=complex)
        if array.shape != (size, size):
            raise ValueError(f"matrix has shape {array.shape}; expected ({size}, {size})")
        if not np.allclose(array, array.conj().T, atol=1e-6) or abs(array.trace() - 1) > 1e-5:
            raise ValueError("matrix must be Hermitian with trace 1")
        self._core.reset(array)
        return self

    def to_array(self) -> NDArray:
        """A copy of the matrix with qubit 0 the most significant bit of its indices."""
        size = 1 << self.num_qubits
        return self._core.get_permuted_density_matrix().reshape(size, size)

    def run(self, circuit: Program, progress: Progress = None) -> Self:
        """Applies the gates of a circuit without measurements, resets and conditions."""
        if not isinstance(circuit, Program) or not circuit.is_unitary:
            raise ValueError("a density matrix runs circuits that hold gates only")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        with reporter(progress, 2 * len(circuit), "gate") as report:
            for step in circuit.steps:
                self._gates.doubled(step).apply(self._core, report)
        return self

    def channel(
        self, operators: Iterable[ArrayLike], qubits: int | Sequence[int], check: bool = True
    ):
        """Applies a channel given by its Kraus operators, each a 2^k x 2^k matrix whose indices
        have the first listed qubit as their most significant bit. ValueError when the operators do
        not add up to a channel, unless `check` is False."""
        listed = as_qubits(qubits)
        size = 1 << len(listed)
        kraus = [np.asarray(operator, dtype=complex) for operator in operators]
        if not kraus or any(operator.shape != (size, size) for operator in kraus):
            raise ValueError(f"operators must be matrices of shape ({size}, {size})")
        total = sum(operator.conj().T @ operator for operator in kraus)
        if check and not np.abs(total - np.eye(size)).max() <= 1e-6:
            raise ValueError("the sum of K^dagger K over the operators must be the identity")
        # Checks the numbers: the register has twice the qubits that may be named.
        _core.GateSequence(self.num_qubits).apply_nqbit_gate(listed, np.eye(size))
        both = sum(np.kron(operator, operator.conj()) for operator in kraus)
        columns = [qubit + self.num_qubits for qubit in listed]
        self._core.apply_nqbit_ctrl_gate([], listed + columns, both)
        return self

    def depolarize(self, probability: float, qubit: int) -> Self:
        """With the given probability replaces a qubit by the fully mixed state."""
        p = _probability(probability)
        paulis = [np.eye(2), [[0, 1], [1, 0]], [[0, -1j], [1j, 0]], [[1, 0], [0, -1]]]
        weights = [1 - 0.75 * p, p / 4, p / 4, p / 4]
        return self.channel([np.sqrt(w) * np.asarray(m) for w, m in zip(weights, paulis)], qubit)

    def bit_flip(self, probability: float, qubit: int) -> Self:
        """Applies X with the given probability."""
        p = _probability(probability)
        return self.channel([np.sqrt(1 - p) * np.eye(2), np.sqrt(p) * np.eye(2)[::-1]], qubit)

    def phase_flip(self, probability: float, qubit: int) -> Self:
        """Applies Z with the given probability."""
        p = _probability(probability)
        return self.channel([np.sqrt(1 - p) * np.eye(2), np.sqrt(p) * np.diag([1, -1])], qubit)

    def amplitude_damping(self, probability: float, qubit: int) -> Self:
        """Lets |1> decay to |0> with the given probability."""
        p = _probability(probability)
        return self.channel([np.diag([1, np.sqrt(1 - p)]), [[0, np.sqrt(p)], [0, 0]]], qubit)

    def purity(self) -> float:
        """The trace of the squared matrix: 1 for a pure state, 2^-n for the fully mixed one."""
        state = self._core.state
        return float(np.vdot(state, state).real)

    def __repr__(self) -> str:
        return f"DensityMatrix(num_qubits={self.num_qubits}, precision={self.precision!r})"


def _probability(value: float) -> float:
    if not 0 <= value <= 1:
        raise ValueError(f"probability = {value!r}: expected a value between 0 and 1")
    return float(value)
