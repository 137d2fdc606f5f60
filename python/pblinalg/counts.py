"""How often each outcome was seen."""

from __future__ import annotations

from collections.abc import Mapping

import numpy as np


class Counts(dict):
    """Outcomes and how often they were seen: `{"00": 507, "11": 493}`.

    A key has one character per bit, the first qubit (or classical bit) leftmost. Keys are sorted.
    """

    def __init__(self, counts: Mapping[str, int] | None = None) -> None:
        if not isinstance(counts, Mapping | None):
            raise TypeError(f"counts must be a mapping, got {type(counts).__name__} {counts!r}")
        super().__init__(sorted((counts or {}).items()))

    @classmethod
    def from_outcomes(cls, outcomes: np.ndarray, num_bits: int) -> "Counts":
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
        """The share of each outcome in the shots."""
        shots = self.shots
        return {key: count / shots for key, count in self.items()}

    def most_common(self, number: int | None = None) -> list[tuple[str, int]]:
        """The outcomes by falling count, ties by key; the first `number` of them."""
        return sorted(self.items(), key=lambda entry: (-entry[1], entry[0]))[:number]

    def reversed_bits(self) -> "Counts":
        """The same counts with every key read backwards: the first bit rightmost."""
        return Counts({key[::-1]: count for key, count in self.items()})

    def histogram(self, width: int = 40, rows: int = 32) -> str:
        """A table with bars, one outcome a line, at most `rows` of them (the most common)."""
        if not 1 <= width <= 1000:
            raise ValueError(f"width = {width}: expected between 1 and 1000")
        shown = dict(self.most_common(rows))
        if not shown:
            return "no shots"
        shots, peak = self.shots, max(shown.values())
        label = max(7, *(len(key) for key in shown))
        lines = [f"{'outcome':<{label}}  {'count':>9}  {'share':>7}"]
        for key in sorted(shown):
            bar = "#" * max(1, round(width * shown[key] / peak))
            lines.append(f"{key:<{label}}  {shown[key]:>9}  {shown[key] / shots:>7.2%}  {bar}")
        if len(self) > len(shown):
            rest = shots - sum(shown.values())
            lines.append(f"{len(self) - len(shown)} more outcomes with {rest} shots")
        return "\n".join(lines)

    def plot(self, axes=None):
        """Draws a bar chart with matplotlib and returns its axes."""
        try:
            import matplotlib.pyplot as plt
        except ImportError as error:
            raise ImportError("plots need matplotlib: pip install 'pblinalg[plot]'") from error
        if axes is None:
            _, axes = plt.subplots(figsize=(max(4.0, 0.4 * len(self)), 3.5))
        axes.bar(range(len(self)), list(self.values()))
        axes.set_xticks(range(len(self)), list(self), rotation=70 if len(self) > 4 else 0)
        axes.set_ylabel("shots")
        return axes

    def __repr__(self) -> str:
        return f"Counts({super().__repr__()})"
