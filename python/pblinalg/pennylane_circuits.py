"""Operations of PennyLane as gates of a circuit. Wires become qubits here and nowhere else: the first
wire is qubit 0, which is the most significant bit on both sides. Running is left to `pennylane`."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

import numpy as np
import pennylane as qml
from pennylane.operation import Operator, StatePrepBase
from pennylane.ops import Conditional
from pennylane.ops.mid_measure import MidMeasure
from pennylane.ops.op_math import Adjoint, Controlled

from ._core import Parameter
from .circuit import Circuit

#: Angles come first, then qubits, in the order of the operation.
_METHODS: dict[type, str] = {
    qml.PauliX: "x", qml.PauliY: "y", qml.PauliZ: "z", qml.Hadamard: "h",
    qml.S: "s", qml.T: "t", qml.SX: "sx",
    qml.RX: "rx", qml.RY: "ry", qml.RZ: "rz", qml.PhaseShift: "p", qml.U1: "p", qml.U3: "u",
    qml.SWAP: "swap", qml.ISWAP: "iswap",
    qml.IsingXX: "rxx", qml.IsingYY: "ryy", qml.IsingZZ: "rzz",
}  # fmt: skip

Angle = float | Parameter
#: Controls and what they must read, as keyword arguments of the gate methods.
Under = Mapping[str, Any]


def _rot(circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under) -> None:
    circuit.rz(angles[0], *qubits, **u).ry(angles[1], *qubits, **u).rz(angles[2], *qubits, **u)


def _u2(circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under) -> None:
    circuit.u(math.pi / 2, *angles, *qubits, **u)


def _global_phase(
    circuit: Circuit, _: Operator, angles: list[Angle], __: list[int], u: Under
) -> None:
    circuit.global_phase(-angles[0], **u)


def _parity_rotation(circuit: Circuit, angle: Angle, qubits: Sequence[int], u: Under) -> None:
    """exp(-i angle Z...Z / 2). The ladder undoes itself, so that controls concern the middle alone."""
    steps = list(zip(qubits, qubits[1:]))
    for control, target in steps:
        circuit.cx(control, target)
    circuit.rz(angle, qubits[-1], **u)
    for control, target in reversed(steps):
        circuit.cx(control, target)


def _multi_rz(
    circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under
) -> None:
    _parity_rotation(circuit, angles[0], qubits, u)


def _pauli_rot(
    circuit: Circuit, op: Operator, angles: list[Angle], qubits: list[int], u: Under
) -> None:
    word = op.hyperparameters["pauli_word"]
    letters = [(letter, qubit) for letter, qubit in zip(word, qubits) if letter != "I"]
    if not letters:
        circuit.global_phase(-0.5 * angles[0], **u)
        return
    for letter, qubit in letters:
        if letter != "Z":
            circuit.h(qubit) if letter == "X" else circuit.sx(qubit)
    _parity_rotation(circuit, angles[0], [qubit for _, qubit in letters], u)
    for letter, qubit in letters:
        if letter != "Z":
            circuit.h(qubit) if letter == "X" else circuit.sxdg(qubit)


def _ising_xy(
    circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under
) -> None:
    circuit.rxx(-0.5 * angles[0], *qubits, **u).ryy(-0.5 * angles[0], *qubits, **u)


def _pswap(circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under) -> None:
    circuit.swap(*qubits, **u).cx(*qubits).p(angles[0], qubits[1], **u).cx(*qubits)


def _single_excitation(
    circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under
) -> None:
    a, b = qubits
    circuit.cx(a, b)
    circuit.ry(angles[0], a, **_more(u, [b], [True]))
    circuit.cx(a, b)


def _double_excitation(
    circuit: Circuit, _: Operator, angles: list[Angle], qubits: list[int], u: Under
) -> None:
    first, *others = qubits
    for other in others:
        circuit.cx(first, other)
    circuit.ry(angles[0], first, **_more(u, others, [False, True, True]))
    for other in others:
        circuit.cx(first, other)


#: Operations that are a few gates, each angle in gates of its own.
_SEQUENCES: dict[
    type, Callable[[Circuit, Operator, list[Angle], list[int], Under], None]
] = {
    qml.Rot: _rot, qml.U2: _u2, qml.GlobalPhase: _global_phase,
    qml.MultiRZ: _multi_rz, qml.PauliRot: _pauli_rot, qml.IsingXY: _ising_xy, qml.PSWAP: _pswap,
    qml.SingleExcitation: _single_excitation, qml.DoubleExcitation: _double_excitation,
}  # fmt: skip


def _unitary(circuit: Circuit, op: Operator, qubits: list[int], u: Under) -> None:
    matrix = op.data[0]
    dense = matrix.toarray() if hasattr(matrix, "toarray") else matrix
    circuit.unitary(dense, qubits, check=False, **u)


def _diagonal(circuit: Circuit, op: Operator, qubits: list[int], u: Under) -> None:
    circuit.diagonal(op.data[0], qubits, check=False, **u)


def _basis_state(circuit: Circuit, op: Operator, qubits: list[int], u: Under) -> None:
    for bit, qubit in zip(np.asarray(op.data[0]).tolist(), qubits):
        if bit:
            circuit.x(qubit, **u)


def _nothing(circuit: Circuit, op: Operator, qubits: list[int], u: Under) -> None:
    pass


#: Operations whose data are no angles.
_OTHERS: dict[type, Callable[[Circuit, Operator, list[int], Under], None]] = {
    qml.QubitUnitary: _unitary, qml.DiagonalQubitUnitary: _diagonal, qml.BasisState: _basis_state,
    qml.Identity: _nothing, qml.Barrier: _nothing,
}  # fmt: skip


def has_angles(op: Operator) -> bool:
    """Whether the data of an operation are angles that may be parameters of a circuit."""
    while isinstance(op, (Controlled, Adjoint, Conditional)):
        op = op.base
    return type(op) in _METHODS or type(op) in _SEQUENCES


def is_native(op: Operator) -> bool:
    """Whether an operation becomes gates without PennyLane taking it apart."""
    kind = type(op)
    if kind in _METHODS or kind in _SEQUENCES or kind in _OTHERS:
        return True
    if isinstance(op, (Controlled, Adjoint, Conditional)):
        return is_native(op.base)
    if isinstance(op, (MidMeasure, StatePrepBase)):
        return isinstance(op, MidMeasure)
    if any(qml.math.requires_grad(value) for value in op.data):
        return False
    return bool(op.has_matrix) and (
        not op.has_decomposition or (not op.data and len(op.wires) <= 2)
    )


def _more(under: Under, controls: Sequence[int], values: Iterable[bool]) -> dict[str, Any]:
    state = "".join("1" if value else "0" for value in values)
    if under:
        return {
            "controls": [*under["controls"], *controls],
            "ctrl_state": under["ctrl_state"] + state,
        }
    return {"controls": list(controls), "ctrl_state": state}


class Translation:
    """The circuit of a list of operations. `named` are the parameters that stand for the data of
    these numbers, counted through all operations; `columns` their values."""

    def __init__(
        self,
        operations: Sequence[Operator],
        qubits: Mapping[Any, int],
        named: Mapping[int, Parameter] | None = None,
    ) -> None:
        self._qubits = qubits
        self._named = named or {}
        self._clbits: dict[MidMeasure, int] = {}
        #: Measurements of the circuit in order; each writes the classical bit of its place.
        self.measured = [op for op in operations if isinstance(op, MidMeasure)]
        self.circuit = Circuit(len(qubits), len(self.measured))
        place = 0
        for op in operations:
            data = op.data
            count = len(data)
            angles: list[Angle] | None = None
            if self._named and count:
                angles = [
                    self._named[number] if number in self._named else value
                    for number, value in zip(range(place, place + count), data)
                ]
            place += count
            method = _METHODS.get(type(op))
            if method:
                labels = [qubits[wire] for wire in op.wires]
                getattr(self.circuit, method)(*(data if angles is None else angles), *labels)
            else:
                self._add(self.circuit, op, data if angles is None else angles, {})

    def _add(
        self, circuit: Circuit, op: Operator, angles: Sequence[Angle], under: Under
    ) -> None:
        kind = type(op)
        qubits = [self._qubits[wire] for wire in op.wires]
        if kind in _METHODS:
            getattr(circuit, _METHODS[kind])(*angles, *qubits, **under)
        elif kind in _SEQUENCES:
            numbers = [a if isinstance(a, Parameter) else float(a) for a in angles]
            _SEQUENCES[kind](circuit, op, numbers, qubits, under)
        elif kind in _OTHERS:
            _OTHERS[kind](circuit, op, qubits, under)
        elif isinstance(op, MidMeasure):
            self._measure(circuit, op, qubits[0])
        elif isinstance(op, Conditional):
            self._conditional(circuit, op, angles)
        elif isinstance(op, Controlled):
            controls = [self._qubits[wire] for wire in op.control_wires]
            self._add(circuit, op.base, angles, _more(under, controls, op.control_values))
        elif isinstance(op, Adjoint):
            forward = Circuit(circuit.num_qubits, 0)
            self._add(forward, op.base, angles, under)
            circuit.compose(forward.inverse())
        else:
            circuit.unitary(op.matrix(), qubits, check=False, **under)

    def _measure(self, circuit: Circuit, op: MidMeasure, qubit: int) -> None:
        clbit = self._clbits[op] = len(self._clbits)
        circuit.measure(qubit, clbit)
        if op.reset:
            with circuit.if_(clbit):
                circuit.x(qubit)

    def _conditional(self, circuit: Circuit, op: Conditional, angles: Sequence[Angle]) -> None:
        clbits = [self._clbits[measurement] for measurement in op.meas_val.measurements]
        for bits, value in op.meas_val.branches.items():
            if value:
                with circuit.if_(clbits, int("".join(map(str, bits)), 2)):
                    self._add(circuit, op.base, angles, {})
