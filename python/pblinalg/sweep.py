"""Parameter sweeps: one circuit, many sets of values, results in rows."""

from __future__ import annotations

import secrets
from collections.abc import Mapping, Sequence
from typing import Any, Literal, SupportsIndex, Union, overload

import numpy as np
from numpy.typing import NDArray

from . import _core
from .arguments import (
    Accuracy,
    Precision,
    Qubits,
    accuracy_name,
    count,
    distinct_qubits,
    precision_name,
    seed_number,
)
from .counts import Counts
from .gates import as_qubits
from .observable import Observable, ObservableLike, observable_on
from .parameters import ValueRows, value_rows
from .program import Program
from .progress import Progress, reporter
from .readout import NORM_TOLERANCE, PARALLEL_QUBITS, register_bytes

#: What a sweep reads: arrays, or counts for shots.
Rows = Union["NDArray[Any]", "list[Counts]"]

_REAL = {"float": np.float32, "double": np.float64}
_COMPLEX = {"float": np.complex64, "double": np.complex128}
_SWEEPS: Any = {"float": _core.sweep_float, "double": _core.sweep_double}


@overload
def sweep(
    circuit: Program,
    values: ValueRows,
    observables: ObservableLike | Sequence[ObservableLike],
    *,
    precision: Precision = ...,
    threads: SupportsIndex | None = ...,
    progress: Progress = ...,
    accuracy: Accuracy = ...,
) -> NDArray[np.float64]: ...
@overload
def sweep(
    circuit: Program,
    values: ValueRows,
    *,
    probabilities: Literal[True],
    qubits: Qubits | None = ...,
    precision: Precision = ...,
    threads: SupportsIndex | None = ...,
    progress: Progress = ...,
    accuracy: Accuracy = ...,
) -> NDArray[np.floating[Any]]: ...
@overload
def sweep(
    circuit: Program,
    values: ValueRows,
    *,
    shots: SupportsIndex,
    qubits: Qubits | None = ...,
    precision: Precision = ...,
    threads: SupportsIndex | None = ...,
    seed: SupportsIndex | None = ...,
    progress: Progress = ...,
    accuracy: Accuracy = ...,
) -> list[Counts]: ...
@overload
def sweep(
    circuit: Program,
    values: ValueRows,
    *,
    states: Literal[True],
    precision: Precision = ...,
    threads: SupportsIndex | None = ...,
    progress: Progress = ...,
    accuracy: Accuracy = ...,
) -> NDArray[np.complexfloating[Any, Any]]: ...
def sweep(
    circuit: Program,
    values: ValueRows,
    observables: ObservableLike | Sequence[ObservableLike] | None = None,
    *,
    probabilities: bool = False,
    shots: SupportsIndex | None = None,
    states: bool = False,
    qubits: Qubits | None = None,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    seed: SupportsIndex | None = None,
    progress: Progress = None,
    accuracy: Accuracy = "exact",
) -> Rows:
    """Runs a circuit of gates from |0...0> once for each set of parameter values and returns what
    is read from each state, one row for each set, in their order.

    values: an array (rows, parameters) in the order of `circuit.parameters`, or a dict by parameter
    or name of equally long arrays; a number there is the same in every row.

    Exactly one of these says what is read:

    observables: one observable (an Observable, a string or a dict of terms) for a float64 array
    (rows,) of expectation values, or a list of m of them for one of shape (rows, m).
    probabilities: True for an array (rows, 2^k) of the outcomes on `qubits`, float64 or float32.
    shots: a number of measurements of `qubits`, for a list of `Counts`.
    states: True for an array (rows, 2^n) of amplitudes, complex128 or complex64.

    `qubits` are all by default; the first listed one, or qubit 0, is the most significant bit.

    threads: by default one per processor. Registers of fewer than 18 qubits run one set per thread,
    with a state for each; larger ones one set after another on all threads. Either way a row has
    the bits of `StateVector(n, precision, threads)` that ran the circuit with these values and
    `accuracy`, which is that of `pblinalg.run`.

    seed: shots of row r come from a generator whose seed follows from `seed` and r alone, whatever
    the threads; `seed` of its counts tells it, and `circuit.run(shots, seed=counts.seed, ...)` with
    the row's values repeats it where all qubits are read. (Seed and row go through a mix of 64 bits
    that gives each row another one.)

    `progress` is told the rows that are done. It and Ctrl-C stop between rows, and between passes
    over the state of a large register; nothing is returned then.
    """
    if not isinstance(circuit, Program):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    if not circuit.is_unitary:
        raise ValueError("circuit: a sweep runs circuits that hold gates only")
    n = circuit.num_qubits
    for name, flag in (("probabilities", probabilities), ("states", states)):
        if not isinstance(flag, bool):
            raise TypeError(f"{name} must be True or False, got {flag!r}")
    asked = [observables is not None, probabilities, shots is not None, states]
    if sum(asked) != 1:
        raise ValueError(
            f"{sum(asked)} of observables, probabilities, shots and states are given; expected "
            "exactly one"
        )
    if qubits is not None and not (probabilities or shots is not None):
        raise ValueError(f"qubits = {qubits!r}: only probabilities and shots take them")
    if seed is not None and shots is None:
        raise ValueError(f"seed = {seed!r}: only shots take one")
    kind = precision_name(precision)
    accuracy_name(accuracy)
    processors = _core.hardware_threads()
    workers = processors if threads is None else count(threads, "threads", 1)
    first_seed = secrets.randbits(64) if seed is None else seed_number(seed)
    listed = list(range(n)) if qubits is None else distinct_qubits(as_qubits(qubits), n)
    sets = value_rows(circuit, values)
    rows = len(sets)

    many: list[Observable] = []
    single = False
    out: dict[str, NDArray[Any]] = {}
    own_states = min(workers, processors, rows) if n < PARALLEL_QUBITS else 1
    needed = own_states * register_bytes(n, kind)

    def array(name: str, columns: float, dtype: Any) -> None:
        size = rows * columns * np.dtype(dtype).itemsize
        _core.require_memory(needed + size, f"a sweep of {rows} rows and its {name}")
        out[name] = np.empty((rows, int(columns)), dtype=dtype)

    if observables is not None:
        single = isinstance(observables, (Observable, str, Mapping))
        listing: Any = [observables] if single else observables
        if not isinstance(listing, Sequence):
            raise TypeError(f"observables must be an observable or a list, got {observables!r}")
        many = [observable_on(n, each, hermitian=True) for each in listing]
        array("expectations", len(many), np.float64)
    elif probabilities:
        array("probabilities", 2.0 ** len(listed), _REAL[kind])
    elif shots is not None:
        array("totals", 1, _REAL[kind])
        if listed:
            array("shots", count(shots, "shots"), np.uint64)
        else:
            out["shots"] = np.zeros((rows, count(shots, "shots")), dtype=np.uint64)
    else:
        array("states", 2.0**n, _COMPLEX[kind])

    with reporter(progress, rows, "row") as report:
        _SWEEPS[kind](
            _gates_of(circuit),
            sets,
            workers,
            first_seed,
            report,
            [observable.record(kind) for observable in many],
            listed,
            out["shots"].shape[1] if listed and "shots" in out else 0,
            accuracy,
            **{name: each for name, each in out.items() if listed or name != "shots"},
        )
    if shots is not None:
        _require_norms(out["totals"][:, 0])
        return [
            _counts(outcomes, len(listed), _core.seed_of_job(first_seed, row))
            for row, outcomes in enumerate(out["shots"])
        ]
    (result,) = out.values()
    return result[:, 0] if single else result


def _gates_of(circuit: Program) -> _core.GateList:
    """The one list of a circuit that holds gates only, which keeps its plan."""
    (gates,) = circuit.steps or (_core.GateList(circuit.num_qubits),)
    assert isinstance(gates, _core.GateList)
    return gates


def _counts(outcomes: NDArray[np.uint64], width: int, seed: int) -> Counts:
    counts = Counts.from_outcomes(outcomes, width)
    counts.seed = seed
    return counts


def _require_norms(totals: NDArray[Any]) -> None:
    """Shots of a state that is none would look like results."""
    wrong = np.flatnonzero(~(np.abs(totals - 1) <= NORM_TOLERANCE))
    if wrong.size:
        raise ValueError(
            f"circuit: the probabilities of the state of row {wrong[0]} add up to "
            f"{totals[wrong[0]]:.6g}; expected 1"
        )
