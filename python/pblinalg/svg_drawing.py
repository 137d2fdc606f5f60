"""Pictures of circuits in SVG, for notebooks and documents; the layout is in `drawing`."""

from __future__ import annotations

from html import escape

from .drawing import CONTROL, CROSS, METER, NOT, OPEN, Element, Layout
from .program import Program

_PITCH = 40  # between wires
_BOX = 26  # height of a box
_GAP = 10  # between columns
_LETTER = 7.2  # width of a letter, generously

# A class of its own: notebooks set pictures into their pages.
_STYLE = "".join(
    ".pblinalg " + rule
    for rule in (
        "text{font:13px sans-serif;text-anchor:middle;dominant-baseline:central;fill:#111}",
        ".name{text-anchor:end}",
        ".note{font-size:10px}",
        "line,.pblinalg path,.pblinalg circle{stroke:#333;fill:none}",
        ".box{stroke:#30588c;fill:#e3ecf8}",
        ".meter{stroke:#777;fill:#f1f1f1}",
        ".dot{fill:#333}",
        ".classical{stroke:#999}",
    )
)


def draw_svg(program: Program, width: float = 900, limit: int | None = None) -> str:
    """The circuit as an SVG document, in parts of about `width` units each."""
    layout = Layout(program, limit)
    start = 20 + _LETTER * max((len(name) for name in layout.names), default=0)
    parts: list[list[tuple[float, list[Element], float]]] = [[]]
    x = widest = start
    for column in layout.columns():
        size = _column_width(column)
        if parts[-1] and x + size > width:
            parts.append([])
            x = start
        parts[-1].append((x, column, size))
        x += size + _GAP
        widest = max(widest, x)
    height = _PITCH * len(layout.names) + 10
    shapes = []
    for i, part in enumerate(parts):
        top = i * (height + 20) + _PITCH / 2 + 5
        shapes += _wires(layout, start, widest, top)
        for x, column, size in part:
            for element in column:
                shapes += _element(element, x + size / 2, top)
    total = len(parts) * (height + 20) - 20
    if layout.left_out:
        shapes.append(_text(start + 100, total + 10, f"... and {layout.left_out} more"))
        total += 25
    size_text = f'width="{widest + 10:g}" height="{total:g}"'
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" class="pblinalg" {size_text} '
        f'viewBox="0 0 {widest + 10:g} {total:g}"><style>{_STYLE}</style>'
        f'<rect width="100%" height="100%" fill="#fff"/>{"".join(shapes)}</svg>'
    )


def _column_width(column: list[Element]) -> float:
    boxes = [_box_width(text) for element in column for text in element.labels.values()]
    notes = [6.0 * len(note) for element in column for note in element.notes.values()]
    return max([_BOX, *boxes, *notes])


def _box_width(label: str) -> float:
    return max(_BOX, _LETTER * len(label) + 10)


def _line(x1: float, y1: float, x2: float, y2: float, kind: str = "") -> str:
    style = f' class="{kind}"' if kind else ""
    return f'<line x1="{x1:g}" y1="{y1:g}" x2="{x2:g}" y2="{y2:g}"{style}/>'


def _text(x: float, y: float, text: str, kind: str = "") -> str:
    style = f' class="{kind}"' if kind else ""
    return f'<text x="{x:g}" y="{y:g}"{style}>{escape(text)}</text>'


def _wires(layout: Layout, start: float, end: float, top: float) -> list[str]:
    shapes = []
    for row, name in enumerate(layout.names):
        y = top + row * _PITCH
        shapes.append(_text(start - 10, y, name, "name"))
        if row < layout.num_qubits:
            shapes.append(_line(start - 5, y, end, y))
        else:
            shapes += [_line(start - 5, y + d, end, y + d, "classical") for d in (-1.5, 1.5)]
    return shapes


def _element(element: Element, x: float, top: float) -> list[str]:
    def y_of(row: int) -> float:
        return top + row * _PITCH

    first, last = min(element.labels), max(element.labels)
    shapes = []
    if first != last:
        shapes.append(_line(x, y_of(first), x, y_of(last)))
    if element.notes:
        end = y_of(max(element.notes))
        shapes += [_line(x + d, y_of(last), x + d, end, "classical") for d in (-1.5, 1.5)]
    for row, note in element.notes.items():
        y = y_of(row)
        if row == element.measured:
            shapes.append(f'<path class="dot" d="M{x - 5:g} {y - 8:g}h10l-5 8z"/>')
        else:
            shapes.append(f'<circle class="dot" cx="{x:g}" cy="{y:g}" r="4"/>')
        shapes.append(_text(x, y + 13, note, "note"))
    for row, label in element.labels.items():
        shapes += _sign(label, x, y_of(row))
    return shapes


def _sign(label: str, x: float, y: float) -> list[str]:
    if label == CONTROL:
        return [f'<circle class="dot" cx="{x:g}" cy="{y:g}" r="4"/>']
    if label == OPEN:
        return [f'<circle class="box" cx="{x:g}" cy="{y:g}" r="4"/>']
    if label == CROSS:
        return [f'<path d="M{x - 6:g} {y - 6:g}l12 12m0 -12l-12 12" stroke-width="1.5"/>']
    if label == NOT:
        return [
            f'<circle class="box" cx="{x:g}" cy="{y:g}" r="10"/>',
            f'<path d="M{x - 10:g} {y:g}h20M{x:g} {y - 10:g}v20"/>',
        ]
    width = _box_width(label)
    kind = "meter" if label == METER else "box"
    box = (
        f'<rect class="{kind}" x="{x - width / 2:g}" y="{y - _BOX / 2:g}" '
        f'width="{width:g}" height="{_BOX}" rx="3"/>'
    )
    if label == METER:
        return [box, f'<path d="M{x - 8:g} {y + 5:g}a8 8 0 0 1 16 0M{x:g} {y + 5:g}l6 -12"/>']
    return [box, _text(x, y, label)]
