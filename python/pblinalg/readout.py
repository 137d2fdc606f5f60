"""What pure states and density matrices have in common: how they are made, copied and stored, and
what can be read from them."""

from __future__ import annotations

import copy
import secrets
from collections.abc import Iterable
from contextlib import AbstractContextManager, nullcontext
from typing import TYPE_CHECKING, Any, Literal, SupportsIndex, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from .arguments import (
    Qubits,
    complex_array,
    count,
    distinct_qubits,
    outcome_number,
    precision_name,
    seed_number,
)
from .counts import Counts
from .fidelities import entropy, fidelity
from .gates import GateMethods, as_qubits
from .observable import Observable, ObservableLike, observable_on
from .progress import Progress, check_progress, reporter
from .state_files import FilePath, write_state

if TYPE_CHECKING:
    from typing_extensions import Self

_STATES = {
    "float": _core.PybindLinAlgStateVectorCPUFloat,
    "double": _core.PybindLinAlgStateVectorCPUDouble,
}
StateCore = Union[_core.PybindLinAlgStateVectorCPUFloat, _core.PybindLinAlgStateVectorCPUDouble]

#: Shots drawn between two looks at pending signals.
SHOTS_PER_PIECE = 1 << 20
#: Registers of fewer qubits get one worker by default: more would gain next to nothing alone, and
#: cost dearly beside other busy processes.
PARALLEL_QUBITS = 18
#: How far the squared norm of a state that is sampled may be from 1.
NORM_TOLERANCE = 0.01


def default_threads(num_qubits: int) -> int:
    """The workers of a register of that many qubits when the caller does not say."""
    return _core.hardware_threads() if num_qubits >= PARALLEL_QUBITS else 1


def register_bytes(num_qubits: int, precision: str) -> float:
    """The memory of the amplitudes."""
    return (8.0 if precision_name(precision) == "float" else 16.0) * 2.0 ** min(num_qubits, 1000)


_ALONE = nullcontext()


class Readout(GateMethods):
    """What pure states and density matrices have in common; `_core` is the lower-level state."""

    __slots__ = ("_core", "_seed", "_threads_chosen")

    #: A density matrix, on the rows and columns of which gates act.
    _both_sides = False

    if TYPE_CHECKING:
        _core: Any

        @property
        def num_qubits(self) -> int: ...

        def to_array(self) -> NDArray[Any]: ...

        def _export(self, out: NDArray[Any]) -> None: ...

        def _in_memory(self) -> NDArray[Any]: ...

    def _allocate(
        self,
        core_qubits: int,
        precision: str,
        threads: SupportsIndex | None,
        seed: SupportsIndex | None,
    ) -> None:
        kind = precision_name(precision)
        number = None if threads is None else count(threads, "threads", 1)
        self._seed = secrets.randbits(64) if seed is None else seed_number(seed)
        core: Any = _STATES[kind](0)
        self._threads_chosen = number is not None
        core.set_num_threads(default_threads(core_qubits) if number is None else number)
        # A new object clears its memory on one worker. Grown from nothing with the workers set, it
        # has them share that, and each finds its amplitudes in the memory next to it.
        core.resize(core_qubits)
        core.rng.seed(self._seed)
        core.reset()
        self._core = core
        GateMethods.__init__(self)
        _core.apply_to(self, core, self._both_sides)

    def _resize_core(self, core_qubits: int) -> None:
        self._core.resize(core_qubits)
        if not self._threads_chosen:
            self._core.set_num_threads(default_threads(core_qubits))
        self._core.reset()

    def _require_amplitudes(self) -> None:
        if not len(self._core.state):
            raise ValueError(
                "the state holds no amplitudes after release or a failed resize; resize it first"
            )

    def _require_norm(self) -> None:
        """Shots of a state that is none would look like results."""
        self._require_amplitudes()
        total = float(self._core.get_distribution([])[0])
        if not abs(total - 1) <= NORM_TOLERANCE:
            raise ValueError(
                f"the probabilities of the state add up to {total:.6g}; expected 1: load "
                "amplitudes of norm 1, or divide them by their norm"
            )

    @property
    def precision(self) -> Literal["float", "double"]:
        """'float' (complex64 amplitudes) or 'double' (complex128)."""
        return "float" if isinstance(self._core, _STATES["float"]) else "double"

    @property
    def threads(self) -> int:
        """Worker threads of long operations. Amplitudes after gates, and shots drawn from them, do
        not depend on it; probabilities, expectation values and the norm in a collapse round alike
        for every number above 1, and for 1 may differ in the last digits."""
        return int(self._core.num_threads)

    @threads.setter
    def threads(self, threads: SupportsIndex) -> None:
        self._core.set_num_threads(count(threads, "threads", 1))
        self._threads_chosen = True

    @property
    def core(self) -> StateCore:
        """The object of the lower level that holds the amplitudes."""
        return self._core  # type: ignore[no-any-return]

    @property
    def seed(self) -> int:
        """What the generator behind shots and measurements was last seeded with: 64 bits, from the
        system's randomness unless they were given. Assigning seeds it anew."""
        return self._seed

    @seed.setter
    def seed(self, seed: SupportsIndex) -> None:
        number = seed_number(seed)
        self._core.rng.seed(number)
        self._seed = number

    def reseed(self, seed: SupportsIndex) -> Self:
        """Makes all later shots and measurements repeatable."""
        self.seed = seed
        return self

    def copy(self) -> Self:
        """A state of its own with the same amplitudes, precision and threads, and a generator with
        a seed of its own. (`copy.copy` and pickling keep the generator as it stands, too.)"""
        self._require_amplitudes()
        result = copy.copy(self)
        result.seed = secrets.randbits(64)
        return result

    def __getstate__(self) -> dict[str, Any]:
        return {
            "core_qubits": self._core.nqubits,
            "precision": self.precision,
            "threads": self.threads if self._threads_chosen else None,
            "seed": self._seed,
            "position": self._core.rng.position,
            "amplitudes": self._core.state,
            "attributes": getattr(self, "__dict__", {}),
        }

    def __setstate__(self, state: dict[str, Any]) -> None:
        self._allocate(state["core_qubits"], state["precision"], state["threads"], state["seed"])
        self._core.rng.position = state["position"]
        if state["amplitudes"].size:
            self._core.state[:] = state["amplitudes"]
        else:
            self._core.release_memory()
        for name, value in state["attributes"].items():
            setattr(self, name, value)

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        # The amplitudes are copied once, not once more on the way.
        result = copy.copy(self)
        memo[id(self)] = result
        return result

    def save(self, path: FilePath) -> None:
        """Writes `to_array()` to a file in NumPy's .npy format, which `load`, and `numpy.load`
        anywhere, read: little-endian complex64 or complex128. No copy is made in memory, and an
        old file is replaced once the new one is whole."""
        self._require_amplitudes()
        dtype = self._core.state.dtype
        write_state(path, self._shape(), dtype, self._export)

    def _shape(self) -> tuple[int, ...]:
        """That of `to_array()`."""
        return (1 << self.num_qubits,) * (2 if self._both_sides else 1)

    def probabilities(
        self, qubits: Qubits | None = None, out: NDArray[Any] | None = None
    ) -> NDArray[np.floating[Any]]:
        """The probabilities of all outcomes on `qubits` (all of them by default), the first
        listed qubit being the most significant bit of an index; written into `out` when given."""
        self._require_amplitudes()
        result: NDArray[Any] = self._core.get_distribution(self._listed(qubits), out)
        return result

    def probability(self, outcome: str | SupportsIndex, qubits: Qubits | None = None) -> float:
        """The probability of one outcome, a string of 0 and 1 or an integer, on `qubits` (all of
        them by default); the first listed qubit is the first character or most significant bit."""
        self._require_amplitudes()
        with self._together():
            listed = self._listed(qubits)
            number = outcome_number(outcome, len(listed))
        return float(self._core.probability(number, listed[::-1]))

    def sample(
        self, shots: SupportsIndex, qubits: Qubits | None = None, progress: Progress = None
    ) -> Counts:
        """Counts of `shots` measurements of `qubits` (all of them by default). The state stays as
        it is. ValueError when its probabilities do not add up to 1. Ctrl-C stops between pieces;
        the draws up to there are used up."""
        listed = self._listed(qubits)
        outcomes = self.sample_outcomes(shots, listed, progress=progress)
        return Counts.from_outcomes(outcomes, len(listed))

    def sample_outcomes(
        self,
        shots: SupportsIndex,
        qubits: Qubits | None = None,
        out: NDArray[np.uint64] | None = None,
        progress: Progress = None,
    ) -> NDArray[np.uint64]:
        """The outcomes of `shots` measurements in order, the first listed qubit being the most
        significant bit; written into `out` when given. Errors as in `sample`."""
        number = count(shots, "shots")
        listed = self._listed(qubits)
        check_progress(progress)
        self._require_norm()
        if out is None:
            _core.require_memory(8.0 * number, f"the outcomes of {number} shots")
            out = np.empty(number, dtype=np.uint64)
        if not listed:
            # The lower level reads all qubits for an empty list.
            out[...] = 0
            return out
        pieces = range(0, number, SHOTS_PER_PIECE)
        if len(pieces) < 2 or not isinstance(out, np.ndarray) or out.shape != (number,):
            drawn: NDArray[np.uint64] = self._core.sample_subset(listed, number, out)
            return drawn
        with reporter(progress, number, "shot") as report:
            for begin in pieces:
                piece = out[begin : begin + SHOTS_PER_PIECE]
                self._core.sample_subset(listed, len(piece), piece)
                if report:
                    report(begin + len(piece))
        return out

    def expectation(self, observable: ObservableLike) -> float:
        """The exact expectation value. ValueError when a coefficient is not real;
        `expectation_complex` takes any."""
        with self._together():
            observable = self._observable(observable, hermitian=True)
        return float(self._core.expectation_value(observable.record(self.precision)).real)

    def expectation_complex(self, observable: ObservableLike) -> complex:
        """The exact value of <P> summed with complex coefficients."""
        with self._together():
            observable = self._observable(observable)
        return complex(self._core.expectation_value(observable.record(self.precision)))

    def expectation_terms(self, observable: ObservableLike) -> dict[str, complex]:
        """Coefficient times exact expectation value of every string but the identity."""
        with self._together():
            observable = self._observable(observable)
        values = self._core.terms_expectations_values(observable.record(self.precision))
        names = [letters for letters in observable.terms if letters.strip("I")]
        return dict(zip(names, values))

    def reduced_density_matrix(self, qubits: Qubits) -> NDArray[np.complex128]:
        """The state of the listed qubits when nothing is known of the others: their trace taken,
        as a 2^k x 2^k array, the first listed qubit being the most significant bit of rows and
        columns. Not normalised.

        One pass over the amplitudes, and 2 multiply-adds per amplitude and row; sums are kept in
        double whatever the precision and are the same for every number of threads. It takes up to
        64 arrays of the result's size where that is small, 2 from 9 qubits on: 12 qubits are
        256 MiB each."""
        self._require_amplitudes()
        result: NDArray[np.complex128] = _core.reduced_density_matrix(
            self._core, self._listed(qubits)
        )
        return result

    def fidelity(self, other: Readout | ArrayLike) -> float:
        """How close two states are, 1 for equal ones: |<a|b>|^2 of pure states, <a|b|a> of a pure
        and a mixed one, (tr sqrt(sqrt(a) b sqrt(a)))^2 of mixed ones. `other` is a state, an array
        of 2^n amplitudes or a 2^n x 2^n density matrix, qubit 0 being the most significant bit of
        an index. Nothing is normalised."""
        self._require_amplitudes()
        if isinstance(other, Readout):
            other._require_amplitudes()
            if other.num_qubits != self.num_qubits:
                raise ValueError(f"other has {other.num_qubits} qubits; expected {self.num_qubits}")
            return fidelity(self._in_memory(), other._in_memory())
        array = complex_array(other, "other")
        size = 1 << self.num_qubits
        if array.shape not in ((size,), (size, size)):
            raise ValueError(
                f"other has shape {array.shape}; expected ({size},) or ({size}, {size})"
            )
        return fidelity(self.to_array(), array)

    def _entanglement(self, qubits: Qubits) -> float:
        """The entropy of the listed qubits of a pure state, by way of the fewer ones."""
        with self._together():
            listed = distinct_qubits(as_qubits(qubits), self.num_qubits)
        others = [qubit for qubit in range(self.num_qubits) if qubit not in listed]
        return self._entropy(min(listed, others, key=len))

    def _entropy(self, qubits: list[Any]) -> float:
        self._require_norm()
        return entropy(self.reduced_density_matrix(qubits))

    def estimate(self, observable: ObservableLike, shots: SupportsIndex) -> tuple[float, float]:
        """The expectation value from `shots` shots for every term, each measured in its own basis,
        and its standard error. The state is rotated and rotated back. ValueError when a coefficient
        is not real, or when the probabilities of the state do not add up to 1."""
        with self._together():
            observable = self._observable(observable, hermitian=True)
            number = count(shots, "shots", 1)
        self._require_norm()
        value = observable.masks()[-1].real
        variance = 0.0
        for mean, error in self._estimates(observable.simple_terms(self.precision), number):
            value += mean.real
            variance += abs(error) ** 2
        return float(value), float(variance**0.5)

    def _estimates(self, terms: list[Any], shots: int) -> Iterable[tuple[complex, complex]]:
        """Term by term, so that Ctrl-C finds a gap; the draws are the same."""
        for term in terms:
            yield self._core.evaluate_terms([term], shots)[0]

    def _together(self) -> AbstractContextManager[None]:
        """Around checks of arguments: what they raise on one rank reaches all."""
        return _ALONE

    def _listed(self, qubits: Qubits | None) -> list[Any]:
        return list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)

    def _observable(self, observable: ObservableLike, hermitian: bool = False) -> Observable:
        self._require_amplitudes()
        return observable_on(self.num_qubits, observable, hermitian)
