"""Observables: weighted sums of Pauli strings.

Letters are compiled here to the masks and phases that the library computes with, and back.
"""

from __future__ import annotations

import re
from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import numpy as np
from numpy.typing import NDArray

from . import _core
from .arguments import MAX_COUNT, count, precision_name, require_memory

_NUMBER = r"\([^()]*\)|[0-9.][0-9.eEj]*(?:(?<=[eE])[+-][0-9]+)?j?"
_PLACED = r"[IXYZ]\d+(?:[\s*]*[IXYZ]\d+)*"
_TERM = re.compile(rf"\s*([+-])?\s*(?:({_NUMBER})\s*(\*)?\s*)?({_PLACED}|[IXYZ]*)\s*")
_STRING = re.compile(rf"[IXYZ]*|{_PLACED}")

#: Record classes of the lower level by precision.
_RECORDS = {"float": _core.WObservableFloat, "double": _core.WObservableDouble}
_TERMS = {"float": _core.SimpleTermFloat, "double": _core.SimpleTermDouble}


class Observable:
    """A weighted sum of Pauli strings on a fixed number of qubits.

    Letter k of a string acts on qubit k, so the first letter belongs to qubit 0; a string may also
    name the qubits that it acts on:

    >>> Observable("1.0*ZZ - 0.5*XI")            # Z on qubits 0 and 1; X on qubit 0
    >>> Observable({"ZZ": 1.0, "X0": -0.5})      # the same
    >>> Observable("Z0 Z5 + 2", num_qubits=8)    # by default as many qubits as the strings need

    Equal strings are added up. Observables add, subtract, scale and multiply (`*` or `@`); a number
    that is added stands for that multiple of the identity. `repr` is such a constructor call.
    """

    __slots__ = ("_num_qubits", "_terms", "_compiled")

    def __init__(
        self,
        terms: Mapping[str, complex] | Iterable[tuple[str, complex]] | str,
        num_qubits: int | None = None,
    ) -> None:
        if isinstance(terms, str):
            pairs = _parsed(terms)
        else:
            pairs = list(terms.items() if isinstance(terms, Mapping) else terms)
        for letters, coefficient in pairs:
            if not isinstance(letters, str) or not _STRING.fullmatch(letters):
                raise ValueError(
                    f"terms: {letters!r}; expected a string of the letters I, X, Y and Z"
                )
            if not np.isfinite(complex(coefficient)):
                raise ValueError(
                    f"terms: {letters!r} has coefficient {complex(coefficient)}; "
                    "expected a finite one"
                )
        if num_qubits is None:
            if isinstance(terms, str) and not any(letters for letters, _ in pairs):
                raise ValueError("an observable without Pauli letters needs num_qubits")
            num_qubits = _needed_qubits([letters for letters, _ in pairs])
        num_qubits = count(num_qubits, "num_qubits", 0, MAX_COUNT)
        sums: dict[str, complex] = {}
        for letters, coefficient in pairs:
            full = _full_string(letters, num_qubits, isinstance(terms, str))
            sums[full] = sums.get(full, 0) + complex(coefficient)
        self._num_qubits = num_qubits
        self._terms = sums
        self._compiled: dict[str, Any] = {}

    @classmethod
    def parse(cls, text: str, num_qubits: int | None = None) -> Observable:
        """Reads `1.0*ZZ - 0.5*XI + (0.5+2j)*YI`, as the constructor does."""
        if not isinstance(text, str):
            raise TypeError(f"text must be a str, got {text!r}")
        return cls(text, num_qubits)

    @classmethod
    def from_masks(
        cls,
        num_qubits: int,
        coefficients: Iterable[complex],
        flip_masks: Iterable[int],
        sign_masks: Iterable[int],
        phase_powers: Iterable[int],
        constant: complex = 0,
    ) -> Observable:
        """Decompiles the library's form: bit q of a mask is qubit q."""
        num_qubits = count(num_qubits, "num_qubits", 0, MAX_COUNT)
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
            flip, sign, power = _masks_of(letters)
            coefficients.append(coefficient)
            flips.append(flip)
            signs.append(sign)
            powers.append(power)
        return coefficients, flips, signs, powers, constant

    def _diagonals(self) -> Iterator[tuple[int, NDArray[np.complex128]]]:
        """The matrix as diagonals times exchanges of rows: entry (i ^ flip, i) is diagonal[i].
        Qubit 0 is the most significant bit of i."""
        size = 1 << self._num_qubits
        require_memory(f"an observable on {self._num_qubits} qubits", 64 * size)
        indices = np.arange(size, dtype=np.uint64)
        by_flip: dict[int, list[str]] = {}
        for letters in self._terms:
            by_flip.setdefault(int("0" + letters.translate(_FLIPS), 2), []).append(letters)
        for flip, strings in by_flip.items():
            diagonal = np.zeros(len(indices), dtype=np.complex128)
            for letters in strings:
                parity = indices & np.uint64(int("0" + letters.translate(_SIGNS), 2))
                for shift in (32, 16, 8, 4, 2, 1):
                    parity ^= parity >> np.uint64(shift)
                value = self._terms[letters] * _TURNS[letters.count("Y") % 4]
                diagonal += value * (1.0 - 2.0 * (parity & np.uint64(1)))
            yield flip, diagonal

    def apply(self, state: Any) -> NDArray[np.complex128]:
        """The amplitudes of the observable times a state, as a new array of 2^n complex128, qubit
        0 being the most significant bit of an index. `state` is a `StateVector` or such an
        array; the result has no norm of 1 in general."""
        given = state.to_array() if hasattr(state, "to_array") else state
        amplitudes = np.asarray(given, dtype=np.complex128)
        size = 1 << self._num_qubits
        if amplitudes.shape != (size,):
            raise ValueError(
                f"state has shape {amplitudes.shape}; expected {size} amplitudes for "
                f"{self._num_qubits} qubits"
            )
        result = np.zeros(size, dtype=np.complex128)
        indices = np.arange(size)
        for flip, diagonal in self._diagonals():
            result += (diagonal * amplitudes)[indices ^ flip]
        return result

    def matrix(self) -> NDArray[np.complex128]:
        """The dense matrix, qubit 0 being the most significant bit of its indices."""
        size = 1 << self._num_qubits
        require_memory(f"the matrix of {self._num_qubits} qubits", 16 * size * size)
        total = np.zeros((size, size), dtype=np.complex128)
        columns = np.arange(size)
        for flip, diagonal in self._diagonals():
            total[columns ^ flip, columns] += diagonal
        return total

    def to_sparse_matrix(self) -> Any:
        """The matrix as a SciPy array in CSR form, qubit 0 being the most significant bit of its
        indices. Needs SciPy."""
        try:
            from scipy.sparse import csr_array
        except ImportError as error:
            raise ImportError("sparse matrices need scipy: pip install scipy") from error
        size = 1 << self._num_qubits
        columns = np.arange(size)
        total = csr_array((size, size), dtype=np.complex128)
        for flip, diagonal in self._diagonals():
            total = total + csr_array((diagonal, (columns ^ flip, columns)), shape=(size, size))
        return total

    def is_hermitian(self) -> bool:
        """True when all coefficients are real."""
        return all(coefficient.imag == 0 for coefficient in self._terms.values())

    def record(self, precision: str) -> Any:
        """The lower level's record of this observable in "float" or "double"."""
        kind = precision_name(precision)
        if kind not in self._compiled:
            self._compiled[kind] = _RECORDS[kind](*self.masks())
        return self._compiled[kind]

    def __reduce__(self) -> tuple[type[Observable], tuple[dict[str, complex], int]]:
        # Without what was compiled.
        return type(self), (self._terms, self._num_qubits)

    def simple_terms(self, precision: str) -> list[Any]:
        """The lower level's terms but the identity, in "float" or "double"."""
        term = _TERMS[precision_name(precision)]
        simple = []
        for letters, coefficient in self._terms.items():
            qubits = [q for q, letter in enumerate(letters) if letter != "I"]
            if qubits:
                text = "".join(letters[q] for q in qubits)
                simple.append(term(qubits, text, coefficient))
        return simple

    def _same_size(self, other: object) -> Observable | None:
        """`other`, numbers as multiples of the identity; None for what is neither."""
        if isinstance(other, _NUMBERS):
            return Observable({"I" * self._num_qubits: complex(other)}, self._num_qubits)
        if not isinstance(other, Observable):
            return None
        if other._num_qubits != self._num_qubits:
            raise ValueError(
                f"one observable acts on {self._num_qubits} qubits, the other on "
                f"{other._num_qubits}"
            )
        return other

    def __add__(self, other: Observable | complex) -> Observable:
        if other == 0 and not isinstance(other, Observable):
            return self  # what `sum` starts with
        term = self._same_size(other)
        if term is None:
            return NotImplemented
        sums = dict(self._terms)
        for letters, coefficient in term._terms.items():
            sums[letters] = sums.get(letters, 0) + coefficient
        # What cancels is left out.
        return Observable({p: c for p, c in sums.items() if c != 0}, self._num_qubits)

    __radd__ = __add__

    def __neg__(self) -> Observable:
        return self * -1

    def __sub__(self, other: Observable | complex) -> Observable:
        term = self._same_size(other)
        return NotImplemented if term is None else self + -term

    def __rsub__(self, other: complex) -> Observable:
        return -self + other

    def __mul__(self, other: Observable | complex) -> Observable:
        if isinstance(other, _NUMBERS):
            return Observable([(p, c * other) for p, c in self._terms.items()], self._num_qubits)
        factor = self._same_size(other)
        return NotImplemented if factor is None else self._product(factor)

    def __rmul__(self, other: complex) -> Observable:
        return self * other

    def __matmul__(self, other: Observable) -> Observable:
        return self * other if isinstance(other, Observable) else NotImplemented

    def __truediv__(self, divisor: complex) -> Observable:
        if not isinstance(divisor, _NUMBERS):
            return NotImplemented
        return Observable([(p, c / divisor) for p, c in self._terms.items()], self._num_qubits)

    def __pow__(self, exponent: int) -> Observable:
        if isinstance(exponent, bool) or not isinstance(exponent, (int, np.integer)):
            return NotImplemented
        if exponent < 0:
            raise ValueError(f"exponent = {exponent}: expected at least 0")
        result = Observable({"I" * self._num_qubits: 1}, self._num_qubits)
        for _ in range(exponent):
            result = result * self
        return result

    def _product(self, other: Observable) -> Observable:
        """The matrix product; terms that cancel are left out."""
        n = self._num_qubits
        right = [(*_masks_of(letters), c) for letters, c in other._terms.items()]
        sums: dict[tuple[int, int], complex] = {}
        for letters, coefficient in self._terms.items():
            flip, sign, power = _masks_of(letters)
            for other_flip, other_sign, other_power, other_coefficient in right:
                key = flip ^ other_flip, sign ^ other_sign
                turns = power + other_power + 2 * (sign & other_flip).bit_count()
                value = coefficient * other_coefficient * _TURNS[turns % 4]
                sums[key] = sums.get(key, 0) + value
        kept = [(flip, sign, value) for (flip, sign), value in sums.items() if value != 0]
        if not kept:
            return Observable({}, n)
        flips, signs, values = zip(*kept)
        return Observable.from_masks(n, values, flips, signs, [0] * len(kept))

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
            number = repr(abs(coefficient.real)) if real else f"({coefficient!r})"
            number = number.replace("((", "(").replace("))", ")")
            sign = ("- " if negative else "+ ") if text else ("-" if negative else "")
            text += f"{' ' if text else ''}{sign}{number}*{letters}"
        return text

    def __repr__(self) -> str:
        if self._terms and self._num_qubits:
            return f"Observable({str(self)!r})"
        return f"Observable({self._terms}, {self._num_qubits})"

    def _repr_latex_(self) -> str:
        text = ""
        for letters, coefficient in list(self._terms.items())[:_SHOWN]:
            placed = [f"{letter}_{{{q}}}" for q, letter in enumerate(letters) if letter != "I"]
            real = coefficient.imag == 0
            number = f"{abs(coefficient.real):g}" if real else f"({coefficient:g})"
            sign = "-" if real and coefficient.real < 0 else "+" if text else ""
            if number == "1" and placed:
                number = ""
            text += f" {sign} {number} {' '.join(placed) or 'I'}"
        if len(self._terms) > _SHOWN:
            text += rf" + \cdots\ ({len(self._terms) - _SHOWN}\ \mathrm{{more}})"
        return f"$\\displaystyle {text.strip() or '0'}$"


def _parsed(text: str) -> list[tuple[str, complex]]:
    """Strings and coefficients of a sum, as written."""
    terms: list[tuple[str, complex]] = []
    position = 0
    while position < len(text):
        match = _TERM.match(text, position)
        assert match  # every part is optional
        sign, number, star, letters = match.groups()
        if not (letters or number and not star) or (terms and sign is None):
            raise ValueError(f"observable {text!r}: expected a term at {text[position:]!r}")
        try:
            value = complex(number.strip("()").replace(" ", "")) if number else 1
        except ValueError:
            raise ValueError(f"observable {text!r}: {number!r} is not a number") from None
        terms.append((letters, -value if sign == "-" else value))
        position = match.end()
    if not terms:
        raise ValueError(f"observable {text!r}: expected at least one term")
    return terms


def _places(letters: str) -> list[tuple[str, int]]:
    """Letters and qubits of a string that names its qubits."""
    return [(letter, int(qubit)) for letter, qubit in re.findall(r"([IXYZ])(\d+)", letters)]


def _needed_qubits(strings: list[str]) -> int:
    if not strings:
        raise ValueError("an observable without terms needs num_qubits")
    lengths = [len(letters) for letters in strings if letters and not _places(letters)]
    if lengths:
        return lengths[0]
    qubits = [qubit for letters in strings for _, qubit in _places(letters)]
    if max(qubits, default=0) >= MAX_COUNT:
        raise ValueError(f"terms name qubit {max(qubits)}: expected at most {MAX_COUNT - 1}")
    return max(qubits, default=-1) + 1


def _full_string(letters: str, num_qubits: int, may_be_empty: bool) -> str:
    """One letter per qubit; the empty string is the identity where that was written as text."""
    places = _places(letters)
    if places:
        full = ["I"] * num_qubits
        for letter, qubit in places:
            if qubit >= num_qubits:
                raise ValueError(
                    f"terms: {letters!r} names qubit {qubit}; expected at most {num_qubits - 1}"
                )
            if [q for _, q in places].count(qubit) > 1:
                raise ValueError(f"terms: {letters!r} names qubit {qubit} twice")
            full[qubit] = letter
        return "".join(full)
    if may_be_empty and not letters:
        return "I" * num_qubits
    if len(letters) != num_qubits:
        raise ValueError(f"terms: {letters!r} has {len(letters)} letters; expected {num_qubits}")
    return letters


def _masks_of(letters: str) -> tuple[int, int, int]:
    """Flip mask, sign mask (bit q is qubit q) and power of i."""
    flip = sum(1 << q for q, letter in enumerate(letters) if letter in "XY")
    sign = sum(1 << q for q, letter in enumerate(letters) if letter in "YZ")
    return flip, sign, letters.count("Y") % 4


_FLIPS = str.maketrans("IXYZ", "0110")
_SIGNS = str.maketrans("IXYZ", "0011")
_TURNS = (1, 1j, -1, -1j)
_NUMBERS = (int, float, complex, np.number)

#: Notebooks show at most so many terms.
_SHOWN = 32

#: What reading an expectation value takes: strings and dicts as the constructor does.
ObservableLike = Observable | Mapping[str, complex] | str


def observable_on(
    num_qubits: int, observable: ObservableLike, hermitian: bool = False, owner: str = "state"
) -> Observable:
    """What a readout of a state, or another `owner`, of that many qubits takes. `hermitian`: its
    coefficients are to be real."""
    if isinstance(observable, (str, Mapping)):
        observable = Observable(observable, num_qubits)
    if not isinstance(observable, Observable):
        raise TypeError(
            f"observable must be an Observable, a string or a dict of terms, got {observable!r}"
        )
    if observable.num_qubits != num_qubits:
        raise ValueError(
            f"observable acts on {observable.num_qubits} qubits; the {owner} has {num_qubits}"
        )
    if hermitian and not observable.is_hermitian():
        raise ValueError("observable has coefficients that are not real; expected real ones")
    return observable
