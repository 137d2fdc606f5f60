"""The state vector that people use: a register, and how it is made, run and read. What it has in
common with states over ranks is in `pure_state`, and with density matrices in `readout`."""

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
    count,
    integer,
    outcome_number,
)
from .execution import run_steps
from .html_tables import state_table, table
from .parameters import Values, values_in_order
from .program import Program
from .progress import Progress, reporter
from .pure_state import PureState, amplitudes_array
from .state_files import FilePath, read_state

if TYPE_CHECKING:
    from typing_extensions import Self


class StateVector(PureState):
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

    __slots__ = ("__weakref__",)

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
    def amplitudes(self) -> NDArray[np.complexfloating[Any, Any]]:
        """The amplitudes themselves, without a copy: basis state b at index b, qubit q of weight
        2^q (the reverse of every other array here). Writable. While such an array is alive,
        `resize` and `release` raise BufferError."""
        self._require_amplitudes()
        view: NDArray[Any] = self._core.state
        return view

    # ---- Preparing -------------------------------------------------------------------------------

    def set_amplitudes(self, amplitudes: ArrayLike, check: bool = True) -> Self:
        """Loads 2^n amplitudes, qubit 0 being the most significant bit of an index. ValueError
        when their norm is not 1, unless `check` is False."""
        self._require_amplitudes()
        array = amplitudes_array(amplitudes, self.num_qubits, check)
        self._core.reset(array)
        return self

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
