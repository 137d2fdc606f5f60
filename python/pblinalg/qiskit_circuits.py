"""Circuits of Qiskit as circuits of the library: its gates, its order of qubits and bits, its
parameters. Standard gates are told by what Qiskit says of them, others by their class, never by
their name; what has no counterpart is taken apart into its definition."""

from __future__ import annotations

import cmath
import math
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from functools import lru_cache, partial
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._core import GateList, Parameter, add_parameter
from .circuit import Circuit
from .program import Conditional, Step

#: Standard gates: the method of the gate under the controls, and how many of these there are.
STANDARD_GATES = {
    **{
        name: (name, 0)
        for name in (
            "x y z h s sdg t tdg sx sxdg p rx ry rz u swap iswap rxx ryy rzz rzx global_phase"
        ).split()
    },
    **{f"c{name}": (name, 1) for name in "x y z h s sdg sx p rx ry rz swap".split()},
    "u1": ("p", 0), "u3": ("u", 0), "cu1": ("p", 1), "cu3": ("u", 1), "ccx": ("x", 2),
    "ccz": ("z", 2), "c3sx": ("sx", 3),
}  # fmt: skip
#: Those of them that are a method with its controls, too.
_METHODS = "cx cy cz ch csx cp crx cry crz ccx cswap".split()
#: Gates on two qubits that are one matrix where their angles are numbers.
MATRIX_GATES = ("ecr", "xx_minus_yy", "xx_plus_yy")

#: A condition is looked at for all values of at most so many classical bits.
_CONDITION_BITS = 12
#: Matrices are made for at most so many qubits, and gates repeated at most so many times.
_MATRIX_QUBITS = 10
_REPETITIONS = 1 << 10
#: Rounds of a `while` loop that are followed, and of a `for` loop that may be left early.
ROUNDS = 200
_ROUNDS_WITH_BREAK = 64


def from_qiskit(circuit: Any) -> Circuit:
    """The circuit of a qiskit `QuantumCircuit`, its global phase included.

    Qubits and classical bits keep their numbers, classical registers their sizes. Gates without a
    method here are taken apart into their definitions. `if`/`else`, `switch` and `for` are
    followed where at most one branch measures into the classical bits that decide between them.
    Parameters without a value become those of the circuit, in order of first use. ValueError names
    what cannot be followed, such as `while` or an angle that is not linear in one parameter.
    """
    result = _empty_copy(circuit)
    _Lowering(result, None, None).circuit(circuit)
    return result


@dataclass(frozen=True)
class Translation:
    """A circuit that takes one value for each parameter of the qiskit circuit that it came from, in
    the order of that, and then the values of angles that are not linear in one parameter."""

    circuit: Circuit
    #: Such an angle, and its parameters with their places in the order.
    expressions: tuple[tuple[Any, dict[Any, int]], ...]
    #: A last classical bit, which reads 1 when a `while` loop was not over in time; else None.
    overrun: int | None

    def check(self, bits: Any) -> None:
        """ValueError when a `while` loop was not over in time; `bits` are those of one run, or
        those of several with the bit last."""
        if self.overrun is not None and np.any(np.asarray(bits)[..., self.overrun]):
            raise ValueError(f"a 'while_loop' was not over after {ROUNDS} rounds")

    def values(self, numbers: NDArray[np.float64]) -> NDArray[np.float64]:
        """The values of a run for one number for each parameter of the qiskit circuit."""
        if not self.expressions:
            return numbers
        more = [
            _real(expression.bind({p: numbers[place] for p, place in places.items()}))
            for expression, places in self.expressions
        ]
        return np.concatenate([numbers, more])


def translate(circuit: Any) -> Translation:
    """As `from_qiskit`, but with all parameters of the circuit in its own order, and with angles
    that are any function of them. `while` loops are followed for `ROUNDS` rounds."""
    result = _empty_copy(circuit, True)
    overrun = circuit.num_clbits if result.num_clbits > circuit.num_clbits else None
    places = {parameter: i for i, parameter in enumerate(circuit.parameters)}
    for parameter in places:
        add_parameter(result, Parameter(parameter.name))
    expressions: dict[Any, Parameter] = {}
    _Lowering(result, expressions, overrun).circuit(circuit)
    arguments = tuple((e, {p: places[p] for p in e.parameters}) for e in expressions)
    return Translation(result, arguments, overrun)


def _empty_copy(circuit: Any, tells_overrun: bool = False) -> Circuit:
    """A circuit of as many qubits and bits without gates; with a bit more where that is to tell of
    `while` loops."""
    try:
        from qiskit import QuantumCircuit
    except ImportError as error:
        raise ImportError("from_qiskit needs qiskit: pip install 'pblinalg[qiskit]'") from error
    if not isinstance(circuit, QuantumCircuit):
        raise TypeError(f"circuit must be a qiskit QuantumCircuit, got {circuit!r}")
    try:
        more = int(tells_overrun and _has_while(circuit))
        result = Circuit(circuit.num_qubits, circuit.num_clbits + more)
    except (ValueError, OverflowError) as error:
        sizes = ", ".join(f"{register.name}[{register.size}]" for register in circuit.qregs)
        raise ValueError(f"{circuit.num_qubits} qubits in {sizes}: {error}") from None
    if result.num_clbits:
        result.registers = _register_sizes(circuit) + [1] * more
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
def _standard_names() -> dict[type, str]:
    """Names of the standard gates by class."""
    from qiskit.circuit.library.standard_gates import get_standard_gate_name_mapping

    return {gate.base_class: name for name, gate in get_standard_gate_name_mapping().items()}


def _real(value: Any) -> float:
    try:
        return float(value)
    except (TypeError, ValueError, RuntimeError):
        raise ValueError(f"the angle {value} is no real number") from None


def _linear(value: Any) -> Parameter | None:
    """The expression as a parameter times a number plus a number, if it is that."""
    if len(value.parameters) > 1:
        return None
    (parameter,) = value.parameters
    try:
        slope = value.gradient(parameter)
        if getattr(slope, "parameters", ()):
            return None
        numbers = float(slope), float(value.bind({parameter: 0}))
    except Exception:  # whatever the algebra of expressions cannot do
        return None
    return Parameter(parameter.name, *numbers) if all(map(math.isfinite, numbers)) else None


class _Lowering:
    """Appends the instructions of a qiskit circuit to `target`. Angles that are not linear become
    parameters that `expressions` names, or are refused where that is None; likewise `while` loops,
    with the bit that tells of their overrun.

    `under` are controls of everything that is appended, as keywords of the gate methods; `follow`
    appends what comes behind a body unless the loop around it is left.
    """

    def __init__(
        self, target: Circuit, expressions: dict[Any, Parameter] | None, overrun: int | None
    ) -> None:
        self.target = target
        self._expressions = expressions
        self._overrun = overrun
        #: The classical bits that the innermost loop writes.
        self._loop_bits: set[int] = set()
        self._angles: dict[Any, Parameter] = {}
        # What most circuits consist of is appended without another look.
        names = {
            name: method for name, (method, controls) in STANDARD_GATES.items() if not controls
        }
        names.update({name: name for name in _METHODS})
        self._plain = {name: getattr(target, method) for name, method in names.items()}

    def circuit(self, circuit: Any) -> None:
        """Appends all instructions and the phase that they leave on the whole state."""
        qubits = {qubit: i for i, qubit in enumerate(circuit.qubits)}
        clbits = {clbit: i for i, clbit in enumerate(circuit.clbits)}
        self._body(circuit, qubits, clbits, {})

    def _body(
        self,
        body: Any,
        qubits: Mapping[Any, int],
        clbits: Mapping[Any, int],
        under: dict[str, Any],
        follow: Callable[[], None] | None = None,
        start: int = 0,
    ) -> None:
        place = start
        try:
            if not start:
                self._phase(body.global_phase, under)
            for place, instruction in enumerate(body.data[start:] if start else body.data, start):
                targets = [qubits[qubit] for qubit in instruction.qubits]
                if instruction.is_standard_gate() and not under:
                    plain = self._plain.get(instruction.name)
                    if plain:
                        plain(*[self._angle(angle) for angle in instruction.params], *targets)
                        continue
                operation = instruction.operation
                bits = [clbits[clbit] for clbit in instruction.clbits]
                if operation.name in _EXITS:
                    return
                if not instruction.is_control_flow():
                    self._operation(operation, targets, bits, under)
                elif operation.name == "while_loop":
                    self._while_loop(operation, targets, bits, clbits)
                elif operation.name == "for_loop":
                    self._for_loop(operation, targets, bits)
                elif operation.name == "box":
                    self._inner(operation.blocks[0], targets, bits, under)
                elif _exits(operation.blocks):
                    # What comes behind is part of the branches that do not leave the loop.
                    rest = partial(self._body, body, qubits, clbits, under, follow, place + 1)
                    self._branches(operation, targets, bits, clbits, rest)
                    return
                else:
                    self._branches(operation, targets, bits, clbits)
            if follow:
                follow()
        except ValueError as error:
            # What remains is the number of the instruction in the whole circuit.
            error.place = place  # type: ignore[attr-defined]
            raise

    def _inner(
        self,
        body: Any,
        qubits: list[int],
        clbits: list[int],
        under: dict[str, Any],
        follow: Callable[[], None] | None = None,
    ) -> None:
        places = dict(zip(body.qubits, qubits)), dict(zip(body.clbits, clbits))
        self._body(body, *places, under, follow)

    def _angle(self, value: Any) -> float | Parameter:
        """A number, or a parameter times a number plus a number."""
        if value.__class__ is float:
            return value
        if not getattr(value, "parameters", ()):
            return _real(value)
        angle = self._angles.get(value)
        if angle is None:
            angle = _linear(value)
            if angle is None:
                if self._expressions is None:
                    raise ValueError(
                        f"the angle {value} cannot be followed; expected one parameter, linear"
                    )
                angle = Parameter(f"value {len(self._expressions)}: {value}")
                self._expressions[value] = angle
                add_parameter(self.target, angle)
            self._angles[value] = angle
        return angle

    def _phase(self, phase: Any, under: dict[str, Any]) -> None:
        angle = self._angle(phase)
        if isinstance(angle, Parameter) or abs(cmath.exp(1j * angle) - 1) > 1e-15:
            self.target.global_phase(angle, **under)

    def _operation(
        self, operation: Any, qubits: list[int], clbits: list[int], under: dict[str, Any]
    ) -> None:
        kind = getattr(operation, "base_class", type(operation))
        name = kind.__name__
        if getattr(operation, "num_ctrl_qubits", 0) and self._controlled(operation, qubits, under):
            pass
        elif self._standard(_standard_names().get(kind), operation, qubits, under):
            pass
        elif name == "Measure":
            self.target.measure(qubits, clbits)
        elif name == "Reset":
            self.target.reset(qubits)
        elif name in ("Barrier", "Delay", "_U0Gate"):
            pass
        elif name == "UnitaryGate":
            # qiskit's first qubit is the least significant one of a matrix.
            self.target.unitary(operation.params[0], qubits[::-1], **under)
        elif name == "DiagonalGate":
            self.target.diagonal([complex(v) for v in operation.params], qubits[::-1], **under)
        elif name == "PermutationGate":
            self._permute([int(place) for place in operation.pattern], qubits, under)
        elif name == "PauliGate":
            for letter, qubit in zip(reversed(operation.params[0]), qubits):
                if letter != "I":
                    getattr(self.target, letter.lower())(qubit, **under)
        elif name == "PauliEvolutionGate" and self._evolve(operation, qubits, under):
            pass
        elif name in ("Initialize", "StatePreparation") and self._prepare(operation, qubits, under):
            pass
        elif name == "AnnotatedOperation":
            self._annotated(operation, qubits, under)
        elif getattr(operation, "definition", None) is not None:
            self._inner(operation.definition, qubits, clbits, under)
        elif hasattr(operation, "to_instruction"):
            self._operation(operation.to_instruction(), qubits, clbits, under)
        elif name == "Store":
            raise ValueError("'store' cannot be followed: there are no classical variables")
        else:
            raise ValueError(f"the gate {operation.name!r} is declared but has no definition")

    def _standard(
        self, name: str | None, operation: Any, qubits: list[int], under: dict[str, Any]
    ) -> bool:
        """Appends a standard gate; False where that takes its definition."""
        if name in STANDARD_GATES:
            method, controls = STANDARD_GATES[name]
            if controls:
                under = _joined(under, qubits[:controls], "1" * controls)
            angles = [self._angle(angle) for angle in operation.params]
            getattr(self.target, method)(*angles, *qubits[controls:], **under)
        elif name == "u2":
            phi, lam = map(self._angle, operation.params)
            self.target.u(math.pi / 2, phi, lam, qubits[0], **under)
        elif name == "r":
            theta, phi = map(self._angle, operation.params)
            self.target.u(theta, phi - math.pi / 2, math.pi / 2 - phi, qubits[0], **under)
        elif name == "dcx":
            self.target.x(qubits[1], **_joined(under, qubits[:1], "1"))
            self.target.x(qubits[0], **_joined(under, qubits[1:], "1"))
        elif name in MATRIX_GATES and not operation.is_parameterized():
            self.target.unitary(operation.to_matrix(), qubits[::-1], **under)
        else:
            return name == "id"
        return True

    def _controlled(self, operation: Any, qubits: list[int], under: dict[str, Any]) -> bool:
        """Appends the base of a controlled gate under its controls; False where the gate has more
        qubits than these."""
        count = operation.num_ctrl_qubits
        base = operation.base_gate
        if count + base.num_qubits != len(qubits):
            return False
        # qiskit's first control is the least significant bit of the state.
        state = format(operation.ctrl_state, f"0{count}b")[::-1]
        under = _joined(under, qubits[:count], state)
        self._operation(base, qubits[count:], [], under)
        if operation.base_class.__name__ == "CUGate":
            self._phase(operation.params[3], under)
        return True

    def _annotated(self, operation: Any, qubits: list[int], under: dict[str, Any]) -> None:
        """Appends an operation with modifiers. Controls commute with inverses and powers, integer
        powers with each other, but a root of a power is something else."""
        base = operation.base_op
        powers: list[float] = []
        rest: list[Any] = []
        for modifier in reversed(operation.modifiers):
            if hasattr(modifier, "num_ctrl_qubits"):
                count = modifier.num_ctrl_qubits
                state = format(modifier.ctrl_state, f"0{count}b")[::-1]
                under, qubits = _joined(under, qubits[:count], state), qubits[count:]
            else:
                powers.append(getattr(modifier, "power", -1))
                rest.insert(0, modifier)
        power = math.prod(powers)
        if all(p == int(p) for p in powers) and abs(power) <= _REPETITIONS:
            if power < 0:
                base = (base if hasattr(base, "inverse") else base.to_instruction()).inverse()
            for _ in range(abs(int(power))):
                self._operation(base, qubits, [], under)
        elif len(qubits) <= _MATRIX_QUBITS:
            from qiskit.quantum_info import Operator

            matrix = Operator(type(operation)(base, rest)).data
            self.target.unitary(matrix, qubits[::-1], **under)
        else:
            raise ValueError(
                f"powers {powers} of {base.name!r} cannot be followed on {len(qubits)} qubits; "
                f"expected at most {_MATRIX_QUBITS}, or integers up to {_REPETITIONS}"
            )

    def _permute(self, pattern: list[int], qubits: list[int], under: dict[str, Any]) -> None:
        """What is at place `pattern[k]` comes to place k."""
        held = list(range(len(pattern)))
        for place, wanted in enumerate(pattern):
            other = held.index(wanted)
            if other != place:
                self.target.swap(qubits[place], qubits[other], **under)
                held[place], held[other] = held[other], held[place]

    # ---- Evolutions and loaded states ------------------------------------------------------------

    def _evolve(self, operation: Any, qubits: list[int], under: dict[str, Any]) -> bool:
        """Appends an evolution by a product formula as Pauli rotations; False for others."""
        from qiskit.synthesis import ProductFormula

        synthesis = operation.synthesis
        try:
            # A formula with rotations of its own has no settings that could be written down.
            if not isinstance(synthesis, ProductFormula) or not synthesis.settings:
                return False
        except NotImplementedError:
            return False
        for letters, places, angle in synthesis.expand(operation):
            self._rotate(letters, [qubits[place] for place in places], self._angle(angle), under)
        return True

    def _rotate(
        self, letters: str, qubits: list[int], angle: float | Parameter, under: dict[str, Any]
    ) -> None:
        """exp(-i angle P / 2) for a Pauli string without I, letter k on qubit k."""
        target = self.target
        if letters in ("XZ", "ZX"):
            first, second = qubits if letters == "ZX" else qubits[::-1]
            target.rzx(angle, first, second, **under)
        elif letters in ("X", "Y", "Z", "XX", "YY", "ZZ"):
            getattr(target, f"r{letters.lower()}")(angle, *qubits, **under)
        elif letters:
            # In the bases of the letters: a rotation about Z by the parity of the qubits.
            turned = [(q, letter) for q, letter in zip(qubits, letters) if letter != "Z"]
            for qubit, letter in turned:
                target.h(qubit) if letter == "X" else target.rx(math.pi / 2, qubit)
            for qubit in qubits[:-1]:
                target.cx(qubit, qubits[-1])
            target.rz(angle, qubits[-1], **under)
            for qubit in reversed(qubits[:-1]):
                target.cx(qubit, qubits[-1])
            for qubit, letter in turned:
                target.h(qubit) if letter == "X" else target.rx(-math.pi / 2, qubit)
        else:
            self._phase(-0.5 * angle, under)

    def _prepare(self, operation: Any, qubits: list[int], under: dict[str, Any]) -> bool:
        """Loads amplitudes on qubits that are |0>; False where they may be something else, or
        where the state is not given by its amplitudes.

        From the last qubit down to the first, each gets its share of the weight for every value of
        those before it: a rotation about Y by an angle that depends on them, which is a diagonal
        matrix in the basis of Y. Another diagonal matrix brings the phases.
        """
        fresh = operation.name == "initialize"
        if under or operation.name not in ("initialize", "state_preparation"):
            return False
        if len(operation.params) != 1 << len(qubits) or isinstance(operation.params[0], str):
            return False
        if fresh:
            self.target.reset(qubits)
        elif _touched(self.target.steps) & sum(1 << qubit for qubit in qubits):
            return False
        amplitudes = np.array(operation.params, dtype=np.complex128)
        for place in reversed(range(len(qubits))):
            weights = (np.abs(amplitudes.reshape(-1, 1 << place)) ** 2).sum(axis=1)
            half = np.arctan2(np.sqrt(weights[1::2]), np.sqrt(weights[::2]))
            turns = np.exp(1j * np.stack([-half, half], axis=1)).reshape(-1)
            self.target.rx(math.pi / 2, qubits[place])
            self.target.diagonal(turns, qubits[place:][::-1])
            self.target.rx(-math.pi / 2, qubits[place])
        phases = np.exp(1j * np.angle(amplitudes))
        if np.any(phases != 1):
            self.target.diagonal(phases, qubits[::-1])
        return True

    # ---- Loops and branches ----------------------------------------------------------------------

    def _for_loop(self, operation: Any, qubits: list[int], clbits: list[int]) -> None:
        values, parameter, body = operation.params
        values, exits, outer = list(values), _exits([body]), self._loop_bits
        self._loop_bits = {clbits[place] for place in _written(body)}

        def round_of(number: int, follow: Callable[[], None] | None) -> None:
            bound = body
            if parameter is not None and parameter in body.parameters:
                bound = body.assign_parameters({parameter: values[number]})
            self._inner(bound, qubits, clbits, {}, follow)

        def rounds_from(number: int) -> None:
            if number < len(values):
                round_of(number, partial(rounds_from, number + 1))

        if "break_loop" not in exits:
            for number in range(len(values)):
                round_of(number, None)
        elif "continue_loop" in exits or len(values) > _ROUNDS_WITH_BREAK:
            raise ValueError(
                "'break_loop' cannot be followed here; expected a loop of at most "
                f"{_ROUNDS_WITH_BREAK} rounds without 'continue_loop'"
            )
        else:
            rounds_from(0)
        self._loop_bits = outer

    def _while_loop(
        self, operation: Any, qubits: list[int], bits: list[int], clbits: Mapping[Any, int]
    ) -> None:
        if self._overrun is None:
            raise ValueError("'while_loop' cannot be followed; its end is known only while it runs")
        body, outer = operation.blocks[0], self._loop_bits
        if _has_while(body):
            raise ValueError("a 'while_loop' inside another cannot be followed")
        _, cubes = _cubes_of_if(operation.condition, clbits)
        going_on = [(listed, value) for listed, value, branch in cubes if branch == 0]
        if len(going_on) != 1 or "break_loop" in _exits([body]):
            raise ValueError(
                "this 'while_loop' cannot be followed; expected one bit or register compared with "
                "one number, and no 'break_loop'"
            )
        self._loop_bits = {bits[place] for place in _written(body)}
        with ExitStack() as rounds:
            for _ in range(ROUNDS):
                rounds.enter_context(self.target.if_(*going_on[0]))
                self._inner(body, qubits, bits, {})
            rounds.enter_context(self.target.if_(*going_on[0]))
            # A shot that comes here is lost, and so may its state be.
            self.target.reset(0).x(0).measure(0, self._overrun)
        self._loop_bits = outer

    def _branches(
        self,
        operation: Any,
        qubits: list[int],
        bits: list[int],
        clbits: Mapping[Any, int],
        follow: Callable[[], None] | None = None,
    ) -> None:
        """One conditional per set of readings that lead to the same branch, `follow` in each of
        those that do not leave the loop."""
        if hasattr(operation, "cases_specifier"):
            listed, cubes = _cubes_of(operation.target, _switch(operation), clbits)
        else:
            listed, cubes = _cubes_of_if(operation.condition, clbits)
        blocks = dict(enumerate(block for block in operation.blocks if block is not None))
        chosen, ways_on = [], 0
        for places, value, branch in cubes:
            block = blocks.get(branch)
            if block is None and follow is None:
                continue
            written = set() if block is None else {bits[place] for place in _written(block)}
            left = block is not None and block.data and block.data[-1].operation.name in _EXITS
            if follow is not None and not left:
                ways_on += 1
                written |= self._loop_bits
            # The first conditions must leave alone what later ones look at.
            chosen.append((bool(written & set(listed)), places, value, block))
        if sum(writes for writes, *_ in chosen) > 1:
            raise ValueError(
                f"{operation.name!r} cannot be followed: more than one branch measures into a "
                "classical bit that decides between the branches"
            )
        if ways_on > 1:
            # Each of them would hold the rest of the loop, and so on in every round.
            raise ValueError(
                f"{operation.name!r} cannot be followed: there is more than one way past its exit "
                "from the loop; expected a condition on one bit"
            )
        for _, places, value, block in sorted(chosen, key=lambda choice: choice[0]):
            with self.target.if_(places, value):
                if block is not None:
                    self._inner(block, qubits, bits, {}, follow)
                elif follow is not None:
                    follow()


def _joined(under: dict[str, Any], controls: Sequence[int], state: str) -> dict[str, Any]:
    """Controls and, in the same order, what they must read, in addition to those there are."""
    return {
        "controls": [*under.get("controls", ()), *controls],
        "ctrl_state": under.get("ctrl_state", "") + state,
    }


def _touched(steps: Sequence[Step]) -> int:
    """The qubits that the steps act on, as a mask."""
    mask = 0
    for step in steps:
        if isinstance(step, GateList):
            mask |= step.qubits
        elif isinstance(step, Conditional):
            mask |= _touched(step.steps)
        else:
            mask |= 1 << step.qubit
    return mask


def _has_while(circuit: Any) -> bool:
    return any(
        instruction.name == "while_loop" or any(map(_has_while, instruction.operation.blocks))
        for instruction in circuit.data
        if instruction.is_control_flow()
    )


#: Instructions that leave a round of a loop.
_EXITS = ("break_loop", "continue_loop")


def _exits(blocks: Sequence[Any]) -> set[str]:
    """Those instructions that leave the loop that the blocks are in."""
    found = set()
    for block in blocks:
        for instruction in block.data if block is not None else ():
            if instruction.name in _EXITS:
                found.add(instruction.name)
            elif instruction.name not in ("for_loop", "while_loop"):
                found |= _exits(getattr(instruction.operation, "blocks", ()))
    return found


#: Classical bits (first one most significant), what they read, and the branch that this chooses.
_Cube = tuple[list[int], int, Any]


def _written(block: Any) -> Iterator[int]:
    """Places among the classical bits of a block that its measurements write."""
    places = {clbit: i for i, clbit in enumerate(block.clbits)}
    for instruction in block.data:
        blocks = getattr(instruction.operation, "blocks", None)
        for inner in blocks or ():
            for place in _written(inner):
                yield places[instruction.clbits[place]]
        # An exit from a loop names all bits of that.
        if blocks is None and instruction.name not in _EXITS:
            yield from (places[clbit] for clbit in instruction.clbits)


def _cubes_of_if(condition: Any, clbits: Mapping[Any, int]) -> tuple[list[int], list[_Cube]]:
    """The cubes where a condition holds, branch 0, and where it does not, branch 1."""
    if not isinstance(condition, tuple):
        return _cubes_of(condition, lambda value: 0 if value else 1, clbits)
    register, value = condition
    bits = [register] if register in clbits else list(register)
    listed = [clbits[bit] for bit in reversed(bits)]
    value = int(value)
    if value >= 1 << len(listed):
        # A register never reads a value that it cannot hold.
        return listed, [([], 0, 1)]
    cubes: list[_Cube] = [(listed, value, 0)]
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
            cubes.append((bits[:depth], begin // size, branches.pop()))
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
