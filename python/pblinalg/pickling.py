"""How objects of the lower level are copied and pickled. Those of the upper level say so
themselves; a state's generator is part of its state and is not copied alone."""

from __future__ import annotations

import copyreg
from collections.abc import Callable
from typing import Any

from . import _core


def _state(state: Any) -> tuple[Callable[..., Any], tuple[Any, ...]]:
    options = (state.num_threads, state.density_matrix, state.rng.position)
    return state_of, (type(state), state.state, *options)


def state_of(kind: Any, amplitudes: Any, num_threads: int, density: bool, position: str) -> Any:
    """The state that a pickle describes."""
    state = kind(0)
    state.set_num_threads(num_threads)
    state.density_matrix = density
    state.rng.position = position
    if amplitudes.size:
        state.resize(amplitudes.size.bit_length() - 1)
        state.state[:] = amplitudes
    else:
        state.release_memory()
    return state


def _circuit(circuit: Any) -> tuple[Callable[..., Any], tuple[Any, ...]]:
    gates = (circuit.gate_names, circuit.gate_params, circuit.gate_qubits)
    return circuit_of, (type(circuit), circuit.nqubits, list(zip(*gates)))


def circuit_of(kind: Any, nqubits: int, gates: list[Any]) -> Any:
    """The circuit record that a pickle describes."""
    circuit = kind(nqubits)
    for gate in gates:
        circuit.add_gate(*gate)
    return circuit


def _observable(observable: Any) -> tuple[Callable[..., Any], tuple[Any, ...]]:
    masks = (observable.flip_masks, observable.sign_masks, observable.phase_powers)
    fields = (observable.coefficients, *masks, observable.constant)
    return observable_of, (type(observable), fields, observable.trailing_word)


def observable_of(kind: Any, fields: tuple[Any, ...], trailing_word: int) -> Any:
    """The record of an observable that a pickle describes."""
    observable = kind(*fields)
    observable.trailing_word = trailing_word
    return observable


def _term(term: Any) -> tuple[Any, tuple[Any, ...]]:
    return type(term), (term.qubits, term.paulis, term.coefficient)


for _name, _reduce in (
    ("PybindLinAlgStateVectorCPU", _state),
    ("PybindLinAlgWCircuit", _circuit),
    ("WObservable", _observable),
    ("SimpleTerm", _term),
):
    for _precision in ("Float", "Double"):
        copyreg.pickle(getattr(_core, _name + _precision), _reduce)
