"""Channels: noise on a few qubits, each stated once for density matrices and trajectories."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping
from functools import reduce
from itertools import product
from typing import Any, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from .arguments import complex_array, count, probability_number
from .gates import check_unitary

Matrix = NDArray[np.complex128]

#: How far sums that make up a channel may be from 1 or from the identity.
TOLERANCE = 1e-6

_PAULIS: dict[str, Matrix] = {
    "I": np.eye(2, dtype=np.complex128),
    **{letter: _core.gate_matrix(letter) for letter in "XYZ"},
}


class Channel:
    """Noise on one or several qubits: one of several operators acts, which one is left to chance.

    operators: Kraus operators, matrices of 2^k rows whose indices have the first qubit as their
    most significant bit. ValueError unless the sum of K^dagger K over them is the identity within
    1e-6.

    The class methods make the common channels. Those that apply unitary gates with fixed
    probabilities are `mixture`s, which trajectories draw without a look at the state.

    >>> DensityMatrix(2).channel(Channel.depolarizing(0.1, num_qubits=2), [0, 1])
    """

    __slots__ = ("_operators", "_probabilities", "_text", "_unitaries")

    def __init__(self, operators: Iterable[ArrayLike]) -> None:
        self._operators = kraus_operators(operators)
        self._probabilities: tuple[float, ...] | None = None
        self._unitaries: tuple[Matrix, ...] = ()
        self._text = f"Channel of {len(self._operators)} operators on {self.num_qubits} qubits"

    @classmethod
    def mixture(cls, unitaries: Iterable[ArrayLike], probabilities: Iterable[float]) -> Channel:
        """Applies one of several unitary matrices, each with its probability. ValueError unless the
        matrices are unitary and the probabilities add up to 1 within 1e-6."""
        weights = [probability_number(weight) for weight in probabilities]
        matrices = [complex_array(unitary, "unitaries") for unitary in unitaries]
        if len(matrices) != len(weights):
            raise ValueError(
                f"{len(matrices)} unitaries and {len(weights)} probabilities; expected equally many"
            )
        if not abs(sum(weights) - 1) <= TOLERANCE:
            raise ValueError(f"probabilities add up to {sum(weights):.9g}; expected 1")
        for matrix in matrices:
            check_unitary(matrix)
        return cls._mixture(
            dict(enumerate(zip(matrices, weights))), f"mixture of {len(weights)} unitaries"
        )

    @classmethod
    def _mixture(cls, parts: Mapping[Any, tuple[Matrix, float]], text: str) -> Channel:
        """From unitary matrices and their probabilities; what has probability 0 is left out."""
        kept = [(matrix, weight) for matrix, weight in parts.values() if weight > 0]
        result = cls(math.sqrt(weight) * matrix for matrix, weight in kept)
        result._probabilities = tuple(weight for _, weight in kept)
        result._unitaries = tuple(matrix for matrix, _ in kept)
        result._text = f"Channel.{text}"
        return result

    @classmethod
    def _of(cls, operators: Iterable[ArrayLike], text: str) -> Channel:
        result = cls(operators)
        result._text = f"Channel.{text}"
        return result

    @classmethod
    def pauli(cls, probabilities: Mapping[str, float]) -> Channel:
        """Applies strings of Pauli gates with given probabilities, one letter per qubit:
        `{"X": 0.01, "Z": 0.02}`, `{"XX": 0.01, "IZ": 0.02}`. What is left to 1 is that of none."""
        if not isinstance(probabilities, Mapping) or not probabilities:
            raise TypeError(f"probabilities must be a dict by string, got {probabilities!r}")
        weights = {}
        for letters, weight in probabilities.items():
            if not isinstance(letters, str) or not letters or set(letters) - set("IXYZ"):
                raise ValueError(f"probabilities: {letters!r} must be letters I, X, Y or Z")
            weights[letters] = probability_number(weight)
        widths = {len(letters) for letters in weights}
        if len(widths) > 1:
            raise ValueError(f"probabilities: strings of different lengths {sorted(widths)}")
        total = sum(weights.values())
        if total > 1 + TOLERANCE:
            raise ValueError(f"probabilities add up to {total:.9g}; expected at most 1")
        none = "I" * widths.pop()
        weights = {none: weights.get(none, 0.0) + max(0.0, 1 - total)} | {
            letters: weight for letters, weight in weights.items() if letters != none
        }
        return cls._pauli(weights, f"pauli({dict(probabilities)!r})")

    @classmethod
    def _pauli(cls, weights: Mapping[str, float], text: str) -> Channel:
        parts = {
            letters: (reduce(np.kron, [_PAULIS[letter] for letter in letters]), weight)
            for letters, weight in weights.items()
        }
        return cls._mixture(parts, text)

    @classmethod
    def depolarizing(cls, probability: float, num_qubits: SupportsIndex = 1) -> Channel:
        """With the given probability replaces a qubit, or several together, by the fully mixed
        state: every string of Pauli gates but the identity has probability / 4^k."""
        p = probability_number(probability)
        width = count(num_qubits, "num_qubits", 1, 6)
        weights = {"".join(letters): p / 4**width for letters in product("IXYZ", repeat=width)}
        weights["I" * width] += 1 - p
        return cls._pauli(weights, f"depolarizing({p!r}, {width})")

    @classmethod
    def bit_flip(cls, probability: float) -> Channel:
        """Applies X with the given probability."""
        p = probability_number(probability)
        return cls._pauli({"I": 1 - p, "X": p}, f"bit_flip({p!r})")

    @classmethod
    def phase_flip(cls, probability: float) -> Channel:
        """Applies Z with the given probability."""
        p = probability_number(probability)
        return cls._pauli({"I": 1 - p, "Z": p}, f"phase_flip({p!r})")

    @classmethod
    def amplitude_damping(cls, probability: float) -> Channel:
        """Lets |1> decay to |0> with the given probability."""
        p = probability_number(probability)
        return cls._of(_damping(p), f"amplitude_damping({p!r})")

    @classmethod
    def phase_damping(cls, probability: float) -> Channel:
        """With the given probability the surroundings learn whether the qubit is 1: what is off the
        diagonal shrinks by the root of 1 - probability. The same as a phase flip of probability
        (1 - sqrt(1 - probability)) / 2."""
        p = probability_number(probability)
        flip = (1 - math.sqrt(1 - p)) / 2
        return cls._pauli({"I": 1 - flip, "Z": flip}, f"phase_damping({p!r})")

    @classmethod
    def thermal_relaxation(cls, t1: float, t2: float, time: float) -> Channel:
        """A qubit at temperature 0 left alone for a time, in the unit of its relaxation times: |1>
        decays by e^(-time / t1), what is off the diagonal by e^(-time / t2). ValueError unless
        0 < t2 <= 2 t1 and time >= 0."""
        for name, value in (("t1", t1), ("t2", t2), ("time", time)):
            _core.require_finite(value, name)
        if not t1 > 0:
            raise ValueError(f"t1 = {t1!r}: expected a positive time")
        if not 0 < t2 <= 2 * t1:
            raise ValueError(f"t2 = {t2!r}: expected a positive time of at most 2 t1 = {2 * t1!r}")
        if not time >= 0:
            raise ValueError(f"time = {time!r}: expected at least 0")
        kept, decayed = _damping(-math.expm1(-time / t1))
        flip = -math.expm1(time / (2 * t1) - time / t2) / 2
        operators = [math.sqrt(1 - flip) * kept, math.sqrt(flip) * kept @ _PAULIS["Z"], decayed]
        text = f"thermal_relaxation({t1!r}, {t2!r}, {time!r})"
        return cls._of([matrix for matrix in operators if matrix.any()], text)

    @property
    def num_qubits(self) -> int:
        """The number of qubits that it acts on."""
        return len(self._operators[0]).bit_length() - 1

    @property
    def operators(self) -> tuple[Matrix, ...]:
        """Its Kraus operators; those of a mixture are the unitary matrices times the roots of their
        probabilities."""
        return self._operators

    @property
    def probabilities(self) -> tuple[float, ...] | None:
        """Those of the operators of a mixture; None where they depend on the state."""
        return self._probabilities

    def __eq__(self, other: object) -> bool:
        """True for the same operators in the same order."""
        if not isinstance(other, Channel):
            return NotImplemented
        return (
            self._probabilities == other._probabilities
            and len(self._operators) == len(other._operators)
            and all(map(np.array_equal, self._operators, other._operators))
        )

    def __hash__(self) -> int:
        return hash((len(self._operators), self.num_qubits, self._probabilities))

    def __repr__(self) -> str:
        return self._text


def shot_channel(channel: Channel) -> _core.ShotChannel:
    """The channel as the lower level takes it."""
    matrices = channel._unitaries or channel.operators
    return _core.ShotChannel(channel.num_qubits, matrices, channel.probabilities)


def kraus_operators(
    operators: Iterable[ArrayLike], size: int | None = None, check: bool = True
) -> tuple[Matrix, ...]:
    """The operators as matrices of `size` rows, by default those of the first one. ValueError
    unless they make up a channel; of their shapes alone without `check`."""
    if isinstance(operators, (str, bytes)) or not hasattr(operators, "__iter__"):
        raise TypeError(f"operators must be a list of matrices, got {operators!r}")
    kraus = tuple(complex_array(operator, "operators").copy() for operator in operators)
    if size is None:
        size = len(kraus[0]) if kraus and kraus[0].ndim == 2 else 0
        if size < 2 or size & (size - 1):
            raise ValueError("operators must be square matrices of 2^k rows for k >= 1 qubits")
    if not kraus or any(operator.shape != (size, size) for operator in kraus):
        raise ValueError(f"operators must be matrices of shape ({size}, {size})")
    if check:
        total = sum(operator.conj().T @ operator for operator in kraus)
        deviation = np.abs(total - np.eye(size)).max()
        if not deviation <= TOLERANCE:
            raise ValueError(
                "operators: the sum of K^dagger K over them must be the identity, from which it "
                f"deviates by {deviation:.3g}"
            )
    for operator in kraus:
        operator.flags.writeable = False
    return kraus


def _damping(p: float) -> tuple[Matrix, Matrix]:
    """What happens to a qubit that does not decay, and to one that does."""
    return np.diag([1, math.sqrt(1 - p)]).astype(complex), np.array([[0, math.sqrt(p)], [0, 0j]])
