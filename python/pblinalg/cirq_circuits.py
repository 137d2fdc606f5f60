"""Circuits of Cirq as circuits of the library. Qubits become numbers here and nowhere else: the first
one of the qubit order is qubit 0, which is the most significant bit on both sides. Exponents count
half turns; what has no counterpart is a matrix or is taken apart by Cirq."""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping, Sequence
from typing import Any

import cirq
import numpy as np
import sympy
from numpy.typing import NDArray

from ._core import Parameter
from .circuit import Circuit

#: A condition is looked at for all values of at most so many measured bits.
_CONDITION_BITS = 12
#: Operations that Cirq cannot take apart become matrices on at most so many qubits.
_MATRIX_QUBITS = 10

Angle = float | Parameter
Under = Mapping[str, Any]


class NotLinear(ValueError):
    """An angle that is no number plus a number times one symbol."""


def _turns(exponent: Any, factor: float) -> Angle:
    """The angle of an exponent, pi times `factor` being that of 1."""
    if not isinstance(exponent, sympy.Basic) or not exponent.free_symbols:
        return float(exponent) * factor * math.pi
    symbols = exponent.free_symbols
    slope = exponent.diff(next(iter(symbols)))
    if len(symbols) > 1 or slope.free_symbols:
        raise NotLinear(f"{exponent} cannot be followed; expected one symbol, linear")
    (symbol,) = symbols
    offset = float(exponent.subs(symbol, 0))
    return math.pi * factor * Parameter(symbol.name, float(slope), offset)


def _more(under: Under, controls: Sequence[int], values: Sequence[int]) -> dict[str, Any]:
    state = "".join(map(str, values))
    if under:
        return {
            "controls": [*under["controls"], *controls],
            "ctrl_state": under["ctrl_state"] + state,
        }
    return {"controls": list(controls), "ctrl_state": state}


#: Methods for gates whose exponent is one of these.
_NAMED: dict[type, dict[float, str]] = {
    cirq.XPowGate: {1: "x", 0.5: "sx", -0.5: "sxdg"},
    cirq.YPowGate: {1: "y"},
    cirq.ZPowGate: {1: "z", 0.5: "s", -0.5: "sdg", 0.25: "t", -0.25: "tdg"},
    cirq.HPowGate: {1: "h"},
    cirq.SwapPowGate: {1: "swap", 0.5: "sqrt_swap"},
    cirq.ISwapPowGate: {1: "iswap"},
}
#: Rotations by the exponent: the method, and the phase in half turns by which Cirq's gate is ahead.
_ROTATIONS: dict[type, tuple[str, float]] = {
    cirq.XPowGate: ("rx", 0.5), cirq.YPowGate: ("ry", 0.5), cirq.ZPowGate: ("p", 0),
    cirq.XXPowGate: ("rxx", 0.5), cirq.YYPowGate: ("ryy", 0.5), cirq.ZZPowGate: ("rzz", 0.5),
}  # fmt: skip
#: Gates with controls of their own: how many, and the gate of the same exponent on the others.
_CONTROLLED: dict[type, tuple[int, type]] = {
    cirq.CXPowGate: (1, cirq.XPowGate), cirq.CCXPowGate: (2, cirq.XPowGate),
    cirq.CZPowGate: (1, cirq.ZPowGate), cirq.CCZPowGate: (2, cirq.ZPowGate),
}  # fmt: skip
#: Classes that add nothing but a constructor.
_BASES: dict[type, type] = {
    cirq.Rx: cirq.XPowGate, cirq.Ry: cirq.YPowGate, cirq.Rz: cirq.ZPowGate,
    type(cirq.X): cirq.XPowGate, type(cirq.Y): cirq.YPowGate, type(cirq.Z): cirq.ZPowGate,
    cirq.MSGate: cirq.XXPowGate,
}  # fmt: skip


def _phase(circuit: Circuit, angle: Angle, under: Under) -> None:
    if angle != 0.0:
        circuit.global_phase(angle, **under)


def _power(
    circuit: Circuit, kind: type, exponent: Any, shift: float, qubits: Sequence[int], under: Under
) -> bool:
    """A gate to a power, and half turns of phase times the exponent; False for what is no method."""
    named = _NAMED.get(kind, {}).get(exponent if isinstance(exponent, (int, float)) else None)
    if named:
        getattr(circuit, named)(*qubits, **under)
    elif kind in _ROTATIONS:
        method, ahead = _ROTATIONS[kind]
        if kind is cirq.ZPowGate and shift == -0.5:
            method, ahead = "rz", 0.5
        getattr(circuit, method)(_turns(exponent, 1), *qubits, **under)
        shift += ahead
    elif kind is cirq.ISwapPowGate:
        angle = _turns(exponent, -0.5)
        circuit.rxx(angle, *qubits, **under).ryy(angle, *qubits, **under)
    else:
        return False
    if shift:
        _phase(circuit, _turns(exponent, shift), under)
    return True


def _phased_x(circuit: Circuit, gate: Any, qubits: Sequence[int], under: Under) -> None:
    turn = gate.exponent
    axis = gate.phase_exponent
    circuit.u(_turns(turn, 1), _turns(axis - 0.5, 1), _turns(0.5 - axis, 1), *qubits, **under)
    if gate.global_shift != -0.5:
        _phase(circuit, _turns(turn, 0.5 + gate.global_shift), under)


def _phased_xz(circuit: Circuit, gate: Any, qubits: Sequence[int], under: Under) -> None:
    axis = gate.axis_phase_exponent
    turn = gate.x_exponent
    circuit.u(_turns(turn, 1), _turns(axis - 0.5, 1), _turns(0.5 - axis, 1), *qubits, **under)
    _phase(circuit, _turns(turn, 0.5), under)
    circuit.p(_turns(gate.z_exponent, 1), *qubits, **under)


def _f_sim(circuit: Circuit, gate: Any, qubits: Sequence[int], under: Under) -> None:
    swap, phase = (_turns(angle / math.pi, 1) for angle in (gate.theta, gate.phi))
    circuit.rxx(swap, *qubits, **under).ryy(swap, *qubits, **under)
    circuit.p(-phase, qubits[1], **_more(under, qubits[:1], [1]))


def _is_diagonal(matrix: NDArray[Any]) -> bool:
    return np.count_nonzero(matrix) == np.count_nonzero(matrix.diagonal())


def _matrix(circuit: Circuit, gate: Any, qubits: Sequence[int], under: Under) -> None:
    matrix = cirq.unitary(gate)
    if _is_diagonal(matrix):
        circuit.diagonal(matrix.diagonal(), qubits, check=False, **under)
    else:
        circuit.unitary(matrix, qubits, check=False, **under)


def _nothing(circuit: Circuit, gate: Any, qubits: Sequence[int], under: Under) -> None:
    pass


_OTHERS: dict[type, Callable[[Circuit, Any, Sequence[int], Under], None]] = {
    cirq.PhasedXPowGate: _phased_x, cirq.PhasedXZGate: _phased_xz, cirq.FSimGate: _f_sim,
    cirq.MatrixGate: _matrix, cirq.IdentityGate: _nothing, cirq.WaitGate: _nothing,
}  # fmt: skip


class Translation:
    """The circuit of a Cirq circuit whose qubits are numbered by their place in `qubits`. Symbols
    become parameters, or NotLinear is raised."""

    def __init__(self, source: cirq.AbstractCircuit, qubits: Sequence[cirq.Qid]) -> None:
        for qubit in qubits:
            if qubit.dimension != 2:
                raise ValueError(f"{qubit!r} has dimension {qubit.dimension}; expected 2")
        self._places = {qubit: place for place, qubit in enumerate(qubits)}
        #: For each key its measurements in order: their gates and classical bits.
        self.measured: dict[str, list[tuple[cirq.MeasurementGate, range]]] = {}
        self._clbits = 0
        operations = list(source.all_operations())
        self.circuit = Circuit(len(qubits), sum(map(_bits_of, operations)))
        for op in operations:
            self._operation(op)

    def _operation(self, op: cirq.Operation) -> None:
        op = op.untagged
        gate = op.gate
        conditions = op.classical_controls
        if conditions:
            inner = op.without_classical_controls()
            for clbits, value in self._readings(conditions):
                with self.circuit.if_(clbits, value):
                    self._operation(inner)
        elif isinstance(gate, cirq.MeasurementGate):
            qubits = [self._places[qubit] for qubit in op.qubits]
            bits = range(self._clbits, self._clbits + len(qubits))
            self._clbits += len(qubits)
            self.measured.setdefault(gate.key, []).append((gate, bits))
            self.circuit.measure(qubits, bits)
        elif isinstance(gate, cirq.ResetChannel):
            self.circuit.reset([self._places[qubit] for qubit in op.qubits])
        else:
            self._unitary(op, {})

    def _unitary(self, op: cirq.Operation, under: Under) -> None:
        gate = op.gate
        qubits = [self._places[qubit] for qubit in op.qubits]
        if gate is not None and self._gate(gate, qubits, under):
            return
        if isinstance(op, cirq.ControlledOperation):
            controls = [self._places[qubit] for qubit in op.controls]
            for values in op.control_values.expand():
                self._unitary(op.sub_operation, _more(under, controls, values))
            return
        symbols = cirq.is_parameterized(op)
        if len(qubits) <= 3 and not symbols and cirq.has_unitary(op):
            matrix = cirq.unitary(op)
            if len(qubits) <= 2 or _is_diagonal(matrix):
                _matrix(self.circuit, op, qubits, under)
                return
        parts = cirq.decompose_once(op, default=None)
        if parts is not None:
            for part in parts:
                self._unitary(part, under) if under else self._operation(part)
        elif symbols:
            raise NotLinear(f"{op!r} cannot be followed with symbols")
        elif len(qubits) <= _MATRIX_QUBITS and cirq.has_unitary(op):
            _matrix(self.circuit, op, qubits, under)
        else:
            raise TypeError(
                f"{op!r} cannot be simulated; expected gates with a unitary, measurements and "
                "resets, no other channels"
            )

    def _gate(self, gate: cirq.Gate, qubits: Sequence[int], under: Under) -> bool:
        """Appends a gate that has a counterpart."""
        kind = _BASES.get(type(gate), type(gate))
        if kind in _OTHERS:
            _OTHERS[kind](self.circuit, gate, qubits, under)
            return True
        if isinstance(gate, cirq.GlobalPhaseGate):
            if not cirq.is_parameterized(gate):
                _phase(self.circuit, float(np.angle(complex(gate.coefficient))), under)
                return True
            return False
        if isinstance(gate, cirq.ControlledGate):
            count = gate.num_controls()
            targets = qubits[count:]
            for values in gate.control_values.expand():
                inner = _more(under, qubits[:count], values)
                if not self._gate(gate.sub_gate, targets, inner):
                    if len(targets) > _MATRIX_QUBITS or not cirq.has_unitary(gate.sub_gate):
                        return False
                    _matrix(self.circuit, gate.sub_gate, targets, inner)
            return True
        if isinstance(gate, cirq.CSwapGate):
            self.circuit.swap(*qubits[1:], **_more(under, qubits[:1], [1]))
            return True
        shift = getattr(gate, "global_shift", 0)
        if kind in _CONTROLLED:
            count, kind = _CONTROLLED[kind]
            if shift:
                _phase(self.circuit, _turns(gate.exponent, shift), under)
            inner = _more(under, qubits[:count], [1] * count)
            return _power(self.circuit, kind, gate.exponent, 0, qubits[count:], inner)
        if kind in _NAMED or kind in _ROTATIONS:
            return _power(self.circuit, kind, gate.exponent, shift, qubits, under)
        return False

    def _readings(self, conditions: Sequence[cirq.Condition]) -> list[tuple[list[int], int]]:
        """Classical bits and what they must read for all conditions to hold: one of the pairs."""
        asked = set()
        for condition in conditions:
            for key in condition.keys:
                records = self.measured.get(str(key))
                if records is None:
                    raise ValueError(f"measurement key {key} missing when testing {condition}")
                place = range(len(records))[getattr(condition, "index", -1)]
                if records[place][0].confusion_map:
                    raise ValueError(f"{condition} depends on a confused measurement")
                asked.add((str(key), place))
        bits = sorted({bit for key, place in asked for bit in self.measured[key][place][1]})
        if len(bits) > _CONDITION_BITS:
            raise ValueError(
                f"a condition on {len(bits)} measured bits cannot be followed; expected at most "
                f"{_CONDITION_BITS}"
            )
        holds = []
        for reading in range(1 << len(bits)):
            read = {bit: reading >> (len(bits) - 1 - i) & 1 for i, bit in enumerate(bits)}
            data = cirq.ClassicalDataDictionaryStore()
            for key in {key for key, _ in asked}:
                for gate, places in self.measured[key]:
                    digits = [
                        read.get(bit, 0) ^ flip
                        for bit, flip in zip(places, gate.full_invert_mask())
                    ]
                    data.record_measurement(gate.mkey, digits, cirq.LineQubit.range(len(digits)))
            holds.append(all(condition.resolve(data) for condition in conditions))
        found: list[tuple[list[int], int]] = []

        def split(begin: int, depth: int) -> None:
            size = 1 << (len(bits) - depth)
            if all(holds[begin : begin + size]):
                found.append((bits[:depth], begin // size))
            elif any(holds[begin : begin + size]):
                split(begin, depth + 1)
                split(begin + size // 2, depth + 1)

        split(0, 0)
        return found


def _bits_of(op: cirq.Operation) -> int:
    """At least the number of bits that an operation measures."""
    if not cirq.is_measurement(op):
        return 0
    inner = op.untagged
    if isinstance(inner, cirq.CircuitOperation):
        return sum(map(_bits_of, inner.mapped_circuit(deep=True).all_operations()))
    return len(op.qubits)
