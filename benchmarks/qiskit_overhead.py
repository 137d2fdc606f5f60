"""What a Qiskit circuit costs outside the library: milliseconds of whole jobs of the backend and the
estimator, beside those of the library's own calls in them.

`qiskit_overhead.py [REPETITIONS]`; the circuit has 2000 gates on 20 qubits, half of them with
angles. Runs alternate; medians are shown.
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


def timed(action) -> float:
    start = time.perf_counter()
    action()
    return 1e3 * (time.perf_counter() - start)


def main() -> None:
    repetitions = int(sys.argv[1]) if len(sys.argv) > 1 else 11
    observable = SparsePauliOp(["Z" * NUM_QUBITS, "X" + "I" * (NUM_QUBITS - 1)])
    own = pb.Observable({letters[::-1]: 1.0 for letters in observable.paulis.to_labels()})
    measured, unmeasured = random_circuit(True), random_circuit(False)

    def library(circuit: QuantumCircuit, precision: str, sample: bool) -> float:
        translated = translate(circuit).circuit

        def calls() -> None:
            state = pb.StateVector(NUM_QUBITS, precision)
            for step in translated.steps:
                if isinstance(step, pb.lowlevel.GateList):
                    step.run(state.core)
            state.sample_outcomes(SHOTS) if sample else state.expectation(own)

        return timed(calls)

    print(f"{'':24}{'whole':>8}{'library':>9}{'translation':>13}{'outside':>9}")
    for precision in ("double", "float"):
        backend, estimator = Backend(precision), Estimator(precision=precision)
        jobs = {
            "backend": (measured, lambda: backend.run(measured, shots=SHOTS).result()),
            "estimator": (unmeasured, lambda: estimator.run([(unmeasured, observable)]).result()),
        }
        for name, (circuit, job) in jobs.items():
            rows = [
                (
                    timed(job),
                    library(circuit, precision, name == "backend"),
                    timed(lambda: translate(circuit)),
                )
                for _ in range(repetitions)
            ]
            whole, inside, translation = map(statistics.median, zip(*rows))
            share = statistics.median(1 - row[1] / row[0] for row in rows)
            title = f"{name}, {precision}"
            print(f"{title:24}{whole:8.1f}{inside:9.1f}{translation:13.1f}{share:9.1%}")


if __name__ == "__main__":
    main()
