"""Textbook linear algebra on dense NumPy arrays, complex128, qubit 0 most significant. It shares
no code with the package."""

import numpy as np

X = np.array([[0, 1], [1, 0]], dtype=complex)
Y = np.array([[0, -1j], [1j, 0]])
Z = np.diag([1, -1]).astype(complex)
I2 = np.eye(2, dtype=complex)
H = (X + Z) / np.sqrt(2)


def rotation(pauli, theta):
    return np.cos(theta / 2) * np.eye(len(pauli)) - 1j * np.sin(theta / 2) * pauli


def phase(theta):
    return np.diag([1, np.exp(1j * theta)])


SWAP = (np.eye(4) + np.kron(X, X) + np.kron(Y, Y) + np.kron(Z, Z)).astype(complex) / 2
_exchange = (np.kron(X, X) + np.kron(Y, Y)) / 2
ISWAP = np.eye(4) + 1j * _exchange - _exchange @ _exchange
SQRT_SWAP = (1 + 1j) / 2 * np.eye(4) + (1 - 1j) / 2 * SWAP


def controlled(matrix, controls):
    """`matrix` under `controls` more qubits, which come first."""
    size = len(matrix) << controls
    result = np.eye(size, dtype=complex)
    result[size - len(matrix) :, size - len(matrix) :] = matrix
    return result


def embed(matrix, qubits, n):
    """The matrix on n qubits that acts on `qubits`, the first listed one most significant."""
    k = len(qubits)
    cube = np.eye(2**n, dtype=complex).reshape((2,) * n + (2**n,))
    cube = np.moveaxis(cube, qubits, range(k)).reshape(2**k, -1)
    cube = (np.asarray(matrix) @ cube).reshape((2,) * n + (2**n,))
    return np.moveaxis(cube, range(k), qubits).reshape(2**n, 2**n)


def random_unitary(rng, size):
    unitary, _ = np.linalg.qr(rng.normal(size=(size, size)) + 1j * rng.normal(size=(size, size)))
    return unitary


def random_state(rng, n):
    state = rng.normal(size=2**n) + 1j * rng.normal(size=2**n)
    return state / np.linalg.norm(state)


def bit_reversal(n):
    """Caller index by internal index."""
    return np.array([int(format(i, f"0{n}b")[::-1] or "0", 2) for i in range(2**n)])
