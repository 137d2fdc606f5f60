"""The ground state energy of a hydrogen molecule in four qubits, found by L-BFGS-B with gradients.

Integrals over the molecular orbitals of H2 in the STO-3G basis at 1.401 bohr, in Hartree: J. D.
Whitfield, J. Biamonte, A. Aspuru-Guzik, "Simulation of electronic structure Hamiltonians using
quantum computers", Mol. Phys. 109, 735 (2011). Needs SciPy.
"""

from itertools import product

import numpy as np
from scipy.optimize import minimize

import pblinalg as pb

energies = [-1.252477, -0.475934]
coulomb = [[0.674493, 0.663472], [0.663472, 0.697397]]
exchange = 0.181287
nuclear_repulsion = 1 / 1.401
chemical_accuracy = 1.6e-3


def ladder(qubit: int, sign: int) -> pb.Observable:
    """Puts an electron (sign -1) or takes one away: (X + sign * iY) / 2 behind letters Z, which
    keep the sign of exchanges."""
    rest = "I" * (3 - qubit)
    return pb.Observable({"Z" * qubit + "X" + rest: 0.5, "Z" * qubit + "Y" + rest: sign * 0.5j})


# Qubit 2 * orbital + spin is 1 when an electron is there.
put, take = ([ladder(qubit, sign) for qubit in range(4)] for sign in (-1, 1))
hamiltonian = sum(
    energies[orbital] * put[2 * orbital + spin] * take[2 * orbital + spin]
    for orbital, spin in product(range(2), repeat=2)
)
for p, q, s, t in product(range(2), repeat=4):
    a, b = 2 * p + s, 2 * q + t
    hamiltonian += 0.5 * coulomb[p][q] * put[a] * put[b] * take[b] * take[a]
    if p != q:
        c, d = 2 * q + s, 2 * p + t
        hamiltonian += 0.5 * exchange * put[a] * put[b] * take[d] * take[c]
        # Both electrons change the orbital.
        e, f = 2 * p + t, 2 * q + t
        hamiltonian += 0.5 * exchange * put[a] * put[e] * take[f] * take[c]
hamiltonian = pb.Observable({k: c.real for k, c in hamiltonian.terms.items() if abs(c) > 1e-12})

# Both electrons in the lower orbital, then layers of rotations and entangling gates.
parameters = [pb.Parameter(f"x{i}") for i in range(24)]
angles = iter(parameters)
ansatz = pb.Circuit(4).x(0).x(1)
for _ in range(3):
    for qubit in range(4):
        ansatz.ry(next(angles), qubit).rz(next(angles), qubit)
    ansatz.cz(0, 1).cz(1, 2).cz(2, 3)

evaluations = []


def energy(values: np.ndarray) -> tuple[float, np.ndarray]:
    value, gradient = pb.value_and_gradient(ansatz, hamiltonian, values)
    evaluations.append(value)
    return value, gradient


start = np.random.default_rng(5).normal(scale=0.2, size=len(parameters))
found = minimize(energy, start, jac=True, method="L-BFGS-B", options={"maxiter": 300})
exact = np.linalg.eigvalsh(hamiltonian.matrix())[0]
print(
    f"{len(evaluations)} evaluations: energy {found.fun + nuclear_repulsion:.6f}, "
    f"exact {exact + nuclear_repulsion:.6f}"
)
assert abs(exact + nuclear_repulsion - -1.1373) < 1e-4
assert found.fun - exact < chemical_accuracy
