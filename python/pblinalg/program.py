"""Programs: gates in order, with measurements, resets and conditions between them.

Here they are recorded, joined, inverted and counted; running them is left to `running` and to the
states.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, Generic, SupportsIndex, TypeVar, Union

import numpy as np
from numpy.typing import NDArray

from . import _core
from ._core import GateList, Parameter
from .arguments import MAX_QUBITS, Qubits, count, index
from .gate_names import listed_gates
from .gates import Gate, GateMethods, as_qubits
from .parameters import Values, values_in_order

if TYPE_CHECKING:
    from typing_extensions import Self


@dataclass(frozen=True)
class Measure:
    """Reads a qubit into a classical bit; the state collapses."""

    qubit: int
    clbit: int


@dataclass(frozen=True)
class Reset:
    """Returns a qubit to |0>: measures it and flips it when it was 1."""

    qubit: int


@dataclass(frozen=True)
class Conditional:
    """Steps that run when the classical bits, the first one most significant, read `value`."""

    clbits: tuple[int, ...]
    value: int
    steps: list[Step] = field(default_factory=list)


#: What a run goes through.
Step = Union[GateList, Measure, Reset, Conditional]

P = TypeVar("P", bound="Program")

#: The largest number of classical bits.
MAX_CLBITS = 1 << 20


class Block(Generic[P]):
    """The `with` block of a condition."""

    def __init__(self, program: P, condition: Conditional) -> None:
        self._program = program
        self._condition = condition
        self._outer: list[Step] = []

    def __enter__(self) -> P:
        self._outer = self._program._open_block(self._condition)
        return self._program

    def __exit__(self, *_: object) -> None:
        self._program._close_block(self._outer)

    def __getattr__(self, name: str) -> Any:
        raise AttributeError(
            f"if_ opens a block of steps: write `with circuit.if_(...): circuit.{name}(...)`"
        )


class Program(GateMethods):
    """The steps of a circuit on `num_qubits` qubits and `num_clbits` classical bits."""

    __slots__ = ("_num_qubits", "_num_clbits", "_registers", "_steps", "_open")

    def __init__(self, num_qubits: SupportsIndex, num_clbits: SupportsIndex | None = None) -> None:
        super().__init__()
        self._num_qubits = count(num_qubits, "num_qubits", 0, MAX_QUBITS)
        self._num_clbits = count(
            self._num_qubits if num_clbits is None else num_clbits, "num_clbits", 0, MAX_CLBITS
        )
        self._registers: tuple[int, ...] = (self._num_clbits,)
        self._steps: list[Step] = []
        self._open_steps(self._steps)

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return self._num_qubits

    @property
    def num_clbits(self) -> int:
        """The number of classical bits that measurements write; by default one per qubit."""
        return self._num_clbits

    @property
    def registers(self) -> tuple[int, ...]:
        """Sizes of the classical registers; keys of counts show them with a space between."""
        return self._registers

    @registers.setter
    def registers(self, sizes: Sequence[int]) -> None:
        numbers = tuple(count(size, "registers") for size in sizes)
        if sum(numbers) != self._num_clbits:
            raise ValueError(
                f"registers = {numbers}: expected sizes that add up to {self._num_clbits}"
            )
        self._registers = numbers

    @property
    def steps(self) -> tuple[Step, ...]:
        """What a run goes through: gate lists, `Measure`, `Reset` and `Conditional`."""
        return tuple(self._steps)

    @property
    def is_unitary(self) -> bool:
        """True when the circuit holds gates only."""
        return all(isinstance(step, GateList) for step in self._steps)

    @property
    def parameters(self) -> tuple[Parameter, ...]:
        """The parameters in the order of the values of a run: that of their first use. `copy`,
        `inverse` and `compose` keep it."""
        return _core.parameters_of(self)

    def _open_steps(self, steps: list[Step]) -> None:
        """Gates and other steps go to the end of `steps` from now on."""
        self._open = steps
        _core.record_into(self, steps, self._num_qubits)

    def measure(self, qubit: Qubits, clbit: Qubits | None = None) -> Self:
        """Reads a qubit into a classical bit, by default the one of the same number. With two
        lists, reads each qubit into the bit at the same place."""
        qubits = as_qubits(qubit)
        clbits = qubits if clbit is None else as_qubits(clbit)
        if len(qubits) != len(clbits):
            raise ValueError(
                f"{len(qubits)} qubits and {len(clbits)} clbits; expected equally many"
            )
        steps = [
            Measure(
                index(q, "qubit", self._num_qubits - 1), index(c, "clbit", self._num_clbits - 1)
            )
            for q, c in zip(qubits, clbits)
        ]
        self._open.extend(steps)
        return self

    def measure_all(self) -> Self:
        """Reads every qubit into the classical bit of the same number."""
        return self.measure(range(self._num_qubits))

    def reset(self, qubit: Qubits) -> Self:
        """Returns qubits to |0>."""
        self._open.extend(
            [Reset(index(q, "qubit", self._num_qubits - 1)) for q in as_qubits(qubit)]
        )
        return self

    def if_(self, clbits: Qubits, value: SupportsIndex = 1) -> Block[Self]:
        """Makes the steps of a `with` block depend on classical bits, the first listed one most
        significant: `with circuit.if_(0): circuit.x(1)`."""
        bits = tuple(index(c, "clbits", self._num_clbits - 1) for c in as_qubits(clbits))
        return Block(self, Conditional(bits, index(value, "value", (1 << len(bits)) - 1)))

    def _open_block(self, condition: Conditional) -> list[Step]:
        """Appends a condition that takes the following steps; returns what `_close_block` wants."""
        outer = self._open
        outer.append(condition)
        self._open_steps(condition.steps)
        return outer

    def _close_block(self, outer: list[Step]) -> None:
        """Ends the block that `_open_block` began."""
        self._open_steps(outer)

    def compose(self, other: Program) -> Self:
        """Appends all steps of another circuit of at most as many qubits and classical bits.
        Parameters of the same name become one."""
        if not isinstance(other, Program):
            raise TypeError(f"other must be a Circuit, got {other!r}")
        if other._num_qubits > self._num_qubits or other._num_clbits > self._num_clbits:
            raise ValueError(
                f"other has {other._num_qubits} qubits and {other._num_clbits} classical bits; "
                f"expected at most {self._num_qubits} and {self._num_clbits}"
            )
        # A program that joins itself inside a block must not see the block grow.
        source = other.copy() if other is self else other
        self._add_parameters(source.parameters)
        self._append_steps(source.steps)
        return self

    def _append_steps(self, steps: Sequence[Step]) -> None:
        for step in steps:
            if isinstance(step, GateList):
                _core.take_gates(self, step)
            elif isinstance(step, Conditional):
                with self.if_(step.clbits, step.value):
                    self._append_steps(step.steps)
            else:
                self._open.append(step)

    def _add_parameters(self, parameters: Sequence[Parameter]) -> None:
        for parameter in parameters:
            _core.add_parameter(self, parameter)

    def bind(self, values: Values) -> Self:
        """The circuit with numbers in place of its parameters: `values` in the order of
        `parameters`, or by parameter or name."""
        numbers = values_in_order(self, values)
        result = type(self)(self._num_qubits, self._num_clbits)
        result._registers = self._registers
        result._append_steps(_bound(self._steps, numbers))
        return result

    def copy(self) -> Self:
        """A circuit of its own with the same steps."""
        result = type(self)(self._num_qubits, self._num_clbits)
        result._registers = self._registers
        return result.compose(self)

    def inverse(self) -> Self:
        """The circuit that undoes this one. ValueError when it measures or resets."""
        if not self.is_unitary:
            raise ValueError("a circuit with measurements, resets or conditions has no inverse")
        result = type(self)(self._num_qubits, self._num_clbits)
        result._add_parameters(self.parameters)
        for step in reversed(self._steps):
            if isinstance(step, GateList):
                _core.take_gates(result, step.inverse())
        return result

    def __copy__(self) -> Self:
        return self.copy()

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        result = self.copy()
        memo[id(self)] = result
        return result

    def __getstate__(self) -> dict[str, Any]:
        return {
            "sizes": (self._num_qubits, self._num_clbits),
            "registers": self._registers,
            "parameters": self.parameters,
            "steps": self._steps,
        }

    def __setstate__(self, state: dict[str, Any]) -> None:
        Program.__init__(self, *state["sizes"])
        self._registers = state["registers"]
        self._add_parameters(state["parameters"])
        self._append_steps(state["steps"])

    def __iter__(self) -> Iterator[Gate]:
        """The gates in order, those of conditions included, as tuples of `name` (the library's),
        `targets`, `controls`, `ctrl_state`, `angles` and `values`. Measurements, resets and
        conditions themselves are in `steps` only."""
        return _gates_of(self._steps)

    def __len__(self) -> int:
        """The number of gates, those of conditions included."""
        return count_gates(self._steps)

    def __bool__(self) -> bool:
        """True when there is any step, be it no gate."""
        return bool(self._steps)

    def __eq__(self, other: object) -> bool:
        """True for circuits of the same size with equal steps, registers and parameters."""
        if not isinstance(other, Program):
            return NotImplemented
        return (
            self._num_qubits == other._num_qubits
            and self._registers == other._registers
            and self.parameters == other.parameters
            and self._steps == other._steps
        )

    def __repr__(self) -> str:
        parameters = f", parameters={len(self.parameters)}" if self.parameters else ""
        return (
            f"{type(self).__name__}(num_qubits={self._num_qubits}, gates={len(self)}{parameters})"
        )


def _gates_of(steps: Sequence[Step]) -> Iterator[Gate]:
    for step in steps:
        if isinstance(step, GateList):
            yield from listed_gates(step)
        elif isinstance(step, Conditional):
            yield from _gates_of(step.steps)


def count_gates(steps: Sequence[Step]) -> int:
    """The number of gates in the steps, those of conditions included."""
    return sum(
        (
            len(step)
            if isinstance(step, GateList)
            else count_gates(step.steps) if isinstance(step, Conditional) else 0
        )
        for step in steps
    )


def _bound(steps: Sequence[Step], numbers: NDArray[np.float64]) -> list[Step]:
    """The steps with numbers in place of parameters."""
    result: list[Step] = []
    for step in steps:
        if isinstance(step, GateList):
            result.append(step.bind(numbers))
        elif isinstance(step, Conditional):
            result.append(Conditional(step.clbits, step.value, _bound(step.steps, numbers)))
        else:
            result.append(step)
    return result
