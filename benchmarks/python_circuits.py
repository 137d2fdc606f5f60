"""What circuits of the Python package cost beside their gates: `python_circuits.py [GATES]`.

Times in milliseconds, the shortest of several: making a circuit of layers on 10 qubits gate by
gate, its first run, which plans it, a later one, and runs of one whose angles are parameters.
"""

import sys
import time
from collections.abc import Callable

import numpy as np

import pblinalg as pb

QUBITS = 10
REPEATS = 25


def built(angles: list) -> pb.Circuit:
    """Five gates for each two angles."""
    circuit = pb.Circuit(QUBITS)
    for i in range(0, len(angles), 2):
        qubit = i // 2 % QUBITS
        circuit.h(qubit)
        circuit.rz(angles[i], qubit)
        circuit.cx(qubit, (qubit + 1) % QUBITS)
        circuit.rx(angles[i + 1], qubit)
        circuit.t(qubit)
    return circuit


def shortest(work: Callable[[], object]) -> float:
    times = []
    for _ in range(REPEATS):
        begin = time.perf_counter()
        work()
        times.append(time.perf_counter() - begin)
    return 1e3 * min(times)


def main() -> None:
    gates = int(sys.argv[1]) if len(sys.argv) > 1 else 10000
    values = np.random.default_rng(1).normal(size=gates // 5 * 2)
    numbers = values.tolist()
    parameters = [pb.Parameter(f"p{i}") for i in range(len(numbers))]
    circuit, open_circuit = built(numbers), built(parameters)
    state = pb.StateVector(QUBITS)
    rows: list[tuple[str, Callable[[], object]]] = [
        ("build", lambda: built(numbers)),
        ("build with parameters", lambda: built(parameters)),
        ("build and run", lambda: state.run(built(numbers), False)),
        ("run again", lambda: state.run(circuit, False)),
        ("run with new values", lambda: state.run(open_circuit, False, values)),
        ("bind", lambda: open_circuit.bind(values)),
        ("bind and run", lambda: state.run(open_circuit.bind(values), False)),
    ]
    print(f"{len(circuit)} gates, {QUBITS} qubits, {len(numbers)} angles")
    for name, work in rows:
        taken = shortest(work)
        print(f"{name:<24}{taken:8.3f} ms{1e6 * taken / len(circuit):8.1f} ns per gate")


if __name__ == "__main__":
    main()
