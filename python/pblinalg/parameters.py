"""Values of parameters, as a run takes them."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import GateMethods, Parameter, parameter_count, parameters_of, require_finite

#: One value for each parameter: in order, or by parameter or name.
Values = Union[ArrayLike, Mapping[Union[Parameter, str], float]]


def values_in_order(circuit: GateMethods, values: Values | None) -> NDArray[np.float64]:
    """One finite number for each parameter of a circuit. ValueError names the first one without a
    value, and what is given for no parameter."""
    if isinstance(values, np.ndarray) and values.dtype == np.float64:
        # Where all is well nobody looks at parameters one by one.
        if values.shape == (parameter_count(circuit),) and np.isfinite(values).all():
            return np.ascontiguousarray(values)
    parameters = parameters_of(circuit)
    if isinstance(values, Mapping):
        given = {_name_of(key): value for key, value in values.items()}
        numbers: list[Any] = []
        for parameter in parameters:
            if parameter.name not in given:
                raise ValueError(f"values: parameter {parameter.name!r} has no value")
            numbers.append(given.pop(parameter.name))
        if given:
            raise ValueError(f"values: {next(iter(given))!r} is no parameter of the circuit")
    else:
        if isinstance(values, (str, bytes)) or not (values is None or hasattr(values, "__len__")):
            raise TypeError(
                f"values must be a sequence of numbers or a dict by parameter, got {values!r}"
            )
        numbers = [] if values is None else list(values)  # type: ignore[arg-type]
        if len(numbers) < len(parameters):
            raise ValueError(
                f"values: parameter {parameters[len(numbers)].name!r} has no value; expected "
                f"{len(parameters)} values, got {len(numbers)}"
            )
        if len(numbers) > len(parameters):
            raise ValueError(
                f"values holds {len(numbers)} elements; expected {len(parameters)}, one for each "
                "parameter"
            )
    for parameter, number in zip(parameters, numbers):
        require_finite(number, f"values: parameter {parameter.name!r}")
    return np.array(numbers, dtype=np.float64)


def _name_of(key: Parameter | str) -> str:
    if isinstance(key, str):
        return key
    if isinstance(key, Parameter) and (key.scale, key.offset) == (1, 0):
        return key.name
    raise TypeError(f"values: keys must be parameters or their names, got {key!r}")
