"""Measurements of PennyLane on a state: exact where the tape has no shots, from outcomes that the
library draws where it has. Which wire is which qubit is the caller's business."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import pennylane as qml
from numpy.typing import NDArray
from pennylane.measurements import (
    ClassicalShadowMP,
    ExpectationMP,
    MeasurementProcess,
    ProbabilityMP,
    SampleMeasurement,
    ShadowExpvalMP,
    StateMeasurement,
    StateMP,
    VarianceMP,
)
from pennylane.operation import Operator
from pennylane.ops import CompositeOp, Prod, SProd, Sum, SymbolicOp
from pennylane.ops.qubit import BasisStateProjector

from .circuit import Circuit
from .observable import Observable
from .pennylane_circuits import Translation
from .state_vector import StateVector

#: Hermitian matrices on at most so many wires are written as Pauli strings for a derivative.
PAULI_WIRES = 8
#: The square of a Pauli sum of at most so many terms is a Pauli sum, too; beyond, the sum is applied.
_SQUARED_TERMS = 64

Qubits = Mapping[Any, int]


def pauli_sum(sentence: Any, qubits: Qubits) -> Observable:
    """A `PauliSentence` on a register; the parts of coefficients that are not real are left out, as
    expectation values leave them out."""
    terms = []
    for word, coefficient in sentence.items():
        letters = ["I"] * len(qubits)
        for wire, letter in word.items():
            letters[qubits[wire]] = letter
        terms.append(("".join(letters), float(qml.math.real(coefficient))))
    return Observable(terms, len(qubits))


def differentiable(obs: Operator) -> bool:
    """Whether `as_pauli_sum` takes an observable."""
    return obs.pauli_rep is not None or (obs.has_matrix and len(obs.wires) <= PAULI_WIRES)


def as_pauli_sum(obs: Operator, qubits: Qubits) -> Observable:
    """Any observable that has a Pauli form, or a matrix on few wires."""
    sentence = obs.pauli_rep
    if sentence is None:
        sentence = qml.pauli_decompose(
            obs.matrix(), wire_order=obs.wires, pauli=True, check_hermitian=False
        )
    return pauli_sum(sentence, qubits)


def measure_exactly(measurement: MeasurementProcess, state: StateVector, qubits: Qubits) -> Any:
    """The value that PennyLane expects of a measurement without shots."""
    obs = measurement.obs
    if measurement.mv is None:
        if obs is not None and isinstance(measurement, ExpectationMP):
            return np.float64(_expectation(obs, state, qubits))
        if obs is not None and isinstance(measurement, VarianceMP):
            return np.float64(_variance(obs, state, qubits))
        if type(measurement) is StateMP and list(measurement.wires or qubits) == list(qubits):
            return state.to_array()
    rotated = _rotated(state, _rotation(measurement.diagonalizing_gates(), qubits))
    if isinstance(measurement, ProbabilityMP) and measurement.mv is None:
        return rotated.probabilities([qubits[wire] for wire in measurement.wires or qubits])
    # Some measurements sort their wires, which labels of all kinds do not let them.
    numbered = measurement.map_wires(qubits)
    return numbered.process_state(rotated.to_array(), qml.wires.Wires(range(len(qubits))))


def _expectation(obs: Operator, state: StateVector, qubits: Qubits) -> float:
    sentence = obs.pauli_rep
    if sentence is not None:
        return state.expectation(pauli_sum(sentence, qubits))
    if isinstance(obs, SProd):
        return float(np.real(obs.scalar)) * _expectation(obs.base, state, qubits)
    if isinstance(obs, Sum):
        return sum(_expectation(operand, state, qubits) for operand in obs.operands)
    if isinstance(obs, BasisStateProjector):
        outcome = "".join(str(int(bit)) for bit in np.ravel(obs.data[0]))
        return state.probability(outcome, [qubits[wire] for wire in obs.wires])
    amplitudes, image = _amplitudes_and_image(obs, state, qubits)
    return float(np.vdot(amplitudes, image).real)


def _variance(obs: Operator, state: StateVector, qubits: Qubits) -> float:
    mean = _expectation(obs, state, qubits)
    if obs.pauli_rep is not None:
        paulis = pauli_sum(obs.pauli_rep, qubits)
        if len(paulis) <= _SQUARED_TERMS:
            # Products leave rounding in imaginary parts.
            return state.expectation_complex(paulis @ paulis).real - mean**2
        image = paulis.apply(state)
    else:
        _, image = _amplitudes_and_image(obs, state, qubits)
    return float(np.vdot(image, image).real) - mean**2


def _amplitudes_and_image(
    obs: Operator, state: StateVector, qubits: Qubits
) -> tuple[NDArray[Any], NDArray[Any]]:
    """The amplitudes of a state and of the observable times it, in the same order."""
    if isinstance(obs, qml.SparseHamiltonian):
        amplitudes = state.to_array()
        return amplitudes, obs.sparse_matrix(wire_order=list(qubits)) @ amplitudes
    image = state.copy()
    _apply(obs, image, qubits)
    return state.amplitudes, image.amplitudes


def _apply(obs: Operator, state: StateVector, qubits: Qubits) -> None:
    """Multiplies a state with an observable, which need not be unitary."""
    if isinstance(obs, Prod):
        for operand in reversed(obs.operands):
            _apply(operand, state, qubits)
    else:
        state.unitary(obs.matrix(), [qubits[wire] for wire in obs.wires], check=False)


def _rotation(gates: Sequence[Operator], qubits: Qubits) -> Circuit | None:
    return Translation(gates, qubits).circuit if gates else None


def _rotated(state: StateVector, rotation: Circuit | None) -> StateVector:
    """The state after a circuit, as a copy where there is one."""
    return state if rotation is None else state.copy().run(rotation)


class Sampling:
    """The measurements of a tape with shots, in groups that are read from the same outcomes."""

    def __init__(
        self, measurements: Sequence[MeasurementProcess], shots: Any, qubits: Qubits
    ) -> None:
        self._qubits = qubits
        self._wires = qml.wires.Wires(list(qubits))
        self._shots = shots
        self._shadows = any(_is_shadow(measurement) for measurement in measurements)
        if self._shadows:
            # These draw their own bases, so that nothing can be shared.
            self._groups = [[measurement] for measurement in measurements]
        else:
            script = qml.tape.QuantumScript([], measurements, shots=shots)
            scripts, self._combine = qml.transforms.split_non_commuting(script)
            self._groups = [script.measurements for script in scripts]
        self._rotations = [_rotation(_diagonalizing(group), qubits) for group in self._groups]

    def draw(self, state: StateVector, rng: np.random.Generator) -> Any:
        """The results in the form that PennyLane expects; the state stays as it is."""
        if not self._shadows:
            results = [
                self._group(group, _rotated(state, rotation), rng)
                for group, rotation in zip(self._groups, self._rotations)
            ]
            return self._combine(tuple(results))
        columns = []
        for (measurement,) in self._groups:
            if _is_shadow(measurement):
                tensor = state.to_array().reshape((2,) * len(self._qubits))
                bins = [
                    measurement.process_state_with_shots(tensor, self._wires, count, rng=rng)
                    for count in self._shots
                ]
                columns.append(tuple(bins) if self._shots.has_partitioned_shots else bins[0])
            else:
                columns.append(Sampling([measurement], self._shots, self._qubits).draw(state, rng))
        if len(columns) == 1:
            return columns[0]
        return tuple(zip(*columns) if self._shots.has_partitioned_shots else columns)

    def _group(
        self, group: Sequence[SampleMeasurement], state: StateVector, rng: np.random.Generator
    ) -> Any:
        """Results of measurements that a state, rotated for them, gives from the same outcomes."""
        state.seed = int(rng.integers(1 << 63))
        wires = self._wires
        if all(measurement.wires for measurement in group):
            used = set().union(*(measurement.wires for measurement in group))
            wires = qml.wires.Wires([wire for wire in wires if wire in used])
        outcomes = state.sample_outcomes(
            self._shots.total_shots, [self._qubits[wire] for wire in wires]
        )
        places = np.arange(len(wires) - 1, -1, -1, dtype=np.uint64)
        samples = (outcomes[:, None] >> places & np.uint64(1)).astype(np.int64)
        results = []
        for begin, end in self._shots.bins():
            values = tuple(each.process_samples(samples[begin:end], wires) for each in group)
            results.append(values if len(values) > 1 else values[0])
        return tuple(results) if self._shots.has_partitioned_shots else results[0]


def _diagonalizing(group: Sequence[SampleMeasurement]) -> Sequence[Operator]:
    """Gates after which all measurements of a group read qubits."""
    words = [measurement.obs for measurement in group if measurement.obs is not None]
    if len(words) > 1 and all(qml.pauli.is_pauli_word(word) for word in words):
        with qml.QueuingManager.stop_recording():
            return qml.pauli.diagonalize_qwc_pauli_words(words)[0]
    return [
        gate for each in group if not _is_shadow(each) for gate in each.diagonalizing_gates()
    ]


def _is_shadow(measurement: MeasurementProcess) -> bool:
    return isinstance(measurement, (ClassicalShadowMP, ShadowExpvalMP))


def accepts_exact(measurement: MeasurementProcess) -> bool:
    """Whether a measurement can be made without shots."""
    return isinstance(measurement, StateMeasurement) and _is_read(
        measurement.obs, isinstance(measurement, (ExpectationMP, VarianceMP))
    )


def accepts_shots(measurement: MeasurementProcess) -> bool:
    """Whether a measurement can be made with shots."""
    return (isinstance(measurement, SampleMeasurement) or _is_shadow(measurement)) and _is_read(
        measurement.obs, False
    )


def _is_read(obs: Operator | None, by_matrix: bool) -> bool:
    if obs is None or obs.pauli_rep is not None:
        return True
    if isinstance(obs, CompositeOp):
        return all(_is_read(operand, by_matrix) for operand in obs.operands)
    if isinstance(obs, SymbolicOp):
        return _is_read(obs.base, by_matrix)
    if by_matrix and isinstance(obs, qml.SparseHamiltonian):
        return True
    return bool(obs.has_diagonalizing_gates or (by_matrix and obs.has_matrix))
