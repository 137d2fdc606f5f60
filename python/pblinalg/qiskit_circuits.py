"""Circuits of qiskit as circuits of the library. Gates are told by their class, never by their
name; what has no counterpart is taken apart into its definition."""

from __future__ import annotations

import cmath
import math
from collections.abc import Callable, Iterator, Mapping
from functools import lru_cache
from typing import Any

from ._core import Parameter
from .circuit import Circuit
from .gates import GateMethods

#: Methods that are called otherwise than the class; the others are its name in small letters.
#: Arguments of both are angles, then qubits.
_OTHER_NAMES = {"I": "id", "Phase": "p", "U1": "p", "U3": "u", "GlobalPhase": "global_phase"}
_NO_OPERATION = ("Barrier", "Delay", "_U0Gate")

#: A condition is looked at for all values of at most so many classical bits.
_CONDITION_BITS = 12


def from_qiskit(circuit: Any) -> Circuit:
    """The circuit of a qiskit `QuantumCircuit`, its global phase included.

    Qubits and classical bits keep their numbers, classical registers their sizes. Gates without a
    method here are taken apart into their definitions. `if`/`else`, `switch` and `for` are
    followed where the branches leave alone the classical bits that decide between them. Parameters
    without a value become those of the circuit, in order of first use. ValueError names what cannot
    be followed, such as `while` or an angle that is not linear in one parameter.
    """
    try:
        from qiskit import QuantumCircuit
    except ImportError as error:
        raise ImportError("from_qiskit needs qiskit: pip install 'pblinalg[qasm]'") from error
    if not isinstance(circuit, QuantumCircuit):
        raise TypeError(f"circuit must be a qiskit QuantumCircuit, got {circuit!r}")
    try:
        result = Circuit(circuit.num_qubits, circuit.num_clbits)
    except (ValueError, OverflowError) as error:
        sizes = ", ".join(f"{register.name}[{register.size}]" for register in circuit.qregs)
        raise ValueError(f"{circuit.num_qubits} qubits in {sizes}: {error}") from None
    if circuit.num_clbits:
        result.registers = _register_sizes(circuit)
    _Lowering(result).body(
        circuit,
        {qubit: i for i, qubit in enumerate(circuit.qubits)},
        {clbit: i for i, clbit in enumerate(circuit.clbits)},
    )
    return result


def _register_sizes(circuit: Any) -> list[int]:
    """Runs of classical bits that share their first register; a bit of its own is a run."""
    sizes: list[int] = []
    last = None
    for clbit in circuit.clbits:
        registers = circuit.find_bit(clbit).registers
        register = registers[0][0] if registers else None
        if register is not None and register == last:
            sizes[-1] += 1
        else:
            sizes.append(1)
        last = register
    return sizes


@lru_cache(maxsize=1)
def _methods() -> dict[type, str]:
    """Methods of a circuit by the class of the same meaning; controls are told apart from it."""
    import qiskit.circuit.library.standard_gates as standard
    from qiskit.circuit import ControlledGate

    methods = {}
    for name, kind in vars(standard).items():
        base = name.removesuffix("Gate")
        method = _OTHER_NAMES.get(base, base.lower())
        if base != name and not issubclass(kind, ControlledGate) and hasattr(GateMethods, method):
            methods[kind] = method
    return methods


def _angle(value: Any) -> float | Parameter:
    """A number, or a parameter times a number plus a number."""
    if not getattr(value, "parameters", ()):
        return float(value)
    slope = value.gradient(next(iter(value.parameters)))
    if len(value.parameters) > 1 or getattr(slope, "parameters", ()):
        raise ValueError(f"the angle {value} cannot be followed; expected one parameter, linear")
    (parameter,) = value.parameters
    offset = float(value.bind({parameter: 0}))
    return Parameter(parameter.name, float(slope), offset)


class _Lowering:
    """Appends the instructions of a qiskit circuit to `target`."""

    def __init__(self, target: Circuit) -> None:
        self.target = target

    def body(self, body: Any, qubits: Mapping[Any, int], clbits: Mapping[Any, int]) -> None:
        """Appends all instructions and the phase that they leave on the whole state."""
        self._phase(self._instructions(body, qubits, clbits))

    def _add_phase(self, phase: float, more: Any) -> float:
        """The sum of two phases of the whole; a parameter is appended instead."""
        angle = _angle(more)
        if isinstance(angle, Parameter):
            self.target.global_phase(angle)
            return phase
        return phase + angle

    def _phase(self, phase: float) -> None:
        if abs(cmath.exp(1j * phase) - 1) > 1e-15:
            self.target.global_phase(phase)

    def _instructions(
        self, body: Any, qubits: Mapping[Any, int], clbits: Mapping[Any, int]
    ) -> float:
        phase = self._add_phase(0.0, body.global_phase)
        for instruction in body.data:
            operation = instruction.operation
            targets = [qubits[qubit] for qubit in instruction.qubits]
            bits = [clbits[clbit] for clbit in instruction.clbits]
            condition = getattr(operation, "condition", None)
            if condition is not None or hasattr(operation, "cases_specifier"):
                self._branches(operation, targets, bits, clbits)
            else:
                phase += self._operation(operation, targets, bits)
        return phase

    def _operation(self, operation: Any, qubits: list[int], clbits: list[int]) -> float:
        """Appends an operation and returns the phase that it leaves on the whole state."""
        kind = getattr(operation, "base_class", type(operation))
        name = kind.__name__
        method = _methods().get(kind)
        controlled = getattr(operation, "num_ctrl_qubits", 0) > 0
        if name == "Measure":
            self.target.measure(qubits, clbits)
        elif name == "Reset":
            self.target.reset(qubits)
        elif name in _NO_OPERATION:
            pass
        elif method:
            getattr(self.target, method)(*map(_angle, operation.params), *qubits)
        elif name == "U2Gate":
            phi, lam = map(_angle, operation.params)
            self.target.u(math.pi / 2, phi, lam, qubits[0])
        elif controlled and self._controlled(operation, qubits):
            pass
        elif name == "UnitaryGate":
            # qiskit's first qubit is the least significant one of a matrix.
            self.target.unitary(operation.params[0], qubits[::-1])
        elif name == "PermutationGate":
            self._permute([int(place) for place in operation.pattern], qubits)
        elif name == "ForLoopOp":
            return self._for_loop(operation, qubits, clbits)
        elif name == "BoxOp":
            return self._inner(operation.blocks[0], qubits, clbits)
        elif name == "AnnotatedOperation":
            self._annotated(operation, qubits)
        elif getattr(operation, "definition", None) is not None:
            return self._inner(operation.definition, qubits, clbits)
        elif hasattr(operation, "to_instruction"):
            return self._operation(operation.to_instruction(), qubits, clbits)
        elif name in ("WhileLoopOp", "BreakLoopOp", "ContinueLoopOp", "Store"):
            raise ValueError(
                f"{operation.name!r} cannot be followed; expected gates, measurements, resets, "
                "if/else, switch and for"
            )
        else:
            raise ValueError(f"the gate {operation.name!r} is declared but has no definition")
        return 0.0

    def _inner(self, body: Any, qubits: list[int], clbits: list[int]) -> float:
        return self._instructions(
            body, dict(zip(body.qubits, qubits)), dict(zip(body.clbits, clbits))
        )

    def _for_loop(self, operation: Any, qubits: list[int], clbits: list[int]) -> float:
        values, parameter, body = operation.params
        phase = 0.0
        for value in values:
            bound = body
            if parameter is not None and parameter in body.parameters:
                bound = body.assign_parameters({parameter: value})
            phase += self._inner(bound, qubits, clbits)
        return phase

    def _controlled(self, operation: Any, qubits: list[int]) -> bool:
        """Appends a controlled gate with the method of its base, if there is one."""
        base = operation.base_gate
        method = _methods().get(base.base_class)
        if method in (None, "id"):
            return False
        count = operation.num_ctrl_qubits
        # qiskit's first control is the least significant bit of the state.
        under = {"controls": qubits[:count][::-1], "ctrl_state": operation.ctrl_state}
        getattr(self.target, method)(*map(_angle, base.params), *qubits[count:], **under)
        if operation.base_class.__name__ == "CUGate" and operation.params[3] != 0:
            self.target.global_phase(_angle(operation.params[3]), **under)
        return True

    def _annotated(self, operation: Any, qubits: list[int]) -> None:
        from qiskit.quantum_info import Operator

        if len(qubits) > 10:
            raise ValueError(f"{operation.name!r} with modifiers acts on more than 10 qubits")
        self.target.unitary(Operator(operation).data, qubits[::-1])

    def _permute(self, pattern: list[int], qubits: list[int]) -> None:
        """What is at place `pattern[k]` comes to place k."""
        held = list(range(len(pattern)))
        for place, wanted in enumerate(pattern):
            other = held.index(wanted)
            if other != place:
                self.target.swap(qubits[place], qubits[other])
                held[place], held[other] = held[other], held[place]

    # ---- Conditions ------------------------------------------------------------------------------

    def _branches(
        self, operation: Any, qubits: list[int], bits: list[int], clbits: Mapping[Any, int]
    ) -> None:
        """One conditional per set of readings that lead to the same branch."""
        if operation.name == "while_loop":
            raise ValueError("'while_loop' cannot be followed; its end is known only while it runs")
        if hasattr(operation, "cases_specifier"):
            blocks = [block for _, block in operation.cases_specifier()]
            decide = _switch(operation)
            listed, cubes = _cubes_of(operation.target, decide, clbits)
        else:
            blocks = [operation]
            if operation.name == "if_else":
                blocks = [block for block in operation.blocks if block is not None]
            listed, cubes = _cubes_of_if(operation.condition, clbits, len(blocks) > 1)
        written = {
            bits[place] for block in blocks if hasattr(block, "data") for place in _written(block)
        }
        if len(cubes) > 1 and written & set(listed):
            raise ValueError(
                f"{operation.name!r} cannot be followed: a branch measures into a classical bit "
                "that decides between the branches"
            )
        for places, value, branch in cubes:
            block = blocks[branch]
            with self.target.if_(places, value):
                if hasattr(block, "data"):
                    self.body(block, dict(zip(block.qubits, qubits)), dict(zip(block.clbits, bits)))
                else:
                    self._phase(self._operation(block, qubits, bits))


#: Classical bits (first one most significant), what they read, and the branch that this chooses.
_Cube = tuple[list[int], int, int]


def _written(block: Any) -> Iterator[int]:
    """Places among the classical bits of a block that its measurements write."""
    places = {clbit: i for i, clbit in enumerate(block.clbits)}
    for instruction in block.data:
        for inner in getattr(instruction.operation, "blocks", ()):
            for place in _written(inner):
                yield places[instruction.clbits[place]]
        if not getattr(instruction.operation, "blocks", ()):
            yield from (places[clbit] for clbit in instruction.clbits)


def _cubes_of_if(
    condition: Any, clbits: Mapping[Any, int], has_else: bool
) -> tuple[list[int], list[_Cube]]:
    if not isinstance(condition, tuple):
        return _cubes_of(condition, lambda value: 0 if value else 1 if has_else else None, clbits)
    register, value = condition
    bits = [register] if register in clbits else list(register)
    listed = [clbits[bit] for bit in reversed(bits)]
    value = int(value)
    if value >= 1 << len(listed):
        # A register never reads a value that it cannot hold.
        return listed, [([], 0, 1)] if has_else else []
    cubes: list[_Cube] = [(listed, value, 0)]
    if has_else:
        # Everything else: equal up to some bit, different there.
        for k in range(1, len(listed) + 1):
            cubes.append((listed[:k], value >> (len(listed) - k) ^ 1, 1))
    return listed, cubes


def _cubes_of(
    target: Any, decide: Callable[[int], int | None], clbits: Mapping[Any, int]
) -> tuple[list[int], list[_Cube]]:
    """The cubes of an expression, a register or a bit, found by trying all readings."""
    bits = sorted({clbits[bit] for bit in _bits_of(target)})
    if len(bits) > _CONDITION_BITS:
        raise ValueError(
            f"a condition on {len(bits)} classical bits cannot be followed; expected at most "
            f"{_CONDITION_BITS}, or one register compared with one number"
        )
    decided = []
    for reading in range(1 << len(bits)):
        values = {bit: reading >> (len(bits) - 1 - i) & 1 for i, bit in enumerate(bits)}
        decided.append(decide(int(_value(target, values, clbits))))
    cubes: list[_Cube] = []

    def split(begin: int, depth: int) -> None:
        size = 1 << (len(bits) - depth)
        branches = set(decided[begin : begin + size])
        if len(branches) == 1:
            branch = branches.pop()
            if branch is not None:
                cubes.append((bits[:depth], begin // size, branch))
            return
        split(begin, depth + 1)
        split(begin + size // 2, depth + 1)

    split(0, 0)
    return bits, cubes


def _switch(operation: Any) -> Callable[[int], int | None]:
    from qiskit.circuit import CASE_DEFAULT

    branches: dict[int, int] = {}
    default = None
    for branch, (labels, _) in enumerate(operation.cases_specifier()):
        for label in labels:
            if label is CASE_DEFAULT:
                default = branch
            else:
                branches.setdefault(int(label), branch)
    return lambda value: branches.get(value, default)


def _bits_of(target: Any) -> Iterator[Any]:
    from qiskit.circuit import Clbit
    from qiskit.circuit.classical import expr

    if isinstance(target, expr.Expr):
        for variable in expr.iter_vars(target):
            if not isinstance(variable.var, Clbit) and not hasattr(variable.var, "size"):
                raise ValueError(f"the classical variable {variable.name!r} cannot be followed")
            yield from _bits_of(variable.var)
    elif isinstance(target, Clbit):
        yield target
    else:
        yield from target


def _value(node: Any, values: Mapping[int, int], clbits: Mapping[Any, int]) -> int:
    """A bit, register or expression, given what each classical bit reads."""
    from qiskit.circuit import Clbit
    from qiskit.circuit.classical import expr

    if isinstance(node, Clbit):
        return values[clbits[node]]
    if not isinstance(node, expr.Expr):
        return sum(values[clbits[bit]] << i for i, bit in enumerate(node))
    if isinstance(node, expr.Var):
        return _value(node.var, values, clbits)
    if isinstance(node, expr.Value):
        return int(node.value)
    width = getattr(node.type, "width", 1)
    if isinstance(node, expr.Cast):
        operand = _value(node.operand, values, clbits)
        return operand & (1 << width) - 1 if hasattr(node.type, "width") else int(operand != 0)
    if isinstance(node, expr.Unary):
        operand = _value(node.operand, values, clbits)
        return ~operand & (1 << width) - 1 if node.op.name == "BIT_NOT" else int(not operand)
    if isinstance(node, expr.Index):
        place = _value(node.index, values, clbits)
        return _value(node.target, values, clbits) >> place & 1
    if isinstance(node, expr.Binary) and node.op.name in _BINARY:
        left, right = (_value(side, values, clbits) for side in (node.left, node.right))
        return int(_BINARY[node.op.name](left, right)) & (1 << width) - 1
    raise ValueError(f"the classical expression {node!r} cannot be followed")


_BINARY: dict[str, Callable[[int, int], int]] = {
    "BIT_AND": int.__and__, "BIT_OR": int.__or__, "BIT_XOR": int.__xor__,
    "LOGIC_AND": lambda a, b: a and b, "LOGIC_OR": lambda a, b: a or b,
    "EQUAL": int.__eq__, "NOT_EQUAL": int.__ne__, "LESS": int.__lt__, "LESS_EQUAL": int.__le__,
    "GREATER": int.__gt__, "GREATER_EQUAL": int.__ge__,
    "SHIFT_LEFT": int.__lshift__, "SHIFT_RIGHT": int.__rshift__,
    "ADD": int.__add__, "SUB": int.__sub__, "MUL": int.__mul__,
}  # fmt: skip
