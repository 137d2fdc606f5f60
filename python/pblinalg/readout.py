"""What can be read from a state, pure or mixed: probabilities, shots and expectation values; and the
checks of shots, threads and outcomes."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from . import _core
from .counts import Counts
from .gates import as_qubits
from .observable import Observable
from .progress import Progress, reporter

if TYPE_CHECKING:
    from typing_extensions import Self

_STATES = {
    "float": _core.PybindLinAlgStateVectorCPUFloat,
    "double": _core.PybindLinAlgStateVectorCPUDouble,
}
_SPELLINGS = {"single": "float", "complex64": "float", "complex128": "double"}

#: Shots drawn between two looks at pending signals.
SHOTS_PER_PIECE = 1 << 20


class Readout:
    """What pure states and density matrices have in common; `_core` is the lower-level state."""

    __slots__ = ("_core",)

    if TYPE_CHECKING:
        _core: Any

        @property
        def num_qubits(self) -> int: ...

    def _allocate(self, nqubits, precision: str, threads: int | None, seed: int | None) -> None:
        kind = _SPELLINGS.get(precision, precision) if isinstance(precision, str) else precision
        if kind not in _STATES:
            raise ValueError(f"precision = {precision!r}: expected 'float' or 'double'")
        core: Any = _STATES[kind](nqubits)
        core.set_num_threads(_core.hardware_threads() if threads is None else thread_count(threads))
        if seed is not None:
            core.rng.seed(seed)
        core.reset()
        self._core = core

    @property
    def precision(self) -> str:
        """'float' (complex64 amplitudes) or 'double' (complex128)."""
        return "float" if isinstance(self._core, _STATES["float"]) else "double"

    @property
    def threads(self) -> int:
        """Worker threads of long operations; results do not depend on it."""
        return self._core.num_threads

    @threads.setter
    def threads(self, threads: int) -> None:
        self._core.set_num_threads(thread_count(threads))

    @property
    def core(self) -> Any:
        """The object of the lower level that holds the amplitudes."""
        return self._core

    def seed(self, value: int) -> Self:
        """Makes all later shots and measurements repeatable."""
        self._core.rng.seed(value)
        return self

    def probabilities(
        self, qubits: Sequence[int] | None = None, out: NDArray | None = None
    ) -> NDArray:
        """The probabilities of all outcomes on `qubits` (all of them by default), the first
        listed qubit being the most significant bit of an index; written into `out` when given."""
        listed = range(self.num_qubits) if qubits is None else as_qubits(qubits)
        return self._core.get_distribution(listed, out)

    def probability(self, outcome: str | int, qubits: Sequence[int] | None = None) -> float:
        """The probability of one outcome, a string of 0 and 1 or an integer, on `qubits` (all of
        them by default); the first listed qubit is the first character or most significant bit."""
        listed = list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)
        return self._core.probability(outcome_number(outcome, len(listed)), listed[::-1])

    def sample(
        self,
        shots: int,
        qubits: Sequence[int] | None = None,
        progress: Progress = None,
    ) -> Counts:
        """Counts of `shots` measurements of `qubits` (all of them by default). The state stays as
        it is. Ctrl-C stops between pieces; the draws up to there are used up."""
        listed = list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)
        outcomes = self.sample_outcomes(shots, listed, progress=progress)
        return Counts.from_outcomes(outcomes, len(listed))

    def sample_outcomes(
        self,
        shots: int,
        qubits: Sequence[int] | None = None,
        out: NDArray[np.uint64] | None = None,
        progress: Progress = None,
    ) -> NDArray[np.uint64]:
        """The outcomes of `shots` measurements in order, the first listed qubit being the most
        significant bit; written into `out` when given."""
        listed = list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)
        result = np.empty(shot_count(shots), dtype=np.uint64) if out is None else out
        if not listed:
            # The lower level reads all qubits for an empty list.
            result[...] = 0
            return result
        if len(result) != shots or shots <= SHOTS_PER_PIECE:
            return self._core.sample_subset(listed, shots, result)
        with reporter(progress, shots, "shot") as report:
            for begin in range(0, shots, SHOTS_PER_PIECE):
                piece = result[begin : begin + SHOTS_PER_PIECE]
                self._core.sample_subset(listed, len(piece), piece)
                if report:
                    report(begin + len(piece))
        return result

    def expectation(self, observable: Observable | str) -> float | complex:
        """The exact expectation value; real when the coefficients are."""
        observable = self._observable(observable)
        value = self._core.expectation_value(observable._record(self.precision))
        return value.real if observable.is_hermitian() else value

    def expectation_terms(self, observable: Observable | str) -> dict[str, complex]:
        """Coefficient times exact expectation value of every string but the identity."""
        observable = self._observable(observable)
        values = self._core.terms_expectations_values(observable._record(self.precision))
        names = [letters for letters in observable.terms if letters.strip("I")]
        return dict(zip(names, values))

    def estimate(self, observable: Observable | str, shots: int) -> tuple[complex, float]:
        """The expectation value from `shots` shots for every term, each measured in its own basis,
        and its standard error. The state is rotated and rotated back."""
        observable = self._observable(observable)
        value = observable.masks()[-1]
        variance = 0.0
        # Term by term, so that Ctrl-C finds a gap; the draws are the same.
        for term in observable._simple_terms(self.precision):
            ((mean, error),) = self._core.evaluate_terms([term], shots)
            value += mean
            variance += abs(error) ** 2
        return (value.real if observable.is_hermitian() else value), variance**0.5

    def _observable(self, observable: Observable | str) -> Observable:
        if isinstance(observable, str):
            observable = Observable.parse(observable)
        if not isinstance(observable, Observable):
            raise TypeError(f"observable must be an Observable or a string, got {observable!r}")
        if observable.num_qubits != self.num_qubits:
            raise ValueError(
                f"observable acts on {observable.num_qubits} qubits; the state has {self.num_qubits}"
            )
        return observable


def thread_count(threads: int) -> int:
    if isinstance(threads, bool) or not hasattr(threads, "__index__"):
        raise TypeError(f"threads must be an integer, got {threads!r}")
    if threads < 1:
        raise ValueError(f"threads = {threads}: expected at least 1")
    return threads


def shot_count(shots: int) -> int:
    if isinstance(shots, bool) or not hasattr(shots, "__index__"):
        raise TypeError(f"shots must be an integer, got {shots!r}")
    if shots < 0:
        raise ValueError(f"shots = {shots}: expected at least 0")
    return shots


def outcome_number(outcome: str | int, width: int) -> int:
    if isinstance(outcome, str):
        if len(outcome) != width or set(outcome) - set("01"):
            raise ValueError(f"outcome = {outcome!r}: expected {width} characters 0 or 1")
        return int(outcome or "0", 2)
    return outcome
