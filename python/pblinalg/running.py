"""Running circuits for counts. Where nothing is left to chance before the end, a circuit is
simulated once and sampled; the others are run in `branching`."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from itertools import islice
from typing import SupportsIndex

import numpy as np
from numpy.typing import NDArray

from ._core import GateList
from .arguments import Accuracy, Precision, accuracy_name, count
from .branching import ShotRun, shot_program, with_spaces
from .counts import Counts
from .execution import shifted
from .noise import NoiseModel, check_noise
from .parameters import Values, values_in_order
from .program import Conditional, Measure, Program, Reset, Step, count_gates
from .progress import Progress, reporter
from .state_vector import StateVector


def run(
    circuit: Program,
    shots: SupportsIndex = 1024,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    seed: SupportsIndex | None = None,
    progress: Progress = None,
    values: Values | None = None,
    accuracy: Accuracy = "exact",
    noise: NoiseModel | None = None,
) -> Counts:
    """Runs a circuit from |0...0> and counts what its measurements read. `values` are those of its
    parameters, in order or by parameter or name; `noise` puts channels after its gates and errors
    into its measurements, drawn anew in every shot. `accuracy="rounding"` takes less time and gives
    amplitudes that agree with those of "exact" up to rounding: within 1e-12, in float 2e-5, after a
    thousand gates.

    A circuit without measurements is read out over all qubits at its end. Where nothing acts on a
    qubit after it was measured, and nothing else is left to chance, the circuit is simulated once
    and sampled. Otherwise shots that read and draw the same so far are simulated together, and go
    on from copies of their state where they part: at most log2(shots) copies at once, and fewer
    where memory is short. `threads` are then, below 18 qubits, those that share the shots, by
    default one per processor. An outcome is certain when the other one has a probability of at most
    2^-64 (in float 2^-32).

    The same seed gives the same counts for every number of threads; but where a state of 2^16
    amplitudes or more collapses, 1 thread may round differently from more, and a shot on the brink
    may fall the other way. `seed` of the result tells the seed. `progress` is told the gates and
    then the shots of a circuit that is simulated once, and the shots alone of others.

    Ctrl-C stops between pieces of the circuit or between shots; nothing is left behind.
    """
    if not isinstance(circuit, Program):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    number = count(shots, "shots")
    numbers = values_in_order(circuit, values)
    accuracy_name(accuracy)
    check_noise(noise, circuit.num_qubits)
    steps: Sequence[Step] = circuit.steps
    num_bits, registers = circuit.num_clbits, circuit.registers
    if not _measures(steps):
        num_bits = circuit.num_qubits
        registers = (num_bits,)
        steps = [*steps, *(Measure(qubit, qubit) for qubit in range(num_bits))]
    plan = _plan(steps, circuit.num_qubits)
    if noise is not None or _may_branch(plan):
        shot_run = ShotRun(circuit.num_qubits, precision, threads, seed, accuracy)
        program = shot_program(steps, circuit.num_qubits, num_bits, noise)
        counts = shot_run.count(program, numbers, number, progress)
        result = Counts(with_spaces(counts, registers))
        result.seed = shot_run.seed
        return result
    state = StateVector(circuit.num_qubits, precision, threads, seed)
    course = _Course(state, numbers, num_bits, accuracy)
    with reporter(progress, count_gates(steps), "gate") as report:
        course.report = report
        course.follow(plan)
    result = Counts(course.sample(number, registers, progress))
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


class _Course:
    """A run of a plan in which nothing is left to chance before the end: the bits read so far, and
    the final measurements, which are sampled together, as qubits by classical bit."""

    def __init__(
        self,
        state: StateVector,
        values: NDArray[np.float64],
        num_bits: int,
        accuracy: Accuracy,
    ) -> None:
        self._state = state
        self._values = values
        self._accuracy = accuracy
        self.bits = [0] * num_bits
        self.deferred: dict[int, int] = {}
        self.report: Callable[[int], object] | None = None
        self._done = 0

    def follow(self, nodes: Sequence[_Node]) -> None:
        """Runs the nodes one after the other."""
        for node in nodes:
            step = node.step
            if isinstance(step, GateList):
                report = shifted(self.report, self._done)
                step.run(self._state.core, self._values, report, accuracy=self._accuracy)
                self._done += len(step)
            elif isinstance(step, Conditional):
                read = "".join(str(self.bits[clbit]) for clbit in step.clbits)
                if int(read or "0", 2) == step.value:
                    self.follow(node.block)
            elif isinstance(step, Measure):
                # A fresh qubit reads 0, and a fresh reset does nothing.
                self.bits[step.clbit] = 0
                self.deferred.pop(step.clbit, None)
                if not node.fresh:
                    self.deferred[step.clbit] = step.qubit

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
