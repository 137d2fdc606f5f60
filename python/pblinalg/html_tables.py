"""Tables that notebooks show instead of a `repr`."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from html import escape

_CELL = "text-align:{};font-family:monospace;padding:1px 10px"


def table(
    caption: str, head: Sequence[str], rows: Iterable[Sequence[str]], shares: Sequence[float] = ()
) -> str:
    """An HTML table, the first column left-aligned; with `shares` a bar ends each of the first
    rows, as long as its share of the largest."""
    largest = max(shares, default=0) or 1
    lines = [f"<table><caption>{escape(caption)}</caption><tr>"]
    for i, name in enumerate(head):
        lines.append(f'<th style="text-align:{"right" if i else "left"}">{escape(name)}</th>')
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
