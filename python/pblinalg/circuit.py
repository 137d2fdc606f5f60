"""The circuit that people use: a program with the gate methods, `run`, and ways to look at it."""

from __future__ import annotations

import shutil
from typing import SupportsIndex

import numpy as np
from numpy.typing import NDArray

from . import drawing, inspection, qasm_writer, svg_drawing
from .arguments import Accuracy, Precision
from .counts import Counts
from .noise import NoiseModel
from .parameters import Values
from .program import Program
from .progress import Progress
from .running import run

#: How many elements `print` and notebooks draw.
_SHOWN = 400


class Circuit(Program):
    """A circuit on `num_qubits` qubits; every gate method appends a gate and returns the circuit.

    >>> bell = Circuit(2).h(0).cx(0, 1)

    The gates are kept as a list of the library, with the plan of their run. Angles may be a
    `Parameter`: one circuit then runs with ever new `values`. A circuit runs in either precision
    and any number of times, in several threads at once, too; it can be copied and pickled. `len`
    and iteration are about its gates alone, those of conditions included; a circuit is true when it
    has any step.
    """

    __slots__ = ()

    def run(
        self,
        shots: SupportsIndex = 1024,
        precision: Precision = "double",
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
        progress: Progress = None,
        values: Values | None = None,
        accuracy: Accuracy = "exact",
        noise: NoiseModel | None = None,
    ) -> Counts:
        """`pblinalg.run` on this circuit: counts of what its measurements read."""
        return run(self, shots, precision, threads, seed, progress, values, accuracy, noise)

    def depth(self) -> int:
        """The number of layers when every gate, measurement and reset starts as soon as its qubits
        and classical bits are free."""
        return inspection.depth(self)

    def count_ops(self) -> dict[str, int]:
        """How often each operation occurs, the most frequent one first; controls are in the name:
        `{"cx": 3, "h": 1, "measure": 1}`."""
        return inspection.count_ops(self)

    def matrix(self, values: Values | None = None) -> NDArray[np.complex128]:
        """The matrix of 2^n rows and columns, qubit 0 being the most significant bit of an index.
        `values` are those of the parameters. ValueError when the circuit measures or resets."""
        return inspection.matrix(self, values)

    def draw(self, output: str = "text", width: int | None = None) -> str:
        """A picture of the circuit: in box-drawing characters for "text", an SVG document for
        "svg". `width` is where it wraps: in characters, by default the terminal's, or in units of
        the document, by default 900."""
        if width is not None and width < 1:
            raise ValueError(f"width = {width}: expected at least 1")
        if output == "text":
            return drawing.draw_text(self, width or shutil.get_terminal_size().columns)
        if output == "svg":
            return svg_drawing.draw_svg(self, width or 900)
        raise ValueError(f"output = {output!r}: expected 'text' or 'svg'")

    def to_qasm(self, version: int = 3) -> str:
        """The circuit as an OpenQASM program of version 2 or 3, read back by `pblinalg.qasm.loads`.

        Matrices are taken apart into rotations, the number of which grows as 4^k on k qubits.
        OpenQASM 2 has no phase of the whole state: there two rotations of qubit 0 bring it about,
        and gates with many controls come with their definitions. ValueError for matrices that are
        not unitary, and in version 2 for parameters and for conditions on anything but one whole
        register, its last bit listed first.
        """
        return qasm_writer.write(self, version)

    def __str__(self) -> str:
        return drawing.draw_text(self, shutil.get_terminal_size().columns, _SHOWN)

    def _repr_svg_(self) -> str:
        return svg_drawing.draw_svg(self, limit=_SHOWN)
