"""The state vector that people use: a register, its gates and what can be read from it."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from .circuit import Circuit, Conditional, Measure, _count_gates
from .counts import Counts
from .gates import GateMethods, as_qubits
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
    """What pure states and density matrices have in common; `_gates` is the lower-level state."""

    __slots__ = ("_core",)

    if TYPE_CHECKING:
        _core: Any

        @property
        def num_qubits(self) -> int: ...

    def _allocate(self, nqubits, precision: str, threads: int | None, seed: int | None) -> None:
        kind = _SPELLINGS.get(precision, precision) if isinstance(precision, str) else precision
        if kind not in _STATES:
            raise ValueError(f"precision = {precision!r}: expected 'float' or 'double'")
        # A new object clears its memory on one worker. Grown from nothing with the workers set, it
        # has them share that, and each finds its amplitudes in the memory next to it.
        core: Any = _STATES[kind](0)
        core.set_num_threads(_core.hardware_threads() if threads is None else _threads(threads))
        core.resize(nqubits)
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
        """Worker threads of long operations. Amplitudes after gates, and shots drawn from them, do not
        depend on it; probabilities, expectation values and the norm in a collapse round alike for
        every number above 1, and for 1 may differ in the last digits."""
        return self._core.num_threads

    @threads.setter
    def threads(self, threads: int) -> None:
        self._core.set_num_threads(_threads(threads))

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
        return self._core.probability(_outcome(outcome, len(listed)), listed[::-1])

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
        result = np.empty(_count(shots), dtype=np.uint64) if out is None else out
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


class StateVector(Readout, GateMethods):
    """The pure state of `num_qubits` qubits, in |0...0> at first.

    precision: "double" (complex128 amplitudes) or "float" (complex64).
    threads: worker threads of long operations, by default one per processor.
    seed: of the generator behind shots and measurements, by default taken from the clock.

    Strings, outcomes and arrays that go in and out have qubit 0 first: leftmost, most significant.
    `amplitudes` is the one exception: it shows the memory itself, where qubit q has weight 2^q.

    >>> StateVector(2, seed=7).h(0).cx(0, 1).sample(100)
    """

    __slots__ = ("_gates", "_bits", "__weakref__")

    def __init__(
        self,
        num_qubits: int,
        precision: str = "double",
        threads: int | None = None,
        seed: int | None = None,
    ) -> None:
        self._allocate(num_qubits, precision, threads, seed)
        self._gates = self._core
        self._bits: list[int] = []

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return self._core.nqubits

    @property
    def amplitudes(self) -> NDArray:
        """The amplitudes themselves, without a copy: basis state b at index b, qubit q of weight
        2^q (the reverse of every other array here). Writable. While such an array is alive,
        `resize` and `release` raise BufferError."""
        return self._core.state

    @property
    def classical_bits(self) -> tuple[int, ...]:
        """What the measurements of the last `run` read."""
        return tuple(self._bits)

    # ---- Preparing -------------------------------------------------------------------------------

    def reset(self, qubits: int | Sequence[int] | None = None) -> Self:
        """Returns all qubits to |0>, or measures the listed ones and returns them to |0>."""
        if qubits is None:
            self._core.reset()
        else:
            for qubit in as_qubits(qubits):
                self._core.project_then_reset([qubit], self._core.measure([qubit]))
        return self

    def set_product(self, description: str) -> Self:
        """Sets a product state, one character 0, 1, + or - per qubit, qubit 0 first."""
        if not isinstance(description, str):
            raise TypeError(f"description must be a str, got {description!r}")
        if len(description) != self.num_qubits or set(description) - set("01+-"):
            raise ValueError(
                f"description = {description!r}: expected {self.num_qubits} characters 0, 1, + or -"
            )
        # The library's first character governs the last qubit.
        self._core.reset_to_str(description[::-1])
        return self

    def set_amplitudes(self, amplitudes: ArrayLike, check: bool = True) -> Self:
        """Loads 2^n amplitudes, qubit 0 being the most significant bit of an index. ValueError
        when their norm is not 1, unless `check` is False."""
        if check:
            _check_norm(amplitudes, "amplitudes")
        self._core.reset(amplitudes)
        return self

    def prepare(self, amplitudes: ArrayLike, qubits: Sequence[int], check: bool = True) -> Self:
        """Loads 2^m amplitudes on m qubits, the first listed one being the most significant bit of
        an index. For every value of the other qubits the weight that was there is kept."""
        listed = as_qubits(qubits)
        array = np.asarray(amplitudes)
        if check:
            _check_norm(array, "amplitudes")
        if array.size != 1 << len(listed):
            raise ValueError(
                f"amplitudes holds {array.size} elements; expected {1 << len(listed)} for "
                f"{len(listed)} qubits"
            )
        # The library wants the lowest-numbered qubit least significant.
        order = sorted(range(len(listed)), key=lambda axis: -listed[axis])
        values = array.reshape((2,) * len(listed)).transpose(order).reshape(-1)
        self._core.apply_state_preparation(values, listed)
        return self

    def load_words(self, words: ArrayLike, address: Sequence[int], data: Sequence[int]) -> Self:
        """QRAM with binary words: |a>|0> becomes |a>|words[a]>. In both registers the first listed
        qubit is the most significant bit. The data register must be |0>."""
        table = np.asarray(words)
        if table.size and (table.min() < 0 or table.max() >= 1 << len(data)):
            raise ValueError(f"words must lie between 0 and {(1 << len(data)) - 1}, got {table!r}")
        self._core.apply_binary_qram(table, [*address][::-1] + [*data][::-1], len(data))
        return self

    def load_amplitudes(
        self, table: ArrayLike, address: Sequence[int], data: Sequence[int]
    ) -> Self:
        """QRAM with real amplitudes: |a>|0> becomes |a> times row a of the table, normalised, on
        the data register. In both registers the first listed qubit is the most significant bit."""
        if np.iscomplexobj(table) and np.any(np.imag(table)):
            raise ValueError("table must hold real numbers")
        self._core.apply_qram(table, [*address][::-1] + [*data][::-1], len(data))
        return self

    def resize(self, num_qubits: int) -> Self:
        """Changes the number of qubits and returns to |0...0>. BufferError while arrays from
        `amplitudes` are alive."""
        self._core.resize(num_qubits)
        self._core.reset()
        return self

    def release(self) -> None:
        """Frees the amplitudes; `resize` allocates again. BufferError while arrays from
        `amplitudes` are alive."""
        self._core.release_memory()

    def copy(self) -> "StateVector":
        """A state of its own with the same amplitudes, precision and threads. Its generator is
        seeded from the clock."""
        result = StateVector(self.num_qubits, self.precision, self.threads)
        result._core.state[:] = self._core.state
        return result

    # ---- Running ---------------------------------------------------------------------------------

    def run(self, circuit: Circuit, progress: Progress = None) -> Self:
        """Applies a circuit once, measurements and all, to the state as it is.

        Ctrl-C, and an exception from `progress`, stop between pieces of the circuit: the state then
        holds the effect of exactly the gates and measurements up to there, and `core.gates_applied`
        has grown by the number of those gates.
        """
        if not isinstance(circuit, Circuit):
            raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        self._bits = [0] * circuit.num_clbits
        with reporter(progress, len(circuit), "gate") as report:
            self._run_steps(circuit.steps, report, 0)
        return self

    def _run_steps(self, steps: Sequence, report: Any, done: int) -> int:
        for step in steps:
            if isinstance(step, _core.GateSequence):
                step.apply(self._core, report and (lambda count, base=done: report(base + count)))
                done += len(step)
            elif isinstance(step, Measure):
                self._bits[step.clbit] = int(self.measure(step.qubit))
            elif isinstance(step, Conditional):
                read = "".join(str(self._bits[clbit]) for clbit in step.clbits)
                if int(read or "0", 2) == step.value:
                    self._run_steps(step.steps, report, done)
                done += _count_gates(step.steps)
            else:
                self.reset(step.qubit)
        return done

    # ---- Reading ---------------------------------------------------------------------------------

    def to_array(self, out: NDArray | None = None) -> NDArray:
        """A copy of the amplitudes with qubit 0 the most significant bit of an index; written into
        `out` when given."""
        return self._core.get_permuted_statevector(out)

    def to_dict(self, threshold: float = 0.0) -> dict[str, complex]:
        """The amplitudes of magnitude above `threshold` by basis state, qubit 0 leftmost."""
        n = self.num_qubits
        entries = self._core.get_mapped_statevector(threshold)
        return {format(key, f"0{n}b") if n else "": value for key, value in entries.items()}

    def measure(self, qubits: int | Sequence[int] | None = None) -> str:
        """Measures qubits (all of them by default), collapses the state and returns what was read,
        the first listed qubit leftmost."""
        listed = list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)
        if not listed:
            return ""
        outcome = self._core.measure(listed)
        self._core.project(listed, outcome)
        return format(outcome, f"0{len(listed)}b")

    def project(self, outcome: str | int, qubits: Sequence[int] | None = None) -> Self:
        """Collapses qubits onto a chosen outcome. ValueError when its probability is 0."""
        listed = list(range(self.num_qubits)) if qubits is None else as_qubits(qubits)
        self._core.project(listed, _outcome(outcome, len(listed)))
        return self

    def norm(self) -> float:
        """The square root of the summed squared magnitudes."""
        return float(self._core.get_distribution([])[0]) ** 0.5

    def inner(self, other: "StateVector") -> complex:
        """The inner product <self|other>."""
        if not isinstance(other, StateVector):
            raise TypeError(f"other must be a StateVector, got {type(other).__name__} {other!r}")
        if other.num_qubits != self.num_qubits:
            raise ValueError(f"other has {other.num_qubits} qubits; expected {self.num_qubits}")
        return complex(np.vdot(self.amplitudes, other.amplitudes))

    def __repr__(self) -> str:
        return f"StateVector(num_qubits={self.num_qubits}, precision={self.precision!r})"

    def __str__(self) -> str:
        if self.num_qubits > 10:
            return repr(self)
        kept = self.to_dict(1e-6 if self.precision == "double" else 1e-4)
        return "\n".join(f"|{key}>  {value:.6g}" for key, value in kept.items())


def _threads(threads: int) -> int:
    if isinstance(threads, bool) or not hasattr(threads, "__index__"):
        raise TypeError(f"threads must be an integer, got {threads!r}")
    if threads < 1:
        raise ValueError(f"threads = {threads}: expected at least 1")
    return threads


def _count(shots: int) -> int:
    if isinstance(shots, bool) or not hasattr(shots, "__index__"):
        raise TypeError(f"shots must be an integer, got {shots!r}")
    if shots < 0:
        raise ValueError(f"shots = {shots}: expected at least 0")
    return shots


def _outcome(outcome: str | int, width: int) -> int:
    if isinstance(outcome, str):
        if len(outcome) != width or set(outcome) - set("01"):
            raise ValueError(f"outcome = {outcome!r}: expected {width} characters 0 or 1")
        return int(outcome or "0", 2)
    return outcome


def _check_norm(amplitudes: ArrayLike, name: str) -> None:
    norm = float(np.linalg.norm(np.asarray(amplitudes).reshape(-1)))
    if not abs(norm - 1) < 1e-5:
        raise ValueError(
            f"{name} has norm {norm:.9g}; expected 1 (pass check=False to load it anyway)"
        )
