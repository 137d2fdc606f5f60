"""What can be said of a circuit without running it: operations, depth; and its matrix."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._core import GateList
from .arguments import require_memory
from .gate_names import full_name, listed_gates
from .parameters import Values, values_in_order
from .program import Conditional, Measure, Program
from .state_vector import StateVector

#: Name, qubits, classical bits that are written, classical bits that are read.
_Operation = tuple[str, list[int], list[int], list[int]]


def operations(steps: Sequence[Any], read: tuple[int, ...] = ()) -> Iterator[_Operation]:
    """Gates, measurements and resets in order, those of conditions included."""
    for step in steps:
        if isinstance(step, GateList):
            for gate in listed_gates(step):
                yield full_name(gate), [*gate.controls, *gate.targets], [], [*read]
        elif isinstance(step, Conditional):
            yield from operations(step.steps, (*read, *step.clbits))
        elif isinstance(step, Measure):
            yield "measure", [step.qubit], [step.clbit], [*read]
        else:
            yield "reset", [step.qubit], [], [*read]


def count_ops(program: Program) -> dict[str, int]:
    """See `Circuit.count_ops`."""
    return dict(Counter(name for name, *_ in operations(program.steps)).most_common())


def depth(program: Program) -> int:
    """See `Circuit.depth`."""
    qubit_ends = [0] * program.num_qubits
    clbit_ends = [0] * program.num_clbits
    for _, qubits, written, read in operations(program.steps):
        clbits = [*written, *read]
        if not qubits and not clbits:
            continue  # a phase of everything
        end = 1 + max([qubit_ends[q] for q in qubits] + [clbit_ends[c] for c in clbits])
        for qubit in qubits:
            qubit_ends[qubit] = end
        for clbit in clbits:
            clbit_ends[clbit] = end
    return max(qubit_ends, default=0)


def matrix(program: Program, values: Values | None) -> NDArray[np.complex128]:
    """See `Circuit.matrix`."""
    if not program.is_unitary:
        raise ValueError("a circuit with measurements, resets or conditions has no matrix")
    numbers = values_in_order(program, values)
    size = 1 << program.num_qubits
    require_memory(f"the matrix of {program.num_qubits} qubits", 16 * size * size)
    result = np.empty((size, size), dtype=np.complex128)
    state = StateVector(program.num_qubits)
    column = np.zeros(size)
    for i in range(size):
        column[i] = 1
        result[:, i] = state.set_amplitudes(column).run(program, False, numbers).to_array()
        column[i] = 0
    return result
