"""Reduced density matrices, entropies and fidelities against dense linear algebra."""

from itertools import combinations, permutations

import numpy as np
import pytest
import scipy.linalg

import pblinalg as pb
from dense import random_state


def traced(matrix, qubits, n):
    """The trace of a 2^n x 2^n matrix over all but the listed qubits."""
    others = [q for q in range(n) if q not in qubits]
    axes = [*qubits, *others, *(n + q for q in qubits), *(n + q for q in others)]
    k, r = 2 ** len(qubits), 2 ** len(others)
    return np.einsum("arbr->ab", matrix.reshape((2,) * 2 * n).transpose(axes).reshape(k, r, k, r))


def entropy(matrix):
    weights = np.linalg.eigvalsh(matrix)
    return -sum(w * np.log2(w) for w in weights if w > 1e-14)


def random_mixture(rng, n):
    states = np.array([random_state(rng, n) for _ in range(3)])
    mixture = np.einsum("s,si,sj->ij", [0.4, 0.3, 0.2], states, states.conj())
    return mixture + 0.1 / 2**n * np.eye(2**n)


def test_every_subset_of_qubits(precision, rng):
    n = 4
    vector, mixture = random_state(rng, n), random_mixture(rng, n)
    state = pb.StateVector(n, precision.name).set_amplitudes(vector)
    mixed = pb.DensityMatrix(n, precision.name).set_matrix(mixture)
    pure = np.outer(vector, vector.conj())
    close = dict(atol=20 * precision.tolerance)
    rough = dict(abs=2e3 * precision.tolerance)
    for k in range(n + 1):
        for qubits in permutations(range(n), k):
            reduced = state.reduced_density_matrix(qubits)
            assert reduced.dtype == np.complex128
            np.testing.assert_allclose(reduced, traced(pure, qubits, n), **close)
            expected = traced(mixture, qubits, n)
            np.testing.assert_allclose(mixed.reduced_density_matrix(qubits), expected, **close)
        for qubits in combinations(range(n), k):
            inside = entropy(traced(pure, qubits, n))
            assert state.entanglement_entropy(qubits) == pytest.approx(inside, **rough)
            expected = entropy(traced(mixture, qubits, n))
            assert mixed.entropy(qubits) == pytest.approx(expected, **rough)
    assert state.reduced_density_matrix(1).shape == (2, 2)
    ghz = pb.StateVector(20, precision.name).h(0)
    for qubit in range(1, 20):
        ghz.cx(0, qubit)
    # The smaller side of 19 qubits is the one that is left.
    assert ghz.entanglement_entropy(range(19)) == pytest.approx(1, **rough)
    assert pb.StateVector(5).h(2).entanglement_entropy([2, 3]) == pytest.approx(0, abs=1e-12)


def test_fidelities(precision, rng):
    n = 3
    vectors = [random_state(rng, n) for _ in range(2)]
    mixtures = [random_mixture(rng, n) for _ in range(2)]
    states = [pb.StateVector(n, precision.name).set_amplitudes(v) for v in vectors]
    mixed = [pb.DensityMatrix(n, precision.name).set_matrix(m) for m in mixtures]

    def uhlmann(first, second):
        root = scipy.linalg.sqrtm(first)
        return np.trace(scipy.linalg.sqrtm(root @ second @ root)).real ** 2

    overlap = abs(np.vdot(*vectors)) ** 2
    inside = np.vdot(vectors[0], mixtures[0] @ vectors[0]).real
    cases = [
        (states[0], states[1], overlap), (states[0], vectors[1], overlap),
        (states[0], mixed[0], inside), (mixed[0], states[0], inside),
        (states[0], mixtures[0], inside), (mixed[0], vectors[0], inside),
        (mixed[0], mixed[1], uhlmann(*mixtures)), (mixed[0], mixtures[1], uhlmann(*mixtures)),
        (states[0], states[0], 1), (mixed[1], mixed[1], 1),
    ]  # fmt: skip
    for first, second, expected in cases:
        assert first.fidelity(second) == pytest.approx(expected, abs=1e3 * precision.tolerance)
    pure = [pb.DensityMatrix(n, precision.name).set_state(state) for state in states]
    # Roots of rounded zeros would show here.
    assert pure[0].fidelity(pure[1]) == pytest.approx(overlap, abs=1e3 * precision.tolerance)
