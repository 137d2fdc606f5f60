"""How often each outcome was seen."""

from __future__ import annotations

from collections.abc import Mapping
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from .arguments import Qubits, index
from .html_tables import table
from .observable import Observable, ObservableLike

if TYPE_CHECKING:
    from typing_extensions import Self

#: Pictures and tables show at most so many outcomes; the others are one bar or row.
_SHOWN = 32
_BINS = 64


class Counts(dict[str, int]):
    """Outcomes and how often they were seen: `{"00": 507, "11": 493}`.

    A key has one character per bit, the first qubit (or classical bit) leftmost; registers are
    separated by a space. Keys are sorted. Counts of separate runs add up: `counts1 + counts2`.
    """

    #: The seed of the run that was counted; None for counts from elsewhere.
    seed: int | None = None

    def __init__(self, counts: Mapping[str, int] | None = None) -> None:
        if not isinstance(counts, Mapping | None):
            raise TypeError(f"counts must be a mapping, got {type(counts).__name__} {counts!r}")
        super().__init__(sorted((counts or {}).items()))

    @classmethod
    def from_outcomes(cls, outcomes: NDArray[Any], num_bits: int) -> Counts:
        """Counts integers of `num_bits` bits, the first bit being the most significant."""
        values, numbers = np.unique(outcomes, return_counts=True)
        if num_bits == 0:
            return cls({"": int(numbers.sum())} if len(numbers) else {})
        return cls({format(v, f"0{num_bits}b"): int(c) for v, c in zip(values.tolist(), numbers)})

    @property
    def shots(self) -> int:
        """The number of shots counted."""
        return sum(self.values())

    def frequencies(self) -> dict[str, float]:
        """The share of each outcome in the shots, an estimate of its probability."""
        shots = self.shots
        return {key: count / shots for key, count in self.items()}

    def most_common(self, number: int | None = None) -> list[tuple[str, int]]:
        """The outcomes by falling count, ties by key; the first `number` of them."""
        return sorted(self.items(), key=lambda entry: (-entry[1], entry[0]))[:number]

    def reversed_bits(self) -> Counts:
        """The same counts with every key read backwards: the first bit rightmost."""
        return Counts({key[::-1]: count for key, count in self.items()})

    def marginal(self, bits: Qubits) -> Counts:
        """Counts of some bits alone, in the order listed. Bits are numbered from 0 through all
        registers, spaces not counted. IndexError for a bit that the keys do not have."""
        last = self._num_bits() - 1
        several: Any = bits if hasattr(bits, "__iter__") else [bits]
        listed = [index(bit, "bits", last) for bit in several]
        result: dict[str, int] = {}
        for key, count in self.items():
            plain = key.replace(" ", "")
            part = "".join(plain[bit] for bit in listed)
            result[part] = result.get(part, 0) + count
        return Counts(result)

    def expectation(self, observable: ObservableLike) -> float:
        """The mean over the shots of an observable of the letters I and Z alone: `"ZZ"`,
        `"Z0 Z3"`, `"0.5*ZI + 2*IZ"`. Letter or number k belongs to bit k of a key. ValueError for
        the letters X and Y, which need a rotation before the measurement, and without shots."""
        width = self._num_bits()
        if not self:
            raise ValueError("there are no shots to take the mean over")
        if not isinstance(observable, Observable):
            observable = Observable(observable, width)
        if observable.num_qubits != width:
            raise ValueError(
                f"observable acts on {observable.num_qubits} bits; the keys have {width}"
            )
        if not observable.is_hermitian():
            raise ValueError("observable must have real coefficients")
        total = 0.0
        for letters, coefficient in observable.terms.items():
            if set(letters) - set("IZ"):
                raise ValueError(f"observable has the term {letters}: expected I and Z only")
            places = [place for place, letter in enumerate(letters) if letter == "Z"]
            for key, count in self.marginal(places).items():
                total += coefficient.real * (-count if key.count("1") % 2 else count)
        return total / self.shots

    def _num_bits(self) -> int:
        widths = set()
        for key in self:
            if not isinstance(key, str):
                raise TypeError(f"outcomes must be strings, got {key!r}")
            widths.add(len(key) - key.count(" "))
        if len(widths) > 1:
            raise ValueError("outcomes must be equally long")
        return max(widths, default=0)

    def _shown(self, rows: int) -> tuple[dict[str, int], int, int]:
        """The most common outcomes, how many others there are, and how many shots those took."""
        shown = dict(sorted(self.most_common(rows)))
        return shown, len(self) - len(shown), self.shots - sum(shown.values())

    def histogram(self, width: int = 40, rows: int = _SHOWN) -> str:
        """A table with bars, one outcome a line, at most `rows` of them (the most common); the
        others are one line."""
        if not 1 <= width <= 1000:
            raise ValueError(f"width = {width}: expected between 1 and 1000")
        if rows < 1:
            raise ValueError(f"rows = {rows}: expected at least 1")
        if not self:
            return "no shots"
        shown, others, rest = self._shown(rows)
        shots, peak = self.shots, max(shown.values())
        label = max(7, *(len(key) for key in shown), len(f"{others} others") if others else 0)
        lines = [f"{'outcome':<{label}}  {'count':>9}  {'share':>7}"]
        for key, count in shown.items():
            bar = "#" * max(1, round(width * count / peak))
            lines.append(f"{key:<{label}}  {count:>9}  {count / shots:>7.2%}  {bar}")
        if others:
            lines.append(f"{f'{others} others':<{label}}  {rest:>9}  {rest / shots:>7.2%}")
        return "\n".join(lines)

    def plot(self, axes: Any = None) -> Any:
        """Draws a bar chart with matplotlib and returns its axes.

        At most 32 outcomes have a bar, the most common ones; the others are one bar, cut off where
        it would dwarf them. Beyond 32 outcomes, and if no `axes` are given, a second chart shows
        the shots of all outcomes in up to 64 bins.
        """
        try:
            import matplotlib.pyplot as plt
        except ImportError as error:
            raise ImportError("plots need matplotlib: pip install 'pblinalg[plot]'") from error
        if axes is not None and not hasattr(axes, "bar"):
            raise TypeError(f"axes must be matplotlib axes, got {axes!r}")
        shown, others, rest = self._shown(_SHOWN)
        if axes is None:
            width = max(4.5, 0.3 * (len(shown) + bool(others)) + 1)
            if others:
                size = (width, 7.5)
                _, (axes, below) = plt.subplots(2, figsize=size, layout="constrained")
                self._plot_bins(below)
            else:
                _, axes = plt.subplots(figsize=(width, 3.8), layout="constrained")
        axes.bar(range(len(shown)), list(shown.values()), color="#4672a8")
        labels = list(shown)
        if others:
            self._plot_rest(axes, len(shown), rest, max(shown.values()))
            labels.append(f"{others} others")
        long = sum(len(label) for label in labels) > 60
        axes.set_xticks(range(len(labels)), labels, rotation=90 if long else 0)
        axes.set_xlabel("outcome")
        axes.set_ylabel("shots")
        axes.set_title(f"{self.shots} shots, {len(self)} outcomes")
        return axes

    @staticmethod
    def _plot_rest(axes: Any, place: int, rest: int, peak: int) -> None:
        cut = rest > 1.5 * peak
        height = 1.25 * peak if cut else rest
        axes.bar(place, height, color="#bbb", hatch="//" if cut else None, edgecolor="#888")
        if cut:
            axes.text(place, height, f"{rest}", ha="center", va="bottom", fontsize="small")
            axes.set_ylim(0, 1.4 * peak)

    def _plot_bins(self, axes: Any) -> None:
        """Shots over outcomes read as numbers; bins hold equally many outcomes."""
        width = self._num_bits()
        bits = min(width, _BINS.bit_length() - 1)
        shots = np.zeros(1 << bits, dtype=np.int64)
        for key, count in self.items():
            shots[int(key.replace(" ", "")[:bits], 2)] += count
        axes.bar(np.arange(1 << bits) + 0.5, shots, width=1, color="#4672a8", edgecolor="white")
        places = np.linspace(0, 1 << bits, 5)[:-1]
        labels = [format(int(place), f"0{bits}b") + "…" * (width > bits) for place in places]
        axes.set_xticks(places + 0.5, labels)
        axes.set_xlabel("outcome" if width == bits else f"first {bits} bits of the outcome")
        axes.set_ylabel("shots")
        axes.set_title(f"all outcomes in {1 << bits} bins")

    def __add__(self, other: Mapping[str, int]) -> Counts:
        """The counts of both together. ValueError when their keys differ in length."""
        if not isinstance(other, Mapping):
            return NotImplemented
        if len({len(key) for key in [*self, *other]}) > 1:
            raise ValueError("the keys of the two counts have different lengths")
        result = dict(self)
        for key, count in other.items():
            result[key] = result.get(key, 0) + count
        return Counts(result)

    def __radd__(self, other: object) -> Counts:
        # `sum` starts with 0.
        return self.copy() if other == 0 else NotImplemented

    def copy(self) -> Self:
        """Counts of their own with the same content."""
        result = type(self)(self)
        result.seed = self.seed
        return result

    __copy__ = copy

    def __or__(self, other: Mapping[str, int]) -> Counts:  # type: ignore[override]
        return Counts({**self, **other}) if isinstance(other, Mapping) else NotImplemented

    def __repr__(self) -> str:
        return f"Counts({super().__repr__()})"

    def _repr_html_(self) -> str:
        shown, others, rest = self._shown(_SHOWN)
        shots = self.shots
        rows = [(key, str(count), f"{count / shots:.2%}") for key, count in shown.items()]
        if others:
            rows.append((f"{others} others", str(rest), f"{rest / shots:.2%}"))
        caption = f"{shots} shots, {len(self)} outcomes"
        return table(caption, ("outcome", "count", "share"), rows, list(shown.values()))
