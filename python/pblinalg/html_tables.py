"""Tables that notebooks show instead of a `repr`."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from html import escape
from typing import Any

import numpy as np
from numpy.typing import NDArray

#: Tables of states show at most so many rows.
_SHOWN = 32
_CELL = "text-align:{};font-family:monospace;padding:1px 10px"


def table(
    caption: str, head: Sequence[str], rows: Iterable[Sequence[str]], shares: Sequence[float] = ()
) -> str:
    """An HTML table, the first column left-aligned; with `shares` a bar ends each of the first
    rows, as long as its share of the largest."""
    largest = max(shares, default=0) or 1
    style = "text-align:left;white-space:nowrap"
    lines = [f'<table><caption style="{style}">{escape(caption)}</caption><tr>']
    for i, name in enumerate(head):
        side = "right" if i else "left"
        lines.append(f'<th style="text-align:{side};padding:1px 10px">{escape(name)}</th>')
    lines.append("</tr>")
    for number, row in enumerate(rows):
        lines.append("<tr>")
        for i, text in enumerate(row):
            style = _CELL.format("right" if i else "left")
            lines.append(f'<td style="{style}">{escape(text)}</td>')
        if number < len(shares):
            width = 160 * shares[number] / largest
            lines.append(
                '<td style="text-align:left;min-width:165px"><div style="background:#5b84b8;'
                f'height:0.8em;width:{width:.1f}px"></div></td>'
            )
        lines.append("</tr>")
    return "".join(lines) + "</table>"


def state_table(caption: str, weights: NDArray[Any], amplitudes: NDArray[Any] | None = None) -> str:
    """The most probable basis states of the 2^n `weights`, qubit 0 being the most significant bit
    of an index, with their amplitudes if there are any."""
    seen = int((weights > 1e-12).sum())
    count = min(_SHOWN, seen)
    rest = len(weights) - count
    # A sort of all would take long for large registers.
    places = np.argpartition(weights, rest)[rest:] if count and rest else np.arange(count)
    shown = sorted(places.tolist(), key=lambda i: (-round(float(weights[i]), 9), i))
    width = len(weights).bit_length() - 1
    rows = []
    for i in shown:
        name = format(i, f"0{width}b") if width else ""
        amplitude = () if amplitudes is None else (f"{amplitudes[i]:.6g}",)
        rows.append((f"|{name}⟩", *amplitude, f"{weights[i]:.4%}"))
    if seen > count:
        blank = () if amplitudes is None else ("",)
        left = weights.sum() - weights[shown].sum()
        rows.append((f"{seen - count} others", *blank, f"{left:.4%}"))
    named = () if amplitudes is None else ("amplitude",)
    return table(caption, ("basis state", *named, "probability"), rows, weights[shown].tolist())
