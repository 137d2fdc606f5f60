"""Running circuits for counts."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from ._core import GateSequence
from .circuit import Circuit, Measure
from .counts import Counts
from .progress import Progress, reporter
from .state_vector import SHOTS_PER_PIECE, StateVector, _count


def run(
    circuit: Circuit,
    shots: int = 1024,
    precision: str = "double",
    threads: int | None = None,
    seed: int | None = None,
    progress: Progress = None,
) -> Counts:
    """Runs a circuit from |0...0> and counts what its measurements read.

    A circuit without measurements is read out over all qubits at its end. Where nothing acts on a
    qubit after it was measured, the circuit is simulated once and sampled; otherwise what comes
    before the first measurement is simulated once and the rest once per shot. The same seed gives
    the same counts for every number of threads; but where a circuit goes on after a measurement, 1
    thread may round the collapse differently from more, and a shot on the brink may fall the other
    way.

    Ctrl-C stops between pieces of the circuit or between shots; nothing is left behind.
    """
    if not isinstance(circuit, Circuit):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    shots = _count(shots)
    state = StateVector(circuit.num_qubits, precision, threads, seed)
    if circuit.is_unitary:
        return state.run(circuit, progress).sample(shots, progress=progress)
    source = _final_measurements(circuit)
    if source is not None:
        for step in circuit.steps:
            if isinstance(step, GateSequence):
                step.apply(state.core)
        outcomes = state.sample_outcomes(shots, sorted(set(source.values())), progress=progress)
        return _spread(outcomes, source, circuit)
    return _run_each_shot(circuit, state, shots, progress)


def _final_measurements(circuit: Circuit) -> dict[int, int] | None:
    """Qubits by classical bit when no step acts on a qubit that was measured; else None."""
    source: dict[int, int] = {}
    measured: set[int] = set()
    for step in circuit.steps:
        if isinstance(step, Measure):
            source[step.clbit] = step.qubit
            measured.add(step.qubit)
        elif not isinstance(step, GateSequence):
            return None
        elif measured:
            for i in range(len(step)):
                name, qubits, controls, _ = step.gate(i)
                if name == "phase_oracle" or measured & {*qubits, *controls}:
                    return None
    return source


def _spread(outcomes: np.ndarray, source: dict[int, int], circuit: Circuit) -> Counts:
    """Counts over all classical bits from outcomes over the measured qubits, in rising order."""
    place = {qubit: i for i, qubit in enumerate(sorted(set(source.values())))}
    counts: dict[str, int] = {}
    for bits, number in Counts.from_outcomes(outcomes, len(place)).items():
        key = ["0"] * circuit.num_clbits
        for clbit, qubit in source.items():
            key[clbit] = bits[place[qubit]]
        text = _key(key, circuit.registers)
        counts[text] = counts.get(text, 0) + number
    return Counts(counts)


def _run_each_shot(circuit: Circuit, state: StateVector, shots: int, progress: Progress) -> Counts:
    steps = list(circuit.steps)
    first = next(i for i, step in enumerate(steps) if not isinstance(step, GateSequence))
    for step in steps[:first]:
        step.apply(state.core)
    start = state.amplitudes.copy()
    counts: dict[str, int] = {}
    with reporter(progress, shots, "shot") as report:
        for shot in range(shots):
            state.amplitudes[:] = start
            state._bits = [0] * circuit.num_clbits
            state._run_steps(steps[first:], None, 0)
            key = _key([str(bit) for bit in state._bits], circuit.registers)
            counts[key] = counts.get(key, 0) + 1
            if report:
                report(shot + 1)
    return Counts(counts)


def _key(bits: Sequence[str], registers: Sequence[int]) -> str:
    parts = []
    begin = 0
    for size in registers:
        parts.append("".join(bits[begin : begin + size]))
        begin += size
    return " ".join(parts)
