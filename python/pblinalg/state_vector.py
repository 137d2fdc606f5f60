"""The state vector that people use: a register, its gates and how it is loaded and run. What both
kinds of states have in common is in `readout`."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .execution import run_steps
from .gates import GateMethods, as_qubits
from .program import Program
from .progress import Progress, reporter
from .readout import Readout, outcome_number

if TYPE_CHECKING:
    from typing_extensions import Self


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
        if num_qubits != self.num_qubits:
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

    def run(self, circuit: Program, progress: Progress = None) -> Self:
        """Applies a circuit once, measurements and all, to the state as it is.

        Ctrl-C, and an exception from `progress`, stop between pieces of the circuit: the state then
        holds the effect of exactly the gates and measurements up to there, and `core.gates_applied`
        has grown by the number of those gates.
        """
        if not isinstance(circuit, Program):
            raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        self._bits = [0] * circuit.num_clbits
        with reporter(progress, len(circuit), "gate") as report:
            run_steps(self._core, circuit.steps, self._bits, report)
        return self

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
        self._core.project(listed, outcome_number(outcome, len(listed)))
        return self

    def norm(self) -> float:
        """The square root of the summed squared magnitudes."""
        return float(self._core.get_distribution([])[0]) ** 0.5

    def inner(self, other: "StateVector") -> complex:
        """The inner product <self|other>."""
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


def _check_norm(amplitudes: ArrayLike, name: str) -> None:
    norm = float(np.linalg.norm(np.asarray(amplitudes).reshape(-1)))
    if not abs(norm - 1) < 1e-5:
        raise ValueError(
            f"{name} has norm {norm:.9g}; expected 1 (pass check=False to load it anyway)"
        )
