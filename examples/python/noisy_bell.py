"""A Bell pair under noise, as a density matrix."""

import numpy as np

import pblinalg as pb

p = 0.1
state = pb.DensityMatrix(2, seed=5).h(0).cx(0, 1)
for qubit in range(2):
    state.depolarize(p, qubit)

print(np.round(state.to_array(), 4))
print(state.sample(1000).histogram())

# Depolarising a qubit scales the correlations that it takes part in by 1 - p.
for pauli, sign in (("XX", 1), ("YY", -1), ("ZZ", 1)):
    assert abs(state.expectation(f"1.0*{pauli}") - sign * (1 - p) ** 2) < 1e-12
bell = np.array([1, 0, 0, 1]) / np.sqrt(2)
fidelity = (bell @ state.to_array() @ bell).real
print(f"fidelity {fidelity:.4f}, purity {state.purity():.4f}")
assert abs(fidelity - (1 + 3 * (1 - p) ** 2) / 4) < 1e-12
assert abs(np.trace(state.to_array()) - 1) < 1e-12
