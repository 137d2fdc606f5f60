"""The ground state energy of a hydrogen molecule by a variational circuit.

The Hamiltonian is that of H2 at 0.7414 Angstrom in the STO-3G basis, reduced by its symmetries to
two qubits, without the repulsion of the nuclei. Energies are in Hartree.
"""

import numpy as np

import pblinalg as pb

hamiltonian = pb.Observable(
    {"II": -1.052373245772859, "IZ": 0.39793742484318045, "ZI": -0.39793742484318045,
     "ZZ": -0.01128010425623538, "XX": 0.18093119978423156}
)  # fmt: skip
nuclear_repulsion = 0.7199689944489797


def ansatz(theta: float) -> pb.Circuit:
    """Mixes the two states of one electron pair: cos(theta/2) |10> + sin(theta/2) |01>."""
    return pb.Circuit(2).x(0).ry(theta, 1).cx(1, 0)


state = pb.StateVector(2, seed=3)


def energy(theta: float) -> float:
    return state.reset().run(ansatz(theta)).expectation(hamiltonian)


# The energy is a constant plus one harmonic of theta, so three values give its minimum.
middle, plus, minus = energy(0), energy(np.pi / 2), energy(-np.pi / 2)
theta = np.arctan2((plus - minus) / 2, middle - (plus + minus) / 2) + np.pi
lowest = energy(theta)
exact = np.linalg.eigvalsh(hamiltonian.matrix())[0]
print(
    f"theta {theta:.6f}, energy {lowest + nuclear_repulsion:.9f}, "
    f"exact {exact + nuclear_repulsion:.9f}"
)
assert abs(lowest - exact) < 1e-9

estimate, error = state.estimate(hamiltonian, shots=10000)
print(f"from 10000 shots a term: {estimate + nuclear_repulsion:.4f} +- {error:.4f}")
assert abs(estimate - exact) < 5 * error
