"""Circuits whose course is left to chance: noise, and measurements with something after them. Shots
that go the same way share a state; the walk itself is in the library."""

from __future__ import annotations

import secrets
from collections.abc import Sequence
from itertools import accumulate
from typing import Any, SupportsIndex

import numpy as np
from numpy.typing import NDArray

from . import _core
from ._core import GateList
from .arguments import (
    Accuracy,
    Precision,
    accuracy_name,
    count,
    precision_name,
    require_memory,
    seed_number,
)
from .channels import shot_channel
from .noise import NoiseModel, channel_sites, check_noise
from .observable import ObservableLike, observable_on
from .parameters import Values, values_in_order
from .program import Conditional, Measure, Program, Step
from .progress import Progress, reporter
from .readout import register_bytes

#: More copies of a state than shots can part into halves.
MAX_STATES = 64


def shot_program(
    steps: Sequence[Step], num_qubits: int, num_clbits: int, noise: NoiseModel | None
) -> _core.ShotProgram:
    """The steps with the channels and readout errors that a noise model puts between them."""
    program = _core.ShotProgram(num_qubits, num_clbits)
    # Channels are made ready once, however often they act.
    channels: dict[int, _core.ShotChannel] = {}

    def extend(steps: Sequence[Step]) -> None:
        for step in steps:
            if isinstance(step, GateList):
                done = 0
                for site in channel_sites(noise, step):
                    program.add_gates(step, done, site.gates_before)
                    done = site.gates_before
                    key = id(site.channel)
                    if key not in channels:
                        channels[key] = shot_channel(site.channel)
                    program.add_channel(channels[key], site.qubits)
                program.add_gates(step, done)
            elif isinstance(step, Measure):
                error = noise.readout_error(step.qubit) if noise else np.eye(2)
                program.add_measurement(step.qubit, step.clbit, error[0, 1], error[1, 0])
            elif isinstance(step, Conditional):
                width = len(step.clbits)
                values = [step.value >> width - 1 - i & 1 for i in range(width)]
                program.begin_condition(step.clbits, values)
                extend(step.steps)
                program.end_condition()
            else:
                program.add_reset(step.qubit)

    extend(steps)
    return program


class ShotRun:
    """The arguments of one run of a shot program, checked."""

    def __init__(
        self,
        num_qubits: int,
        precision: Precision,
        threads: SupportsIndex | None,
        seed: SupportsIndex | None,
        accuracy: Accuracy,
    ) -> None:
        self._precision = precision_name(precision)
        self._by_rounding = accuracy_name(accuracy) == "rounding"
        workers = _core.hardware_threads() if threads is None else count(threads, "threads", 1)
        self.seed = secrets.randbits(64) if seed is None else seed_number(seed)
        size = register_bytes(num_qubits, precision)
        require_memory(f"a register of {num_qubits} qubits", size)
        fitting = max(1, int(min(_core.available_memory() / size, MAX_STATES * workers)))
        self._workers = min(workers, fitting)
        self._max_states = fitting // self._workers

    def _options(self, values: NDArray[np.float64], shots: int) -> tuple[Any, ...]:
        return values, shots, self.seed, self._workers, self._max_states, self._by_rounding

    def count(
        self,
        program: _core.ShotProgram,
        values: NDArray[np.float64],
        shots: int,
        progress: Progress,
    ) -> dict[str, int]:
        """How often the classical bits read what."""
        run = program.count_float if self._precision == "float" else program.count_double
        with reporter(progress, shots, "shot") as report:
            return run(*self._options(values, shots), report)

    def expectations(
        self,
        program: _core.ShotProgram,
        record: Any,
        values: NDArray[np.float64],
        shots: int,
        progress: Progress,
    ) -> NDArray[np.float64]:
        """The expectation value of an observable in each shot."""
        single = self._precision == "float"
        run: Any = program.expectations_float if single else program.expectations_double
        with reporter(progress, shots, "trajectory") as report:
            result: NDArray[np.float64] = run(record, *self._options(values, shots), report)
        return result


def with_spaces(counts: dict[str, int], registers: Sequence[int]) -> dict[str, int]:
    """Keys with spaces between registers."""
    ends = list(accumulate(registers))
    if len(ends) < 2:
        return counts
    return {
        " ".join([text[end - size : end] for size, end in zip(registers, ends)]): times
        for text, times in counts.items()
    }


def estimate(
    circuit: Program,
    observable: ObservableLike,
    trajectories: SupportsIndex = 1024,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    seed: SupportsIndex | None = None,
    progress: Progress = None,
    values: Values | None = None,
    accuracy: Accuracy = "exact",
    noise: NoiseModel | None = None,
) -> tuple[float, float]:
    """The expectation value of an observable at the end of a circuit, with noise, measurements and
    resets drawn anew in each trajectory: the mean over the trajectories and its standard error.
    `values` are those of the parameters, `accuracy` is that of `pblinalg.run`. Without chance the
    error is 0.

    Trajectory t of a seed is the same for every number of trajectories and threads. A trajectory
    takes the memory of a state vector; `DensityMatrix.run` has the exact value at twice the qubits.
    Errors of the readout do not enter. ValueError when a coefficient is not real.
    """
    if not isinstance(circuit, Program):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    number = count(trajectories, "trajectories", 2)
    numbers = values_in_order(circuit, values)
    check_noise(noise, circuit.num_qubits)
    wanted = observable_on(circuit.num_qubits, observable, hermitian=True)
    run = ShotRun(circuit.num_qubits, precision, threads, seed, accuracy)
    program = shot_program(circuit.steps, circuit.num_qubits, circuit.num_clbits, noise)
    record = wanted.record(precision_name(precision))
    found = run.expectations(program, record, numbers, number, progress)
    # From the first one on, so that equal values have themselves as their mean.
    rest = found - found[0]
    return float(found[0] + rest.mean()), float(rest.std(ddof=1) / number**0.5)
