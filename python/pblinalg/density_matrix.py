"""Density matrices: gates from both sides, and channels."""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from .arguments import (
    MAX_COUNT,
    Accuracy,
    Precision,
    Qubits,
    accuracy_name,
    complex_array,
    count,
    distinct_qubits,
    outcome_number,
)
from .channels import Channel, kraus_operators
from .execution import shifted
from .gates import as_qubits
from .html_tables import state_table
from .noise import NoiseModel, Site, channel_sites, check_noise
from .parameters import Values, values_in_order
from .program import Program
from .progress import Progress, reporter
from .readout import Readout, register_bytes
from .state_files import FilePath, read_state
from .state_vector import StateVector

if TYPE_CHECKING:
    from typing_extensions import Self


class DensityMatrix(Readout):
    """The mixed state of `num_qubits` qubits, in |0...0><0...0| at first; arguments and order of
    qubits as in `StateVector`. It takes the memory of a state vector of twice the qubits.

    `np.asarray` of it is `to_array()`. It can be copied and pickled, its generator included.
    """

    __slots__ = ("__weakref__",)
    _both_sides = True

    def __init__(
        self,
        num_qubits: SupportsIndex,
        precision: Precision = "double",
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
    ) -> None:
        number = count(num_qubits, "num_qubits", 0, MAX_COUNT)
        _core.require_memory(
            register_bytes(2 * number, precision), f"a density matrix of {number} qubits"
        )
        self._allocate(2 * number, precision, threads, seed)
        self._adopt()

    def __setstate__(self, state: dict[str, Any]) -> None:
        super().__setstate__(state)
        self._adopt()

    def _adopt(self) -> None:
        self._core.density_matrix = True

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return int(self._core.nqubits) // 2

    def reset(self) -> Self:
        """Returns to |0...0><0...0|."""
        self._core.reset()
        return self

    def set_matrix(self, matrix: ArrayLike, check: bool = True) -> Self:
        """Loads a 2^n x 2^n matrix, qubit 0 being the most significant bit of its indices.
        ValueError when it is not Hermitian, not of trace 1 or has a negative eigenvalue, unless
        `check` is False. (The last takes about 4^n 2^n multiplications.)"""
        size = 1 << self.num_qubits
        array = complex_array(matrix, "matrix")
        if array.shape != (size, size):
            raise ValueError(f"matrix has shape {array.shape}; expected ({size}, {size})")
        if check:
            _check_density(array)
        self._core.reset(array)
        return self

    def set_state(self, state: StateVector) -> Self:
        """Becomes the pure state |psi><psi| of a state vector of as many qubits."""
        if not isinstance(state, StateVector):
            raise TypeError(f"state must be a StateVector, got {state!r}")
        if state.num_qubits != self.num_qubits:
            raise ValueError(f"state has {state.num_qubits} qubits; expected {self.num_qubits}")
        amplitudes = state.to_array()
        self._core.reset(np.outer(amplitudes, amplitudes.conj()))
        return self

    def to_array(self) -> NDArray[np.complexfloating[Any, Any]]:
        """A copy of the matrix with qubit 0 the most significant bit of its indices."""
        size = 1 << self.num_qubits
        result: NDArray[Any] = self._core.get_permuted_density_matrix().reshape(size, size)
        return result

    @classmethod
    def load(
        cls,
        path: FilePath,
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
        check: bool = True,
    ) -> Self:
        """The state in a .npy file: a 2^n x 2^n array of complex64 or complex128, checked as in
        `set_matrix`. ValueError names a file that holds something else or was cut."""
        array = read_state(path, 2)
        precision: Precision = "float" if array.dtype == np.complex64 else "double"
        result = cls(len(array).bit_length() - 1, precision, threads, seed)
        try:
            return result.set_matrix(array, check)
        except ValueError as error:
            raise ValueError(f"{path}: {error}") from None

    def _export(self, out: NDArray[Any]) -> None:
        self._core.get_permuted_density_matrix(out)

    def _in_memory(self) -> NDArray[Any]:
        size = 1 << self.num_qubits
        matrix: NDArray[Any] = self._core.state.reshape(size, size).T
        return matrix

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> NDArray[Any]:
        if copy is False:
            raise ValueError("the matrix as an array is always a copy")
        array = self.to_array()
        return array.astype(dtype or array.dtype, copy=False)

    def __len__(self) -> int:
        """The number of rows, 2^n."""
        return 1 << self.num_qubits

    def run(
        self,
        circuit: Program,
        progress: Progress = None,
        values: Values | None = None,
        accuracy: Accuracy = "exact",
        noise: NoiseModel | None = None,
    ) -> Self:
        """Applies the gates of a circuit without measurements, resets and conditions; each counts
        twice for `progress`, since it acts on rows and columns. `values` are those of its
        parameters, in order or by parameter or name; `accuracy` is that of `pblinalg.run`. With
        `noise` its channels follow the gates: the exact state that trajectories approach."""
        if not isinstance(circuit, Program):
            raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
        if not circuit.is_unitary:
            raise ValueError("circuit: a density matrix runs circuits that hold gates only")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        numbers = values_in_order(circuit, values)
        accuracy_name(accuracy)
        check_noise(noise, self.num_qubits)
        parts: list[tuple[_core.GateList, Site | None]] = []
        for step in circuit.steps:
            assert isinstance(step, _core.GateList)
            begin = 0
            for site in channel_sites(noise, step):
                parts.append((step.part(begin, site.gates_before), site))
                begin = site.gates_before
            parts.append((step.part(begin, len(step)) if begin else step, None))
        done = 0
        with reporter(progress, 2 * len(circuit), "gate") as report:
            for gates, follows in parts:
                if len(gates):
                    gates.run(self._core, numbers, shifted(report, done), True, accuracy)
                    done += 2 * len(gates)
                if follows:
                    self.channel(follows.channel, follows.qubits)
        return self

    def measure(self, qubits: Qubits | None = None) -> str:
        """Measures qubits (all of them by default), collapses the state and returns what was read,
        the first listed qubit leftmost."""
        listed = self._listed(qubits)
        self._require_norm()
        if not listed:
            return ""
        outcome = format(self._core.measure(listed), f"0{len(listed)}b")
        self.project(outcome, listed)
        return outcome

    def project(self, outcome: str | SupportsIndex, qubits: Qubits | None = None) -> Self:
        """Collapses qubits onto a chosen outcome. ValueError when its probability is 0."""
        listed = self._listed(qubits)
        number = outcome_number(outcome, len(listed))
        weight = self.probability(number, listed)
        if not weight > 0:
            raise ValueError(f"outcome = {outcome!r}: it has probability {weight:g}")
        for place, qubit in enumerate(reversed(listed)):
            kept = np.diag([1 - (number >> place & 1), number >> place & 1])
            self.channel([kept], qubit, check=False)
        state = self._core.state
        state /= weight
        return self

    def channel(
        self, operators: Channel | Iterable[ArrayLike], qubits: Qubits, check: bool = True
    ) -> Self:
        """Applies a channel: a `Channel`, or its Kraus operators, each a 2^k x 2^k matrix whose
        indices have the first listed qubit as their most significant bit. ValueError when the
        operators do not add up to a channel, unless `check` is False."""
        listed = as_qubits(qubits)
        size = 1 << len(listed)
        if isinstance(operators, Channel):
            kraus = operators.operators
            if len(kraus[0]) != size:
                raise ValueError(
                    f"{operators!r} acts on {operators.num_qubits} qubits; {len(listed)} are listed"
                )
        else:
            kraus = kraus_operators(operators, size, check)
        # The register has twice the qubits that may be named.
        listed = distinct_qubits(listed, self.num_qubits)
        both = sum(np.kron(operator, operator.conj()) for operator in kraus)
        columns = [qubit + self.num_qubits for qubit in listed]
        self._core.apply_nqbit_ctrl_gate([], listed + columns, both)
        return self

    def depolarize(self, probability: float, qubits: Qubits) -> Self:
        """`Channel.depolarizing`: with the given probability replaces a qubit, or several together,
        by the fully mixed state."""
        # Checked before 4^k matrices are made for them.
        listed = distinct_qubits(as_qubits(qubits), self.num_qubits)
        return self.channel(Channel.depolarizing(probability, len(listed)), listed)

    def bit_flip(self, probability: float, qubit: SupportsIndex) -> Self:
        """`Channel.bit_flip`: applies X with the given probability."""
        return self.channel(Channel.bit_flip(probability), qubit)

    def phase_flip(self, probability: float, qubit: SupportsIndex) -> Self:
        """`Channel.phase_flip`: applies Z with the given probability."""
        return self.channel(Channel.phase_flip(probability), qubit)

    def amplitude_damping(self, probability: float, qubit: SupportsIndex) -> Self:
        """`Channel.amplitude_damping`: lets |1> decay to |0> with the given probability."""
        return self.channel(Channel.amplitude_damping(probability), qubit)

    def phase_damping(self, probability: float, qubit: SupportsIndex) -> Self:
        """`Channel.phase_damping`: shrinks what is off the diagonal by the root of
        1 - probability."""
        return self.channel(Channel.phase_damping(probability), qubit)

    def purity(self) -> float:
        """The trace of the squared matrix: 1 for a pure state, 2^-n for the fully mixed one."""
        state = self._core.state
        return float(np.vdot(state, state).real)

    def entropy(self, qubits: Qubits | None = None) -> float:
        """The von Neumann entropy, to base 2, of the listed qubits, all of them by default: 0 for a
        pure state, k for k fully mixed qubits. ValueError when the trace is not 1."""
        return self._entropy(self._listed(qubits))

    def __repr__(self) -> str:
        return f"DensityMatrix(num_qubits={self.num_qubits}, precision={self.precision!r})"

    def _repr_html_(self) -> str:
        return state_table(repr(self), self.probabilities())


def _check_density(matrix: NDArray[np.complex128]) -> None:
    if not np.allclose(matrix, matrix.conj().T, atol=1e-6) or not abs(matrix.trace() - 1) <= 1e-5:
        raise ValueError("matrix must be Hermitian with trace 1")
    try:
        # Succeeds for the positive ones, at a fraction of the cost of the eigenvalues.
        np.linalg.cholesky(matrix + 1e-6 * np.eye(len(matrix)))
    except np.linalg.LinAlgError:
        raise ValueError(
            "matrix has a negative eigenvalue; expected none (pass check=False to load it anyway)"
        ) from None
