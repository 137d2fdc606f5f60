"""Circuits as OpenQASM text. Reading is in `qasm`."""

from __future__ import annotations

import cmath
import math
import re
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np

from ._core import GateList, Parameter, gate_matrix
from .gate_names import control_bits, listed_gates, plain_name
from .gates import Gate, check_unitary
from .program import Conditional, Measure, Program
from .synthesis import euler_angles, two_level_steps

#: Gates that both formats have or that are written in terms of them.
_SIMPLE = frozenset("h x y z s sdg t tdg sx sxdg p rx ry rz u swap".split())
_PHASES = {"s": math.pi / 2, "sdg": -math.pi / 2, "t": math.pi / 4, "tdg": -math.pi / 4}

#: What a parameter must not be called.
_TAKEN = re.compile(
    r"pi|tau|euler|[ab]\d+|q|c\d*|U|u[123]?|input|bit|qubit|float|gate|if|ctrl|inv|mc[xp]\d+"
)

#: Angles of a gate: numbers, or parameters.
_Angles = tuple[float | Parameter, ...]
#: Name ("gphase" for a phase of everything), angles, controls, targets.
_Gate = tuple[str, _Angles, list[int], list[int]]


def write(circuit: Program, version: int = 3) -> str:
    """See `Circuit.to_qasm`."""
    if version not in (2, 3):
        raise ValueError(f"version = {version!r}: expected 2 or 3")
    if version == 2 and circuit.parameters:
        raise ValueError(
            f"OpenQASM 2 has no parameters, the circuit has {circuit.parameters[0].name!r}: give "
            "it numbers with `bind`, or write version=3"
        )
    for parameter in circuit.parameters:
        if not re.fullmatch(r"[^\W\d]\w*", parameter.name) or _TAKEN.fullmatch(parameter.name):
            raise ValueError(f"parameter {parameter.name!r} cannot be called so in OpenQASM")
    writer = _Writer2(circuit) if version == 2 else _Writer(circuit)
    writer.body(circuit.steps)
    return writer.text()


def _simple_gates(gate: Gate) -> Iterator[_Gate]:
    """A gate as gates that the formats have a name for."""
    zeros: list[_Gate] = [("x", (), [], [q]) for q, bit in control_bits(gate).items() if not bit]
    yield from zeros
    yield from _under_ones(gate)
    yield from zeros


def _under_ones(gate: Gate) -> Iterator[_Gate]:
    """A gate whose controls must all be 1."""
    name, angles, controls, targets = plain_name(gate), gate.angles, gate.controls, gate.targets
    if name in _SIMPLE:
        yield name, angles, controls, targets
    elif name == "global_phase":
        yield "gphase", angles, controls, []
    elif name in ("rxx", "ryy", "rzz"):
        # A change of basis around the rotation of a parity.
        first: list[_Gate] = [] if name == "rzz" else [("h", (), [], [q]) for q in targets]
        last = list(first)
        if name == "ryy":
            first = [("sdg", (), [], [q]) for q in targets] + first
            last += [("s", (), [], [q]) for q in targets]
        yield from first
        yield "x", (), targets[:1], targets[1:]
        yield "rz", angles, controls, targets[1:]
        yield "x", (), targets[:1], targets[1:]
        yield from last
    elif name in ("iswap", "iswapdg"):
        for qubit in targets:
            yield "s" if name == "iswap" else "sdg", (), controls, [qubit]
        yield "z", (), controls + targets[:1], targets[1:]
        yield "swap", (), controls, targets
    elif name in ("phase_oracle", "diagonal"):
        yield from _diagonal(gate)
    else:
        yield from _matrix(gate)


def _diagonal(gate: Gate) -> Iterator[_Gate]:
    """Factors of the values of the targets, one after the other."""
    if gate.name == "diagonal":
        factors = {i: factor for i, factor in enumerate(gate.values) if factor != 1}
        if np.abs(np.abs(gate.values) - 1).max(initial=0) > 1e-6:
            raise ValueError("a diagonal is not unitary")
    else:
        factors = dict.fromkeys(gate.values, -1)
    *places, last = gate.targets
    for number, factor in factors.items():
        bits = {q: number >> (len(places) - i) & 1 for i, q in enumerate(gate.targets)}
        matrix = np.diag([1, factor] if bits[last] else [factor, 1])
        yield from _where({q: bits[q] for q in places}, matrix, gate.controls, last)


def _matrix(gate: Gate) -> Iterator[_Gate]:
    """A gate that is known by its matrix only."""
    matrix = gate_matrix(gate.name) if gate.values is None else gate.values
    check_unitary(matrix)
    if len(gate.targets) == 1:
        yield from _one_qubit(matrix, gate.controls, gate.targets[0])
        return
    for target, read, small in two_level_steps(matrix):
        where = {gate.targets[place]: bit for place, bit in read.items()}
        yield from _where(where, small, gate.controls, gate.targets[target])


def _where(
    read: dict[int, int], matrix: np.ndarray, controls: list[int], target: int
) -> Iterator[_Gate]:
    """A matrix on one qubit where other qubits read what is listed."""
    zeros: list[_Gate] = [("x", (), [], [qubit]) for qubit, bit in read.items() if not bit]
    yield from zeros
    yield from _one_qubit(matrix, controls + list(read), target)
    yield from zeros


def _one_qubit(matrix: np.ndarray, controls: list[int], target: int) -> Iterator[_Gate]:
    if np.abs(matrix[[0, 1], [1, 0]]).max() == 0:
        first, second = cmath.phase(matrix[0, 0]), cmath.phase(matrix[1, 1])
        parts = [("p", second - first), ("gphase", first)]
    else:
        alpha, beta, gamma, delta = euler_angles(matrix)
        parts = [("rz", delta), ("ry", gamma), ("rz", beta), ("gphase", alpha)]
    for name, angle in parts:
        if angle:
            yield name, (angle,), controls, [] if name == "gphase" else [target]


def _text(angle: float | Parameter) -> str:
    if not isinstance(angle, Parameter):
        return repr(angle)
    factor = "" if angle.scale == 1 else f"{angle.scale!r} * "
    return factor + angle.name + (f" + {angle.offset!r}" if angle.offset else "")


class _Writer:
    """OpenQASM 3, where any gate takes any controls."""

    def __init__(self, circuit: Program) -> None:
        self.circuit = circuit
        self.lines: list[str] = []
        self.prefix = ""
        count = len([size for size in circuit.registers if size])
        #: Register name and place of every classical bit.
        self.clbits: list[tuple[str, int]] = []
        self.sizes: dict[str, int] = {}
        for size in filter(None, circuit.registers):
            name = "c" if count == 1 else f"c{len(self.sizes)}"
            self.sizes[name] = size
            self.clbits += [(name, place) for place in range(size)]

    def text(self) -> str:
        head = ["OPENQASM 3.0;", 'include "stdgates.inc";']
        if self.circuit.num_qubits:
            head.append(f"qubit[{self.circuit.num_qubits}] q;")
        head[2:2] = [f"input float {parameter.name};" for parameter in self.circuit.parameters]
        head += [f"bit[{size}] {name};" for name, size in self.sizes.items()]
        return "\n".join(head + self.lines) + "\n"

    def line(self, text: str) -> None:
        self.lines.append(self.prefix + text)

    def body(self, steps: Sequence[Any]) -> None:
        phase = 0.0
        for step in steps:
            if isinstance(step, GateList):
                for listed in listed_gates(step):
                    for gate in _simple_gates(listed):
                        phase += self.gate(*gate)
            elif isinstance(step, Conditional):
                self.conditional(step)
            elif isinstance(step, Measure):
                self.measure(f"q[{step.qubit}]", "{}[{}]".format(*self.clbits[step.clbit]))
            else:
                self.line(f"reset q[{step.qubit}];")
        phase = math.remainder(phase, 2 * math.pi)
        if phase:
            self.global_phase(phase)

    def global_phase(self, phase: float | Parameter) -> None:
        self.line(f"gphase({_text(phase)});")

    def measure(self, qubit: str, clbit: str) -> None:
        self.line(f"{clbit} = measure {qubit};")

    def whole_register(self, step: Conditional) -> str | None:
        """The register that a condition reads in full, most significant bit first."""
        name = self.clbits[step.clbits[0]][0] if step.clbits else ""
        places = [place for register, place in map(self.clbits.__getitem__, step.clbits)]
        same = {self.clbits[clbit][0] for clbit in step.clbits} == {name}
        return name if same and places == list(range(self.sizes[name]))[::-1] else None

    def conditional(self, step: Conditional) -> None:
        register = self.whole_register(step)
        if register and len(step.clbits) > 1:
            tests = [f"{register} == {step.value}"]
        else:
            tests = []
            for i, clbit in enumerate(step.clbits):
                one = step.value >> (len(step.clbits) - 1 - i) & 1
                tests.append(("" if one else "!") + "{}[{}]".format(*self.clbits[clbit]))
        outer = self.prefix
        for test in tests:
            self.line(f"if ({test}) {{")
            self.prefix += "  "
        self.body(step.steps)
        for _ in tests:
            self.prefix = self.prefix[2:]
            self.line("}")
        self.prefix = outer

    def call(self, name: str, angles: _Angles, qubits: Sequence[int]) -> None:
        arguments = f"({', '.join(map(_text, angles))})" if angles else ""
        self.line(f"{name}{arguments} {', '.join(f'q[{qubit}]' for qubit in qubits)};")

    def gate(self, name: str, angles: _Angles, controls: list[int], targets: list[int]) -> float:
        """Writes a gate and returns what it adds to the phase of everything."""
        if name == "gphase":
            (angle,) = angles
            if not controls and isinstance(angle, Parameter):
                self.global_phase(angle)
                return 0.0
            if not controls:
                return float(angle)  # type: ignore[arg-type]
            name, controls, targets = "p", controls[:-1], controls[-1:]
        if name == "sxdg":
            name = "inv @ sx"
        if name == "u":
            name = "U"
        count = len(controls)
        if count == 1 and name in ("x", "y", "z", "h", "p", "rx", "ry", "rz", "swap"):
            name = "c" + name
        elif count == 2 and name == "x":
            name = "ccx"
        elif count:
            name = f"ctrl({count}) @ {name}" if count > 1 else f"ctrl @ {name}"
        self.call(name, angles, controls + targets)
        return 0.0


class _Writer2(_Writer):
    """OpenQASM 2: what qelib1.inc has, and definitions for more controls than that."""

    def __init__(self, circuit: Program) -> None:
        super().__init__(circuit)
        self.most_controls = 0

    def text(self) -> str:
        head = ["OPENQASM 2.0;", 'include "qelib1.inc";', *self.definitions()]
        if self.circuit.num_qubits:
            head.append(f"qreg q[{self.circuit.num_qubits}];")
        head += [f"creg {name}[{size}];" for name, size in self.sizes.items()]
        return "\n".join(head + self.lines) + "\n"

    def definitions(self) -> Iterator[str]:
        """A phase and a NOT under 3 and more controls, each in terms of those with one less."""
        for k in range(2, self.most_controls + 1):
            *rest, last, target = [f"a{i}" for i in range(k + 1)]
            flip = f"{_flip(k - 1)} {','.join([*rest, last])};"
            smaller = "cu1" if k == 2 else f"mcp{k - 1}"
            qubits = ",".join([*rest, last, target])
            yield (
                f"gate mcp{k}(theta) {qubits} {{ cu1(theta/2) {last},{target}; {flip} "
                f"cu1(-theta/2) {last},{target}; {flip} "
                f"{smaller}(theta/2) {','.join([*rest, target])}; }}"
            )
            if k > 2:
                yield f"gate mcx{k} {qubits} {{ h {target}; mcp{k}(pi) {qubits}; h {target}; }}"

    def global_phase(self, phase: Any) -> None:
        # Nothing in the language turns everything; together these two do.
        self.call("rz", (-2 * phase,), [0])
        self.call("u1", (2 * phase,), [0])

    def measure(self, qubit: str, clbit: str) -> None:
        self.line(f"measure {qubit} -> {clbit};")

    def conditional(self, step: Conditional) -> None:
        register = self.whole_register(step)
        bits = set(step.clbits)
        written = any(getattr(inner, "clbit", None) in bits for inner in step.steps)
        if self.prefix or not register or written:
            raise ValueError(
                "OpenQASM 2 knows conditions on one whole register only, which must not change "
                "before their end; write this circuit with version=3"
            )
        self.prefix = f"if({register}=={step.value}) "
        self.body(step.steps)
        self.prefix = ""

    def gate(self, name: str, angles: _Angles, controls: list[int], targets: list[int]) -> float:
        count = len(controls)
        if name == "gphase":
            if not controls:
                return float(angles[0])  # type: ignore[arg-type]
            return self.gate("p", angles, controls[:-1], controls[-1:])
        if name in ("sx", "sxdg"):
            sign = 1 if name == "sx" else -1
            self.gate("rx", (sign * math.pi / 2,), controls, targets)
            return self.gate("gphase", (sign * math.pi / 4,), controls, [])
        if name == "swap":
            a, b = targets
            self.call("cx", (), [b, a])
            self.gate("x", (), [*controls, a], [b])
            self.call("cx", (), [b, a])
            return 0.0
        (target,) = targets
        if name == "u":
            if count > 1:
                matrix = gate_matrix("U", angles)  # type: ignore[arg-type]
                return sum(self.gate(*gate) for gate in _one_qubit(matrix, controls, target))
            self.call("cu3" if count else "u3", angles, controls + targets)
            return 0.0
        if name in _PHASES and count:
            name, angles = "p", (_PHASES[name],)
        if count == 0:
            self.call("u1" if name == "p" else name, angles, targets)
        elif count == 1 and name in ("x", "y", "z", "h", "p", "rz"):
            self.call("cu1" if name == "p" else "c" + name, angles, controls + targets)
        elif name in ("x", "p"):
            self.most_controls = max(self.most_controls, 0 if name == "x" and count == 2 else count)
            self.call(_flip(count) if name == "x" else f"mcp{count}", angles, controls + targets)
        elif name == "z":
            self.gate("p", (math.pi,), controls, targets)
        else:
            angle = float(angles[0]) if angles else 0.0  # type: ignore[arg-type]
            self.conjugated(name, angle, controls, target)
        return 0.0

    def conjugated(self, name: str, angle: float, controls: list[int], target: int) -> None:
        """Controlled gates as smaller ones between rotations of the target that cancel without."""
        if name == "y":
            self.call("sdg", (), [target])
            self.gate("x", (), controls, [target])
            self.call("s", (), [target])
        elif name == "h":
            self.call("ry", (-math.pi / 4,), [target])
            self.gate("z", (), controls, [target])
            self.call("ry", (math.pi / 4,), [target])
        elif name == "rx":
            self.call("h", (), [target])
            self.gate("rz", (angle,), controls, [target])
            self.call("h", (), [target])
        else:
            for half in (angle / 2, -angle / 2):
                self.call(name, (half,), [target])
                self.gate("x", (), controls, [target])


def _flip(controls: int) -> str:
    return {1: "cx", 2: "ccx"}.get(controls, f"mcx{controls}")
