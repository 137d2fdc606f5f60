"""The state vector that people use: a register, its gates and how it is loaded and run. What both
kinds of states have in common is in `readout`."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .arguments import (
    MAX_COUNT,
    Accuracy,
    Precision,
    Qubits,
    accuracy_name,
    complex_array,
    count,
    integer,
    outcome_number,
)
from .execution import run_steps
from .gates import as_qubits
from .html_tables import state_table, table
from .parameters import Values, values_in_order
from .program import Program
from .progress import Progress, reporter
from .readout import Readout
from .state_files import FilePath, read_state

if TYPE_CHECKING:
    from typing_extensions import Self

#: How much of a state a loading may lose to values that a data register was not to have.
LOSS_TOLERANCE = 1e-6


class StateVector(Readout):
    """The pure state of `num_qubits` qubits, in |0...0> at first.

    precision: "double" (complex128 amplitudes) or "float" (complex64).
    threads: worker threads of long operations, by default one per processor from 18 qubits on and
    one below, where more gain next to nothing.
    seed: of the generator behind shots and measurements, 64 bits, by default from the system's
    randomness; `state.seed` tells it.

    Strings, outcomes and arrays that go in and out have qubit 0 first: leftmost, most significant.
    `amplitudes` is the one exception: it shows the memory itself, where qubit q has weight 2^q.

    A state reads as a sequence of its 2^n amplitudes, too: `np.asarray(state)`, `len(state)`,
    `state[3]`, `state["011"]`. It can be copied and pickled, its generator included.

    >>> StateVector(2, seed=7).h(0).cx(0, 1).sample(100)
    """

    __slots__ = ("_bits", "__weakref__")

    def __init__(
        self,
        num_qubits: SupportsIndex,
        precision: Precision = "double",
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
    ) -> None:
        self._allocate(count(num_qubits, "num_qubits", 0, MAX_COUNT), precision, threads, seed)
        self._bits: list[int] = []

    def __getstate__(self) -> dict[str, Any]:
        return super().__getstate__() | {"bits": self._bits}

    def __setstate__(self, state: dict[str, Any]) -> None:
        super().__setstate__(state)
        self._bits = list(state["bits"])

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return int(self._core.nqubits)

    @property
    def amplitudes(self) -> NDArray[np.complexfloating[Any, Any]]:
        """The amplitudes themselves, without a copy: basis state b at index b, qubit q of weight
        2^q (the reverse of every other array here). Writable. While such an array is alive,
        `resize` and `release` raise BufferError."""
        self._require_amplitudes()
        view: NDArray[Any] = self._core.state
        return view

    @property
    def classical_bits(self) -> tuple[int, ...]:
        """What the measurements of the last `run` read."""
        return tuple(self._bits)

    # ---- Preparing -------------------------------------------------------------------------------

    def reset(self, qubits: Qubits | None = None) -> Self:
        """Returns all qubits to |0>, or measures the listed ones and returns them to |0>."""
        if qubits is None:
            self._core.reset()
        else:
            self._require_norm()
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
        self._require_amplitudes()
        array = np.asarray(amplitudes)
        # Amplitudes of the state's own precision are read in place; so are this one's own.
        if array.dtype not in (np.complex64, np.complex128):
            array = complex_array(amplitudes, "amplitudes")
        if array.size != self._core.size:
            raise ValueError(
                f"amplitudes holds {array.size} elements; expected {self._core.size} for "
                f"{self.num_qubits} qubits"
            )
        if check:
            _check_norm(array)
        self._core.reset(array)
        return self

    def prepare(self, amplitudes: ArrayLike, qubits: Qubits, check: bool = True) -> Self:
        """Loads 2^m amplitudes on m qubits, the first listed one being the most significant bit of
        an index. For every value of the other qubits the weight that was there is kept."""
        listed = as_qubits(qubits)
        array = complex_array(amplitudes, "amplitudes")
        if array.size != 1 << len(listed):
            raise ValueError(
                f"amplitudes holds {array.size} elements; expected {1 << len(listed)} for "
                f"{len(listed)} qubits"
            )
        if check:
            _check_norm(array)
        # The library wants the lowest-numbered qubit least significant.
        order = sorted(range(len(listed)), key=lambda axis: -integer(listed[axis], "qubits"))
        values = array.reshape((2,) * len(listed)).transpose(order).reshape(-1)
        self._core.apply_state_preparation(values, listed)
        return self

    def load_words(self, words: ArrayLike, address: Qubits, data: Qubits) -> Self:
        """QRAM with binary words: |a>|0> becomes |a>|words[a]>. In both registers the first listed
        qubit is the most significant bit. ValueError when the data register is not |0>."""
        table = np.asarray(words)
        if table.dtype.kind not in "iu":
            raise TypeError(f"words must be integers, got {words!r}")
        place, store = as_qubits(address), as_qubits(data)
        if table.size and (table.min() < 0 or table.max() >= 1 << len(store)):
            raise ValueError(f"words must lie between 0 and {(1 << len(store)) - 1}, got {words!r}")
        self._require_empty(store)
        self._core.apply_binary_qram(table, place[::-1] + store[::-1], len(store))
        return self

    def load_amplitudes(self, table: ArrayLike, address: Qubits, data: Qubits) -> Self:
        """QRAM with real amplitudes: |a>|0> becomes |a> times row a of the table, normalised, on
        the data register. In both registers the first listed qubit is the most significant bit.
        ValueError when the data register is not |0>."""
        rows = complex_array(table, "table")
        if np.any(np.imag(rows)):
            raise ValueError("table must hold real numbers")
        place, store = as_qubits(address), as_qubits(data)
        self._require_empty(store)
        self._core.apply_qram(rows, place[::-1] + store[::-1], len(store))
        return self

    def _require_empty(self, data: list[Any]) -> None:
        self._require_amplitudes()
        empty = self._core.probability(0, data)
        total = float(self._core.get_distribution([])[0])
        if not total - empty <= LOSS_TOLERANCE:
            raise ValueError(
                f"data: the register must be |0>, which has probability {empty:.6g}; what it holds "
                "otherwise would be lost"
            )

    def resize(self, num_qubits: SupportsIndex) -> Self:
        """Changes the number of qubits and returns to |0...0>. BufferError while arrays from
        `amplitudes` are alive."""
        self._resize_core(count(num_qubits, "num_qubits", 0, MAX_COUNT))
        return self

    def release(self) -> None:
        """Frees the amplitudes; `resize` allocates again. BufferError while arrays from
        `amplitudes` are alive."""
        self._core.release_memory()

    # ---- Running ---------------------------------------------------------------------------------

    def run(
        self,
        circuit: Program,
        progress: Progress = None,
        values: Values | None = None,
        accuracy: Accuracy = "exact",
    ) -> Self:
        """Applies a circuit once, measurements and all, to the state as it is. `values` are those
        of its parameters, in order or by parameter or name; `accuracy` is that of `pblinalg.run`.

        Ctrl-C, and an exception from `progress`, stop between passes over the state: it then holds
        the effect of exactly the gates and measurements up to there, and `core.gates_applied` has
        grown by the number of those gates. With `accuracy="rounding"` a stop first runs up to a
        thousand more gates, which others have overtaken. While gates run, the state is not to be
        used.
        """
        if not isinstance(circuit, Program):
            raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        numbers = values_in_order(circuit, values)
        accuracy_name(accuracy)
        self._bits = [0] * circuit.num_clbits
        with reporter(progress, len(circuit), "gate") as report:
            run_steps(self._core, circuit.steps, self._bits, numbers, report, accuracy=accuracy)
        return self

    # ---- Reading ---------------------------------------------------------------------------------

    def to_array(self, out: NDArray[Any] | None = None) -> NDArray[np.complexfloating[Any, Any]]:
        """A copy of the amplitudes with qubit 0 the most significant bit of an index; written into
        `out` when given."""
        self._require_amplitudes()
        result: NDArray[Any] = self._core.get_permuted_statevector(out)
        return result

    @classmethod
    def load(
        cls,
        path: FilePath,
        threads: SupportsIndex | None = None,
        seed: SupportsIndex | None = None,
        check: bool = True,
    ) -> Self:
        """The state in a .npy file: 2^n amplitudes, complex64 or complex128, qubit 0 being the most
        significant bit of an index. They are read through the memory map of the file, so that
        memory holds them once. ValueError names a file that holds something else or was cut, and
        one whose norm is not 1, unless `check` is False."""
        array = read_state(path, 1)
        precision: Precision = "float" if array.dtype == np.complex64 else "double"
        result = cls(array.size.bit_length() - 1, precision, threads, seed)
        try:
            return result.set_amplitudes(array, check)
        except ValueError as error:
            raise ValueError(f"{path}: {error}") from None

    def _export(self, out: NDArray[Any]) -> None:
        self.to_array(out)

    def _in_memory(self) -> NDArray[Any]:
        return self.amplitudes

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> NDArray[Any]:
        if copy is False:
            raise ValueError("the amplitudes in this order are a copy; `amplitudes` is none")
        return self.to_array().astype(dtype or self._core.state.dtype, copy=False)

    def __len__(self) -> int:
        """The number of amplitudes, 2^n."""
        return int(self._core.size)

    def __getitem__(self, position: SupportsIndex | str) -> complex:
        """One amplitude, by its index in `to_array` or by its basis state as a string."""
        self._require_amplitudes()
        n = self.num_qubits
        if isinstance(position, str):
            number = outcome_number(position, n)
        else:
            number = integer(position, "position")
            if not -len(self) <= number < len(self):
                raise IndexError(f"position = {number}: expected a value below {len(self)}")
            number %= len(self)
        stored = int(format(number, f"0{n}b")[::-1], 2) if n else 0
        return complex(self._core.state[stored])

    def to_dict(self, threshold: float = 0.0) -> dict[str, complex]:
        """The amplitudes of magnitude above `threshold` by basis state, qubit 0 leftmost."""
        self._require_amplitudes()
        n = self.num_qubits
        entries = self._core.get_mapped_statevector(threshold)
        return {format(key, f"0{n}b") if n else "": value for key, value in entries.items()}

    def measure(self, qubits: Qubits | None = None) -> str:
        """Measures qubits (all of them by default), collapses the state and returns what was read,
        the first listed qubit leftmost."""
        listed = self._listed(qubits)
        self._require_norm()
        if not listed:
            return ""
        outcome = self._core.measure(listed)
        self._core.project(listed, outcome)
        return format(outcome, f"0{len(listed)}b")

    def project(self, outcome: str | SupportsIndex, qubits: Qubits | None = None) -> Self:
        """Collapses qubits onto a chosen outcome. ValueError when its probability is 0."""
        self._require_amplitudes()
        listed = self._listed(qubits)
        self._core.project(listed, outcome_number(outcome, len(listed)))
        return self

    def norm(self) -> float:
        """The square root of the summed squared magnitudes."""
        self._require_amplitudes()
        return float(float(self._core.get_distribution([])[0]) ** 0.5)

    def inner(self, other: StateVector) -> complex:
        """The inner product <self|other>."""
        if not isinstance(other, StateVector):
            raise TypeError(f"other must be a StateVector, got {type(other).__name__} {other!r}")
        if other.num_qubits != self.num_qubits:
            raise ValueError(f"other has {other.num_qubits} qubits; expected {self.num_qubits}")
        return complex(np.vdot(self.amplitudes, other.amplitudes))

    def entanglement_entropy(self, qubits: Qubits) -> float:
        """How much the listed qubits are entangled with the others, in bits: the von Neumann
        entropy, to base 2, of their reduced density matrix or that of the others, whichever is the
        smaller one. k bits is the most for k qubits. ValueError when the probabilities of the state
        do not add up to 1."""
        return self._entanglement(qubits)

    def __repr__(self) -> str:
        return f"StateVector(num_qubits={self.num_qubits}, precision={self.precision!r})"

    def __str__(self) -> str:
        if self.num_qubits > 10:
            return repr(self)
        kept = self.to_dict(1e-6 if self.precision == "double" else 1e-4)
        return "\n".join(f"|{key}>  {value:.6g}" for key, value in kept.items())

    def _repr_html_(self) -> str:
        if self.num_qubits > 20:
            return table(repr(self), (), ())
        amplitudes = self.to_array()
        return state_table(repr(self), np.abs(amplitudes) ** 2, amplitudes)


def _check_norm(amplitudes: NDArray[Any]) -> None:
    norm = float(np.linalg.norm(amplitudes.reshape(-1)))
    if not abs(norm - 1) < 1e-5:
        raise ValueError(
            f"amplitudes has norm {norm:.9g}; expected 1 (pass check=False to load it anyway)"
        )
