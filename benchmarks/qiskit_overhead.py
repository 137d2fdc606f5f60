"""What a Qiskit circuit costs outside the library, its translation included: medians of whole jobs
of the backend and of the estimator, and what is left of them without the calls that run, sample and
evaluate states. `qiskit_overhead.py [REPETITIONS]`; the circuit has 2000 gates on 20 qubits, half
of them with angles.
"""

import statistics
import sys
import time

import numpy as np
from qiskit import QuantumCircuit
from qiskit.quantum_info import SparsePauliOp

import pblinalg as pb
from pblinalg.qiskit import Backend, Estimator
from pblinalg.qiskit_circuits import translate

NUM_QUBITS, NUM_GATES, SHOTS = 20, 2000, 1024


def random_circuit(measure: bool) -> QuantumCircuit:
    """A quarter each of RX, H, CX and U."""
    rng = np.random.default_rng(1)
    circuit = QuantumCircuit(NUM_QUBITS)
    for _ in range(NUM_GATES // 4):
        a, b, c, d, e = rng.permutation(NUM_QUBITS)[:5].tolist()
        circuit.rx(rng.normal(), a)
        circuit.h(b)
        circuit.cx(c, d)
        circuit.u(*rng.normal(size=3), e)
    if measure:
        circuit.measure_all()
    return circuit


class Inside:
    """Adds up the time spent in calls of the library."""

    def __init__(self) -> None:
        self.seconds = 0.0

    def watch(self, owner: type, name: str) -> None:
        """Has the calls of a method measured."""
        original = getattr(owner, name)

        def measured(*arguments, **keywords):
            start = time.perf_counter()
            try:
                return original(*arguments, **keywords)
            finally:
                self.seconds += time.perf_counter() - start

        setattr(owner, name, measured)


def main() -> None:
    repetitions = int(sys.argv[1]) if len(sys.argv) > 1 else 11
    inside = Inside()
    inside.watch(pb.lowlevel.GateList, "run")
    for name in ("__init__", "sample_outcomes", "expectation", "reset"):
        inside.watch(pb.StateVector, name)
    observable = SparsePauliOp(["Z" * NUM_QUBITS, "X" + "I" * (NUM_QUBITS - 1)])
    measured, unmeasured = random_circuit(True), random_circuit(False)
    print(f"{'milliseconds':24}{'whole':>8}{'outside':>9}{'translation':>13}{'share outside':>15}")
    for precision in ("double", "float"):
        backend, estimator = Backend(precision), Estimator(precision=precision)
        jobs = {
            "backend": (measured, lambda: backend.run(measured, shots=SHOTS)),
            "estimator": (unmeasured, lambda: estimator.run([(unmeasured, observable)])),
        }
        for name, (circuit, job) in jobs.items():
            rows = []
            for _ in range(repetitions):
                inside.seconds = 0.0
                start = time.perf_counter()
                job().result()
                whole = time.perf_counter() - start
                outside = whole - inside.seconds
                start = time.perf_counter()
                translate(circuit)
                rows.append((whole, outside, time.perf_counter() - start))
            whole, outside, translation = (1e3 * statistics.median(c) for c in zip(*rows))
            title = f"{name}, {precision}"
            print(f"{title:24}{whole:8.1f}{outside:9.2f}{translation:13.2f}{outside / whole:15.1%}")


if __name__ == "__main__":
    main()
