"""Grover's search with the phase oracle: one marked value among 4096."""

import math

import pblinalg as pb

n = 12
marked = 0b101100111010
qubits = range(n)


def hadamards(circuit: pb.Circuit) -> pb.Circuit:
    for qubit in qubits:
        circuit.h(qubit)
    return circuit


rounds = math.floor(math.pi / 4 * math.sqrt(2**n))
circuit = hadamards(pb.Circuit(n))
for _ in range(rounds):
    circuit.phase_oracle([marked], qubits)
    # The reflection about the even superposition, up to a sign: all but |0...0> negated.
    hadamards(circuit)
    circuit.phase_oracle([0], qubits)
    hadamards(circuit)

state = pb.StateVector(n, seed=1).run(circuit)
found = state.probability(marked)
expected = math.sin((2 * rounds + 1) * math.asin(2 ** (-n / 2))) ** 2
(outcome, _), *_ = state.sample(100).most_common(1)
print(f"after {rounds} rounds the marked value {outcome} has probability {found:.6f}")

assert int(outcome, 2) == marked
assert abs(found - expected) < 1e-9
