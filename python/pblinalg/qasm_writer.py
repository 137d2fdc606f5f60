"""Circuits as OpenQASM text. Reading is in `qasm`."""

from __future__ import annotations

import cmath
import math
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np

from ._core import GateSequence
from .gate_names import NamedGate, named_gates
from .gates import check_unitary
from .program import Conditional, Measure, Program
from .synthesis import euler_angles, two_level_steps

#: Gates that both formats have or that are written in terms of them.
_SIMPLE = frozenset("h x y z s sdg t tdg sx sxdg p rx ry rz swap".split())
_PHASES = {"s": math.pi / 2, "sdg": -math.pi / 2, "t": math.pi / 4, "tdg": -math.pi / 4}

#: Name ("gphase" for a phase of everything), angle, controls, targets.
_Gate = tuple[str, float | None, list[int], list[int]]


def write(circuit: Program, version: int = 3) -> str:
    """See `Circuit.to_qasm`."""
    if version not in (2, 3):
        raise ValueError(f"version = {version!r}: expected 2 or 3")
    writer = _Writer2(circuit) if version == 2 else _Writer(circuit)
    writer.body(circuit.steps)
    return writer.text()


def _simple_gates(gate: NamedGate) -> Iterator[_Gate]:
    """A gate as gates that the formats have a name for."""
    name, angle, controls, targets, value = gate
    if name == "iswap":
        for qubit in targets:
            yield "s", None, controls, [qubit]
        yield "z", None, controls + targets[:1], targets[1:]
        yield "swap", None, controls, targets
    elif name == "phase_oracle":
        *places, last = targets
        for number in value:
            bits = {q: number >> (len(targets) - 1 - i) & 1 for i, q in enumerate(targets)}
            minus_one = np.diag([1, -1]) if bits[last] else np.diag([-1, 1])
            yield from _where({q: bits[q] for q in places}, minus_one, controls, last)
    elif name in _SIMPLE:
        yield name, angle, controls, targets
    else:
        matrix = gate.matrix()
        if matrix.shape[1] != len(matrix):
            matrix = np.diag(matrix.reshape(-1))
        check_unitary(matrix)
        if len(targets) == 1:
            yield from _one_qubit(matrix, controls, targets[0])
            return
        for target, read, small in two_level_steps(matrix):
            where = {targets[place]: bit for place, bit in read.items()}
            yield from _where(where, small, controls, targets[target])


def _where(
    read: dict[int, int], matrix: np.ndarray, controls: list[int], target: int
) -> Iterator[_Gate]:
    """A matrix on one qubit where other qubits read what is listed."""
    zeros: list[_Gate] = [("x", None, [], [qubit]) for qubit, bit in read.items() if not bit]
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
            yield name, angle, controls, [] if name == "gphase" else [target]


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
        head += [f"bit[{size}] {name};" for name, size in self.sizes.items()]
        return "\n".join(head + self.lines) + "\n"

    def line(self, text: str) -> None:
        self.lines.append(self.prefix + text)

    def body(self, steps: Sequence[Any]) -> None:
        phase = 0.0
        for step in steps:
            if isinstance(step, GateSequence):
                for named in named_gates(step):
                    for gate in _simple_gates(named):
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

    def global_phase(self, phase: float) -> None:
        self.line(f"gphase({phase!r});")

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

    def call(self, name: str, angle: float | None, qubits: Sequence[int]) -> None:
        arguments = "" if angle is None else f"({angle!r})"
        self.line(f"{name}{arguments} {', '.join(f'q[{qubit}]' for qubit in qubits)};")

    def gate(
        self, name: str, angle: float | None, controls: list[int], targets: list[int]
    ) -> float:
        """Writes a gate and returns what it adds to the phase of everything."""
        if name == "gphase":
            if not controls:
                return angle or 0.0
            name, controls, targets = "p", controls[:-1], controls[-1:]
        if name == "sxdg":
            name = "inv @ sx"
        count = len(controls)
        if count == 1 and name in ("x", "y", "z", "h", "p", "rx", "ry", "rz", "swap"):
            name = "c" + name
        elif count == 2 and name == "x":
            name = "ccx"
        elif count:
            name = f"ctrl({count}) @ {name}" if count > 1 else f"ctrl @ {name}"
        self.call(name, angle, controls + targets)
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

    def global_phase(self, phase: float) -> None:
        # Nothing in the language turns everything; together these two do.
        self.call("rz", -2 * phase, [0])
        self.call("u1", 2 * phase, [0])

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

    def gate(
        self, name: str, angle: float | None, controls: list[int], targets: list[int]
    ) -> float:
        count = len(controls)
        if name == "gphase":
            if not controls:
                return angle or 0.0
            return self.gate("p", angle, controls[:-1], controls[-1:])
        if name in ("sx", "sxdg"):
            sign = 1 if name == "sx" else -1
            self.gate("rx", sign * math.pi / 2, controls, targets)
            return self.gate("gphase", sign * math.pi / 4, controls, [])
        if name == "swap":
            a, b = targets
            self.call("cx", None, [b, a])
            self.gate("x", None, [*controls, a], [b])
            self.call("cx", None, [b, a])
            return 0.0
        (target,) = targets
        if name in _PHASES and count:
            name, angle = "p", _PHASES[name]
        if count == 0:
            self.call("u1" if name == "p" else name, angle, targets)
        elif count == 1 and name in ("x", "y", "z", "h", "p", "rz"):
            self.call("cu1" if name == "p" else "c" + name, angle, controls + targets)
        elif name in ("x", "p"):
            self.most_controls = max(self.most_controls, 0 if name == "x" and count == 2 else count)
            self.call(_flip(count) if name == "x" else f"mcp{count}", angle, controls + targets)
        elif name == "z":
            self.gate("p", math.pi, controls, targets)
        else:
            self.conjugated(name, angle or 0.0, controls, target)
        return 0.0

    def conjugated(self, name: str, angle: float, controls: list[int], target: int) -> None:
        """Controlled gates as smaller ones between rotations of the target that cancel without."""
        if name == "y":
            self.call("sdg", None, [target])
            self.gate("x", None, controls, [target])
            self.call("s", None, [target])
        elif name == "h":
            self.call("ry", -math.pi / 4, [target])
            self.gate("z", None, controls, [target])
            self.call("ry", math.pi / 4, [target])
        elif name == "rx":
            self.call("h", None, [target])
            self.gate("rz", angle, controls, [target])
            self.call("h", None, [target])
        else:
            for half in (angle / 2, -angle / 2):
                self.call(name, half, [target])
                self.gate("x", None, controls, [target])


def _flip(controls: int) -> str:
    return {1: "cx", 2: "ccx"}.get(controls, f"mcx{controls}")
