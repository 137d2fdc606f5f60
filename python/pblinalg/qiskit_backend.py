"""A backend of Qiskit: what it can do, as a `Target`, and running circuits on it. What circuits
become is decided in `qiskit_circuits`."""

from __future__ import annotations

import time
import uuid
import warnings
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import contextmanager
from typing import Any

import numpy as np
from numpy.typing import NDArray
from qiskit import QuantumCircuit
from qiskit.circuit import (
    BoxOp,
    BreakLoopOp,
    ContinueLoopOp,
    Delay,
    ForLoopOp,
    IfElseOp,
    Measure,
    Parameter,
    Reset,
    SwitchCaseOp,
    WhileLoopOp,
    library,
)
from qiskit.circuit.library.standard_gates import get_standard_gate_name_mapping
from qiskit.exceptions import QiskitError
from qiskit.providers import BackendV2, JobStatus, JobV1, Options
from qiskit.result import Result
from qiskit.transpiler import Target

from ._core import available_memory
from ._core import version as __version__
from .arguments import MAX_QUBITS, Precision, count, precision_name
from .measured_runs import read_bits
from .qiskit_circuits import MATRIX_GATES, STANDARD_GATES, translate
from .readout import register_bytes

#: Instructions that are followed, or that the library has in one piece; see also `STANDARD_GATES`.
_INSTRUCTIONS = {
    "measure": Measure(), "reset": Reset(), "delay": Delay(Parameter("t")),
    "if_else": IfElseOp, "for_loop": ForLoopOp, "switch_case": SwitchCaseOp,
    "while_loop": WhileLoopOp, "box": BoxOp, "break_loop": BreakLoopOp,
    "continue_loop": ContinueLoopOp,
    "unitary": library.UnitaryGate, "diagonal": library.DiagonalGate,
    "initialize": library.Initialize, "state_preparation": library.StatePreparation,
    "pauli": library.PauliGate, "PauliEvolution": library.PauliEvolutionGate,
    "permutation": library.PermutationGate, "mcx": library.MCXGate,
    "mcphase": library.MCPhaseGate,
}  # fmt: skip


class SimulationError(QiskitError):  # type: ignore[misc]
    """What cannot be simulated, or an option that cannot be used."""


class _Cancelled(Exception):
    """Ends a run whose job was cancelled."""


@contextmanager
def own_errors() -> Iterator[None]:
    """Errors of the library as errors of Qiskit."""
    try:
        yield
    except (ValueError, TypeError, IndexError, OverflowError, MemoryError) as error:
        raise SimulationError(str(error)) from error


def checked(precision: Precision, threads: int | None) -> tuple[Precision, int | None]:
    """The options of a run, or SimulationError."""
    with own_errors():
        return precision_name(precision), None if threads is None else count(threads, "threads", 1)


def make_target(num_qubits: int) -> Target:
    """All instructions that circuits of the library hold or follow, on any qubits."""
    target = Target(description="state-vector simulator", num_qubits=num_qubits)
    standard = get_standard_gate_name_mapping()
    for name in (*STANDARD_GATES, *MATRIX_GATES, "id", "u2", "r", "dcx", "cu"):
        target.add_instruction(standard[name], name=name)
    for name, instruction in _INSTRUCTIONS.items():
        target.add_instruction(instruction, name=name)
    return target


def packed(bits: NDArray[np.uint8]) -> NDArray[np.uint8]:
    """Rows of bits, the first one least significant, as big-endian numbers of whole bytes."""
    lacking = -bits.shape[1] % 8
    return np.packbits(np.pad(bits[:, ::-1], ((0, 0), (lacking, 0))), axis=1)


class Job(JobV1):  # type: ignore[misc]
    """Circuits that run in a thread of their own."""

    def __init__(self, backend: Backend, work: Callable[[Job], list[dict[str, Any]]]) -> None:
        super().__init__(backend, str(uuid.uuid4()))
        self._work = work
        self._future: Future[Result] | None = None
        self._cancelled = False

    def submit(self) -> None:
        """Starts the run."""
        if self._future is None:
            pool = ThreadPoolExecutor(1)
            self._future = pool.submit(self._run)
            pool.shutdown(wait=False)

    def _run(self) -> Result:
        start = time.time()
        results = self._work(self)
        return Result.from_dict(
            {
                "backend_name": self.backend().name,
                "backend_version": self.backend().backend_version,
                "job_id": self.job_id(),
                "results": results,
                "status": "COMPLETED",
                "success": True,
                "time_taken": time.time() - start,
            }
        )

    def look(self, *_: object) -> None:
        """Ends the run that calls it when the job was cancelled."""
        if self._cancelled:
            raise _Cancelled

    def result(self, timeout: float | None = None) -> Result:
        """The result, once it is there. TimeoutError after `timeout` seconds; SimulationError for
        what could not be run."""
        if self._future is None:
            raise SimulationError("the job was not submitted")
        try:
            return self._future.result(timeout)
        except _Cancelled:
            raise SimulationError("the job was cancelled") from None
        except KeyboardInterrupt:
            self.cancel()
            raise

    def cancel(self) -> bool:
        """Stops the run before its next pass over the state."""
        self._cancelled = True
        return self._future is not None and (self._future.cancel() or not self._future.done())

    def status(self) -> JobStatus:
        """Where the job is."""
        if self._future is None:
            return JobStatus.INITIALIZING
        if not self._future.done():
            return JobStatus.RUNNING
        if self._future.cancelled() or isinstance(self._future.exception(), _Cancelled):
            return JobStatus.CANCELLED
        return JobStatus.ERROR if self._future.exception() else JobStatus.DONE


class Backend(BackendV2):  # type: ignore[misc]
    """A simulator of state vectors on this machine.

    precision: "double" or "float"; threads: workers of a run, by default as many as pay; seed: of
    the shots. These and `shots` and `memory` are options that `run` takes, too, the seed under the
    name `seed_simulator`. `target` holds what circuits may consist of, on as many qubits as there
    is memory for.

    >>> backend = Backend()
    >>> backend.run(transpile(circuit, backend), shots=1000).result().get_counts()
    """

    def __init__(
        self,
        precision: Precision = "double",
        threads: int | None = None,
        seed: int | None = None,
    ) -> None:
        super().__init__(
            name="pblinalg",
            description="exact simulation of state vectors",
            backend_version=__version__,
        )
        precision, threads = checked(precision, threads)
        self.set_options(precision=precision, threads=threads, seed_simulator=seed)
        self._target: Target | None = None

    @classmethod
    def _default_options(cls) -> Options:
        return Options(
            shots=1024, memory=False, seed_simulator=None, precision="double", threads=None
        )

    @property
    def target(self) -> Target:
        """What circuits may consist of."""
        if self._target is None:
            places = available_memory() / register_bytes(0, self.options.precision)
            self._target = make_target(min(MAX_QUBITS, int(places).bit_length() - 1))
        return self._target

    @property
    def max_circuits(self) -> None:
        """Any number of circuits may run in one job."""
        return None

    def run(self, run_input: QuantumCircuit | Sequence[QuantumCircuit], **options: Any) -> Job:
        """Runs circuits; `options` count more than those of the backend. With `memory` the result
        holds every shot. A job of several circuits has one seed for each, drawn from
        `seed_simulator`. Errors are those of `Job.result`."""
        chosen = dict(self.options)
        for name in set(options) - set(chosen):
            warnings.warn(f"option {name!r} is not used by this backend", stacklevel=2)
        chosen.update((name, value) for name, value in options.items() if name in chosen)
        circuits = [run_input] if isinstance(run_input, QuantumCircuit) else list(run_input)

        def work(job: Job) -> list[dict[str, Any]]:
            with own_errors():
                seeds = seeds_of(chosen["seed_simulator"], len(circuits))
                return [
                    _experiment(circuit, chosen, seed, job.look)
                    for circuit, seed in zip(circuits, seeds)
                ]

        job = Job(self, work)
        job.submit()
        return job


def seeds_of(seed: Any, number: int) -> list[int]:
    """Seeds of the library for so many runs; `seed` is one of NumPy, or a generator."""
    return [
        int(word) for word in np.random.default_rng(seed).integers(2**64, size=number, dtype="u8")
    ]


def _experiment(
    circuit: QuantumCircuit, options: dict[str, Any], seed: int, look: Callable[..., object]
) -> dict[str, Any]:
    """The result of one circuit, as Qiskit's documents say it."""
    start = time.time()
    if isinstance(circuit, QuantumCircuit) and circuit.parameters:
        names = ", ".join(parameter.name for parameter in circuit.parameters)
        raise ValueError(f"{circuit.name!r} has parameters without a value: {names}")
    shots = count(options["shots"], "shots")
    translation = translate(circuit)
    bits = read_bits(
        translation.circuit,
        np.empty(0),
        shots,
        options["precision"],
        options["threads"],
        seed,
        look,
    )
    translation.check(bits)
    bits = bits[:, : circuit.num_clbits]
    data: dict[str, Any] = {}
    if circuit.num_clbits:
        words = [f"0x{row.hex().lstrip('0') or '0'}" for row in map(bytes, packed(bits))]
        data["counts"] = dict(Counter(words))
        if options["memory"]:
            data["memory"] = words
    return {
        "name": circuit.name,
        "seed_simulator": seed,
        "shots": shots,
        "data": data,
        "status": "DONE",
        "success": True,
        "header": {
            "name": circuit.name,
            "n_qubits": circuit.num_qubits,
            "qreg_sizes": [[register.name, register.size] for register in circuit.qregs],
            "creg_sizes": [[register.name, register.size] for register in circuit.cregs],
            "memory_slots": circuit.num_clbits,
            "global_phase": circuit.global_phase,
            "metadata": circuit.metadata or {},
        },
        "time_taken": time.time() - start,
    }
