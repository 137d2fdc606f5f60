"""The steps of a program on one state of the lower level: what `program` recorded happens."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._core import GateList
from .arguments import Accuracy
from .program import Conditional, Measure, Step, count_gates


def run_steps(
    core: Any,
    steps: Sequence[Step],
    bits: list[int],
    values: NDArray[np.float64],
    report: Callable[[int], object] | None = None,
    done: int = 0,
    accuracy: Accuracy = "exact",
    run_gates: Callable[[GateList, Callable[[int], object] | None], object] | None = None,
    after_measurement: Callable[[], object] | None = None,
) -> int:
    """Applies steps to a state; measurements write `bits`, `values` are those of the parameters,
    `report` is told the number of gates that are through, `done` of them before. Returns that
    number. `run_gates` applies gates, and reports, in the place of their own method;
    `after_measurement` is called behind every step that reads a qubit."""
    for step in steps:
        if isinstance(step, GateList):
            if run_gates:
                run_gates(step, shifted(report, done))
            else:
                step.run(core, values, shifted(report, done), accuracy=accuracy)
            done += len(step)
        elif isinstance(step, Measure):
            bits[step.clbit] = core.measure([step.qubit])
            core.project([step.qubit], bits[step.clbit])
        elif isinstance(step, Conditional):
            read = "".join(str(bits[clbit]) for clbit in step.clbits)
            if int(read or "0", 2) == step.value:
                run_steps(
                    core,
                    step.steps,
                    bits,
                    values,
                    report,
                    done,
                    accuracy,
                    run_gates,
                    after_measurement,
                )
            done += count_gates(step.steps)
        else:
            core.project_then_reset([step.qubit], core.measure([step.qubit]))
        if after_measurement and not isinstance(step, (GateList, Conditional)):
            after_measurement()
    return done


def shifted(report: Callable[[int], object] | None, base: int) -> Callable[[int], object] | None:
    """A function of the gates after `base` that tells `report` of all."""
    return None if report is None else lambda done: report(base + done)
