"""Recorded gates under the names that people use, for pictures, counts and text formats."""

from __future__ import annotations

import re
from collections.abc import Iterator

from ._core import GateList, gate_table
from .gates import Gate

#: Methods by the library's name, where they are not the same in small letters.
_OTHER_NAMES = {
    "PH": "p", "GPHASE": "global_phase", "SQRTSWAP": "sqrt_swap", "SQRTSWAPdg": "sqrt_swap_dg",
    "YtoZ": "y_to_z", "ZtoY": "z_to_y", "matrix": "unitary",
}  # fmt: skip
_NAMES: dict[str, str] = {name: _OTHER_NAMES.get(name, name.lower()) for name, *_ in gate_table}


def listed_gates(gates: GateList) -> Iterator[Gate]:
    """The gates of a list in order."""
    for i in range(len(gates)):
        yield Gate(*gates.gate(i))


def plain_name(gate: Gate) -> str:
    """The name of the method that records a gate, without its controls."""
    return _NAMES[gate.name]


def full_name(gate: Gate) -> str:
    """The name with its controls: "cx", "ccz", "c3h"."""
    count = len(gate.controls)
    return ("c" * count if count < 3 else f"c{count}") + plain_name(gate)


def is_gate_name(name: str) -> bool:
    """True for what `full_name` gives of some gate."""
    if not isinstance(name, str):
        return False
    plain = re.fullmatch(r"(?:cc?|c(?:[3-9]|[1-9]\d+))?(\w+)", name)
    return name in _NAMES.values() or (plain is not None and plain[1] in _NAMES.values())


def control_bits(gate: Gate) -> dict[int, int]:
    """What each control reads where the gate acts."""
    last = len(gate.controls) - 1
    return {qubit: gate.ctrl_state >> last - i & 1 for i, qubit in enumerate(gate.controls)}
