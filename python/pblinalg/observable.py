"""Observables: weighted sums of Pauli strings.

Letters are compiled here to the masks and phases that the library computes with, and back.
"""

from __future__ import annotations

import re
from collections.abc import Iterable, Mapping

import numpy as np

from . import _core

_LETTERS = "IXYZ"
_NUMBER = r"\([^()]*\)|[0-9.][0-9.eEj]*(?:(?<=[eE])[+-][0-9]+)?j?"
_TERM = re.compile(rf"\s*([+-])?\s*(?:({_NUMBER})\s*\*?\s*)?([IXYZ]*)\s*")

#: Record classes of the lower level by precision.
_RECORDS = {"float": _core.WObservableFloat, "double": _core.WObservableDouble}
_TERMS = {"float": _core.SimpleTermFloat, "double": _core.SimpleTermDouble}


class Observable:
    """A weighted sum of Pauli strings on a fixed number of qubits.

    Letter k of a string acts on qubit k, so the first letter belongs to qubit 0:

    >>> Observable({"ZZ": 1.0, "XI": -0.5})      # Z on qubits 0 and 1; X on qubit 0
    Observable('1.0*ZZ - 0.5*XI')

    Equal strings are added up. Observables add, subtract and scale; `str` and `Observable.parse`
    are inverse to each other.
    """

    __slots__ = ("_num_qubits", "_terms", "_compiled")

    def __init__(
        self,
        terms: Mapping[str, complex] | Iterable[tuple[str, complex]] | str,
        num_qubits: int | None = None,
    ) -> None:
        if isinstance(terms, str):
            terms = {terms: 1.0}
        pairs = list(terms.items() if isinstance(terms, Mapping) else terms)
        sums: dict[str, complex] = {}
        for letters, coefficient in pairs:
            if not isinstance(letters, str) or set(letters) - set(_LETTERS):
                raise ValueError(
                    f"terms: {letters!r}; expected a string of the letters I, X, Y and Z"
                )
            if num_qubits is None:
                num_qubits = len(letters)
            if len(letters) != num_qubits:
                raise ValueError(
                    f"terms: {letters!r} has {len(letters)} letters; expected {num_qubits}"
                )
            value = complex(coefficient)
            if not np.isfinite(value):
                raise ValueError(
                    f"terms: {letters!r} has coefficient {value}; expected a finite one"
                )
            sums[letters] = sums.get(letters, 0) + value
        if num_qubits is None:
            raise ValueError("an observable without terms needs num_qubits")
        self._num_qubits = num_qubits
        self._terms = sums
        self._compiled: dict[str, object] = {}

    @classmethod
    def parse(cls, text: str) -> "Observable":
        """Reads what `str` writes: `1.0*ZZ - 0.5*XI + (0.5+2j)*YI`."""
        terms: list[tuple[str, complex]] = []
        position = 0
        while position < len(text):
            match = _TERM.match(text, position)
            assert match  # every part is optional
            sign, number, letters = match.groups()
            if not letters or (terms and sign is None):
                raise ValueError(f"observable {text!r}: expected a term at {text[position:]!r}")
            try:
                value = complex(number.strip("()").replace(" ", "")) if number else 1
            except ValueError:
                raise ValueError(f"observable {text!r}: {number!r} is not a number") from None
            terms.append((letters, -value if sign == "-" else value))
            position = match.end()
        if not terms:
            raise ValueError(f"observable {text!r}: expected at least one term")
        return cls(terms)

    @classmethod
    def from_masks(
        cls,
        num_qubits: int,
        coefficients: Iterable[complex],
        flip_masks: Iterable[int],
        sign_masks: Iterable[int],
        phase_powers: Iterable[int],
        constant: complex = 0,
    ) -> "Observable":
        """Decompiles the library's form: bit q of a mask is qubit q."""
        terms: list[tuple[str, complex]] = []
        lists = [list(values) for values in (coefficients, flip_masks, sign_masks, phase_powers)]
        if len({len(values) for values in lists}) != 1:
            raise ValueError("the lists of an observable must be equally long")
        for coefficient, flip, sign, power in zip(*lists):
            if not 0 <= (flip | sign) < 1 << num_qubits:
                raise ValueError(f"masks {flip} and {sign}: expected values below 2^{num_qubits}")
            letters = "".join(
                "IXZY"[(flip >> q & 1) + 2 * (sign >> q & 1)] for q in range(num_qubits)
            )
            # i^power with a Y counted as i X Z each.
            terms.append((letters, coefficient * 1j ** ((power - letters.count("Y")) % 4)))
        if constant != 0 or not terms:
            terms.append(("I" * num_qubits, constant))
        return cls(terms, num_qubits)

    @property
    def num_qubits(self) -> int:
        """The length of the strings."""
        return self._num_qubits

    @property
    def terms(self) -> dict[str, complex]:
        """Coefficients by string, in order of first appearance."""
        return dict(self._terms)

    def masks(self) -> tuple[list[complex], list[int], list[int], list[int], complex]:
        """Coefficients, flip masks (X and Y), sign masks (Z and Y), phase powers (the number of
        Y) of the terms, and the coefficient of the identity, which is no term."""
        coefficients, flips, signs, powers = [], [], [], []
        constant = 0j
        for letters, coefficient in self._terms.items():
            if not letters.strip("I"):
                constant += coefficient
                continue
            coefficients.append(coefficient)
            flips.append(sum(1 << q for q, letter in enumerate(letters) if letter in "XY"))
            signs.append(sum(1 << q for q, letter in enumerate(letters) if letter in "YZ"))
            powers.append(letters.count("Y") % 4)
        return coefficients, flips, signs, powers, constant

    def matrix(self) -> np.ndarray:
        """The dense matrix, qubit 0 being the most significant bit of its indices."""
        letters_of = {
            "I": np.eye(2),
            "X": np.array([[0, 1], [1, 0]]),
            "Y": np.array([[0, -1j], [1j, 0]]),
            "Z": np.diag([1, -1]),
        }
        size = 1 << self._num_qubits
        total = np.zeros((size, size), dtype=complex)
        for letters, coefficient in self._terms.items():
            product = np.eye(1)
            for letter in letters:
                product = np.kron(product, letters_of[letter])
            total += coefficient * product
        return total

    def is_hermitian(self) -> bool:
        """True when all coefficients are real."""
        return all(coefficient.imag == 0 for coefficient in self._terms.values())

    def _record(self, precision: str):
        if precision not in self._compiled:
            self._compiled[precision] = _RECORDS[precision](*self.masks())
        return self._compiled[precision]

    def __reduce__(self) -> tuple[type[Observable], tuple[dict[str, complex], int]]:
        # Without what was compiled.
        return type(self), (self._terms, self._num_qubits)

    def _simple_terms(self, precision: str) -> list:
        simple = []
        for letters, coefficient in self._terms.items():
            qubits = [q for q, letter in enumerate(letters) if letter != "I"]
            if qubits:
                text = "".join(letters[q] for q in qubits)
                simple.append(_TERMS[precision](qubits, text, coefficient))
        return simple

    def __add__(self, other: "Observable") -> "Observable":
        if not isinstance(other, Observable):
            return NotImplemented
        pairs = [*self._terms.items(), *other._terms.items()]
        return Observable(pairs, self._num_qubits)

    def __mul__(self, factor: complex) -> "Observable":
        if not isinstance(factor, (int, float, complex, np.number)):
            return NotImplemented
        return Observable([(p, c * factor) for p, c in self._terms.items()], self._num_qubits)

    __rmul__ = __mul__

    def __neg__(self) -> "Observable":
        return self * -1

    def __sub__(self, other: "Observable") -> "Observable":
        if not isinstance(other, Observable):
            return NotImplemented
        return self + -other

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Observable):
            return NotImplemented
        return self._num_qubits == other._num_qubits and self._terms == other._terms

    __hash__ = None  # type: ignore[assignment]

    def __len__(self) -> int:
        return len(self._terms)

    def __str__(self) -> str:
        text = ""
        for letters, coefficient in self._terms.items():
            real = coefficient.imag == 0
            negative = real and coefficient.real < 0
            number = repr(abs(coefficient.real)) if real else repr(coefficient)
            sign = ("- " if negative else "+ ") if text else ("-" if negative else "")
            text += f"{' ' if text else ''}{sign}{number}*{letters}"
        return text

    def __repr__(self) -> str:
        return (
            f"Observable({str(self)!r})" if self._terms else f"Observable({{}}, {self._num_qubits})"
        )
