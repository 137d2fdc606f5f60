"""Controls of gates that a framework nests: outer ones first, each with what it must read."""

from __future__ import annotations

from collections.abc import Iterable, Mapping, Sequence
from typing import Any

#: Controls and what they must read, as keyword arguments of the gate methods.
Under = Mapping[str, Any]


def more_controls(under: Under, controls: Sequence[int], values: Iterable[int]) -> Under:
    """`under` with more controls, which must read `values` of 0 and 1."""
    state = "".join(str(int(value)) for value in values)
    if under:
        return {
            "controls": [*under["controls"], *controls],
            "ctrl_state": under["ctrl_state"] + state,
        }
    return {"controls": list(controls), "ctrl_state": state}
