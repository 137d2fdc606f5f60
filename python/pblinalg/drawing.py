"""Pictures of circuits: which element stands in which column, and the picture in text. The picture
in SVG is in `svg_drawing`."""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field
from itertools import islice

from ._core import GateList, Parameter
from .gate_names import control_bits, listed_gates, plain_name
from .gates import Gate
from .program import Conditional, Measure, Program, Step

#: Signs instead of boxes.
CONTROL, OPEN, CROSS, NOT, METER = "●", "○", "×", "⊕", "M"
_SIGNS = (CONTROL, OPEN, CROSS)

_LABELS = {
    "sdg": "S†", "tdg": "T†", "sx": "√X", "sxdg": "√X†", "iswap": "iSWAP", "iswapdg": "iSWAP†",
    "sqrt_swap": "√SWAP", "sqrt_swap_dg": "√SWAP†", "rx": "Rx", "ry": "Ry", "rz": "Rz",
    "rxx": "Rxx", "ryy": "Ryy", "rzz": "Rzz", "y_to_z": "Y→Z", "z_to_y": "Z→Y", "unitary": "U",
    "diagonal": "diag", "phase_oracle": "oracle", "global_phase": "φ",
}  # fmt: skip


@dataclass
class Element:
    """A gate, measurement or reset: a label for each qubit it touches, a note for each classical
    register that it writes or depends on (rows behind those of the qubits), and which one it
    writes."""

    labels: dict[int, str]
    notes: dict[int, str] = field(default_factory=dict)
    measured: int | None = None
    column: int = 0

    @property
    def rows(self) -> range:
        """The rows from the first to the last one that it touches."""
        touched = [*self.labels, *self.notes]
        return range(min(touched), max(touched) + 1)


class Layout:
    """Elements in columns such that none overlap, at most `limit` of them."""

    def __init__(self, program: Program, limit: int | None = None) -> None:
        self.num_qubits = program.num_qubits
        self.names = [f"q{qubit}" for qubit in range(self.num_qubits)]
        self._registers: list[tuple[int, int]] = []  # row and place by classical bit
        every = self._elements(program.steps, ())
        self.elements = list(islice(every, limit))
        self.left_out = _count(program.steps) - len(self.elements)
        if any(element.notes for element in self.elements):
            shown = [size for size in program.registers if size]
            for i, size in enumerate(shown):
                self.names.append(f"c{i if len(shown) > 1 else ''}[{size}]")
                row = self.num_qubits + i
                self._registers += [(row, place) for place in range(size)]
            # The notes name classical bits until here.
            for element in self.elements:
                element.notes = self._by_register(element)
                if element.measured is not None:
                    element.measured = self._registers[element.measured][0]
        ends = [0] * len(self.names)
        for element in self.elements:
            rows = element.rows
            element.column = max(ends[rows.start : rows.stop])
            ends[rows.start : rows.stop] = [element.column + 1] * len(rows)
        self.num_columns = max(ends, default=0)

    def columns(self) -> Iterator[list[Element]]:
        """The elements of each column."""
        result: list[list[Element]] = [[] for _ in range(self.num_columns)]
        for element in self.elements:
            result[element.column].append(element)
        yield from result

    def _elements(
        self, steps: Sequence[Step], conditions: tuple[Conditional, ...]
    ) -> Iterator[Element]:
        for step in steps:
            if isinstance(step, Conditional):
                yield from self._elements(step.steps, (*conditions, step))
                continue
            if isinstance(step, GateList):
                found: Iterator[Element] = (Element(_gate_labels(g)) for g in listed_gates(step))
            elif isinstance(step, Measure):
                found = iter([Element({step.qubit: METER}, {step.clbit: ""}, step.clbit)])
            else:
                found = iter([Element({step.qubit: "|0⟩"})])
            for element in found:
                for condition in conditions:
                    for i, clbit in enumerate(condition.clbits):
                        bit = condition.value >> (len(condition.clbits) - 1 - i) & 1
                        element.notes[clbit] = f"{element.notes.get(clbit, '')}={bit}"
                yield element

    def _by_register(self, element: Element) -> dict[int, str]:
        notes: dict[int, str] = {}
        for row in sorted({self._registers[clbit][0] for clbit in element.notes}):
            parts = []
            for clbit, note in element.notes.items():
                if self._registers[clbit][0] == row:
                    parts.append(f"{self._registers[clbit][1]}{note}")
            notes[row] = ",".join(parts)
        return notes


def _count(steps: Sequence[Step]) -> int:
    inner = [step for step in steps if isinstance(step, (GateList, Conditional))]
    nested = (_count(step.steps) if isinstance(step, Conditional) else len(step) for step in inner)
    return len(steps) - len(inner) + sum(nested)


def _gate_labels(gate: Gate) -> dict[int, str]:
    name = plain_name(gate)
    labels = {qubit: CONTROL if bit else OPEN for qubit, bit in control_bits(gate).items()}
    if name == "swap":
        return labels | {qubit: CROSS for qubit in gate.targets}
    if name == "x" and gate.controls:
        return labels | {gate.targets[0]: NOT}
    if name == "z" and gate.controls:
        return labels | {gate.targets[0]: CONTROL}
    label = _LABELS.get(name, name.upper())
    if gate.angles:
        label += f"({', '.join(map(angle_text, gate.angles))})"
    if name == "global_phase":
        # It has no target: written behind the sign of a control, or on the first qubit.
        qubit = max(labels, default=0)
        return labels | {qubit: labels.get(qubit, "") + label}
    if len(gate.targets) > 1 and gate.values is not None:
        # The place of each qubit matters.
        return labels | {qubit: f"{label}:{i}" for i, qubit in enumerate(gate.targets)}
    return labels | {qubit: label for qubit in gate.targets}


def angle_text(angle: float | Parameter) -> str:
    """A number as a simple fraction of pi where it is one, else to four digits."""
    if isinstance(angle, Parameter):
        factor = "" if angle.scale == 1 else "-" if angle.scale == -1 else f"{angle.scale:.4g}*"
        return f"{factor}{angle.name}" + (f"{angle.offset:+.4g}" if angle.offset else "")
    for below in (1, 2, 3, 4, 6, 8, 16):
        above = angle / math.pi * below
        if above and abs(above) < 100 and abs(above - round(above)) < 1e-9:
            number = {1: "", -1: "-"}.get(round(above), str(round(above)))
            return f"{number}π" + (f"/{below}" if below > 1 else "")
    return f"{angle:.4g}"


def draw_text(program: Program, width: int, limit: int | None = None) -> str:
    """The circuit in box-drawing characters, in parts of at most `width` characters a line."""
    layout = Layout(program, limit)
    label_width = max((len(name) for name in layout.names), default=0)
    head = [
        line
        for row, name in enumerate(layout.names)
        for line in (
            " " * (label_width + 2),
            f"{name:>{label_width}}: ",
            " " * (label_width + 2),
        )
    ]
    parts: list[list[str]] = []
    room = 0
    for column in layout.columns():
        cells = _text_column(column, layout)
        size = len(cells[0]) + 1
        if not parts or room < size:
            parts.append(list(head))
            room = max(width - label_width - 3, size)
        room -= size
        parts[-1] = [
            line + _wire(i, layout) + cell for i, (line, cell) in enumerate(zip(parts[-1], cells))
        ]
    if not parts:
        parts = [head]
    lines: list[str] = []
    for part in parts:
        ended = [(line + _wire(i, layout)).rstrip() for i, line in enumerate(part)]
        # Lines between wires that hold nothing are left out.
        lines += [line for i, line in enumerate(ended) if line or i % 3 == 1] + [""]
    if layout.left_out:
        lines += [f"... and {layout.left_out} more", ""]
    return "\n".join(lines[:-1])


def _wire(line: int, layout: Layout) -> str:
    if line % 3 != 1:
        return " "
    return "─" if line // 3 < layout.num_qubits else "═"


def _text_column(column: list[Element], layout: Layout) -> list[str]:
    """Three lines per row: above the wire, the wire, below it."""
    texts = [label for element in column for label in element.labels.values()]
    notes = [note for element in column for note in element.notes.values()]
    boxes = [len(text) + 4 for text in texts if text not in _SIGNS]
    # Odd, so that connections have a middle.
    width = max([3, *boxes, *map(len, notes)]) | 1
    lines = [_wire(i, layout) * width for i in range(3 * len(layout.names))]
    for element in column:
        rows = element.rows
        last_qubit = max(element.labels)
        for row in rows:
            classical_up, classical_down = row > last_qubit, row >= last_qubit
            up = "" if row == rows[0] else "║" if classical_up else "│"
            down = "" if row == rows[-1] else "║" if classical_down else "│"
            wire = "─" if row < layout.num_qubits else "═"
            lines[3 * row : 3 * row + 3] = _text_cell(element, row, (up, down), wire, width)
    return lines


def _text_cell(
    element: Element, row: int, connections: tuple[str, str], wire: str, width: int
) -> list[str]:
    """The part of an element in one row, with connections that go up and down."""
    up, down = connections
    above, below = up.center(width), down.center(width)
    if row in element.notes:
        sign = "╩" if row == element.measured else "■"
        return [above, sign.center(width, wire), element.notes[row].center(width)]
    label = element.labels.get(row)
    if label is None:
        # The connection crosses a wire that it leaves alone.
        crossing = "╬" if wire == "═" else "╫" if up == "║" else "┼"
        return [above, crossing.center(width, wire), below]
    if label in _SIGNS:
        return [above, label.center(width, wire), below]
    shown = f"┤ {'X' if label == NOT else label} ├"
    left, middle = (width - len(shown)) // 2, width // 2
    borders = []
    for first, last, sign in (("┌", "┐", "┴" if up else ""), ("└", "┘", _BELOW[down])):
        border = " " * left + first + "─" * (len(shown) - 2) + last
        if sign:
            border = border[:middle] + sign + border[middle + 1 :]
        borders.append(border.ljust(width))
    return [borders[0], (wire * left + shown).ljust(width, wire), borders[1]]


_BELOW = {"": "", "│": "┬", "║": "╥"}
