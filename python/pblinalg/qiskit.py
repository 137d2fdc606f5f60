"""The library as Qiskit wants it: `Backend`, `Sampler`, `Estimator` and `statevector`, with qubits
and bits in Qiskit's order. This module needs the `qiskit` extra."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

_NEEDED = "pblinalg.qiskit needs Qiskit 2: pip install 'pblinalg[qiskit]'"
try:
    import qiskit
    from qiskit import QuantumCircuit
except ImportError as error:
    raise ImportError(_NEEDED) from error
if int(qiskit.__version__.split(".")[0]) < 2:
    raise ImportError(f"{_NEEDED} (found {qiskit.__version__})")

from .arguments import Precision
from .qiskit_backend import Backend, Job, SimulationError, own_errors, seeds_of
from .qiskit_circuits import from_qiskit, translate
from .qiskit_primitives import Estimator, Sampler
from .state_vector import StateVector

__all__ = [
    "Backend",
    "Estimator",
    "Job",
    "Sampler",
    "SimulationError",
    "from_qiskit",
    "statevector",
]


def statevector(
    circuit: QuantumCircuit,
    values: ArrayLike | None = None,
    precision: Precision = "double",
    threads: int | None = None,
    seed: int | np.random.Generator | None = None,
) -> NDArray[np.complexfloating[Any, Any]]:
    """The amplitudes after a circuit from |0...0>, as a new array of 2^n complex128 (complex64 in
    float) in Qiskit's order: qubit 0 is the least significant bit of an index. `values` are those
    of the circuit's parameters, in its order. A circuit that measures or resets takes one course,
    which `seed` decides. SimulationError says what cannot be simulated."""
    with own_errors():
        translation = translate(circuit)
        numbers = np.asarray([] if values is None else values, dtype=np.float64)
        if numbers.shape != (circuit.num_parameters,):
            raise ValueError(
                f"values has shape {numbers.shape}; expected one number for each of the "
                f"{circuit.num_parameters} parameters of the circuit"
            )
        state = StateVector(circuit.num_qubits, precision, threads, seeds_of(seed, 1)[0])
        state.run(translation.circuit, values=translation.values(numbers))
        translation.check(state.classical_bits)
        return state.amplitudes
