"""Expectation values and their derivatives by the parameters of a circuit."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any, SupportsIndex, overload

import numpy as np
from numpy.typing import NDArray

from . import _core
from ._core import GateList, require_memory
from .arguments import Precision
from .observable import Observable, ObservableLike, observable_on
from .parameters import Values, values_in_order
from .program import Program
from .progress import Progress, reporter
from .readout import register_bytes
from .state_vector import StateVector


@overload
def value_and_gradient(
    circuit: Program,
    observable: ObservableLike | StateVector,
    values: Values | None = None,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    initial: StateVector | None = None,
    progress: Progress = None,
) -> tuple[float, NDArray[np.float64]]: ...


@overload
def value_and_gradient(
    circuit: Program,
    observable: Sequence[ObservableLike],
    values: Values | None = None,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    initial: StateVector | None = None,
    progress: Progress = None,
) -> tuple[NDArray[np.float64], NDArray[np.float64]]: ...


def value_and_gradient(
    circuit: Program,
    observable: ObservableLike | StateVector | Sequence[ObservableLike],
    values: Values | None = None,
    precision: Precision = "double",
    threads: SupportsIndex | None = None,
    initial: StateVector | None = None,
    progress: Progress = None,
) -> tuple[float | NDArray[np.float64], NDArray[np.float64]]:
    """The exact expectation value of an observable after a circuit from |0...0>, or from `initial`,
    and its derivatives by the parameters: a float and a float64 array of shape (parameters,) in the
    order of `circuit.parameters`. `values` are those of the parameters, in order or by parameter or
    name, in radians where they are angles.

    A sequence of m observables gives arrays of shapes (m,) and (m, parameters); the circuit then
    runs forward once for all of them. A `StateVector` in place of an observable asks for the
    squared magnitude of the overlap with it, the fidelity.

    The cost is that of three to five runs of the circuit, whatever the number of parameters, and
    the memory that of two states, three for several observables. Results are the same for every
    number of threads. In "float" amplitudes are float32; sums are taken in double.

    >>> scipy.optimize.minimize(
    ...     lambda x: value_and_gradient(circuit, observable, x), start, jac=True)

    ValueError for values that are missing, too many or not finite, for a circuit with measurements,
    resets, conditions or matrices that are not unitary, and for an observable with coefficients
    that are not real or on other qubits than the circuit's. Ctrl-C, and an exception from
    `progress`, which is told the gates done forward and backward, stop between passes over the
    state.
    """
    if not isinstance(circuit, Program):
        raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
    if not circuit.is_unitary:
        raise ValueError("circuit measures, resets or has conditions: it has no gradient")
    numbers = values_in_order(circuit, values)
    size = circuit.num_qubits
    single = isinstance(observable, (Observable, str, Mapping, StateVector))
    listed: list[Any] = [observable] if single else _elements(observable)
    if initial is not None:
        _require_state(initial, "initial", size)
    if isinstance(observable, StateVector):
        _require_state(observable, "observable", size)
    else:
        listed = [observable_on(size, each, hermitian=True, owner="circuit") for each in listed]
    require_memory(
        (2 + (len(listed) > 1)) * register_bytes(size, precision), f"a gradient on {size} qubits"
    )
    state = StateVector(size, precision, threads)
    if initial is not None:
        state.amplitudes[:] = initial.amplitudes
    target: Any = None
    if isinstance(observable, StateVector):
        target = observable.core
        if observable.precision != state.precision:
            other = StateVector(size, precision, threads)
            other.amplitudes[:] = observable.amplitudes
            target = other.core
    records = [each.record(state.precision) for each in listed] if target is None else []
    gates, columns = _gates_of(circuit)
    with reporter(progress, (1 + len(listed)) * len(gates), "gate") as report:
        results, rows = _core.value_and_gradient(
            gates, state.core, records, numbers[columns], report, target
        )
    jacobian = np.zeros((len(results), len(numbers)))
    jacobian[:, columns] = rows
    return (float(results[0]), jacobian[0]) if single else (results, jacobian)


def _elements(observables: object) -> list[Any]:
    if not isinstance(observables, Sequence):
        raise TypeError(
            "observable must be an Observable, a string, a dict of terms, a StateVector or a "
            f"sequence of observables, got {observables!r}"
        )
    return list(observables)


def _require_state(given: object, name: str, num_qubits: int) -> None:
    if not isinstance(given, StateVector):
        raise TypeError(f"{name} must be a StateVector, got {given!r}")
    if given.num_qubits != num_qubits:
        raise ValueError(
            f"{name} has {given.num_qubits} qubits; the circuit has {num_qubits}"
        )


def _gates_of(circuit: Program) -> tuple[GateList, Any]:
    """The gates as one list, and which of the circuit's parameters are those of the list. Where
    there is but one list it is the circuit's own, which keeps its plans."""
    lists = [step for step in circuit.steps if isinstance(step, GateList)]
    if len(lists) == 1:
        return lists[0], slice(None)
    joined = GateList(circuit.num_qubits)
    for gates in lists:
        joined.extend(gates)
    places = {parameter.name: place for place, parameter in enumerate(circuit.parameters)}
    return joined, [places[name] for name in joined.parameters]
