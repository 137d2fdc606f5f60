"""Matrices taken apart into gates on one qubit under controls, for formats without matrices."""

from __future__ import annotations

import cmath
import math

import numpy as np
from numpy.typing import NDArray

#: A two-by-two matrix that acts on one place where the other places read what is listed.
ControlledMatrix = tuple[int, dict[int, int], NDArray[np.complex128]]


def euler_angles(matrix: NDArray[np.complex128]) -> tuple[float, float, float, float]:
    """(alpha, beta, gamma, delta) with matrix = e^(i alpha) Rz(beta) Ry(gamma) Rz(delta)."""
    alpha = cmath.phase(matrix[0, 0] * matrix[1, 1] - matrix[0, 1] * matrix[1, 0]) / 2
    special = matrix * cmath.exp(-1j * alpha)
    gamma = 2 * math.atan2(abs(special[1, 0]), abs(special[0, 0]))
    total = 2 * cmath.phase(special[1, 1]) if abs(special[1, 1]) > 1e-12 else 0.0
    difference = 2 * cmath.phase(special[1, 0]) if abs(special[1, 0]) > 1e-12 else 0.0
    return alpha, (total + difference) / 2, gamma, (total - difference) / 2


def two_level_steps(matrix: NDArray[np.complex128]) -> list[ControlledMatrix]:
    """A unitary matrix on k places as matrices on one place each, to be applied in order. The
    first place is the most significant bit of an index."""
    size = len(matrix)
    places = size.bit_length() - 1
    rest = np.array(matrix, dtype=np.complex128)
    undone: list[ControlledMatrix] = []
    # Along a Gray code neighbours differ in one bit, so that each rotation is one controlled gate.
    order = [i ^ i >> 1 for i in range(size)]
    for column in range(size - 1):
        for row in range(size - 1, column, -1):
            upper, lower = order[row - 1], order[row]
            a, b = rest[upper, order[column]], rest[lower, order[column]]
            norm = math.hypot(abs(a), abs(b))
            at_end = row - 1 == column
            if abs(b) < 1e-15 and not (at_end and abs(a - 1) > 1e-15):
                continue
            entries = [[a.conjugate(), b.conjugate()], [b, -a]]
            rotation = np.array(entries, dtype=np.complex128) / norm
            rest[[upper, lower]] = rotation @ rest[[upper, lower]]
            undone.append(_step(upper, lower, places, rotation.conj().T))
    last, other = order[-1], order[-2]
    if abs(rest[last, last] - 1) > 1e-15:
        undone.append(
            _step(other, last, places, np.diag([1, rest[last, last]]).astype(np.complex128))
        )
    return undone[::-1]


def _step(upper: int, lower: int, places: int, matrix: NDArray[np.complex128]) -> ControlledMatrix:
    target = places - (upper ^ lower).bit_length()
    if upper > lower:
        matrix = matrix[::-1, ::-1]
    controls = {p: upper >> (places - 1 - p) & 1 for p in range(places) if p != target}
    return target, controls, matrix
