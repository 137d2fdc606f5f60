"""Checks of plain arguments, and the types by which they are declared. What a list of qubits holds
is checked by the lower level."""

from __future__ import annotations

import operator
import reprlib
from collections.abc import Iterable, Sequence
from typing import Any, Literal, SupportsIndex, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import available_memory

#: Names of the two precisions, and other spellings of them.
Precision = Literal["float", "double", "single", "complex64", "complex128"]
#: How exact a run of gates is: to the last bit, or up to rounding and faster.
Accuracy = Literal["exact", "rounding"]
#: One qubit or classical bit, or several in order.
Qubits = Union[SupportsIndex, Iterable[SupportsIndex]]
#: Several qubits in order.
Several = Union[Sequence[SupportsIndex], "NDArray[np.integer[Any]]"]

#: The largest register that a circuit can be made for.
MAX_QUBITS = 58
#: Numbers of qubits up to this one are refused for the memory that they need.
MAX_COUNT = 1 << 20
_SPELLINGS: dict[str, Literal["float", "double"]] = {
    "float": "float", "double": "double",
    "single": "float", "complex64": "float", "complex128": "double",
}  # fmt: skip


def precision_name(precision: str) -> Literal["float", "double"]:
    """'float' or 'double', whatever the spelling."""
    kind = _SPELLINGS.get(precision) if isinstance(precision, str) else None
    if kind is None:
        raise ValueError(f"precision = {precision!r}: expected 'float' or 'double'")
    return kind


def accuracy_name(accuracy: str) -> Accuracy:
    if accuracy not in ("exact", "rounding"):
        raise ValueError(f"accuracy = {accuracy!r}: expected 'exact' or 'rounding'")
    return accuracy  # type: ignore[return-value]


def integer(value: SupportsIndex, name: str) -> int:
    """TypeError for booleans, too."""
    try:
        if not isinstance(value, (bool, np.bool_)):
            return operator.index(value)
    except TypeError:
        pass
    raise TypeError(f"{name} must be an integer, got {value!r}")


def index(value: SupportsIndex, name: str, last: int) -> int:
    """A number of something of which there are `last` + 1."""
    number = integer(value, name)
    if not 0 <= number <= last:
        raise IndexError(f"{name} = {number}: expected a value between 0 and {last}")
    return number


def distinct_qubits(qubits: Sequence[SupportsIndex], num_qubits: int) -> list[int]:
    """The numbers of listed qubits, none of them twice."""
    numbers = [index(qubit, "qubits", num_qubits - 1) for qubit in qubits]
    for place, number in enumerate(numbers):
        if number in numbers[:place]:
            raise ValueError(f"qubits = {number}: the qubit is listed twice")
    return numbers


def count(value: SupportsIndex, name: str, least: int = 0, last: int | None = None) -> int:
    """A number of shots, threads, qubits or bits."""
    number = integer(value, name)
    if number < least:
        raise ValueError(f"{name} = {number}: expected at least {least}")
    if last is not None and number > last:
        raise ValueError(f"{name} = {number}: expected at most {last}")
    return number


def seed_number(seed: SupportsIndex) -> int:
    number = integer(seed, "seed")
    if not 0 <= number < 1 << 64:
        raise ValueError(f"seed = {number}: expected a value between 0 and {(1 << 64) - 1}")
    return number


def probability_number(value: float) -> float:
    if isinstance(value, (bool, str, bytes)) or not hasattr(value, "__float__"):
        raise TypeError(f"probability must be a number, got {value!r}")
    if not 0 <= value <= 1:
        raise ValueError(f"probability = {value!r}: expected a value between 0 and 1")
    return float(value)


def outcome_number(outcome: str | SupportsIndex, width: int) -> int:
    """An outcome on `width` qubits, a string of 0 and 1 or an integer, as an integer."""
    if isinstance(outcome, str):
        if len(outcome) != width or set(outcome) - set("01"):
            raise ValueError(f"outcome = {outcome!r}: expected {width} characters 0 or 1")
        return int(outcome or "0", 2)
    number = integer(outcome, "outcome")
    if not 0 <= number < 1 << width:
        raise ValueError(f"outcome = {number}: expected a value between 0 and {(1 << width) - 1}")
    return number


def require_memory(what: str, size: int) -> None:
    """MemoryError when `size` bytes are more than what the system can give."""
    available = available_memory()
    if size > available:
        raise MemoryError(
            f"{what} needs {size / 2**30:.3g} GiB; {available / 2**30:.3g} GiB are available"
        )


def complex_array(values: ArrayLike, name: str) -> NDArray[np.complex128]:
    """The values as an array of complex128."""
    try:
        array = np.asarray(values)
        if array.dtype.kind in "iufc":
            return np.asarray(array, dtype=np.complex128)
    except ValueError:
        pass
    raise TypeError(f"{name} must be an array of numbers, got {reprlib.repr(values)}")
