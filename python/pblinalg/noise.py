"""Noise models: which channels follow which gates, and how measurements err."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, NamedTuple, SupportsIndex, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import GateList
from .arguments import MAX_QUBITS, Qubits, complex_array, index
from .channels import TOLERANCE, Channel
from .gate_names import full_name, is_gate_name, listed_gates
from .gates import as_qubits

if TYPE_CHECKING:
    from typing_extensions import Self

#: One qubit or tuple of qubits that a channel acts on, or several of them.
Places = Union[Qubits, Iterable[Iterable[SupportsIndex]]]


class Site(NamedTuple):
    """A channel between the gates of a list."""

    gates_before: int
    channel: Channel
    qubits: tuple[int, ...]


@dataclass(frozen=True)
class _Rule:
    channel: Channel
    #: None for all gates on as many qubits as the channel.
    gates: frozenset[str] | None
    #: Tuples of qubits; None for all.
    places: tuple[tuple[int, ...], ...] | None

    def after(self, name: str, qubits: tuple[int, ...]) -> list[tuple[int, ...]]:
        """Where the channel acts after a gate on `qubits`."""
        width = self.channel.num_qubits
        if self.gates is None:
            if len(qubits) != width:
                return []
        elif name not in self.gates:
            return []
        elif width > 1 and len(qubits) != width:
            raise ValueError(
                f"noise: {self.channel!r} acts on {width} qubits, the gate {name} on {len(qubits)}"
            )
        own = [(qubit,) for qubit in qubits] if width == 1 else [qubits]
        if self.places is None:
            return own
        # A channel on several qubits acts on them as listed, whichever way round the gate is.
        return [place for mine in own for place in self.places if set(place) == set(mine)]


class NoiseModel:
    """What goes wrong in a circuit: channels after gates, and errors of measurements.

    >>> noise = NoiseModel().add(Channel.depolarizing(0.001))
    >>> noise.add(Channel.depolarizing(0.01, num_qubits=2), gates=["cx", "cz"])
    >>> noise.add_readout_error([[0.98, 0.02], [0.05, 0.95]])
    >>> run(circuit, shots=10000, noise=noise, seed=1)

    Several rules may apply to a gate; their channels follow in the order in which they were added.
    It can be copied and pickled.
    """

    __slots__ = ("_rules", "_readout")

    def __init__(self) -> None:
        self._rules: list[_Rule] = []
        #: Confusion matrices by qubit; the one of None is that of all others.
        self._readout: dict[int | None, NDArray[np.float64]] = {}

    def add(
        self,
        channel: Channel,
        gates: str | Iterable[str] | None = None,
        qubits: Places | None = None,
    ) -> Self:
        """Lets a channel follow gates.

        gates: names as in `Circuit.count_ops`, controls included: "h", "cx", ["cx", "ccz"]. A
        channel on one qubit then acts on each qubit of the gate, one on several qubits wants gates
        on as many (ValueError when the circuit runs). By default all gates on as many qubits as the
        channel.

        qubits: where alone it acts: a qubit or a list of them, for a channel on several qubits a
        tuple of them or a list of tuples. It acts on the qubits as listed, controls of a gate
        counting like its targets. By default wherever the gates act.
        """
        if not isinstance(channel, Channel):
            raise TypeError(f"channel must be a Channel, got {channel!r}")
        names = None
        if gates is not None:
            names = frozenset([gates] if isinstance(gates, str) else gates)
            for name in names:
                if not is_gate_name(name):
                    raise ValueError(
                        f"gates: {name!r} is no gate; expected names as in Circuit.count_ops, such "
                        "as 'h', 'rx', 'cx'"
                    )
        places = None if qubits is None else _places(qubits, channel.num_qubits)
        self._rules.append(_Rule(channel, names, places))
        return self

    def add_readout_error(self, matrix: ArrayLike, qubits: Qubits | None = None) -> Self:
        """Lets measurements err: row i of the 2x2 matrix holds the probabilities that a qubit in
        state i is read as 0 and as 1. By default on all qubits that no other call names; a later
        call takes the place of an earlier one."""
        array = complex_array(matrix, "matrix")
        if array.shape != (2, 2):
            raise ValueError(f"matrix has shape {array.shape}; expected (2, 2)")
        table = np.ascontiguousarray(array.real)
        if array.imag.any() or not ((table >= 0) & (table <= 1)).all():
            raise ValueError(f"matrix = {table.tolist()}: expected probabilities between 0 and 1")
        if not np.abs(table.sum(axis=1) - 1).max() <= TOLERANCE:
            raise ValueError(f"matrix = {table.tolist()}: expected rows that add up to 1")
        listed: list[Any] = [None]
        if qubits is not None:
            listed = [index(qubit, "qubits", MAX_QUBITS - 1) for qubit in as_qubits(qubits)]
        self._readout.update(dict.fromkeys(listed, table))
        return self

    def readout_error(self, qubit: int) -> NDArray[np.float64]:
        """The confusion matrix of a qubit, the identity where it is read without errors."""
        table = self._readout.get(qubit, self._readout.get(None))
        return np.eye(2) if table is None else table.copy()

    def copy(self) -> Self:
        """A model of its own with the same rules."""
        result = type(self)()
        result._rules = list(self._rules)
        result._readout = dict(self._readout)
        return result

    __copy__ = copy

    def __repr__(self) -> str:
        return f"NoiseModel(rules={len(self._rules)}, readout_errors={len(self._readout)})"


def check_noise(noise: NoiseModel | None, num_qubits: int) -> None:
    """TypeError for what is no noise model, IndexError when it names a qubit that a circuit of
    `num_qubits` does not have."""
    if noise is None:
        return
    if not isinstance(noise, NoiseModel):
        raise TypeError(f"noise must be a NoiseModel or None, got {noise!r}")
    named = {qubit for rule in noise._rules for place in rule.places or () for qubit in place}
    for qubit in sorted(named | {qubit for qubit in noise._readout if qubit is not None}):
        if qubit >= num_qubits:
            raise IndexError(f"noise: qubit {qubit} is named; the circuit has {num_qubits}")


def channel_sites(noise: NoiseModel | None, gates: GateList) -> list[Site]:
    """The channels that follow the gates of a list, in order."""
    if noise is None or not noise._rules:
        return []
    known: dict[tuple[str, tuple[int, ...]], list[tuple[Channel, tuple[int, ...]]]] = {}
    sites = []
    for place, gate in enumerate(listed_gates(gates)):
        name, qubits = full_name(gate), (*gate.controls, *gate.targets)
        if (name, qubits) not in known:
            known[name, qubits] = [
                (rule.channel, at) for rule in noise._rules for at in rule.after(name, qubits)
            ]
        sites += [Site(place + 1, *found) for found in known[name, qubits]]
    return sites


def _places(qubits: Places, width: int) -> tuple[tuple[int, ...], ...]:
    """Tuples of `width` different qubits."""
    listed: list[Any] = as_qubits(qubits)  # type: ignore[arg-type]
    if width == 1:
        listed = [[entry] if hasattr(entry, "__index__") else entry for entry in listed]
    elif all(hasattr(entry, "__index__") for entry in listed):
        listed = [listed]
    places = []
    for entry in listed:
        place = tuple(index(qubit, "qubits", MAX_QUBITS - 1) for qubit in as_qubits(entry))
        if len(place) != width or len(set(place)) != width:
            raise ValueError(
                f"qubits: {entry!r} names {len(place)} qubits; expected {width} different ones, on "
                "which the channel acts"
            )
        places.append(place)
    return tuple(places)
