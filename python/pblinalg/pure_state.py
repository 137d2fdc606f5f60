"""What pure states do alike in one process and over ranks: loading, measuring, collapsing. How each
kind is made, run and read as a whole is its own business."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .arguments import Qubits, complex_array, integer, outcome_number
from .gates import as_qubits
from .readout import Readout

if TYPE_CHECKING:
    from typing_extensions import Self

#: How much of a state a loading may lose to values that a data register was not to have.
LOSS_TOLERANCE = 1e-6


class PureState(Readout):
    """Arguments are checked `_together`, before the lower level is called."""

    __slots__ = ("_bits",)

    _bits: list[int]

    @property
    def num_qubits(self) -> int:
        """The number of qubits."""
        return int(self._core.nqubits)

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
            with self._together():
                listed = self._listed(qubits)
            self._require_norm()
            for qubit in listed:
                self._core.project_then_reset([qubit], self._core.measure([qubit]))
        return self

    def set_product(self, description: str) -> Self:
        """Sets a product state, one character 0, 1, + or - per qubit, qubit 0 first."""
        with self._together():
            if not isinstance(description, str):
                raise TypeError(f"description must be a str, got {description!r}")
            if len(description) != self.num_qubits or set(description) - set("01+-"):
                raise ValueError(
                    f"description = {description!r}: expected {self.num_qubits} characters 0, 1, "
                    "+ or -"
                )
        # The library's first character governs the last qubit.
        self._core.reset_to_str(description[::-1])
        return self

    def prepare(self, amplitudes: ArrayLike, qubits: Qubits, check: bool = True) -> Self:
        """Loads 2^m amplitudes on m qubits, the first listed one being the most significant bit of
        an index. For every value of the other qubits the weight that was there is kept."""
        with self._together():
            listed = self._listed(as_qubits(qubits))
            array = complex_array(amplitudes, "amplitudes")
            if array.size != 1 << len(listed):
                raise ValueError(
                    f"amplitudes holds {array.size} elements; expected {1 << len(listed)} for "
                    f"{len(listed)} qubits"
                )
            if check:
                check_norm(array)
            # The library wants the lowest-numbered qubit least significant.
            order = sorted(range(len(listed)), key=lambda axis: -integer(listed[axis], "qubits"))
        values = array.reshape((2,) * len(listed)).transpose(order).reshape(-1)
        self._core.apply_state_preparation(values, listed)
        return self

    def load_words(self, words: ArrayLike, address: Qubits, data: Qubits) -> Self:
        """QRAM with binary words: |a>|0> becomes |a>|words[a]>. In both registers the first listed
        qubit is the most significant bit. ValueError when the data register is not |0>."""
        with self._together():
            table = np.asarray(words)
            if table.dtype.kind not in "iu":
                raise TypeError(f"words must be integers, got {words!r}")
            place, store = self._listed(as_qubits(address)), self._listed(as_qubits(data))
            if table.size and (table.min() < 0 or table.max() >= 1 << len(store)):
                raise ValueError(
                    f"words must lie between 0 and {(1 << len(store)) - 1}, got {words!r}"
                )
        self._require_empty(store)
        numbers = table.reshape(-1).astype(np.uint64, copy=False)
        self._core.apply_binary_qram(numbers, place[::-1] + store[::-1], len(store))
        return self

    def load_amplitudes(self, table: ArrayLike, address: Qubits, data: Qubits) -> Self:
        """QRAM with real amplitudes: |a>|0> becomes |a> times row a of the table, normalised, on
        the data register. In both registers the first listed qubit is the most significant bit.
        ValueError when the data register is not |0>."""
        with self._together():
            rows = complex_array(table, "table")
            if np.any(np.imag(rows)):
                raise ValueError("table must hold real numbers")
            place, store = self._listed(as_qubits(address)), self._listed(as_qubits(data))
        self._require_empty(store)
        self._core.apply_qram(rows.reshape(-1), place[::-1] + store[::-1], len(store))
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

    # ---- Reading ---------------------------------------------------------------------------------

    def measure(self, qubits: Qubits | None = None) -> str:
        """Measures qubits (all of them by default), collapses the state and returns what was read,
        the first listed qubit leftmost."""
        return self._measure(qubits, self._core)

    def _measure(self, qubits: Qubits | None, core: Any) -> str:
        with self._together():
            listed = self._listed(qubits)
        self._require_norm()
        if not listed:
            return ""
        outcome = core.measure(listed)
        core.project(listed, outcome)
        return format(outcome, f"0{len(listed)}b")

    def project(self, outcome: str | SupportsIndex, qubits: Qubits | None = None) -> Self:
        """Collapses qubits onto a chosen outcome. ValueError when its probability is 0."""
        self._require_amplitudes()
        with self._together():
            listed = self._listed(qubits)
            number = outcome_number(outcome, len(listed))
        self._core.project(listed, number)
        return self

    def norm(self) -> float:
        """The square root of the summed squared magnitudes."""
        self._require_amplitudes()
        return float(float(self._core.get_distribution([])[0]) ** 0.5)


def amplitudes_array(amplitudes: ArrayLike, num_qubits: int, check: bool) -> NDArray[Any]:
    """All amplitudes of a state, checked: those in single or double precision as they are."""
    array = np.asarray(amplitudes)
    if array.dtype not in (np.complex64, np.complex128):
        array = complex_array(amplitudes, "amplitudes")
    if array.size != 1 << num_qubits:
        raise ValueError(
            f"amplitudes holds {array.size} elements; expected {1 << num_qubits} for "
            f"{num_qubits} qubits"
        )
    if check:
        check_norm(array)
    return array


def check_norm(amplitudes: NDArray[Any]) -> None:
    require_norm_1(float(np.linalg.norm(amplitudes.reshape(-1))))


def require_norm_1(norm: float) -> None:
    if not abs(norm - 1) < 1e-5:
        raise ValueError(
            f"amplitudes has norm {norm:.9g}; expected 1 (pass check=False to load it anyway)"
        )
