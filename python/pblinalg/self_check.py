"""A quick look at whether this installation computes what it should."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from .arguments import Precision
from .circuit import Circuit
from .observable import Observable
from .state_vector import StateVector


def self_check() -> Iterator[tuple[str, bool]]:
    """Names of checks and whether they passed, in both precisions."""
    tolerances: dict[Precision, float] = {"double": 1e-12, "float": 1e-5}
    for precision, tolerance in tolerances.items():
        yield f"gates against dense matrices ({precision})", _gates(precision) < tolerance
        yield f"a circuit and its inverse ({precision})", _round_trip(precision) < tolerance
        yield f"expectation values ({precision})", _expectation(precision) < tolerance
        yield f"shots of one seed on 1 and 2 threads ({precision})", _shots(precision)


def _random_circuit(n: int, gates: int) -> Circuit:
    rng = np.random.default_rng(1)
    circuit = Circuit(n)
    for _ in range(gates):
        a, b = (int(q) for q in rng.choice(n, 2, replace=False))
        circuit.h(a).rx(rng.normal(), b).cx(a, b).t(b).rz(rng.normal(), a, [b]).iswap(a, b)
    return circuit


def _gates(precision: Precision) -> float:
    n = 5
    state = StateVector(n, precision).h(0)
    expected = np.zeros(2**n, dtype=complex)
    expected[[0, 2 ** (n - 1)]] = 0.5**0.5
    rng = np.random.default_rng(2)
    for qubit in range(n):
        matrix, _ = np.linalg.qr(rng.normal(size=(4, 4)) + 1j * rng.normal(size=(4, 4)))
        other = (qubit + 2) % n
        state.unitary(matrix, [qubit, other])
        cube = np.moveaxis(expected.reshape((2,) * n), (qubit, other), (0, 1))
        cube = (matrix @ cube.reshape(4, -1)).reshape((2,) * n)
        expected = np.moveaxis(cube, (0, 1), (qubit, other)).reshape(-1)
    return float(np.abs(state.to_array() - expected).max())


def _round_trip(precision: Precision) -> float:
    circuit = _random_circuit(6, 10)
    state = StateVector(6, precision).run(circuit).run(circuit.inverse())
    return abs(state.probability("000000") - 1)


def _expectation(precision: Precision) -> float:
    state = StateVector(4, precision).run(_random_circuit(4, 8))
    observable = Observable({"XYZI": 0.5, "IZZX": -1.5, "IIII": 2.0})
    amplitudes = state.to_array().astype(complex)
    expected = np.vdot(amplitudes, observable.matrix() @ amplitudes).real
    return float(abs(state.expectation(observable) - expected))


def _shots(precision: Precision) -> bool:
    circuit = _random_circuit(16, 4)
    one, two = (circuit.run(50, precision=precision, threads=t, seed=3) for t in (1, 2))
    return one == two
