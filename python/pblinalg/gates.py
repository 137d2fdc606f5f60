"""The gate methods that states and circuits share. What a gate does is stated in the library alone;
the methods of gates that have a name are in its C++ part."""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, NamedTuple, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike

from . import _core
from .arguments import Qubits, Several, complex_array

if TYPE_CHECKING:
    from typing_extensions import Self


class Gate(NamedTuple):
    """A gate of a circuit, under the library's name."""

    name: str
    targets: list[int]
    controls: list[int]
    #: What the controls read where the gate acts, the first one being the most significant bit.
    ctrl_state: int
    angles: tuple[float | _core.Parameter, ...]
    #: The matrix, the diagonal, or the marked values; None for the other gates.
    values: Any


def check_unitary(matrix: ArrayLike, tolerance: float = 1e-6) -> None:
    """ValueError unless the square matrix is unitary within `tolerance`."""
    array = complex_array(matrix, "matrix")
    if array.ndim != 2 or array.shape[0] != array.shape[1]:
        raise ValueError(f"matrix has shape {array.shape}; expected a square matrix")
    deviation = np.abs(array @ array.conj().T - np.eye(len(array))).max(initial=0)
    if not deviation <= tolerance:
        raise ValueError(
            f"matrix is not unitary: its product with its adjoint deviates from the identity by "
            f"{deviation:.3g}; expected at most {tolerance:g} (pass check=False to apply it anyway)"
        )


def as_qubits(qubits: Qubits) -> list[int]:
    """One qubit or several as a list; what is in it is checked where it is used."""
    if isinstance(qubits, np.ndarray):
        # An array of any shape claims to be an index.
        qubits = qubits.tolist()
    if hasattr(qubits, "__index__"):
        return [qubits]  # type: ignore[list-item]
    if isinstance(qubits, (str, bytes)) or not hasattr(qubits, "__iter__"):
        raise TypeError(f"qubits must be a qubit or a list of qubits, got {qubits!r}")
    return list(qubits)  # type: ignore[arg-type]


class GateMethods(_core.GateMethods):
    """One method per gate; each returns the object itself, so that calls chain.

    Qubits are numbered from 0, angles are in radians; a circuit takes a `Parameter` for an angle,
    too. With `controls`, a list of other qubits, a gate acts only where all of them are 1, or where
    they read `ctrl_state`: an integer or a string of 0 and 1, the first listed control being the
    most significant bit.
    """

    __slots__ = ()

    def unitary(
        self,
        matrix: ArrayLike,
        qubits: Qubits,
        controls: Several | None = None,
        check: bool = True,
        ctrl_state: SupportsIndex | str | None = None,
    ) -> Self:
        """A matrix of 2^k rows on k qubits; the first listed qubit is the most significant bit of
        its row and column index. ValueError when it is not unitary, unless `check` is False."""
        if check:
            check_unitary(matrix)
        _core.take_matrix(self, matrix, as_qubits(qubits), controls, ctrl_state)
        return self

    def diagonal(
        self,
        values: ArrayLike,
        qubits: Qubits,
        controls: Several | None = None,
        check: bool = True,
        ctrl_state: SupportsIndex | str | None = None,
    ) -> Self:
        """The diagonal matrix of 2^k values on k qubits; the first listed qubit is the most
        significant bit of an index. ValueError when the magnitude of a value is not 1, unless
        `check` is False."""
        if check:
            deviation = np.abs(np.abs(complex_array(values, "values")) - 1).max(initial=0)
            if not deviation <= 1e-6:
                raise ValueError(
                    f"values: a magnitude deviates from 1 by {deviation:.3g} (pass check=False to "
                    "apply them anyway)"
                )
        _core.take_diagonal(self, values, as_qubits(qubits), controls, ctrl_state)
        return self

    def phase_oracle(
        self,
        marked: Iterable[SupportsIndex],
        qubits: Qubits,
        controls: Several | None = None,
        ctrl_state: SupportsIndex | str | None = None,
    ) -> Self:
        """Negates the amplitudes whose value on `qubits` is one of `marked`; the first listed
        qubit is the most significant bit of the value."""
        _core.take_phase_oracle(self, list(marked), as_qubits(qubits), controls, ctrl_state)
        return self
