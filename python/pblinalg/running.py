"""Running circuits for counts: what all shots share is simulated once."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from itertools import accumulate, islice
from typing import Any, SupportsIndex

import numpy as np
from numpy.typing import NDArray

from ._core import GateList, require_memory
from .arguments import Accuracy, Precision, accuracy_name, count
from .counts import Counts
from .execution import shifted
from .parameters import Values, values_in_order
from .program import Conditional, Measure, Program, Reset, Step, count_gates
from .progress import Progress, reporter
from .readout import NORM_TOLERANCE, register_bytes
from .state_vector import StateVector

#: An outcome is certain when the other one has at most this probability: it would not be seen once
#: in 2^32 or 2^64 shots, and is what rounding leaves of an amplitude that should be 0.
NEGLIGIBLE = {"float": 2.0**-32, "double": 2.0**-64}


def run(
    circuit: Program,
    shots: SupportsIndex = 1024,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    seed: SupportsIndex | None = None,
    progress: Progress = None,
    values: Values | None = None,
    accuracy: Accuracy = "exact",
) -> Counts:
    """Runs a circuit from |0...0> and counts what its measurements read. `values` are those of its
    parameters, in order or by parameter or name. `accuracy="rounding"` takes less time and gives
    amplitudes that agree with those of "exact" up to rounding: within 1e-12, in float 2e-5, after
    a thousand gates.

    A circuit without measurements is read out over all qubits at its end. Where nothing acts on a
    qubit after it was measured, and where the outcome of a measurement or reset is certain, the
    circuit is simulated once and sampled; otherwise what comes before the first measurement or reset
    that may go both ways is simulated once and the rest once per shot. An outcome is certain when
    the other one has a probability of at most 2^-64 (in float 2^-32).

    The same seed gives the same counts for every number of threads; but where a circuit is simulated
    once per shot, 1 thread may round a collapse differently from more, and a shot on the brink may
    fall the other way. `seed` of the result tells the seed. Simulating once per shot takes the memory of a second state. `progress` is told the gates of
    what the shots share, then the shots.

    Ctrl-C stops between pieces of the circuit or between shots; nothing is left behind.
    """
    if not isinstance(circuit, Program):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    number = count(shots, "shots")
    numbers = values_in_order(circuit, values)
    accuracy_name(accuracy)
    steps: Sequence[Step] = circuit.steps
    num_bits, registers = circuit.num_clbits, circuit.registers
    if not _measures(steps):
        num_bits = circuit.num_qubits
        registers = (num_bits,)
        steps = [*steps, *(Measure(qubit, qubit) for qubit in range(num_bits))]
    plan = _plan(steps, circuit.num_qubits)
    if number > 1 and _may_branch(plan):
        require_memory(
            2 * register_bytes(circuit.num_qubits, precision),
            f"running {circuit.num_qubits} qubits once per shot",
        )
    state = StateVector(circuit.num_qubits, precision, threads, seed)
    shared = _Shot(state, numbers, [0] * num_bits, {}, accuracy)
    with reporter(progress, count_gates(steps), "gate") as report:
        shared.report = report
        rest = shared.follow([plan], draw=False)
    if not rest:
        counts = shared.sample(number, registers, progress)
    else:
        counts = {}
        start = state.amplitudes.copy() if number > 1 else state.amplitudes
        with reporter(progress, number, "shot") as report:
            for shot in range(number):
                if shot:
                    state.amplitudes[:] = start
                own = _Shot(state, numbers, list(shared.bits), dict(shared.deferred), accuracy)
                own.follow(rest, draw=True)
                key = own.draw(registers)
                counts[key] = counts.get(key, 0) + 1
                if report:
                    report(shot + 1)
    result = Counts(counts)
    result.seed = state.seed
    return result


@dataclass
class _Node:
    """A step and what is known of it before the run."""

    step: Step
    #: A measurement after which nothing acts on the qubit and nothing reads the bit.
    final: bool = False
    #: A measurement or reset of a qubit that nothing acted on since it was |0>.
    fresh: bool = False
    #: The steps of a condition.
    block: Sequence[_Node] = ()


class _Shot:
    """A run of a plan on a state: the bits read so far, and the final measurements, which are
    sampled together at the end, as qubits by classical bit."""

    def __init__(
        self,
        state: StateVector,
        values: NDArray[np.float64],
        bits: list[int],
        deferred: dict[int, int],
        accuracy: Accuracy,
    ) -> None:
        self._state = state
        self._values = values
        self._core: Any = state.core
        self._negligible = NEGLIGIBLE[state.precision]
        self.bits = bits
        self.deferred = deferred
        self._accuracy = accuracy
        self.report: Callable[[int], object] | None = None
        self._done = 0

    def follow(self, segments: Sequence[Sequence[_Node]], draw: bool) -> list[Sequence[_Node]]:
        """Runs stretches of nodes one after the other. Where an outcome is open it is drawn, or,
        without `draw`, the run stops there; returns the stretches that are left."""
        waiting = list(reversed(segments))
        while waiting:
            nodes = waiting.pop()
            for place, node in enumerate(nodes):
                step = node.step
                if isinstance(step, GateList):
                    self._apply(step)
                elif isinstance(step, Conditional):
                    read = "".join(str(self.bits[clbit]) for clbit in step.clbits)
                    if int(read or "0", 2) == step.value:
                        waiting += [nodes[place + 1 :], node.block]
                        break
                elif node.final and isinstance(step, Measure) and not node.fresh:
                    self.deferred[step.clbit] = step.qubit
                elif not self._collapse(node, draw):
                    return [nodes[place:], *reversed(waiting)]
        return []

    def sample(self, shots: int, registers: Sequence[int], progress: Progress) -> dict[str, int]:
        """How often the classical bits read what; registers are separated by spaces."""
        measured = sorted(set(self.deferred.values()))
        width = len(measured)
        outcomes = self._state.sample_outcomes(shots, measured, progress=progress)
        # Where the characters of a key come from: the outcome, or what is put behind it.
        places = []
        clbits = iter(range(len(self.bits)))
        for number, size in enumerate(registers):
            places += [width + 2] * (number > 0)
            for clbit in islice(clbits, size):
                qubit = self.deferred.get(clbit)
                places.append(width + self.bits[clbit] if qubit is None else measured.index(qubit))
        counts: dict[str, int] = {}
        for text, times in Counts.from_outcomes(outcomes, width).items():
            text += "01 "
            key = "".join([text[place] for place in places])
            counts[key] = counts.get(key, 0) + times
        return counts

    def draw(self, registers: Sequence[int]) -> str:
        """What the classical bits read in one shot."""
        if self.deferred:
            measured = sorted(set(self.deferred.values()))
            outcome = self._core.measure(measured)
            last = len(measured) - 1
            for clbit, qubit in self.deferred.items():
                self.bits[clbit] = outcome >> last - measured.index(qubit) & 1
        text = "".join(map(str, self.bits))
        ends = list(accumulate(registers))
        return " ".join([text[end - size : end] for size, end in zip(registers, ends)])

    def _apply(self, gates: GateList) -> None:
        gates.run(
            self._core, self._values, shifted(self.report, self._done), accuracy=self._accuracy
        )
        self._done += len(gates)

    def _collapse(self, node: _Node, draw: bool) -> bool:
        """Measures or resets a qubit; False, and nothing done, when the outcome is open and is not
        to be drawn."""
        step = node.step
        assert isinstance(step, (Measure, Reset))
        outcome = 0
        if not node.fresh:
            zero, one = self._core.get_distribution([step.qubit]).tolist()
            if not abs(zero + one - 1) <= NORM_TOLERANCE:
                raise ValueError(
                    f"the probabilities of the state add up to {zero + one:.6g} before {step!r}; "
                    "expected 1"
                )
            least = min(zero, one)
            if least > self._negligible:
                if not draw:
                    return False
                outcome = self._core.measure([step.qubit])
            else:
                outcome = int(one > zero)
            if isinstance(step, Reset):
                if outcome == 1 or least != 0:
                    self._core.project_then_reset([step.qubit], outcome)
            elif least != 0:
                self._core.project([step.qubit], outcome)
        if isinstance(step, Measure):
            self.bits[step.clbit] = outcome
            self.deferred.pop(step.clbit, None)
        return True


def _measures(steps: Sequence[Step]) -> bool:
    return any(
        isinstance(step, Measure) or (isinstance(step, Conditional) and _measures(step.steps))
        for step in steps
    )


def _may_branch(plan: Sequence[_Node]) -> bool:
    return any(
        (
            _may_branch(node.block)
            if isinstance(node.step, Conditional)
            else not isinstance(node.step, GateList) and not node.final and not node.fresh
        )
        for node in plan
    )


def _plan(steps: Sequence[Step], num_qubits: int) -> list[_Node]:
    used = _Used(num_qubits)
    nodes, _ = used.forward(steps, 0)
    used.backward(nodes, 0, 0)
    return nodes


class _Used:
    """Which qubits and classical bits the steps use, as masks."""

    def __init__(self, num_qubits: int) -> None:
        self._all = (1 << num_qubits) - 1

    def forward(self, steps: Sequence[Step], touched: int) -> tuple[list[_Node], int]:
        """Marks what is fresh; `touched` are the qubits that may not be |0>."""
        nodes = []
        for step in steps:
            node = _Node(step)
            nodes.append(node)
            if isinstance(step, GateList):
                if touched != self._all:
                    touched |= step.qubits
            elif isinstance(step, Conditional):
                node.block, after = self.forward(step.steps, touched)
                touched |= after
            else:
                node.fresh = not touched >> step.qubit & 1
                if isinstance(step, Reset):
                    touched &= ~(1 << step.qubit)
        return nodes, touched

    def backward(self, nodes: Sequence[_Node], acted: int, read: int) -> tuple[int, int]:
        """Marks what is final; `acted` are the qubits that later steps act on, `read` the classical
        bits that later conditions read."""
        first = next((i for i, node in enumerate(nodes) if self._measures(node)), len(nodes))
        for place in range(len(nodes) - 1, -1, -1):
            node = nodes[place]
            step = node.step
            if isinstance(step, GateList):
                # What comes before the first measurement asks for nothing.
                if place > first:
                    acted |= step.qubits
            elif isinstance(step, Conditional):
                inner, asked = self.backward(node.block, acted, read)
                acted |= inner
                read |= asked
                for clbit in step.clbits:
                    read |= 1 << clbit
            elif isinstance(step, Measure):
                node.final = not (acted >> step.qubit & 1 or read >> step.clbit & 1)
            else:
                acted |= 1 << step.qubit
        return acted, read

    @staticmethod
    def _measures(node: _Node) -> bool:
        return isinstance(node.step, (Measure, Conditional))
