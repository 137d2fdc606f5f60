"""Draws a benchmark run as an SVG picture: gates by target as a share of the limit, dense gates by
size, circuits in passes over the state."""

from html import escape

WIDTH, HEIGHT = 960, 850
COLOURS = ("#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#17becf", "#8c564b", "#7f7f7f")
PRECISIONS = ("double", "float")


class Panel:
    """A plot area with its axes; data coordinates go from `x` and `y` ranges to the picture."""

    def __init__(self, box, title, x, y, y_unit):
        self.left, self.top, self.width, self.height = box
        self.x, self.y = x, y
        self.parts = [
            f'<text x="{self.left}" y="{self.top - 12}" class="title">{escape(title)}</text>'
        ]
        for step in range(6):
            value = y[0] + (y[1] - y[0]) * step / 5
            at = self.place(x[0], value)[1]
            self.parts.append(
                f'<line x1="{self.left}" x2="{self.left + self.width}" y1="{at:.1f}" y2="{at:.1f}"'
                ' class="grid"/>'
            )
            self.text(self.left - 6, at + 4, f"{value:.3g}{y_unit}", "end")

    def place(self, x, y):
        across = (x - self.x[0]) / (self.x[1] - self.x[0])
        up = (min(y, self.y[1]) - self.y[0]) / (self.y[1] - self.y[0])
        return self.left + self.width * across, self.top + self.height * (1 - up)

    def text(self, x, y, words, anchor="middle"):
        self.parts.append(
            f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">{escape(words)}</text>'
        )

    def mark_x(self, values, label):
        for value in values:
            self.text(self.place(value, self.y[0])[0], self.top + self.height + 16, str(value))
        self.text(self.left + self.width / 2, self.top + self.height + 33, label)

    def curve(self, points, colour):
        if not points:
            return
        placed = [self.place(*point) for point in sorted(points)]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
        self.parts.append(f'<polyline points="{path}" stroke="{colour}" class="curve"/>')
        for x, y in placed:
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="2.5" fill="{colour}"/>')

    def legend(self, names):
        for row, name in enumerate(names):
            y = self.top + 8 + 16 * row
            x = self.left + self.width + 14
            self.parts.append(
                f'<rect x="{x}" y="{y - 5}" width="12" height="4" fill="{COLOURS[row]}"/>'
            )
            self.text(x + 18, y + 1, name, "start")

    def bar(self, x, width, value, colour):
        left, top = self.place(x, value)
        right, bottom = self.place(x + width, self.y[0])
        self.parts.append(
            f'<rect x="{left:.1f}" y="{top:.1f}" width="{right - left:.1f}"'
            f' height="{bottom - top:.1f}" fill="{colour}"/>'
        )
        self.text((left + right) / 2, top - 4, f"{value:.3g}")


def gate_panel(results, box, precision, threads):
    gates = results.select("Gate", qubits=24, threads=threads, precision=precision)
    # Those measured at every target, and not just at a few.
    subjects = sorted({gate.subject for gate in gates if gate.arguments.get("target") == 7})
    panel = Panel(box, f"One gate on 24 qubits, {precision}: share of the memory limit",
                  (0, 23), (0, 125), " %")
    for subject, colour in zip(subjects, COLOURS):
        points = [
            (gate.arguments["target"], 100 * results.fraction(gate))
            for gate in gates
            if gate.subject == subject
        ]
        panel.curve(points, colour)
    panel.mark_x(range(0, 24, 2), "target qubit")
    panel.legend([subject.removeprefix("Gate") for subject in subjects[: len(COLOURS)]])
    return panel


def dense_panel(results, box, threads):
    panel = Panel(box, "Dense gate on k of 24 qubits: share of the limit",
                  (1, 6), (0, 125), " %")
    names = []
    for precision in PRECISIONS:
        gates = results.select("DenseGate", qubits=24, threads=threads, precision=precision,
                               controls=0)
        for lowest in sorted({gate.arguments["lowest"] for gate in gates} & {0, 12}):
            points = [
                (int(gate.subject), 100 * results.fraction(gate))
                for gate in gates
                if gate.arguments["lowest"] == lowest
            ]
            panel.curve(points, COLOURS[len(names)])
            names.append(f"{precision}, from {lowest}")
    panel.mark_x(range(1, 7), "target qubits k")
    panel.legend(names)
    return panel


def circuit_panel(results, box, threads):
    circuits = results.select("Circuit", qubits=24, threads=threads)
    subjects = list(dict.fromkeys(circuit.subject for circuit in circuits))
    most = max((results.passes(circuit) or 0 for circuit in circuits), default=0) or 1
    # Five steps of a round number.
    round_numbers = (factor * 10**power for power in range(9) for factor in (1, 2, 5))
    step = next(number for number in round_numbers if 5 * number >= most)
    panel = Panel(box, "Circuits on 24 qubits: passes over the state",
                  (0, max(1, len(subjects))), (0, 5 * step), "")
    for position, subject in enumerate(subjects):
        for circuit in circuits:
            if circuit.subject == subject and results.passes(circuit):
                offset = 0.12 + 0.4 * PRECISIONS.index(circuit.precision)
                panel.bar(position + offset, 0.36, results.passes(circuit),
                          COLOURS[PRECISIONS.index(circuit.precision)])
        gates = next(c.gates for c in circuits if c.subject == subject)
        middle = panel.place(position + 0.5, 0)[0]
        panel.text(middle, panel.top + panel.height + 16, subject)
        panel.text(middle, panel.top + panel.height + 33, f"{gates:.0f} gates")
    panel.legend(PRECISIONS)
    return panel


def draw(results, threads):
    """The picture of the results with `threads` threads, as SVG text."""
    panels = [
        gate_panel(results, (70, 60, 740, 160), "double", threads),
        gate_panel(results, (70, 300, 740, 160), "float", threads),
        dense_panel(results, (70, 540, 250, 230), threads),
        circuit_panel(results, (520, 540, 340, 230), threads),
    ]
    body = "\n".join(part for panel in panels for part in panel.parts)
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}">
<style>
text {{ font: 12px sans-serif; fill: #222 }}
.title {{ font-weight: bold; font-size: 14px }}
.grid {{ stroke: #ddd }}
.curve {{ fill: none; stroke-width: 1.5 }}
</style>
<rect width="100%" height="100%" fill="white"/>
<text x="70" y="24">{threads} threads; medians, relative to limits measured in the same run</text>
{body}
</svg>
"""
