"""The gate methods that states and circuits share, and the algebra of recorded gates.

A gate is recorded as (name, qubits, controls, value), as `GateSequence.gate` gives it. What a gate
does is stated in the library alone; here are only names, inverses and complex conjugates.
"""

from __future__ import annotations

import cmath
import math
from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING, Any, SupportsIndex

import numpy as np
from numpy.typing import ArrayLike

from ._core import require_finite
from .arguments import Qubits, Several, complex_array

if TYPE_CHECKING:
    from typing_extensions import Self

SDG = np.diag([1, -1j])
TDG = np.diag([1, cmath.exp(-0.25j * math.pi)])
SX = np.array([[1 + 1j, 1 - 1j], [1 - 1j, 1 + 1j]]) / 2
Y = np.array([[0, -1j], [1j, 0]])
ISWAP = np.array([[1, 0, 0, 0], [0, 0, 1j, 0], [0, 1j, 0, 0], [0, 0, 0, 1]])
SQRTSWAP = np.array(
    [[1, 0, 0, 0], [0, 0.5 + 0.5j, 0.5 - 0.5j, 0], [0, 0.5 - 0.5j, 0.5 + 0.5j, 0], [0, 0, 0, 1]]
)
Y_TO_Z = np.array([[1, -1j], [1, 1j]]) / math.sqrt(2)
SWAP = np.array([[1, 0, 0, 0], [0, 0, 1, 0], [0, 1, 0, 0], [0, 0, 0, 1]])


def u_matrix(theta: float, phi: float, lam: float) -> np.ndarray:
    """The general one-qubit gate, with a real first entry."""
    c, s = math.cos(theta / 2), math.sin(theta / 2)
    return np.array(
        [
            [c, -cmath.exp(1j * lam) * s],
            [cmath.exp(1j * phi) * s, cmath.exp(1j * (phi + lam)) * c],
        ]
    )


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


def apply_gate(
    target: Any, name: str, qubits: Sequence[int], controls: Sequence[int], value: Any
) -> None:
    """Hands a recorded gate to a state of the lower level or to a gate sequence."""
    if name == "phase_oracle":
        target.apply_phase_oracle(value, qubits)
    elif name == "matrix":
        apply_matrix(target, value, qubits, controls)
    elif value is not None:
        getattr(target, "apply_" + name)(qubits[0], value, controls or None)
    elif len(qubits) == 1:
        getattr(target, "apply_" + name)(qubits[0], controls or None)
    else:
        getattr(target, "apply_" + name)(*qubits)


def apply_matrix(
    target: Any, matrix: ArrayLike, qubits: Sequence[SupportsIndex], controls: Several | None
) -> None:
    """Hands a matrix to a state of the lower level or to a gate sequence."""
    if len(qubits) == 1:
        if controls:
            target.apply_1qbit_ctrl_gate(controls, qubits[0], matrix)
        else:
            target.apply_1qbit_gate(qubits[0], matrix)
    elif len(qubits) == 2:
        if controls:
            target.apply_2qbit_ctrl_gate(controls, qubits[0], qubits[1], matrix)
        else:
            target.apply_2qbit_gate(qubits[0], qubits[1], matrix)
    else:
        # The controlled member also without controls: it takes diagonals of any size.
        target.apply_nqbit_ctrl_gate(controls or (), qubits, matrix)


_MATRICES = {"S": SDG.conj(), "T": TDG.conj(), "Y": Y, "ISWAP": ISWAP, "SQRTSWAP": SQRTSWAP}


def inverse(name: str, qubits: list[int], controls: list[int], value: Any) -> tuple[str, list[int], list[int], Any]:
    """The recorded gate that undoes a recorded gate; a matrix is taken to be unitary."""
    if name in ("PH", "RX", "RY", "RZ"):
        return name, qubits, controls, -value
    if name in ("YtoZ", "ZtoY"):
        return "ZtoY" if name == "YtoZ" else "YtoZ", qubits, controls, value
    if name in ("S", "T", "ISWAP", "SQRTSWAP"):
        return "matrix", qubits, controls, _MATRICES[name].conj().T
    if name == "matrix":
        return name, qubits, controls, value.conj().T
    return name, qubits, controls, value


def conjugate(name: str, qubits: list[int], controls: list[int], value: Any) -> tuple[str, list[int], list[int], Any]:
    """The recorded gate whose matrix is the complex conjugate."""
    if name in ("PH", "RX", "RZ"):
        return name, qubits, controls, -value
    if name in _MATRICES:
        return "matrix", qubits, controls, _MATRICES[name].conj()
    if name == "YtoZ":
        return "matrix", qubits, controls, Y_TO_Z.conj()
    if name == "ZtoY":
        return "matrix", qubits, controls, Y_TO_Z.T
    if name == "matrix":
        return name, qubits, controls, value.conj()
    return name, qubits, controls, value


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


class GateMethods:
    """One method per gate; each returns the object itself, so that calls chain.

    Qubits are numbered from 0, angles are in radians. With `controls`, a list of other qubits, a
    gate acts only where all of them are 1.
    """

    __slots__ = ()

    if TYPE_CHECKING:
        #: What takes the gates: a state of the lower level or a gate sequence.
        _gates: Any

        @property
        def num_qubits(self) -> int: ...

    def h(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """Hadamard: [[1, 1], [1, -1]] / sqrt(2)."""
        self._gates.apply_H(qubit, controls)
        return self

    def x(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """Pauli X: exchanges |0> and |1>."""
        self._gates.apply_X(qubit, controls)
        return self

    def y(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """Pauli Y: [[0, -i], [i, 0]]."""
        self._gates.apply_Y(qubit, controls)
        return self

    def z(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """Pauli Z: diag(1, -1)."""
        self._gates.apply_Z(qubit, controls)
        return self

    def s(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """diag(1, i)."""
        self._gates.apply_S(qubit, controls)
        return self

    def sdg(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """diag(1, -i), the inverse of S."""
        apply_matrix(self._gates, SDG, (qubit,), controls)
        return self

    def t(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """diag(1, e^(i pi/4))."""
        self._gates.apply_T(qubit, controls)
        return self

    def tdg(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """diag(1, e^(-i pi/4)), the inverse of T."""
        apply_matrix(self._gates, TDG, (qubit,), controls)
        return self

    def sx(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """The square root of X: [[1+i, 1-i], [1-i, 1+i]] / 2."""
        apply_matrix(self._gates, SX, (qubit,), controls)
        return self

    def sxdg(self, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """The inverse of the square root of X."""
        apply_matrix(self._gates, SX.conj(), (qubit,), controls)
        return self

    def p(self, theta: float, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """Phase: diag(1, e^(i theta))."""
        self._gates.apply_PH(qubit, theta, controls)
        return self

    def rx(self, theta: float, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """exp(-i theta X / 2)."""
        self._gates.apply_RX(qubit, theta, controls)
        return self

    def ry(self, theta: float, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """exp(-i theta Y / 2)."""
        self._gates.apply_RY(qubit, theta, controls)
        return self

    def rz(self, theta: float, qubit: SupportsIndex, controls: Several | None = None) -> Self:
        """exp(-i theta Z / 2)."""
        self._gates.apply_RZ(qubit, theta, controls)
        return self

    def u(
        self,
        theta: float,
        phi: float,
        lam: float,
        qubit: SupportsIndex,
        controls: Several | None = None,
    ) -> Self:
        """Any one-qubit gate: [[cos(theta/2), -e^(i lam) sin(theta/2)],
        [e^(i phi) sin(theta/2), e^(i (phi + lam)) cos(theta/2)]]."""
        single = getattr(self, "precision", "double") == "float"
        for name, angle in (("theta", theta), ("phi", phi), ("lam", lam)):
            require_finite(angle, name, single)
        apply_matrix(self._gates, u_matrix(theta, phi, lam), (qubit,), controls)
        return self

    def cx(self, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled X (CNOT)."""
        self._gates.apply_CNOT(control, target)
        return self

    def cy(self, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled Y."""
        self._gates.apply_Y(target, (control,))
        return self

    def cz(self, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled Z; the two qubits play the same part."""
        self._gates.apply_CSIGN(control, target)
        return self

    def ch(self, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled Hadamard."""
        self._gates.apply_H(target, (control,))
        return self

    def cp(self, theta: float, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled phase: e^(i theta) where both qubits are 1."""
        self._gates.apply_PH(target, theta, (control,))
        return self

    def crx(self, theta: float, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled exp(-i theta X / 2)."""
        self._gates.apply_RX(target, theta, (control,))
        return self

    def cry(self, theta: float, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled exp(-i theta Y / 2)."""
        self._gates.apply_RY(target, theta, (control,))
        return self

    def crz(self, theta: float, control: SupportsIndex, target: SupportsIndex) -> Self:
        """Controlled exp(-i theta Z / 2)."""
        self._gates.apply_RZ(target, theta, (control,))
        return self

    def ccx(self, control1: SupportsIndex, control2: SupportsIndex, target: SupportsIndex) -> Self:
        """Doubly controlled X (Toffoli)."""
        self._gates.apply_CCNOT(control1, control2, target)
        return self

    def swap(self, qubit1: SupportsIndex, qubit2: SupportsIndex) -> Self:
        """Exchanges two qubits."""
        self._gates.apply_SWAP(qubit1, qubit2)
        return self

    def cswap(self, control: SupportsIndex, qubit1: SupportsIndex, qubit2: SupportsIndex) -> Self:
        """Exchanges two qubits where the control is 1 (Fredkin)."""
        self._gates.apply_2qbit_ctrl_gate((control,), qubit1, qubit2, SWAP)
        return self

    def sqrt_swap(self, qubit1: SupportsIndex, qubit2: SupportsIndex) -> Self:
        """The square root of SWAP."""
        self._gates.apply_SQRTSWAP(qubit1, qubit2)
        return self

    def iswap(self, qubit1: SupportsIndex, qubit2: SupportsIndex) -> Self:
        """Swaps and multiplies the swapped amplitudes by i."""
        self._gates.apply_ISWAP(qubit1, qubit2)
        return self

    def unitary(
        self,
        matrix: ArrayLike,
        qubits: Qubits,
        controls: Several | None = None,
        check: bool = True,
    ) -> Self:
        """A matrix of 2^k rows on k qubits; the first listed qubit is the most significant bit of
        its row and column index. ValueError when it is not unitary, unless `check` is False."""
        if check:
            check_unitary(matrix)
        apply_matrix(self._gates, matrix, as_qubits(qubits), controls)
        return self

    def phase_oracle(self, marked: Iterable[SupportsIndex], qubits: Qubits) -> Self:
        """Negates the amplitudes whose value on `qubits` is one of `marked`; the first listed
        qubit is the most significant bit of the value."""
        listed = self._oracle_qubits(as_qubits(qubits))
        self._gates.apply_phase_oracle(list(marked), listed)
        return self

    def _oracle_qubits(self, qubits: list[int]) -> list[int]:
        # The library's oracle counts qubits from the other end. Numbers out of range stay so.
        last = self.num_qubits - 1
        for qubit in qubits:
            if isinstance(qubit, bool) or not hasattr(qubit, "__index__"):
                raise TypeError(f"qubits must be integers, got {qubit!r}")
            if not 0 <= qubit <= last:
                raise IndexError(f"qubits = {qubit}: expected a qubit between 0 and {last}")
        return [last - qubit for qubit in qubits]
