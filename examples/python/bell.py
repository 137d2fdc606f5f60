"""A Bell pair: two qubits that always agree."""

import pblinalg as pb

circuit = pb.Circuit(2).h(0).cx(0, 1)
state = pb.StateVector(2, seed=7).run(circuit)
print(state)

counts = state.sample(1000)
print(counts.histogram())

assert counts.keys() == {"00", "11"}
assert abs(state.expectation("1.0*ZZ") - 1) < 1e-12
assert abs(state.expectation("1.0*XX") - 1) < 1e-12
