"""Programs: gates in order, with measurements, resets and conditions between them.

Here they are recorded, joined, inverted and counted; running them is left to `running` and to the
states.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import TYPE_CHECKING

from ._core import GateSequence
from .gates import apply_gate, as_qubits, inverse

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
    steps: list = field(default_factory=list)


class Program:
    """The steps of a circuit on `num_qubits` qubits and `num_clbits` classical bits."""

    __slots__ = ("_num_qubits", "_num_clbits", "_registers", "_steps", "_open")

    def __init__(self, num_qubits: int, num_clbits: int | None = None) -> None:
        self._num_qubits = GateSequence(num_qubits).nqubits
        self._num_clbits = _index(
            self._num_qubits if num_clbits is None else num_clbits, "num_clbits", 1 << 20
        )
        self._registers: tuple[int, ...] = (self._num_clbits,)
        self._steps: list = []
        self._open = self._steps

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
        if sum(sizes) != self._num_clbits or any(size < 0 for size in sizes):
            raise ValueError(
                f"registers = {tuple(sizes)}: expected sizes that add up to {self._num_clbits}"
            )
        self._registers = tuple(sizes)

    @property
    def steps(self) -> tuple:
        """What a run goes through: gate sequences, `Measure`, `Reset` and `Conditional`."""
        return tuple(self._steps)

    @property
    def is_unitary(self) -> bool:
        """True when the circuit holds gates only."""
        return all(isinstance(step, GateSequence) for step in self._steps)

    @property
    def _gates(self) -> GateSequence:
        if not self._open or not isinstance(self._open[-1], GateSequence):
            self._open.append(GateSequence(self._num_qubits))
        return self._open[-1]

    def measure(self, qubit: int | Sequence[int], clbit: int | Sequence[int] | None = None) -> Self:
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
                _index(q, "qubit", self._num_qubits - 1), _index(c, "clbit", self._num_clbits - 1)
            )
            for q, c in zip(qubits, clbits)
        ]
        self._open.extend(steps)
        return self

    def measure_all(self) -> Self:
        """Reads every qubit into the classical bit of the same number."""
        return self.measure(range(self._num_qubits))

    def reset(self, qubit: int | Sequence[int]) -> Self:
        """Returns qubits to |0>."""
        self._open.extend(
            [Reset(_index(q, "qubit", self._num_qubits - 1)) for q in as_qubits(qubit)]
        )
        return self

    @contextmanager
    def if_(self, clbits: int | Sequence[int], value: int = 1) -> Iterator[Self]:
        """Makes the steps of a `with` block depend on classical bits, the first listed one most
        significant: `with circuit.if_(0): circuit.x(1)`."""
        bits = tuple(_index(c, "clbit", self._num_clbits - 1) for c in as_qubits(clbits))
        block = Conditional(bits, _index(value, "value", (1 << len(bits)) - 1))
        outer = self._open
        outer.append(block)
        self._open = block.steps
        try:
            yield self
        finally:
            self._open = outer

    def compose(self, other: Program) -> Self:
        """Appends all steps of another circuit of at most as many qubits and classical bits."""
        if not isinstance(other, Program):
            raise TypeError(f"other must be a Circuit, got {other!r}")
        if other._num_qubits > self._num_qubits or other._num_clbits > self._num_clbits:
            raise ValueError(
                f"other has {other._num_qubits} qubits and {other._num_clbits} classical bits; "
                f"expected at most {self._num_qubits} and {self._num_clbits}"
            )
        self._append_steps(other.steps)
        return self

    def _append_steps(self, steps: Sequence) -> None:
        for step in steps:
            if isinstance(step, GateSequence):
                if self._num_qubits == step.nqubits or not _has_oracle(step):
                    self._gates.extend(step)
                else:
                    raise ValueError("a circuit with a phase oracle joins only one of its own size")
            elif isinstance(step, Conditional):
                with self.if_(step.clbits, step.value):
                    self._append_steps(step.steps)
            else:
                self._open.append(step)

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
        for gate in reversed(list(self)):
            apply_gate(result._gates, *inverse(*gate))
        return result

    def __iter__(self) -> Iterator[tuple]:
        """The gates in order, those of conditions included, as (name, qubits, controls, value)."""
        return _gates_of(self._steps)

    def __len__(self) -> int:
        """The number of gates, those of conditions included."""
        return count_gates(self._steps)

    def __repr__(self) -> str:
        return f"{type(self).__name__}(num_qubits={self._num_qubits}, gates={len(self)})"


def _index(value: int, name: str, last: int) -> int:
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} must be an integer, got {value!r}")
    number = value.__index__()
    if not 0 <= number <= last:
        raise IndexError(f"{name} = {number}: expected a value between 0 and {last}")
    return number


def _gates_of(steps: Sequence) -> Iterator[tuple]:
    for step in steps:
        if isinstance(step, GateSequence):
            for i in range(len(step)):
                yield step.gate(i)
        elif isinstance(step, Conditional):
            yield from _gates_of(step.steps)


def count_gates(steps: Sequence) -> int:
    """The number of gates in the steps, those of conditions included."""
    return sum(
        (
            len(step)
            if isinstance(step, GateSequence)
            else count_gates(step.steps) if isinstance(step, Conditional) else 0
        )
        for step in steps
    )


def _has_oracle(sequence: GateSequence) -> bool:
    return any(sequence.gate(i)[0] == "phase_oracle" for i in range(len(sequence)))
