"""Runs for interfaces that want more than counts: what the classical bits read in every shot, and
exact expectation values of circuits that measure on their way."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._core import GateList
from .arguments import Precision, count
from .observable import Observable
from .program import Conditional, Measure, Program, Reset, Step
from .running import run
from .state_vector import StateVector

#: Expectation values follow at most so many courses of a circuit that measures.
MAX_COURSES = 1 << 12
#: Courses of at most this probability are left out: rounding makes such of outcomes that have none.
_NEGLIGIBLE = {"float": 2.0**-32, "double": 2.0**-64}

#: Called between passes over a state; what it raises stops the run.
Look = Callable[..., object]


def read_bits(
    circuit: Program,
    values: NDArray[np.float64],
    shots: int,
    precision: Precision,
    threads: int | None,
    seed: int | None,
    look: Look | None = None,
) -> NDArray[np.uint8]:
    """What the classical bits read in each of `shots` runs from |0...0>, one row a shot and one
    column a bit. `values` are those of the parameters."""
    shots = count(shots, "shots")
    measured = _final_measurements(circuit.steps)
    if measured is None:
        counts = run(
            circuit,
            shots,
            precision=precision,
            threads=threads,
            seed=seed,
            progress=look or False,
            values=values,
        )
        text = "".join(counts).replace(" ", "")
        rows = np.frombuffer(text.encode(), dtype=np.uint8) - ord("0")
        order = np.repeat(np.arange(len(counts)), list(counts.values()))
        # Counts are sorted; shots come in no order.
        np.random.default_rng(counts.seed).shuffle(order)
        return rows.reshape(len(counts), circuit.num_clbits)[order]
    state = StateVector(circuit.num_qubits, precision, threads, seed)
    for step in circuit.steps:
        if isinstance(step, GateList):
            step.run(state.core, values, look)
    qubits = sorted(set(measured.values()))
    outcomes = state.sample_outcomes(shots, qubits, progress=look or False)
    bits = np.zeros((shots, circuit.num_clbits), dtype=np.uint8)
    for clbit, qubit in measured.items():
        bits[:, clbit] = outcomes >> np.uint64(len(qubits) - 1 - qubits.index(qubit)) & np.uint64(1)
    return bits


def _final_measurements(steps: Sequence[Step]) -> dict[int, int] | None:
    """The qubit that each classical bit reads, when nothing acts on a qubit after it was measured
    and only qubits that nothing acted on are reset; None otherwise."""
    measured: dict[int, int] = {}
    acted = read = 0
    for step in steps:
        if isinstance(step, GateList):
            if step.qubits & read:
                return None
            acted |= step.qubits
        elif isinstance(step, Measure):
            measured[step.clbit] = step.qubit
            read |= 1 << step.qubit
        elif isinstance(step, Conditional) or acted >> step.qubit & 1:
            return None
    return measured


def expectations(
    state: StateVector,
    circuit: Program,
    values: NDArray[np.float64],
    observables: Sequence[Observable],
    check: Callable[[list[int]], None],
) -> NDArray[np.float64]:
    """The exact expectation values after a circuit on `state`, which starts from |0...0> and is
    changed. Every course that open measurements and resets may take is followed with its
    probability; `check` is told what its classical bits read. ValueError when there are more than
    `MAX_COURSES`."""
    totals = np.zeros(len(observables))
    state.reset()
    bits = [0] * circuit.num_clbits
    waiting: list[tuple[NDArray[Any], list[int], list[Step], float]] = []
    steps = list(reversed(circuit.steps))
    weight, courses, negligible = 1.0, 1, _NEGLIGIBLE[state.precision]
    while True:
        while steps:
            step = steps.pop()
            if isinstance(step, GateList):
                step.run(state.core, values)
            elif isinstance(step, Conditional):
                read = "".join(str(bits[clbit]) for clbit in step.clbits)
                if int(read or "0", 2) == step.value:
                    steps += reversed(step.steps)
            else:
                zero, one = state.probabilities(step.qubit).tolist()
                outcome = int(one > zero)
                if min(zero, one) > negligible:
                    courses += 1
                    if courses > MAX_COURSES:
                        raise ValueError(
                            "an expectation value of a circuit that measures takes more than "
                            f"{MAX_COURSES} courses; expected fewer open measurements and resets"
                        )
                    if weight * min(zero, one) > negligible:
                        here = (state.amplitudes.copy(), list(bits), list(steps))
                        _collapse(state, step, 1 - outcome, bits)
                        rarer = (state.amplitudes.copy(), bits, steps, weight * min(zero, one))
                        waiting.append(rarer)
                        state.amplitudes[:], bits, steps = here
                    weight *= max(zero, one)
                    if weight <= negligible:
                        break
                _collapse(state, step, outcome, bits)
        if weight > negligible:
            check(bits)
            totals += [weight * state.expectation(observable) for observable in observables]
        if not waiting:
            return totals
        state.amplitudes[:], bits, steps, weight = waiting.pop()


def _collapse(state: StateVector, step: Measure | Reset, outcome: int, bits: list[int]) -> None:
    state.project(outcome, step.qubit)
    if isinstance(step, Measure):
        bits[step.clbit] = outcome
    elif outcome:
        state.x(step.qubit)
