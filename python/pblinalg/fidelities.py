"""Numbers that compare states and measure how mixed they are, from plain arrays: vectors of 2^n
amplitudes and density matrices."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray

#: Elements of a sum that are converted to complex128 at a time.
_PIECE = 1 << 16


def fidelity(first: NDArray[Any], second: NDArray[Any]) -> float:
    """(tr sqrt(sqrt(a) b sqrt(a)))^2, which is |<a|b>|^2 for two vectors and <a|b|a> for a vector
    and a matrix. Nothing is normalised."""
    if first.ndim < second.ndim:
        first, second = second, first
    if first.ndim == 1:
        return abs(_inner(first, second)) ** 2
    if second.ndim == 1:
        return _inner(second, first @ second).real
    values, vectors = np.linalg.eigh(first.astype(np.complex128))
    rounding = max(float(np.finfo(part.dtype).eps) for part in (first, second))
    root = vectors * _roots(values, rounding) @ vectors.conj().T
    return float(_roots(np.linalg.eigvalsh(root @ second @ root), rounding).sum() ** 2)


def _roots(values: NDArray[np.float64], rounding: float) -> NDArray[np.float64]:
    """Square roots of eigenvalues; what rounding alone leaves of zeros would be large as a root."""
    negligible = len(values) * rounding * np.abs(values).max()
    return np.sqrt(np.where(values > negligible, values, 0))


def entropy(matrix: NDArray[np.complex128]) -> float:
    """The von Neumann entropy of a density matrix, in bits."""
    weights = np.linalg.eigvalsh(matrix)
    weights = weights[weights > 0]
    return max(0.0, float(-(weights * np.log2(weights)).sum()))


def _inner(first: NDArray[Any], second: NDArray[Any]) -> complex:
    total = 0j
    for begin in range(0, len(first), _PIECE):
        piece = slice(begin, begin + _PIECE)
        wide = [part[piece].astype(np.complex128, copy=False) for part in (first, second)]
        total += complex(np.vdot(*wide))
    return total
